// Speed of the list transforms beside their peers: the transition between two
// arrays, and the one with the fewest moves, against dtl's shortest edit
// script and against the floor of indexing the new array in a hash map;
// composition against copying the items; linearization against the plain
// walk; and memory per item.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <dtl.hpp>

#include <algorithm>
#include <numeric>
#include <random>
#include <unordered_map>

#include "loomwork/listtransform.h"

using namespace loomwork;

namespace {

// Old and new arrays of n integers, the new one made by 1% random edits:
// deletions, insertions and moves in equal parts.
struct EditedPair {
  std::vector<int64_t> oldInts, newInts;
  Array oldValues, newValues;
};

const EditedPair& editedPair(size_t n) {
  static std::unordered_map<size_t, EditedPair> cache;
  auto it = cache.find(n);
  if (it != cache.end()) return it->second;
  std::mt19937_64 rng(n);
  EditedPair pair;
  pair.oldInts.resize(n);
  for (auto& v : pair.oldInts) v = static_cast<int64_t>(rng() % (n * 8));
  std::vector<int64_t> edited = pair.oldInts;
  const size_t edits = std::max<size_t>(3, n / 100) / 3;
  for (size_t e = 0; e < edits; ++e) {
    edited.erase(edited.begin() + static_cast<std::ptrdiff_t>(rng() % edited.size()));
    edited.insert(edited.begin() + static_cast<std::ptrdiff_t>(rng() % (edited.size() + 1)),
                  static_cast<int64_t>(rng() % (n * 8)));
    size_t from = rng() % edited.size();
    int64_t moved = edited[from];
    edited.erase(edited.begin() + static_cast<std::ptrdiff_t>(from));
    edited.insert(edited.begin() + static_cast<std::ptrdiff_t>(rng() % (edited.size() + 1)), moved);
  }
  pair.newInts = std::move(edited);
  for (int64_t v : pair.oldInts) pair.oldValues.push_back(Value(v));
  for (int64_t v : pair.newInts) pair.newValues.push_back(Value(v));
  return cache.emplace(n, std::move(pair)).first->second;
}

size_t moveCount(const UGListTransform& t) {
  return static_cast<size_t>(std::count_if(t.deletions().begin(), t.deletions().end(),
                                           [](const auto& item) { return item->hasMoveLink(); }));
}

template <Ref<UGListTransform> (*Transition)(const Array&, const Array&, UGListTransformObjectComparison)>
void runTransition(benchmark::State& state) {
  const auto& pair = editedPair(static_cast<size_t>(state.range(0)));
  size_t items = 0, moves = 0;
  for (auto _ : state) {
    auto t = Transition(pair.oldValues, pair.newValues, UGListTransformObjectComparisonEquality);
    items = t->deletions().size() + t->insertions().size();
    moves = moveCount(*t);
    benchmark::DoNotOptimize(t);
  }
  state.counters["items"] = static_cast<double>(items);
  state.counters["moves"] = static_cast<double>(moves);
  state.SetComplexityN(state.range(0));
}

void BM_Transition(benchmark::State& state) {
  runTransition<transformForTransitioningFromArrayToArrayObjectComparison>(state);
}
BENCHMARK(BM_Transition)->Arg(10'000)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Complexity();

// The same inputs with the fewest moves (a longest increasing run stays).
void BM_TransitionFewestMoves(benchmark::State& state) {
  runTransition<transformWithFewestMovesForTransitioningFromArrayToArrayObjectComparison>(state);
}
BENCHMARK(BM_TransitionFewestMoves)
    ->Arg(10'000)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();

void BM_TransitionFloorHashMap(benchmark::State& state) {
  const auto& pair = editedPair(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::unordered_map<int64_t, size_t> positions;
    for (size_t j = 0; j < pair.newInts.size(); ++j) positions.emplace(pair.newInts[j], j);
    benchmark::DoNotOptimize(positions);
  }
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_TransitionFloorHashMap)->Arg(10'000)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

// dtl's O(ND) edit script; at a million elements with 1% edits it runs for
// minutes, so it is measured up to 100k.
void BM_TransitionPeerDtl(benchmark::State& state) {
  const auto& pair = editedPair(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    dtl::Diff<int64_t, std::vector<int64_t>> diff(pair.oldInts, pair.newInts);
    diff.onHuge();
    diff.compose();
    benchmark::DoNotOptimize(diff.getEditDistance());
  }
}
BENCHMARK(BM_TransitionPeerDtl)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

// A transform of `items` items over a list of 2 * items elements: half
// deletions, half insertions, the given share of them linked as moves.
Ref<UGMutableListTransform> makeTransform(size_t items, double moveShare, uint64_t seed) {
  std::mt19937_64 rng(seed);
  const size_t oldCount = items * 2, deletionCount = items / 2, insertionCount = items - deletionCount;
  const size_t newCount = oldCount - deletionCount + insertionCount;
  auto pick = [&rng](size_t n, size_t k) {
    std::vector<int64_t> all(n);
    std::iota(all.begin(), all.end(), 0);
    for (size_t i = 0; i < k; ++i) std::swap(all[i], all[i + rng() % (n - i)]);
    all.resize(k);
    std::sort(all.begin(), all.end());
    return all;
  };
  auto t = UGMutableListTransform::transform();
  for (int64_t d : pick(oldCount, deletionCount)) {
    t->mutableDeletions().push_back(UGListTransformItem::itemWithIndexObject(d, Value(d)));
  }
  for (int64_t i : pick(newCount, insertionCount)) {
    t->mutableInsertions().push_back(UGListTransformItem::itemWithIndexObject(i, Value(-i)));
  }
  const auto moves = static_cast<size_t>(static_cast<double>(std::min(deletionCount, insertionCount)) * moveShare);
  std::vector<size_t> deletions(deletionCount), insertions(insertionCount);
  std::iota(deletions.begin(), deletions.end(), 0);
  std::iota(insertions.begin(), insertions.end(), 0);
  std::shuffle(deletions.begin(), deletions.end(), rng);
  std::shuffle(insertions.begin(), insertions.end(), rng);
  for (size_t k = 0; k < moves; ++k) {
    t->mutableDeletions()[deletions[k]]->establishMoveLinkToItem(t->mutableInsertions()[insertions[k]]);
  }
  return t;
}

void BM_Compose(benchmark::State& state) {
  const auto n = static_cast<size_t>(state.range(0));
  auto a = makeTransform(n, 0.2, 1), b = makeTransform(n, 0.2, 2);
  for (auto _ : state) benchmark::DoNotOptimize(a->transformByAppendingTransform(*b));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_Compose)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

// The floor of composition: copying the items of both transforms.
void BM_ComposeFloorCopyItems(benchmark::State& state) {
  const auto n = static_cast<size_t>(state.range(0));
  auto a = makeTransform(n, 0.2, 1), b = makeTransform(n, 0.2, 2);
  for (auto _ : state) {
    benchmark::DoNotOptimize(a->mutableCopy());
    benchmark::DoNotOptimize(b->mutableCopy());
  }
}
BENCHMARK(BM_ComposeFloorCopyItems)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

// A batch of n changes, 10% of them moves, replayed as single steps.
void BM_Linearize(benchmark::State& state) {
  auto t = makeTransform(static_cast<size_t>(state.range(0)) * 10 / 9, 0.2, 3);
  size_t steps = 0;
  for (auto _ : state) {
    steps = 0;
    t->enumerateTransformAsLinearizedDeletionsMovesInsertions(
        [&](int64_t) { ++steps; }, [&](int64_t, int64_t) { ++steps; }, [&](int64_t) { ++steps; });
  }
  state.counters["steps"] = static_cast<double>(steps);
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_Linearize)->Arg(10'000)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Complexity();

// The same batches through the plain walk that restarts for every move.
void BM_LinearizePlainWalk(benchmark::State& state) {
  auto t = makeTransform(static_cast<size_t>(state.range(0)) * 10 / 9, 0.2, 3);
  std::vector<TWArrayOperationLinearizer::Change> changes;
  t->enumerateTransformAsGroupedDeletionsMovesInsertions(
      [&](int64_t i, const std::optional<Value>&) {
        changes.push_back({i, -1});
      },
      [&](int64_t f, int64_t to, const std::optional<Value>&) {
        changes.push_back({f, to});
      },
      [&](int64_t i, const std::optional<Value>&) {
        changes.push_back({-1, i});
      });
  for (auto _ : state) benchmark::DoNotOptimize(TWArrayOperationLinearizer::linearizeLiterally(changes));
}
BENCHMARK(BM_LinearizePlainWalk)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

// Heap bytes per item of a transform of a million items, objects included.
void BM_MemoryPerItem(benchmark::State& state) {
  double perItem = 0;
  for (auto _ : state) {
    size_t before = mallinfo2().uordblks;
    auto t = makeTransform(static_cast<size_t>(state.range(0)), 0.2, 4);
    size_t after = mallinfo2().uordblks;
    perItem = static_cast<double>(after - before) / static_cast<double>(state.range(0));
    benchmark::DoNotOptimize(t);
  }
  state.counters["bytes_per_item"] = perItem;
}
BENCHMARK(BM_MemoryPerItem)->Arg(1'000'000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
