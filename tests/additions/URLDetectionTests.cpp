// The data detector's URLs, components and ranges, the operation's
// reporting, cancellation and behaviour on hostile text, and its precision and
// recall per kind of match over the hand-marked corpus.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <tuple>

#include "loomwork/additions/LWURLDetectionOperation.h"
#include "loomwork/platform/TextServices.h"

namespace loomwork {
namespace {

constexpr uint64_t kAllTypes = TextCheckingTypeLink | TextCheckingTypeAddress | TextCheckingTypePhoneNumber;

struct Collector : LWURLDetectionOperationDelegate {
  std::mutex mutex;
  std::vector<std::string> urls;
  std::vector<IndexRange> ranges;
  int calls = 0;
  void urlDetectionOperationDidFinishWithURLsCharacterRanges(LWURLDetectionOperation&,
                                                             const std::vector<std::string>& u,
                                                             const std::vector<IndexRange>& r) override {
    std::lock_guard lock(mutex);
    urls = u;
    ranges = r;
    ++calls;
  }
};

// Runs an operation on the calling thread (no dispatcher installed).
std::shared_ptr<Collector> run(std::string_view text, uint64_t types = kAllTypes, std::string region = "US") {
  auto operation = make<LWURLDetectionOperation>(text, types);
  operation->setRegion(std::move(region));
  auto collector = std::make_shared<Collector>();
  operation->setDelegate(collector);
  operation->main();
  return collector;
}

// A test's stand-in for the host's main thread: tasks wait until drained.
struct MainQueue {
  std::mutex mutex;
  std::vector<std::function<void()>> tasks;
  MainQueue() {
    LWURLDetectionOperation::setMainThreadDispatcher([this](std::function<void()> task) {
      std::lock_guard lock(mutex);
      tasks.push_back(std::move(task));
    });
  }
  ~MainQueue() { LWURLDetectionOperation::setMainThreadDispatcher(nullptr); }
  size_t drain() {
    std::vector<std::function<void()>> now;
    {
      std::lock_guard lock(mutex);
      now.swap(tasks);
    }
    for (auto& task : now) task();
    return now.size();
  }
};

TEST(URLDetection, LinkURLsAndRanges) {
  const struct {
    const char* text;
    const char* matched;
    const char* url;
  } cases[] = {
      {"see https://bücher.de/straße.", "https://bücher.de/straße", "https://xn--bcher-kva.de/stra%C3%9Fe"},
      {"go www.example.com now", "www.example.com", "http://www.example.com"},
      {"at пример.рф.", "пример.рф", "http://xn--e1afmkfd.xn--p1ai"},
      {"to john.doe@example.com.", "john.doe@example.com", "mailto:john.doe@example.com"},
      {"MAILTO:a@b.com?subject=Hi!", "MAILTO:a@b.com?subject=Hi", "MAILTO:a@b.com?subject=Hi"},
      {"x example.com/a(b)c) y", "example.com/a(b)c", "http://example.com/a(b)c"},
      {"[http://[::1]:631/jobs]", "http://[::1]:631/jobs", "http://[::1]:631/jobs"},
      {"'http://example.com/it's'", "http://example.com/it's", "http://example.com/it's"},
      {"😀 example.com", "example.com", "http://example.com"},
      {"\xff\xfe example.com", "example.com", "http://example.com"},
  };
  auto detector = DataDetector::initWithTypes(TextCheckingTypeLink);
  for (const auto& c : cases) {
    const auto matches = detector->matchesInString(c.text);
    ASSERT_EQ(matches.size(), 1u) << c.text;
    EXPECT_EQ(matches[0].url.value_or(""), c.url) << c.text;
    // The range counts UTF-16 units of the text as read (bad bytes as U+FFFD).
    const std::u16string text = utf16FromUTF8(c.text);
    const std::u16string matched = utf16FromUTF8(c.matched);
    EXPECT_EQ(text.substr(size_t(matches[0].range.location), size_t(matches[0].range.length)), matched) << c.text;
  }
  EXPECT_TRUE(DataDetectorIsKnownTopLevelDomain("COM"));
  EXPECT_TRUE(DataDetectorIsKnownTopLevelDomain("рф"));
  EXPECT_FALSE(DataDetectorIsKnownTopLevelDomain("txt"));
  EXPECT_EQ(DataDetector::initWithTypes(0), nullptr);
  EXPECT_EQ(DataDetector::initWithTypes(1 << 20), nullptr);
}

TEST(URLDetection, AddressComponentsAndLinks) {
  auto detector = DataDetector::initWithTypes(TextCheckingTypeAddress);
  const auto matches =
      detector->matchesInString("Ship to 221 W 42nd Street, Suite 400, New York, New York 10036, USA please");
  ASSERT_EQ(matches.size(), 1u);
  const DataDetectorMatch& m = matches[0];
  EXPECT_EQ(m.addressComponent(kAddressStreetKey), "221 W 42nd Street, Suite 400");
  EXPECT_EQ(m.addressComponent(kAddressCityKey), "New York");
  EXPECT_EQ(m.addressComponent(kAddressStateKey), "New York");
  EXPECT_EQ(m.addressComponent(kAddressZIPKey), "10036");
  EXPECT_EQ(m.addressComponent(kAddressCountryKey), "USA");
  EXPECT_EQ(LWURLDetectionOperation::linkForMatch(m),
            "https://maps.google.com/?q=221%20W%2042nd%20Street,%20Suite%20400,%20New%20York,%20New%20York,"
            "%2010036,%20USA");

  // "=", "?" and "&" are encoded inside the q value; the setting is used as given.
  DataDetectorMatch odd;
  odd.resultType = TextCheckingTypeAddress;
  odd.addressComponents = {{"Country", "X"}, {"City", "A&B=C?D"}};
  LWURLDetectionOperation::setMapsSearchAddress("https://maps.example/?q=");
  EXPECT_EQ(LWURLDetectionOperation::linkForMatch(odd), "https://maps.example/?q=A%26B%3DC%3FD,%20X");
  LWURLDetectionOperation::setMapsSearchAddress("https://maps.google.com/?q=");

  DataDetectorMatch phone;
  phone.phoneNumber = "+1 (415) 555-0132 #2";
  EXPECT_EQ(LWURLDetectionOperation::linkForMatch(phone), "tel://+1%20(415)%20555-0132%20%232");
  EXPECT_EQ(LWURLDetectionOperation::linkForMatch(DataDetectorMatch{}), std::nullopt);
}

TEST(URLDetection, PhoneRegionAndDates) {
  auto detector = DataDetector::initWithTypes(TextCheckingTypePhoneNumber);
  detector->setRegion("DE");
  EXPECT_EQ(detector->matchesInString("Tel 030 12345678, geboren 05.10.1986, am 3/10/1984").size(), 1u);
  detector->setRegion("US");
  EXPECT_TRUE(detector->matchesInString("Tel 030 12345678").empty());

  // The cancellation check ends the slow phone scan early.
  std::string many;
  for (int i = 0; i < 50; ++i) many += "call (415) 555-01" + std::to_string(10 + i) + " now. ";
  EXPECT_EQ(detector->matchesInString(many).size(), 50u);
  int asked = 0;
  detector->setCancellationCheck([&] { return ++asked > 3; });
  EXPECT_EQ(detector->matchesInString(many).size(), 3u);
  EXPECT_EQ(asked, 4);
  EXPECT_EQ(detector->region(), "US");
  EXPECT_EQ(DataDetector::defaultRegion().size(), 2u);
}

TEST(URLDetection, OperationEdgeCases) {
  // An empty text reports two empty lists.
  auto empty = run("");
  EXPECT_EQ(empty->calls, 1);
  EXPECT_TRUE(empty->urls.empty() && empty->ranges.empty());

  // Types without a supported bit make no detector: nothing is reported.
  EXPECT_EQ(run("example.com", 0)->calls, 0);

  // The e-mail address inside a message link goes; the message link stays.
  auto message = run("see message:%3Cabc@example.com%3E now", TextCheckingTypeLink);
  ASSERT_EQ(message->urls.size(), 1u);
  EXPECT_EQ(message->urls[0], "message:%3Cabc@example.com%3E");
  EXPECT_EQ(message->ranges[0], (IndexRange{4, 29}));

  // Without the link bit there is no message pass.
  auto phoneOnly = run("message:%3Cabc@example.com%3E call (415) 555-0132", TextCheckingTypePhoneNumber);
  ASSERT_EQ(phoneOnly->urls.size(), 1u);
  EXPECT_EQ(phoneOnly->urls[0], "tel://(415)%20555-0132");

  // Message links follow the other links and removals keep the lists parallel.
  auto mixed = run("a.example.com message:x@a.example.com b.example.com", TextCheckingTypeLink);
  ASSERT_EQ(mixed->urls.size(), 3u);
  EXPECT_EQ(mixed->urls[2], "message:x@a.example.com");
  EXPECT_EQ(mixed->ranges[1], (IndexRange{38, 13}));

  // Candidates: the shorter of "up to %3E" and "up to the stop set"; invalid references are skipped.
  auto op = make<LWURLDetectionOperation>("message:a%3Eb message:c,d message:%zz message:é (message:%3Cq%3E) message:",
                                          TextCheckingTypeLink);
  std::vector<std::string> urls;
  std::vector<IndexRange> ranges;
  op->enumerateMessageURLMatches([&](const std::string& url, IndexRange range) {
    urls.push_back(url);
    ranges.push_back(range);
  });
  EXPECT_EQ(urls, (std::vector<std::string>{"message:a%3E", "message:c", "message:%3Cq%3E"}));
  EXPECT_EQ(ranges[2], (IndexRange{49, 15}));

  const std::vector<int> numbers{1, 2, 3};
  FastEnumerationIterator iterator(numbers);
  int sum = 0;
  while (const int* n = iterator.next()) sum += *n;
  EXPECT_EQ(sum, 6);
}

TEST(URLDetection, CancellationAndDelegateLifetime) {
  MainQueue mainQueue;
  const std::string text = "example.com message:%3Ca@b.com%3E (415) 555-0132";

  // Cancelled before main: the enumeration stops at once and nothing is reported.
  auto before = make<LWURLDetectionOperation>(text, kAllTypes);
  auto collector = std::make_shared<Collector>();
  before->setDelegate(collector);
  before->cancel();
  before->main();
  mainQueue.drain();
  EXPECT_EQ(collector->calls, 0);
  EXPECT_TRUE(before->isFinished());

  // Cancelled after main, before the main thread runs the report.
  auto late = make<LWURLDetectionOperation>(text, kAllTypes);
  late->setDelegate(collector);
  late->main();
  late->cancel();
  EXPECT_EQ(mainQueue.drain(), 1u);
  EXPECT_EQ(collector->calls, 0);

  // Cancelled inside the message pass: the scan ends after the current link.
  auto during = make<LWURLDetectionOperation>("message:a message:b message:c", TextCheckingTypeLink);
  int seen = 0;
  during->enumerateMessageURLMatches([&](const std::string&, IndexRange) {
    ++seen;
    during->cancel();
  });
  EXPECT_EQ(seen, 1);

  // A delegate that is gone by the time of the report is not called; the
  // report keeps the operation alive even when the host dropped it.
  auto gone = std::make_shared<Collector>();
  {
    auto operation = make<LWURLDetectionOperation>(text, kAllTypes);
    operation->setDelegate(gone);
    operation->main();
  }
  std::weak_ptr<Collector> weak = gone;
  gone.reset();
  EXPECT_EQ(mainQueue.drain(), 1u);
  EXPECT_TRUE(weak.expired());

  // Reported on the main thread only, once, with parallel lists.
  auto ok = make<LWURLDetectionOperation>(text, kAllTypes);
  ok->setDelegate(collector);
  ok->main();
  EXPECT_EQ(collector->calls, 0);
  mainQueue.drain();
  EXPECT_EQ(collector->calls, 1);
  EXPECT_EQ(collector->urls.size(), 3u);
  EXPECT_EQ(collector->ranges.size(), 3u);
}

// Operations on the worker queue, cancelled at random moments: whatever was
// cancelled before the main thread ran its report never reports; the others
// report exactly once.
TEST(URLDetection, RandomCancellationOnTheQueue) {
  const unsigned seed = 20261123;
  std::mt19937 random(seed);
  MainQueue mainQueue;
  std::string text;
  for (int i = 0; i < 300; ++i) text += "Visit example.com or call (415) 555-0132, message:%3Cx@y.com%3E. ";
  std::vector<Ref<LWURLDetectionOperation>> operations;
  std::vector<std::shared_ptr<Collector>> collectors;
  {
    LWURLDetectionOperationQueue queue;
    for (int i = 0; i < 12; ++i) {
      operations.push_back(make<LWURLDetectionOperation>(text, kAllTypes));
      collectors.push_back(std::make_shared<Collector>());
      operations.back()->setDelegate(collectors.back());
      queue.addOperation(operations.back());
    }
    for (int i = 0; i < 12; i += 2) {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
      operations[size_t(i)]->cancel();
    }
    queue.waitUntilAllOperationsAreFinished();
  }
  mainQueue.drain();
  for (size_t i = 0; i < operations.size(); ++i) {
    EXPECT_TRUE(operations[i]->isFinished());
    EXPECT_EQ(collectors[i]->calls, i % 2 == 0 ? 0 : 1) << "operation " << i << ", seed " << seed;
    EXPECT_EQ(collectors[i]->urls.size(), collectors[i]->ranges.size());
  }
}

// Random texts from link-like pieces, separators and hostile bytes: the two
// lists are always of equal length, every range lies inside the text, ranges
// do not overlap, and every URL is well formed.
TEST(URLDetection, RandomTextsKeepTheListsParallel) {
  // clang-format off
  const char* pieces[] = {"example.com", "www.x.org/a(b)", "a@b.co", "(415) 555-0132", "message:%3Cm@x.com%3E",
                          "message:", "%3E", "1 Main St, Springfield, IL 62701", "v1.2.3", "https://", "::", "..",
                          "@", "(", ")", "\"", "😀", "e\u0301", "\xff", "\xe2\x82", "\n", " ", ",", "http://[::1]",
                          "05.10.1986", "+49 30 901820"};
  // clang-format on
  for (unsigned seed = 1; seed <= 300; ++seed) {
    std::mt19937 random(seed);
    std::string text;
    const int count = int(random() % 30);
    for (int i = 0; i < count; ++i) text += pieces[random() % std::size(pieces)];
    auto collector = run(text);
    ASSERT_EQ(collector->calls, 1) << "seed " << seed;
    ASSERT_EQ(collector->urls.size(), collector->ranges.size()) << "seed " << seed;
    const auto length = int64_t(utf16FromUTF8(text).size());
    for (size_t k = 0; k < collector->ranges.size(); ++k) {
      const IndexRange r = collector->ranges[k];
      EXPECT_TRUE(r.location >= 0 && r.length > 0 && r.end() <= length) << "seed " << seed;
      for (size_t j = 0; j < k; ++j)
        EXPECT_FALSE(collector->ranges[j].location < r.end() && r.location < collector->ranges[j].end())
            << "seed " << seed;
      EXPECT_NE(collector->urls[k].find(':'), std::string::npos) << "seed " << seed;
      for (char c : collector->urls[k]) EXPECT_TRUE(c > 0x20 && c < 0x7F) << "seed " << seed;
    }
  }
}

std::string times(std::string_view piece, size_t count) {
  std::string s;
  while (count-- > 0) s += piece;
  return s;
}

TEST(URLDetection, HostileTextsFinishWithSaneResults) {
  const std::string url = "https://example.com/" + times("segment/", 131070);  // a megabyte
  std::string highBytes;
  for (int i = 0; i < 100000; ++i) highBytes += char(0x80 + i % 64);
  // clang-format off
  const std::pair<std::string, size_t> cases[] = {
      {std::string(1 << 20, 'a'), 0}, {std::string(100000, '.'), 0}, {"x" + std::string(100000, '.') + "com", 0},
      {times("😀", 50000), 0}, {"e" + times("\u0301", 100000) + ".com", 0},
      {"http://example.com/" + std::string(100000, '(') + std::string(100000, ')'), 1},
      {std::string(100000, '[') + "example.com" + std::string(100000, ']'), 1}, {url, 1}, {times("a@", 100000), 0},
      {times("a.b@", 50000), 0}, {times("x://", 50000), 0}, {times("message:", 30000), 1},
      {std::string(200000, '1'), 0}, {highBytes, 0},
  };
  // clang-format on
  for (const auto& [text, links] : cases) {
    auto collector = run(text);
    ASSERT_EQ(collector->calls, 1);
    EXPECT_EQ(collector->urls.size(), links) << text.substr(0, 40);
    EXPECT_EQ(collector->urls.size(), collector->ranges.size());
  }
  auto whole = run(url, TextCheckingTypeLink);
  ASSERT_EQ(whole->ranges.size(), 1u);
  EXPECT_EQ(whole->ranges[0], (IndexRange{0, int64_t(url.size())}));
}

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

// Prints every miss and a table per kind; the corpus is this detector's own
// yardstick, so a regression shows up here.
TEST(URLDetectionCorpus, PrecisionAndRecallPerKind) {
  const char* data = std::getenv("LOOMWORK_TEST_DATA");
  std::ifstream in(std::string(data ? data : ".") + "/urldetection/corpus.txt");
  ASSERT_TRUE(in) << "run from tests/additions or set LOOMWORK_TEST_DATA";
  std::map<char, int> correct, found, expectedCount;
  std::string region = "US", line;
  for (int lineNumber = 1; std::getline(in, line); ++lineNumber) {
    if (line.empty() || line[0] == '#') continue;
    if (line.starts_with("region: ")) {
      region = line.substr(8);
      continue;
    }
    std::set<Expected> expected, actual;
    auto collector = run(parseLine(line, expected), kAllTypes, region);
    ASSERT_EQ(collector->calls, 1);
    ASSERT_EQ(collector->urls.size(), collector->ranges.size());
    auto report = [&](const std::string& what, const Expected& e) {
      std::printf("  line %d: %s at %lld+%lld\n", lineNumber, what.c_str(), static_cast<long long>(std::get<1>(e)),
                  static_cast<long long>(std::get<2>(e)));
    };
    for (size_t k = 0; k < collector->urls.size(); ++k) {
      const Expected a{kindOfURL(collector->urls[k]), collector->ranges[k].location, collector->ranges[k].length};
      actual.insert(a);
      ++found[std::get<0>(a)];
      if (!expected.count(a)) report("extra " + collector->urls[k], a);
    }
    for (const Expected& e : expected) {
      ++expectedCount[std::get<0>(e)];
      if (actual.count(e))
        ++correct[std::get<0>(e)];
      else
        report(std::string("missed ") + std::get<0>(e), e);
    }
  }
  std::printf("  kind        expected found correct precision recall\n");
  int allCorrect = 0, allFound = 0, allExpected = 0;
  for (const auto& [kind, name] : std::map<char, const char*>{
           {'L', "link"}, {'E', "e-mail"}, {'P', "phone"}, {'A', "address"}, {'M', "message"}}) {
    const int tp = correct[kind], f = found[kind], e = expectedCount[kind];
    allCorrect += tp, allFound += f, allExpected += e;
    std::printf("  %-10s %9d %5d %7d %9.3f %6.3f\n", name, e, f, tp, f ? double(tp) / f : 1.0,
                e ? double(tp) / e : 1.0);
    EXPECT_GT(e, 0) << name;
  }
  EXPECT_GE(double(allCorrect) / allFound, 0.95);
  EXPECT_GE(double(allCorrect) / allExpected, 0.95);
}

}  // namespace
}  // namespace loomwork
