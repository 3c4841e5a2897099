// Speed of transactions at 100k and 1M operations: appending one-operation
// transactions into one, beside inserting the same operations into a plain
// std::unordered_map; reducing a transaction by another; and a binary
// property-list round trip.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <random>
#include <unordered_map>

#include "loomwork/additions/PropertyListAdditions.h"
#include "loomwork/graph.h"

using namespace loomwork;

namespace {

// UUID-length keys (36 characters), distinct per index.
std::string uuidFor(size_t i) {
  char text[64];
  std::snprintf(text, sizeof text, "%08zX-0000-4000-8000-%012zX", i * 2654435761u % 0xFFFFFFFFu, i);
  return text;
}

Ref<UGMutableEntityOperation> updateFor(size_t i) {
  return make<UGMutableEntityOperation>(
      UGEntityOperationTypeUpdate, "Note",
      UGPropertyDictionary{{"title", Value("t" + std::to_string(i))}, {"rank", Value(static_cast<int64_t>(i))}});
}

struct Singles {
  std::vector<std::string> uuids;
  std::vector<Ref<UGEntityOperation>> operations;
  std::vector<Ref<UGTransaction>> transactions;
};

// n one-operation transactions. With churn, one in ten composes with an
// earlier UUID and one in twenty is a CREATE that a later DELETE cancels (so
// normalisation removes entries all through the table).
const Singles& singles(size_t n, bool churn) {
  static std::map<std::pair<size_t, bool>, Singles> cache;
  auto found = cache.find({n, churn});
  if (found != cache.end()) return found->second;
  std::mt19937_64 rng(n);
  Singles s;
  for (size_t i = 0; i < n; ++i) {
    std::string uuid = uuidFor(i);
    Ref<UGEntityOperation> operation = updateFor(i);
    if (churn && i > 0 && rng() % 10 == 0) {
      uuid = s.uuids[rng() % s.uuids.size()];
    } else if (churn && i + 1 < n && rng() % 20 == 0) {
      s.uuids.push_back(uuid);
      s.operations.push_back(make<UGEntityOperation>(UGEntityOperationTypeCreate, "Note"));
      uuid = uuidFor(i), operation = make<UGEntityOperation>(UGEntityOperationTypeDelete, "Note");
      ++i;
    }
    s.uuids.push_back(uuid);
    s.operations.push_back(operation);
  }
  for (size_t i = 0; i < s.uuids.size(); ++i) {
    s.transactions.push_back(UGTransaction::transactionWithOperationForUUID(s.operations[i], s.uuids[i]));
  }
  return cache.emplace(std::make_pair(n, churn), std::move(s)).first->second;
}

void BM_AppendSingleOperationTransactions(benchmark::State& state) {
  const Singles& s = singles(static_cast<size_t>(state.range(0)), state.range(1) != 0);
  for (auto _ : state) {
    auto receiver = UGMutableTransaction::transaction();
    for (const auto& transaction : s.transactions) receiver->appendTransaction(*transaction);
    benchmark::DoNotOptimize(receiver->count());
    state.PauseTiming();
    receiver.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.transactions.size()));
}

void BM_InsertIntoUnorderedMap(benchmark::State& state) {
  const Singles& s = singles(static_cast<size_t>(state.range(0)), false);
  for (auto _ : state) {
    std::unordered_map<std::string, Ref<UGEntityOperation>> map;
    for (size_t i = 0; i < s.uuids.size(); ++i) map.insert_or_assign(s.uuids[i], s.operations[i]);
    benchmark::DoNotOptimize(map.size());
    state.PauseTiming();
    map.clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.uuids.size()));
}

// M creates, updates or deletes n entities; R touches the same UUIDs with a
// mix of types that exercises every row of the reduction table.
void BM_ReduceByTransaction(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  std::mt19937_64 rng(n + 1);
  auto m = UGMutableTransaction::transactionContainingMutableOperations();
  auto r = UGMutableTransaction::transaction();
  constexpr UGEntityOperationType kTypes[] = {UGEntityOperationTypeCreate, UGEntityOperationTypeUpdate,
                                              UGEntityOperationTypeDelete, UGEntityOperationTypeIdentity};
  for (size_t i = 0; i < n; ++i) {
    const std::string uuid = uuidFor(i);
    auto mine = updateFor(i), theirs = updateFor(i + rng() % 2);
    mine->setType(kTypes[rng() % 3]);
    theirs->setType(kTypes[rng() % 4]);
    if (rng() % 8 != 0) m->setOperationForUUID(mine, uuid);
    r->setOperationForUUID(theirs, uuid);
  }
  bool exact = false;
  for (auto _ : state) {
    state.PauseTiming();
    auto reduced = m->mutableCopy();
    state.ResumeTiming();
    exact = reduced->reduceByTransaction(*r);
    benchmark::DoNotOptimize(exact);
    state.PauseTiming();
    reduced.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

void BM_BinaryPropertyListRoundTrip(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  auto transaction = UGMutableTransaction::transaction();
  for (size_t i = 0; i < n; ++i) transaction->setOperationForUUID(updateFor(i), uuidFor(i));
  size_t bytes = 0;
  for (auto _ : state) {
    auto data = dataFromExtendedPropertyListFormatErrorDescription(transaction->extendedPropertyListRepresentation(),
                                                                   PropertyListFormat::Binary, nullptr);
    auto plist = extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
        *data, PropertyListMutabilityOption::Immutable, nullptr, nullptr);
    auto read = UGMutableTransaction::initWithExtendedPropertyListContainingMutableOperations(*plist, true);
    if (!read || read->count() != n) state.SkipWithError("round trip lost operations");
    bytes = data->size();
    benchmark::DoNotOptimize(read);
  }
  state.counters["bytes"] = static_cast<double>(bytes);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

}  // namespace

BENCHMARK(BM_AppendSingleOperationTransactions)
    ->ArgsProduct({{100'000, 1'000'000}, {0, 1}})
    ->ArgNames({"n", "churn"})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InsertIntoUnorderedMap)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReduceByTransaction)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BinaryPropertyListRoundTrip)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
