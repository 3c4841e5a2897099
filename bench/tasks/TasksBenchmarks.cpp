// Two loomwork-tasks processes in line-command mode on loopback.
//
// EditToRemoteRow: the server adds a task; the time until the client prints
// the transform that shows it (wall time; median and 99th percentile as
// counters).
// SeedNewClient: a server holding 100,000 tasks and a client starting on a
// fresh file; the time until the client's rows hold them all, and how many
// distinct progress values its status showed meanwhile, with the CPU time
// each process spent on it (the wall time suffers most from a loaded machine).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <set>

#include "Driver.h"

namespace {

using namespace loomwork::tasks;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Scratch {
  fs::path dir = [] {
    std::string pattern = (fs::temp_directory_path() / "loomwork-bench-tasks-XXXXXX").string();
    return fs::path(::mkdtemp(pattern.data()));
  }();
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }
};

std::string field(const std::string& line, const std::string& name) {
  const auto at = line.find(name + "=");
  if (at == std::string::npos) return {};
  const auto start = at + name.size() + 1;
  return line.substr(start, line.find(' ', start) - start);
}

std::unique_ptr<BatchProcess> serve(const fs::path& dir, std::string& port) {
  auto server = std::make_unique<BatchProcess>(std::vector<std::string>{
      LOOMWORK_TASKS_BINARY, "serve", "--batch", "--db", (dir / "server.db").string(), "--port", "0"});
  port = field(server->readLine(10), "port");
  return server;
}

std::unique_ptr<BatchProcess> connect(const fs::path& dir, const std::string& port) {
  auto client = std::make_unique<BatchProcess>(std::vector<std::string>{
      LOOMWORK_TASKS_BINARY, "connect", "--batch", "--db", (dir / "client.db").string(), "127.0.0.1:" + port});
  client->readLine(10);
  return client;
}

// User and system CPU seconds a process has used so far.
double cpuSeconds(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i)
    if (i >= 14) ticks += std::stod(field);
  return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  return samples[std::min(samples.size() - 1, static_cast<size_t>(p * static_cast<double>(samples.size())))];
}

void EditToRemoteRow(benchmark::State& state) {
  Scratch scratch;
  std::string port;
  auto server = serve(scratch.dir, port);
  auto client = connect(scratch.dir, port);
  server->expectOk("list L");
  server->expectOk("wait-quiet 10");
  client->expectOk("wait-quiet 10");
  client->expectOk("transforms on");
  std::vector<double> samples;
  int serial = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    ++serial;
    server->send("add L task" + std::to_string(serial) + " 2026-12-0" + std::to_string(1 + serial % 9));
    client->readTransform(10);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    state.SetIterationTime(seconds);
    samples.push_back(seconds * 1000);
    server->readLine(10);
  }
  state.counters["median_ms"] = percentile(samples, 0.5);
  state.counters["p99_ms"] = percentile(samples, 0.99);
}
BENCHMARK(EditToRemoteRow)->UseManualTime()->Iterations(1000)->Unit(benchmark::kMillisecond);

void SeedNewClient(benchmark::State& state) {
  const auto tasks = state.range(0);
  for (auto _ : state) {
    Scratch scratch;
    std::string port;
    auto server = serve(scratch.dir, port);
    server->expectOk("list L");
    server->expectOk("bulk " + std::to_string(tasks) + " L", 300);
    const auto start = Clock::now();
    const double serverBefore = cpuSeconds(server->pid());
    auto client = connect(scratch.dir, port);
    std::set<std::string> progress;
    for (;;) {
      if (auto value = field(client->expectOk("status", 60), "progress"); !value.empty()) progress.insert(value);
      if (field(client->expectOk("count", 60), "rows") == std::to_string(tasks)) break;
      ::usleep(2000);
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    state.counters["progress_values"] = static_cast<double>(progress.size());
    state.counters["client_cpu_s"] = cpuSeconds(client->pid());
    state.counters["server_cpu_s"] = cpuSeconds(server->pid()) - serverBefore;
  }
}
BENCHMARK(SeedNewClient)->Arg(100000)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
