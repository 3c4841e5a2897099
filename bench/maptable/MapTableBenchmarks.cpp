// TWNestedMapTable at depth 3 with 1M entries (100 x 100 x 100 integer keys)
// beside a flat std::unordered_map keyed by the three keys together: setting
// every entry, getting every entry, removing every entry by its full path, and
// removing by two-key prefixes (100 entries each; the flat map erases the 100
// full keys it would otherwise have to find by a scan). Keys are visited in
// one shuffled order, and the key arrays are built before timing for both.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <random>
#include <unordered_map>

#include "loomwork/additions/TWNestedMapTable.h"

using namespace loomwork;

namespace {

constexpr int64_t kSide = 100;  // keys per level

struct Flat {
  using Key = std::array<Value, 3>;
  struct Hash {
    size_t operator()(const Key& k) const noexcept {
      size_t h = k[0].hash();
      for (size_t i = 1; i < 3; ++i) h ^= k[i].hash() + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
      return h;
    }
  };
  std::unordered_map<Key, Value, Hash> map;
};

struct Paths {
  std::vector<Array> arrays;          // full paths for the table
  std::vector<Flat::Key> flat;        // the same for the flat map
  std::vector<Array> prefixes;        // every two-key prefix
};

const Paths& paths() {
  static const Paths p = [] {
    Paths made;
    for (int64_t a = 0; a < kSide; ++a)
      for (int64_t b = 0; b < kSide; ++b) {
        made.prefixes.push_back(Array{Value(a), Value(b)});
        for (int64_t c = 0; c < kSide; ++c) made.arrays.push_back(Array{Value(a), Value(b), Value(c)});
      }
    std::mt19937_64 rng(3);
    std::shuffle(made.arrays.begin(), made.arrays.end(), rng);
    std::shuffle(made.prefixes.begin(), made.prefixes.end(), rng);
    for (const Array& k : made.arrays) made.flat.push_back({k[0], k[1], k[2]});
    return made;
  }();
  return p;
}

Ref<TWNestedMapTable> filledTable() {
  auto table = TWNestedMapTable::strongMapTableWithDepth(3);
  int64_t i = 0;
  for (const Array& k : paths().arrays) table->setObjectForKeys(Value(i++), k);
  return table;
}

void filledFlat(Flat& flat) {
  int64_t i = 0;
  for (const auto& k : paths().flat) flat.map.emplace(k, Value(i++));
}

void finish(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(paths().arrays.size()));
}

void BM_NestedSet(benchmark::State& state) {
  for (auto _ : state) {
    auto table = TWNestedMapTable::strongMapTableWithDepth(3);
    int64_t i = 0;
    for (const Array& k : paths().arrays) table->setObjectForKeys(Value(i++), k);
    state.PauseTiming();
    table.reset();
    state.ResumeTiming();
  }
  finish(state);
}

void BM_FlatSet(benchmark::State& state) {
  for (auto _ : state) {
    auto flat = std::make_unique<Flat>();
    filledFlat(*flat);
    state.PauseTiming();
    flat.reset();
    state.ResumeTiming();
  }
  finish(state);
}

void BM_NestedGet(benchmark::State& state) {
  auto table = filledTable();
  for (auto _ : state) {
    int64_t sum = 0;
    for (const Array& k : paths().arrays) sum += table->objectForKeys(k)->integerValue();
    benchmark::DoNotOptimize(sum);
  }
  finish(state);
}

void BM_FlatGet(benchmark::State& state) {
  Flat flat;
  filledFlat(flat);
  for (auto _ : state) {
    int64_t sum = 0;
    for (const auto& k : paths().flat) sum += flat.map.find(k)->second.integerValue();
    benchmark::DoNotOptimize(sum);
  }
  finish(state);
}

void BM_NestedRemoveByPath(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto table = filledTable();
    state.ResumeTiming();
    for (const Array& k : paths().arrays) benchmark::DoNotOptimize(table->removeObjectForKeys(k));
  }
  finish(state);
}

void BM_FlatEraseByKey(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    Flat flat;
    filledFlat(flat);
    state.ResumeTiming();
    for (const auto& k : paths().flat) flat.map.erase(k);
  }
  finish(state);
}

void BM_NestedRemoveByPrefix(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto table = filledTable();
    state.ResumeTiming();
    for (const Array& prefix : paths().prefixes) benchmark::DoNotOptimize(table->removeObjectsForPartialKeys(prefix));
  }
  finish(state);
}

void BM_FlatEraseByPrefixKeys(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    Flat flat;
    filledFlat(flat);
    state.ResumeTiming();
    for (const Array& prefix : paths().prefixes) {
      for (int64_t c = 0; c < kSide; ++c) flat.map.erase({prefix[0], prefix[1], Value(c)});
    }
  }
  finish(state);
}

}  // namespace

BENCHMARK(BM_NestedSet)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_FlatSet)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_NestedGet)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FlatGet)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NestedRemoveByPath)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_FlatEraseByKey)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_NestedRemoveByPrefix)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_FlatEraseByPrefixKeys)->Unit(benchmark::kMillisecond)->Iterations(5);

BENCHMARK_MAIN();
