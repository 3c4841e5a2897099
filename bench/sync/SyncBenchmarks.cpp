// Sync benchmarks:
//  - ComposeChain: composing a chain of n one-operation components (with a
//    few dead-end branches) beside AppendDirectly, appending the same
//    transactions to one another without any path search;
//  - MergeThroughSQLite: mergeWithClientIfNeeded on a server whose store
//    holds a server line and a client line of n transactions each over 1,000
//    entities (mostly property updates, some creates and deletes);
//  - EndToEnd: n one-operation local transactions split over a server and a
//    client that exchange every 100, with the in-memory and the SQLite store,
//    and the same workload in Yjs (bench/sync/yjs_bench.mjs, run with node
//    when its node_modules are installed: npm ci in bench/sync).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "MemoryStorage.h"
#include "SimHost.h"
#include "loomwork/sqlite.h"

using namespace loomwork;
using namespace loomwork::synctest;

namespace {

const auto kIdentifier = OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("SERVER-CLIENT");
const std::vector<std::string> kProperties = {"title", "done", "rank", "notes"};

std::filesystem::path scratch(const std::string& name) {
  std::error_code error;
  const std::filesystem::path directory =
      std::filesystem::is_directory("/dev/shm", error) ? "/dev/shm" : std::filesystem::temp_directory_path();
  auto path = directory / ("loomwork-bench-" + std::to_string(::getpid()) + "-" + name);
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path.string() + suffix);
  return path;
}

Ref<UGMutableTransaction> update(const std::string& uuid, const std::string& property, Value value) {
  auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeUpdate, "Task");
  operation->setValueForProperty(std::move(value), property);
  return UGMutableTransaction::transactionWithOperationForUUID(operation, uuid);
}

// MARK: Composition

std::vector<Ref<OTPathComponent>> chain(int64_t n) {
  std::vector<Ref<OTPathComponent>> components;
  components.reserve(static_cast<size_t>(n) + 16);
  for (int64_t i = 0; i < n; ++i) {
    if (i % (n / 4 + 1) == n / 8) {  // a dead end of three steps along the other axis, found first
      for (int64_t k = 0; k < 3; ++k)
        components.push_back(make<OTPathComponent>(kIdentifier, update("X", "x", Value(k)), OTState(k, i),
                                                   OTState(k + 1, i)));
    }
    components.push_back(make<OTPathComponent>(kIdentifier, update("E" + std::to_string(i % 1000), "p", Value(i)),
                                               OTState(0, i), OTState(0, i + 1)));
  }
  return components;
}

void ComposeChain(benchmark::State& state) {
  const auto components = chain(state.range(0));
  for (auto _ : state) {
    auto composed = OTSyncController::composePathComponentsFromStateUpToState(components, OTState(), std::nullopt);
    benchmark::DoNotOptimize(composed);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ComposeChain)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void AppendDirectly(benchmark::State& state) {
  const auto components = chain(state.range(0));
  std::vector<Ref<UGMutableTransaction>> transactions;
  for (const auto& component : components)
    if (component->fromState()->serverIndex() == 0 && component->toState()->serverIndex() == 0)
      transactions.push_back(component->operation());
  for (auto _ : state) {
    auto joined = transactions.front()->mutableCopy();
    for (size_t i = 1; i < transactions.size(); ++i) joined->appendTransaction(*transactions[i]);
    benchmark::DoNotOptimize(joined);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(AppendDirectly)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// MARK: Merge

class BareStore : public OTSQLiteDataSource {
 public:
  using OTSQLiteDataSource::OTSQLiteDataSource;
  Ref<UGTransaction> seedForOTSyncController(OTSyncController&) override { return nullptr; }
  bool OTSyncControllerCanIntegrateOperations(OTSyncController&) override { return false; }
  Ref<OTPathComponent> availableSeedForSyncController(OTSyncController&) override { return nullptr; }
  void OTSyncControllerIntegrateReplacementSeed(OTSyncController&, const Ref<UGMutableTransaction>&) override {}
  void OTSyncControllerIntegrateAndConsumeOperation(OTSyncController&, const Ref<UGMutableTransaction>&) override {}
  void OTSyncControllerPerformIntegrationBlock(OTSyncController&, std::function<void()> block) override { block(); }
};

Ref<OTSyncController> openServer(const std::shared_ptr<BareStore>& store) {
  auto controller = make<OTSyncController>(OTSyncControllerTypeServer);
  controller->setDataSource(store);
  controller->setMergeClass(OTMergeClassOf<OTMerge>());
  controller->restoreInternalState();
  return controller;
}

// One line of n transactions over 1,000 entities: mostly updates of one or two
// properties, some creates of new entities and some deletes.
Ref<UGMutableTransaction> lineTransaction(std::mt19937_64& rng, const std::string& side, int64_t i) {
  auto transaction = UGMutableTransaction::transaction();
  const int kind = static_cast<int>(rng() % 20);
  if (kind == 0) {
    auto create = make<UGMutableEntityOperation>(UGEntityOperationTypeCreate, "Task");
    create->setValueForProperty(Value("new"), "title");
    transaction->setOperationForUUID(create, side + "N" + std::to_string(i));
  } else if (kind == 1) {
    transaction->setOperationForUUID(make<UGMutableEntityOperation>(UGEntityOperationTypeDelete, "Task"),
                                     "E" + std::to_string(rng() % 1000));
  } else {
    auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeUpdate, "Task");
    for (uint64_t p = 0, count = 1 + rng() % 2; p < count; ++p)
      operation->setValueForProperty(Value(static_cast<int64_t>(rng() % 1000)), kProperties[rng() % kProperties.size()]);
    transaction->setOperationForUUID(operation, "E" + std::to_string(rng() % 1000));
  }
  return transaction;
}

std::filesystem::path preparedMergeStore(int64_t n) {
  const auto path = scratch("merge-" + std::to_string(n) + ".sqlite");
  auto store = std::make_shared<BareStore>(path.string());
  auto controller = openServer(store);
  controller->resetIfNeededAndSeedUsingStateSpaceIdentifier(kIdentifier);
  std::mt19937_64 rng(7);
  controller->performTransaction([&] {
    for (int64_t i = 0; i < n; ++i) {
      store->OTSyncControllerRecordPathComponentEnqueueForTransfer(
          *controller, make<OTPathComponent>(kIdentifier, lineTransaction(rng, "S", i), OTState(i, 0), OTState(i + 1, 0)),
          false);
      store->OTSyncControllerRecordPathComponentEnqueueForTransfer(
          *controller, make<OTPathComponent>(kIdentifier, lineTransaction(rng, "C", i), OTState(0, i), OTState(0, i + 1)),
          false);
    }
    controller->setCurrentState(OTState(n, 0));
  });
  return path;
}

void MergeThroughSQLite(benchmark::State& state) {
  const auto prepared = preparedMergeStore(state.range(0));
  const auto working = scratch("merge-working.sqlite");
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::copy_file(prepared, working, std::filesystem::copy_options::overwrite_existing);
    auto store = std::make_shared<BareStore>(working.string());
    auto controller = openServer(store);
    state.ResumeTiming();
    controller->mergeWithClientIfNeeded();
    state.PauseTiming();
    if (store->pathComponentCount() != static_cast<size_t>(2 * state.range(0) + 2)) state.SkipWithError("no merge");
    controller.reset();
    store.reset();
    state.ResumeTiming();
  }
  std::filesystem::remove(prepared);
  std::filesystem::remove(working);
}
BENCHMARK(MergeThroughSQLite)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(3);

// MARK: End to end

template <class Storage>
struct Pair {
  std::shared_ptr<Host<Storage>> hosts[2];
  Ref<OTSyncController> controllers[2];

  template <class MakeHost>
  explicit Pair(MakeHost makeHost) {
    for (int side : {0, 1}) {
      hosts[side] = makeHost(side);
      controllers[side] = make<OTSyncController>(side == 0 ? OTSyncControllerTypeServer : OTSyncControllerTypeClient);
      controllers[side]->setDataSource(hosts[side]);
      if (side == 0) controllers[side]->setMergeClass(OTMergeClassOf<OTMerge>());
      hosts[side]->controller = controllers[side];
      controllers[side]->restoreInternalState();
    }
    // The server starts with 1,000 entities, which reach the client in its seed.
    auto content = UGMutableTransaction::transaction();
    for (int i = 0; i < 1000; ++i) {
      auto create = make<UGMutableEntityOperation>(UGEntityOperationTypeCreate, "Task");
      create->setValueForProperty(Value("t" + std::to_string(i)), "title");
      content->setOperationForUUID(create, "E" + std::to_string(i));
    }
    hosts[0]->apply(*content);
    for (int side : {0, 1}) controllers[side]->resetIfNeededAndSeedUsingStateSpaceIdentifier(kIdentifier);
    for (int i = 0; i < 3; ++i) exchange();
  }

  // Each side sends what it has; then each takes in what arrived (components,
  // claims, and the acknowledgements of the previous exchange) and processes,
  // as one storage transaction: a host that saves once per pass of its event
  // loop. Its acknowledgements reach the other side at the next exchange.
  void exchange() {
    std::vector<Message> messages[2];
    for (int side : {0, 1}) messages[side] = hosts[side]->outgoing(*controllers[side], false, false);
    for (int side : {0, 1}) {
      const int other = 1 - side;
      std::vector<Message> arrived = std::move(replies[side]);
      replies[side].clear();
      arrived.insert(arrived.end(), messages[other].begin(), messages[other].end());
      controllers[side]->performTransaction([&] {
        for (const Message& message : arrived)
          if (auto reply = hosts[side]->receive(message)) replies[other].push_back(std::move(*reply));
        hosts[side]->process(*controllers[side]);
      });
    }
  }

  std::vector<Message> replies[2];  // on their way to each side
};

// With `grouped`, each side's 50 local transactions between two exchanges are
// committed as one storage transaction (as a host that saves once per event
// loop pass would); otherwise each is committed on its own.
template <class Storage, class MakeHost>
void endToEnd(benchmark::State& state, MakeHost makeHost, bool grouped = false) {
  const int64_t operations = state.range(0);
  double bytesPerOperation = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Pair<Storage> pair(makeHost);
    std::mt19937_64 rng(11);
    state.ResumeTiming();
    for (int64_t done = 0; done < operations; done += 100) {
      for (int side : {0, 1}) {
        if (grouped) pair.controllers[side]->beginTransaction();
        for (int i = 0; i < 50; ++i) {
          auto edit = update("E" + std::to_string(rng() % 1000), kProperties[rng() % kProperties.size()],
                             Value(static_cast<int64_t>(rng() % 1000)));
          pair.hosts[side]->commitLocalChange(*pair.controllers[side], *edit);
        }
        if (grouped) pair.controllers[side]->endTransaction();
      }
      pair.exchange();
      pair.exchange();
    }
    state.PauseTiming();
    pair.exchange();
    if (pair.hosts[0]->model != pair.hosts[1]->model ||
        pair.controllers[0]->currentState() != pair.controllers[1]->currentState())
      state.SkipWithError("the two sides differ");
    bytesPerOperation = static_cast<double>(pair.hosts[0]->pathComponentBytes() + pair.hosts[1]->pathComponentBytes()) /
                        static_cast<double>(operations);
    state.ResumeTiming();
  }
  state.counters["ops/s"] = benchmark::Counter(static_cast<double>(operations) * static_cast<double>(state.iterations()),
                                               benchmark::Counter::kIsRate);
  state.counters["component bytes/op"] = bytesPerOperation;
}

void EndToEndInMemory(benchmark::State& state) {
  endToEnd<MemoryStorage>(state, [](int) {
    auto host = std::make_shared<Host<MemoryStorage>>();
    host->persistsModel = false;
    host->keepsSnapshots = false;
    return host;
  });
}
BENCHMARK(EndToEndInMemory)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

// On the disk (not /dev/shm): the figure includes what a commit costs there.
std::string sqliteHostPath(int side) {
  const auto path = std::filesystem::temp_directory_path() /
                    ("loomwork-bench-e2e-" + std::to_string(::getpid()) + "-" + std::to_string(side));
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path.string() + suffix);
  return path.string();
}

// The store alone: as in the in-memory run, the host keeps its model in
// memory, so the two runs differ only in the store.
std::shared_ptr<Host<OTSQLiteDataSource>> sqliteHost(int side) {
  auto host = std::make_shared<Host<OTSQLiteDataSource>>(sqliteHostPath(side));
  host->persistsModel = false;
  return host;
}

// The host also writes each changed entity to the same file in the same
// transaction, as a property list in the store's host values.
std::shared_ptr<Host<OTSQLiteDataSource>> sqliteHostPersistingModel(int side) {
  return std::make_shared<Host<OTSQLiteDataSource>>(sqliteHostPath(side));
}

void EndToEndSQLite(benchmark::State& state) {
  endToEnd<OTSQLiteDataSource>(state, sqliteHost);
  for (int side : {0, 1}) sqliteHostPath(side);
}
BENCHMARK(EndToEndSQLite)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

void EndToEndSQLiteGrouped(benchmark::State& state) {
  endToEnd<OTSQLiteDataSource>(state, sqliteHost, true);
  for (int side : {0, 1}) sqliteHostPath(side);
}
BENCHMARK(EndToEndSQLiteGrouped)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

void EndToEndSQLitePersistingModel(benchmark::State& state) {
  endToEnd<OTSQLiteDataSource>(state, sqliteHostPersistingModel);
  for (int side : {0, 1}) sqliteHostPath(side);
}
BENCHMARK(EndToEndSQLitePersistingModel)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

void EndToEndSQLitePersistingModelGrouped(benchmark::State& state) {
  endToEnd<OTSQLiteDataSource>(state, sqliteHostPersistingModel, true);
  for (int side : {0, 1}) sqliteHostPath(side);
}
BENCHMARK(EndToEndSQLitePersistingModelGrouped)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

// Runs the Yjs script once and reports its figures; skipped when node or the
// script's node_modules are missing.
void EndToEndYjs(benchmark::State& state) {
  const std::filesystem::path script = LOOMWORK_YJS_BENCH_SCRIPT;
  if (!std::filesystem::exists(script.parent_path() / "node_modules" / "yjs")) {
    state.SkipWithError("yjs is not installed (npm ci in bench/sync)");
    return;
  }
  std::string output;
  for (auto _ : state) {
    const std::string command = "node " + script.string() + " " + std::to_string(state.range(0)) + " 100 1000";
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
      char buffer[512];
      while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
      ::pclose(pipe);
    }
  }
  auto number = [&](const std::string& key) {
    const auto at = output.find("\"" + key + "\":");
    return at == std::string::npos ? 0.0 : std::atof(output.c_str() + at + key.size() + 3);
  };
  state.counters["ops/s"] = number("operationsPerSecond");
  state.counters["encoded bytes/op"] = number("encodedBytesPerOperation");
  if (output.find("\"equal\":true") == std::string::npos) state.SkipWithError("the Yjs documents differ");
}
BENCHMARK(EndToEndYjs)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
