// Runs the whole operation over the hand-marked corpus and reports precision
// and recall per kind of match.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <tuple>

#include "loomwork/additions/LWURLDetectionOperation.h"
#include "loomwork/platform/TextServices.h"

namespace loomwork {
namespace {

struct Collector : LWURLDetectionOperationDelegate {
  std::vector<std::string> urls;
  std::vector<IndexRange> ranges;
  int calls = 0;
  void urlDetectionOperationDidFinishWithURLsCharacterRanges(LWURLDetectionOperation&,
                                                             const std::vector<std::string>& u,
                                                             const std::vector<IndexRange>& r) override {
    urls = u;
    ranges = r;
    ++calls;
  }
};

char kindOfURL(const std::string& url) {
  if (url.starts_with("mailto:")) return 'E';
  if (url.starts_with("tel://")) return 'P';
  if (url.starts_with("message:")) return 'M';
  if (url.starts_with(LWURLDetectionOperation::mapsSearchAddress())) return 'A';
  return 'L';
}

// (kind, UTF-16 location, UTF-16 length)
using Expected = std::tuple<char, int64_t, int64_t>;

// Strips the ⟦K:...⟧ marks from a corpus line, returning the plain text and the marked spans.
std::string parseLine(std::string_view line, std::set<Expected>& expected) {
  std::string text;
  size_t i = 0;
  while (i < line.size()) {
    if (line.substr(i).starts_with("\\n")) {
      text += '\n';
      i += 2;
    } else if (line.substr(i).starts_with("⟦")) {
      const char kind = line[i + 3];
      const size_t close = line.find("⟧", i);
      std::string inner(line.substr(i + 5, close - i - 5));
      for (size_t p; (p = inner.find("\\n")) != std::string::npos;) inner.replace(p, 2, "\n");
      const auto location = static_cast<int64_t>(utf16FromUTF8(text).size());
      expected.emplace(kind, location, static_cast<int64_t>(utf16FromUTF8(inner).size()));
      text += inner;
      i = close + 3;
    } else {
      text += line[i++];
    }
  }
  return text;
}

TEST(URLDetectionCorpus, PrecisionAndRecallPerKind) {
  const char* data = std::getenv("LOOMWORK_TEST_DATA");
  std::ifstream in(std::string(data ? data : ".") + "/urldetection/corpus.txt");
  ASSERT_TRUE(in) << "run from tests/additions or set LOOMWORK_TEST_DATA";
  std::map<char, int> truePositives, found, expectedCount;
  std::string region = "US";
  std::string line;
  int lineNumber = 0;
  std::vector<std::string> misses;
  while (std::getline(in, line)) {
    ++lineNumber;
    if (line.empty() || line[0] == '#') continue;
    if (line.starts_with("region: ")) {
      region = line.substr(8);
      continue;
    }
    std::set<Expected> expected;
    const std::string text = parseLine(line, expected);
    auto operation = make<LWURLDetectionOperation>(
        text, TextCheckingTypeLink | TextCheckingTypeAddress | TextCheckingTypePhoneNumber);
    operation->setRegion(region);
    auto collector = std::make_shared<Collector>();
    operation->setDelegate(collector);
    operation->main();
    ASSERT_EQ(collector->calls, 1);
    ASSERT_EQ(collector->urls.size(), collector->ranges.size());
    std::set<Expected> actual;
    for (size_t k = 0; k < collector->urls.size(); ++k)
      actual.emplace(kindOfURL(collector->urls[k]), collector->ranges[k].location, collector->ranges[k].length);
    for (const Expected& e : expected) {
      ++expectedCount[std::get<0>(e)];
      if (actual.count(e))
        ++truePositives[std::get<0>(e)];
      else
        misses.push_back("line " + std::to_string(lineNumber) + ": missed " + std::get<0>(e) + " at " +
                         std::to_string(std::get<1>(e)) + "+" + std::to_string(std::get<2>(e)));
    }
    for (size_t k = 0; k < collector->urls.size(); ++k) {
      const Expected a{kindOfURL(collector->urls[k]), collector->ranges[k].location, collector->ranges[k].length};
      ++found[std::get<0>(a)];
      if (!expected.count(a))
        misses.push_back("line " + std::to_string(lineNumber) + ": extra " + collector->urls[k] + " at " +
                         std::to_string(std::get<1>(a)) + "+" + std::to_string(std::get<2>(a)));
    }
  }
  for (const std::string& miss : misses) std::printf("  %s\n", miss.c_str());
  std::printf("  kind        expected found correct precision recall\n");
  const std::map<char, const char*> names = {
      {'L', "link"}, {'E', "e-mail"}, {'P', "phone"}, {'A', "address"}, {'M', "message"}};
  int allCorrect = 0, allFound = 0, allExpected = 0;
  for (const auto& [kind, name] : names) {
    const int tp = truePositives[kind], f = found[kind], e = expectedCount[kind];
    allCorrect += tp, allFound += f, allExpected += e;
    std::printf("  %-10s %9d %5d %7d %9.3f %6.3f\n", name, e, f, tp, f ? double(tp) / f : 1.0,
                e ? double(tp) / e : 1.0);
    EXPECT_GT(e, 0) << name;
  }
  // The corpus is this detector's own yardstick: a regression shows up here.
  EXPECT_GE(double(allCorrect) / allFound, 0.95);
  EXPECT_GE(double(allCorrect) / allExpected, 0.95);
}

}  // namespace
}  // namespace loomwork
