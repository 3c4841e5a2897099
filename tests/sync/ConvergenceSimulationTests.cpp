// Seeded runs of a server and a client that edit concurrently over a faulty
// network and must end with equal models and no edit lost.
#include <gtest/gtest.h>

#include <cstdlib>

#include "Simulation.h"

namespace loomwork::synctest {
namespace {

// Fewer runs under the sanitizers, which make each run several times slower;
// LOOMWORK_SIM_RUNS sets the number for a longer local run.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kDefaultRuns = 20;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr int kDefaultRuns = 20;
#else
constexpr int kDefaultRuns = 150;
#endif
#else
constexpr int kDefaultRuns = 150;
#endif

int runsPerConfiguration() {
  const char* text = std::getenv("LOOMWORK_SIM_RUNS");
  return text ? std::atoi(text) : kDefaultRuns;
}

struct Configuration {
  const char* name;
  Faults faults;
};

const Configuration kConfigurations[] = {
    {"none", {}},
    {"delays", {.delays = true}},
    {"drops", {.drops = true}},
    {"duplicates", {.duplicates = true}},
    {"crashes", {.crashes = true}},
    {"offline", {.offline = true}},
    {"seeds", {.offline = true, .seeds = true}},
    {"all", {true, true, true, true, true, true}},
};

class Convergence : public ::testing::TestWithParam<Configuration> {};

TEST_P(Convergence, ModelsEndEqualWithNoEditLost) {
  const Configuration& configuration = GetParam();
  const int runs = runsPerConfiguration();
  size_t largestStore = 0;
  for (int run = 0; run < runs; ++run) {
    const uint64_t seed = 1000003ull * static_cast<uint64_t>(run) + std::hash<std::string>()(configuration.name) % 997;
    // The first run is five times as long: the bound below must not grow with the history.
    Simulation<MemoryStorage> simulation(seed, configuration.faults, run == 0 ? 300 : 60);
    const std::string failure = simulation.run();
    ASSERT_EQ(failure, "") << "faults " << configuration.name << ", seed " << seed << (run == 0 ? ", 300 ticks" : "");
    largestStore = std::max({largestStore, simulation.storedComponents(0), simulation.storedComponents(1)});
  }
  // After quiet only the seeds and the components that end at the current
  // state are kept, however long the history was.
  EXPECT_LE(largestStore, 6u);
}

INSTANTIATE_TEST_SUITE_P(Faults, Convergence, ::testing::ValuesIn(kConfigurations),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace loomwork::synctest
