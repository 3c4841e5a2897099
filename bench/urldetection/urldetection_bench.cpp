// Link detection throughput. The text is generated from a fixed seed: prose
// in several languages with links, e-mail addresses, version numbers, file
// names, decimals, dates, phone numbers and addresses mixed in, as notes have
// them. After the Google Benchmark runs, the program times linkify-it on the
// same text with node and prints both throughputs and link counts.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "loomwork/additions/LWURLDetectionOperation.h"
#include "loomwork/platform/DataDetector.h"

namespace {

using namespace loomwork;

std::string mixedProse(size_t bytes, unsigned seed = 7) {
  static const char* words[] = {
      "the",      "meeting",    "notes",    "from",    "yesterday", "are",        "attached", "and",
      "we",       "should",     "review",   "them",    "before",    "Friday",     "project",  "plan",
      "budget",   "update",     "please",   "check",   "with",      "team",       "about",    "release",
      "schedule", "customer",   "feedback", "was",     "positive",  "overall",    "but",      "some",
      "issues",   "remain",     "open",     "in",      "tracker",   "it",         "is",       "a",
      "good",     "idea",       "to",       "write",   "down",      "everything", "Die",      "Besprechung",
      "wurde",    "verschoben", "auf",      "nächste", "Woche",     "Grüße",      "Straße",   "für",
      "встреча",  "перенесена", "на",       "завтра",  "会议",      "改到",       "明天",     "下午",
      "café",     "naïve",      "résumé"};
  static const char* extras[] = {"https://example.com/docs/index.html",
                                 "http://intranet.example.org:8080/wiki/Plan_(2024)?rev=3#notes",
                                 "www.example.net/path",
                                 "github.com/org/repo/issues/42",
                                 "docs.python.org/3/library/re.html",
                                 "news.example.co.uk",
                                 "mailto:team@example.org",
                                 "john.doe@example.com",
                                 "support+tickets@mail.example.io",
                                 "v1.2.3",
                                 "2.0.1",
                                 "notes.txt",
                                 "node.js",
                                 "setup.py",
                                 "3.14",
                                 "99.5%",
                                 "05.10.1986",
                                 "3/10/1984",
                                 "2024-01-15",
                                 "(415) 555-0132",
                                 "+44 20 7946 0958",
                                 "1600 Amphitheatre Parkway, Mountain View, CA 94043",
                                 "message:%3C1234.5678@mail.example.com%3E",
                                 "e.g.",
                                 "i.e.",
                                 "U.S.",
                                 "Mr.",
                                 "ticket #98765",
                                 "12:30",
                                 "https://de.wikipedia.org/wiki/Köln",
                                 "bücher.de",
                                 "😀",
                                 "…"};
  std::mt19937 random(seed);
  std::string text;
  text.reserve(bytes + 256);
  while (text.size() < bytes) {
    const int sentence = 6 + int(random() % 14);
    for (int w = 0; w < sentence; ++w) {
      if (random() % 9 == 0)
        text += extras[random() % std::size(extras)];
      else
        text += words[random() % std::size(words)];
      text += (w + 1 == sentence) ? (random() % 4 == 0 ? ".\n" : ". ") : (random() % 12 == 0 ? ", " : " ");
    }
  }
  return text;
}

const std::string& prose() {
  static const std::string text = mixedProse(4 << 20);
  return text;
}

void detect(benchmark::State& state, uint64_t types) {
  auto detector = DataDetector::initWithTypes(types);
  detector->setRegion("US");
  size_t found = 0;
  for (auto _ : state) {
    found = 0;
    detector->enumerateMatchesInString(prose(), [&](const DataDetectorMatch&, bool&) { ++found; });
  }
  state.SetBytesProcessed(int64_t(state.iterations() * prose().size()));
  state.counters["matches"] = double(found);
}

void BM_LinksAndEmails(benchmark::State& state) { detect(state, TextCheckingTypeLink); }
void BM_PhoneNumbers(benchmark::State& state) { detect(state, TextCheckingTypePhoneNumber); }
void BM_Addresses(benchmark::State& state) { detect(state, TextCheckingTypeAddress); }
void BM_AllKinds(benchmark::State& state) {
  detect(state, TextCheckingTypeLink | TextCheckingTypeAddress | TextCheckingTypePhoneNumber);
}

// The whole operation, message links and URL making included.
void BM_OperationAllKinds(benchmark::State& state) {
  size_t reported = 0;
  struct Counter : LWURLDetectionOperationDelegate {
    size_t* count;
    void urlDetectionOperationDidFinishWithURLsCharacterRanges(LWURLDetectionOperation&,
                                                               const std::vector<std::string>& urls,
                                                               const std::vector<IndexRange>&) override {
      *count = urls.size();
    }
  };
  auto counter = std::make_shared<Counter>();
  counter->count = &reported;
  for (auto _ : state) {
    auto operation = make<LWURLDetectionOperation>(
        prose(), TextCheckingTypeLink | TextCheckingTypeAddress | TextCheckingTypePhoneNumber);
    operation->setRegion("US");
    operation->setDelegate(counter);
    operation->main();
  }
  state.SetBytesProcessed(int64_t(state.iterations() * prose().size()));
  state.counters["links"] = double(reported);
}

// Hostile texts at growing sizes: bytes per second stays level when time is linear.
std::string hostile(int kind, size_t bytes) {
  std::string s;
  auto repeat = [&](std::string_view piece) {
    while (s.size() < bytes) s += piece;
  };
  switch (kind) {
    case 0:
      repeat("abcdefgh");
      break;  // no spaces
    case 1:
      repeat(".");
      break;  // dots
    case 2:
      repeat("😀e\u0301\u0301");
      break;  // emoji and combining marks
    case 3:
      s = "http://example.com/";
      repeat("((");
      s.append(s.size(), ')');
      break;  // deep brackets
    case 4:
      s = "https://example.com/";
      repeat("segment/");
      break;  // one enormous URL
    case 5:
      repeat("a.b@c.");
      break;  // e-mail-like debris
    case 6:
      repeat("\xff\xfe\xc3");
      break;  // invalid UTF-8
    case 7:
      repeat("1.2.3.4.");
      break;  // digits and dots (phones see them too)
    case 8:
      repeat("message:");
      break;  // one endless message reference
    case 9:
      repeat("12.34.56.78.90.12.34 x ");
      break;  // costly phone candidates, each on its own
  }
  return s;
}

void BM_Hostile(benchmark::State& state) {
  const std::string text = hostile(int(state.range(0)), size_t(state.range(1)));
  auto operation =
      make<LWURLDetectionOperation>(text, TextCheckingTypeLink | TextCheckingTypeAddress | TextCheckingTypePhoneNumber);
  for (auto _ : state) {
    auto op = make<LWURLDetectionOperation>(text, operation->types());
    op->setRegion("US");
    op->main();
  }
  state.SetBytesProcessed(int64_t(state.iterations() * text.size()));
}

BENCHMARK(BM_LinksAndEmails)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PhoneNumbers)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Addresses)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AllKinds)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OperationAllKinds)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Hostile)
    ->ArgsProduct({{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, {1 << 18, 1 << 20, 1 << 22}})
    ->Unit(benchmark::kMillisecond);

// Our link throughput measured the same way as the node script: the median of
// five runs after one warm-up.
void compareWithLinkify() {
#if defined(LOOMWORK_NODE_PATH) && defined(LOOMWORK_LINKIFY_SCRIPT)
  const std::string path = "/tmp/loomwork_urldetection_bench.txt";
  std::ofstream(path, std::ios::binary) << prose();
  auto detector = DataDetector::initWithTypes(TextCheckingTypeLink);
  std::vector<double> seconds;
  size_t links = 0;
  for (int i = 0; i < 6; ++i) {
    const auto start = std::chrono::steady_clock::now();
    links = detector->matchesInString(prose()).size();
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (i > 0) seconds.push_back(elapsed);
  }
  std::sort(seconds.begin(), seconds.end());
  const double ours = double(prose().size()) / 1e6 / seconds[seconds.size() / 2];
  const std::string command = std::string(LOOMWORK_NODE_PATH) + " " + LOOMWORK_LINKIFY_SCRIPT + " " + path + " 5";
  FILE* pipe = popen(command.c_str(), "r");
  char line[256] = {0};
  double theirs = 0;
  size_t theirLinks = 0;
  if (pipe != nullptr) {
    if (std::fgets(line, sizeof line, pipe) != nullptr) std::sscanf(line, "linkify-it %lf %zu", &theirs, &theirLinks);
    pclose(pipe);
  }
  std::printf("\nSame text, %.2f MB of mixed prose, links and e-mail addresses:\n", double(prose().size()) / 1e6);
  std::printf("  loomwork    %8.2f MB/s  %zu links\n", ours, links);
  if (theirs > 0)
    std::printf("  linkify-it  %8.2f MB/s  %zu links\n  ratio       %8.2fx\n", theirs, theirLinks, ours / theirs);
  else
    std::printf("  linkify-it  not run (npm ci in bench/urldetection)\n");
  std::remove(path.c_str());
#endif
}

}  // namespace

int main(int argc, char** argv) {
  // --dump_text=PATH writes the generated prose to PATH (to compare the links found by hand) and exits.
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument.starts_with("--dump_text=")) {
      std::ofstream(std::string(argument.substr(12)), std::ios::binary) << prose();
      return 0;
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  compareWithLinkify();
  return 0;
}
