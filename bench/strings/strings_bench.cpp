// Abbreviation scoring benchmarks.
//
//   Score/*          one scoreWithSearchString call on hard and typical inputs
//   Process/rank/*   `loomwork-rank QUERY < lines` as a whole process
//   Process/fzy/*    `fzy -e QUERY < lines` on the same file
//
// The process benchmarks rank 100,000 generated file-path-like ASCII lines of
// 30 to 80 characters (a fixed seed, written to a temporary file) for queries
// of 3 to 6 letters; both tools print every match, best first, to /dev/null.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "loomwork/additions.h"

extern char** environ;

namespace {

const char* const kQueries[] = {"srv", "test", "mdlvw", "cfgjsn"};

std::string pathLikeLine(std::mt19937& rng) {
  static const char* const directories[] = {
      "src",   "lib",    "include",     "test",     "tests",  "docs",    "app",        "core",    "util",
      "net",   "http",   "server",      "client",   "model",  "view",    "controller", "assets",  "images",
      "build", "vendor", "third_party", "internal", "config", "scripts", "tools",      "Sources", "platform"};
  static const char* const words[] = {"main",   "index",  "utils",   "helpers", "parser", "reader", "writer",
                                      "Scorer", "Config", "session", "router",  "View",   "Model",  "settings",
                                      "json",   "cache",  "logger",  "server",  "client", "handler"};
  static const char* const extensions[] = {".cpp", ".h", ".py", ".js", ".md", ".txt", ".json", ".go"};
  auto pick = [&](const auto& list) {
    return std::string(list[std::uniform_int_distribution<size_t>(0, std::size(list) - 1)(rng)]);
  };
  while (true) {
    const size_t target = std::uniform_int_distribution<size_t>(30, 80)(rng);
    std::string line;
    while (line.size() + 12 < target) line += pick(directories) + "/";
    line += pick(words);
    if (rng() % 2) line += "_" + pick(words);
    line += pick(extensions);
    if (line.size() >= 30 && line.size() <= 80) return line;
  }
}

std::string linesFile() {
  static const std::string path = [] {
    char name[] = "/tmp/loomwork-rank-bench-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) std::abort();
    std::mt19937 rng(20240601);
    std::string text;
    for (int i = 0; i < 100000; ++i) text += pathLikeLine(rng) + "\n";
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
    close(fd);
    return std::string(name);
  }();
  return path;
}

// Runs the program with the lines file as standard input and /dev/null as
// standard output, and waits for it.
void runProcess(benchmark::State& state, std::vector<std::string> arguments) {
  const std::string input = linesFile();
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  double cpuSeconds = 0;
  for (auto _ : state) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
      state.SkipWithError("cannot start the program");
      break;
    }
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    struct rusage usage {};
    wait4(pid, &status, 0, &usage);
    cpuSeconds += static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                  static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("the program failed");
      break;
    }
  }
  // The child's own processor time (user + system, all threads), which a
  // busy machine disturbs less than the elapsed time.
  state.counters["child_cpu_ms"] = benchmark::Counter(cpuSeconds * 1e3, benchmark::Counter::kAvgIterations);
  state.SetLabel(arguments.back());
}

void ScoreRepeatedLetterMatch(benchmark::State& state) {
  const std::string text(200, 'a'), query(20, 'a');
  for (auto _ : state) benchmark::DoNotOptimize(loomwork::scoreWithSearchString(text, query));
}
BENCHMARK(ScoreRepeatedLetterMatch)->Name("Score/repeated-letter/20-of-200/match");

void ScoreRepeatedLetterMiss(benchmark::State& state) {
  const std::string text(200, 'a'), query = std::string(19, 'a') + "b";
  for (auto _ : state) benchmark::DoNotOptimize(loomwork::scoreWithSearchString(text, query));
}
BENCHMARK(ScoreRepeatedLetterMiss)->Name("Score/repeated-letter/20-of-200/miss-at-end");

void ScoreRepeatedLetterSpread(benchmark::State& state) {
  // Capitals and separators every few letters; the query must be spread out.
  std::string text;
  for (int i = 0; i < 200; ++i) text += (i % 10 == 9) ? ' ' : (i % 7 == 0 ? 'A' : 'a');
  const std::string query = "a a a a a a a a a a ";
  for (auto _ : state) benchmark::DoNotOptimize(loomwork::scoreWithSearchString(text, query.substr(0, 20)));
}
BENCHMARK(ScoreRepeatedLetterSpread)->Name("Score/repeated-letter/20-of-200/spread");

void ScoreRepeatedAccentedLetterMiss(benchmark::State& state) {
  // Non-ASCII: the memoised Unicode path.
  const std::u16string text(200, u'\u00E1'), query = std::u16string(19, u'a') + u"b";
  for (auto _ : state) benchmark::DoNotOptimize(loomwork::scoreWithSearchString(text, query));
}
BENCHMARK(ScoreRepeatedAccentedLetterMiss)->Name("Score/repeated-accented-letter/20-of-200/miss-at-end");

void ScoreTypicalPath(benchmark::State& state) {
  std::mt19937 rng(7);
  std::vector<std::string> lines;
  for (int i = 0; i < 1000; ++i) lines.push_back(pathLikeLine(rng));
  loomwork::AbbreviationScorer scorer(kQueries[state.range(0)]);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(scorer.score(lines[i++ % lines.size()]));
  state.SetLabel(kQueries[state.range(0)]);
}
BENCHMARK(ScoreTypicalPath)->Name("Score/path-line")->DenseRange(0, 3);

#ifdef LOOMWORK_RANK_PATH
void ProcessRank(benchmark::State& state) { runProcess(state, {LOOMWORK_RANK_PATH, kQueries[state.range(0)]}); }
BENCHMARK(ProcessRank)->Name("Process/rank")->DenseRange(0, 3)->UseRealTime()->Unit(benchmark::kMillisecond);
void ProcessRankOneThread(benchmark::State& state) {
  runProcess(state, {LOOMWORK_RANK_PATH, "-j", "1", kQueries[state.range(0)]});
}
BENCHMARK(ProcessRankOneThread)
    ->Name("Process/rank-j1")
    ->DenseRange(0, 3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
#endif

#ifdef FZY_PATH
void ProcessFzy(benchmark::State& state) { runProcess(state, {FZY_PATH, "-e", kQueries[state.range(0)]}); }
BENCHMARK(ProcessFzy)->Name("Process/fzy")->DenseRange(0, 3)->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::remove(linesFile().c_str());
  return 0;
}
