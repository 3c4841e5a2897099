// The long soak of the convergence simulation: seeded runs of a server and a
// client on SQLite files with every fault on, until the time is up. Prints
// the figures and exits with 1 at the first run that fails (with its seed).
//
//   loomwork_soak_sync [seconds=60] [ticks per run=200] [first seed=1]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Simulation.h"

using namespace loomwork;
using namespace loomwork::synctest;

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
  const int ticks = argc > 2 ? std::atoi(argv[2]) : 200;
  const uint64_t firstSeed = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1;
  const Faults all{true, true, true, true, true, true};
  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
  size_t runs = 0, edits = 0, largestStore = 0, largestBytes = 0;
  for (uint64_t seed = firstSeed; elapsed() < seconds; ++seed, ++runs) {
    Simulation<OTSQLiteDataSource> simulation(seed, all, ticks);
    const std::string failure = simulation.run();
    if (!failure.empty()) {
      std::printf("FAILED at seed %llu after %zu runs:\n%s\n", static_cast<unsigned long long>(seed), runs,
                  failure.c_str());
      return 1;
    }
    edits += simulation.editCount();
    for (int side : {0, 1}) {
      largestStore = std::max(largestStore, simulation.storedComponents(side));
      largestBytes = std::max(largestBytes, simulation.storedBytes(side));
    }
  }
  std::printf("%zu runs of %d ticks in %.1f s, %zu property edits, all converged with no edit lost; "
              "largest store after quiet: %zu components, %zu bytes\n",
              runs, ticks, elapsed(), edits, largestStore, largestBytes);
  return 0;
}
