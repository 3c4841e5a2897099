// The sync controller against an in-memory data source: seeding and
// persistence, the send decision, merging, integration, seeds, nested
// transactions, and the composition of chains checked against a direct
// transcription of its definition.
#include <gtest/gtest.h>

#include <random>

#include "MemoryStorage.h"
#include "loomwork/platform/Log.h"
#include "loomwork/sync.h"

namespace loomwork::synctest {
namespace {

// Records what the controller hands over and lets a test fix the state the
// client is known to reach.
class Source : public MemoryStorage {
 public:
  explicit Source(std::shared_ptr<MemoryFile> file = std::make_shared<MemoryFile>()) : MemoryStorage(std::move(file)) {}
  Ref<UGTransaction> seed = UGTransaction::transaction();
  std::optional<OTState> reachable;
  Ref<OTPathComponent> offeredSeed;
  std::vector<std::pair<Ref<OTPathComponent>, bool>> recorded;
  std::vector<Ref<UGMutableTransaction>> integrated;
  std::vector<std::string> writes;
  int begins = 0, ends = 0;

  Ref<UGTransaction> seedForOTSyncController(OTSyncController&) override { return seed; }
  bool OTSyncControllerCanIntegrateOperations(OTSyncController&) override { return true; }
  Ref<OTPathComponent> availableSeedForSyncController(OTSyncController&) override { return offeredSeed; }
  void OTSyncControllerIntegrateReplacementSeed(OTSyncController&, const Ref<UGMutableTransaction>& t) override {
    integrated.push_back(t);
  }
  void OTSyncControllerIntegrateAndConsumeOperation(OTSyncController&, const Ref<UGMutableTransaction>& t) override {
    integrated.push_back(t);
  }
  void OTSyncControllerPerformIntegrationBlock(OTSyncController&, std::function<void()> block) override { block(); }
  void OTSyncControllerRecordPathComponentEnqueueForTransfer(OTSyncController& c, const Ref<OTPathComponent>& p,
                                                             bool enqueue) override {
    recorded.emplace_back(p, enqueue);
    MemoryStorage::OTSyncControllerRecordPathComponentEnqueueForTransfer(c, p, enqueue);
  }
  void OTSyncControllerSetValueForKey(OTSyncController& c, const std::optional<Value>& v, std::string_view key) override {
    writes.emplace_back(key);
    MemoryStorage::OTSyncControllerSetValueForKey(c, v, key);
  }
  void beginTransactionForOTSyncController(OTSyncController& c) override {
    ++begins;
    MemoryStorage::beginTransactionForOTSyncController(c);
  }
  void endTransactionForOTSyncController(OTSyncController& c) override {
    ++ends;
    MemoryStorage::endTransactionForOTSyncController(c);
  }
  std::optional<OTState> stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(
      OTSyncController& c) override {
    return reachable ? reachable
                     : MemoryStorage::
                           stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(c);
  }
};

const auto kIdentifier = OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("SERVER-CLIENT");

Ref<UGMutableTransaction> setting(const std::string& uuid, const std::string& property, Value value,
                                  UGEntityOperationType type = UGEntityOperationTypeUpdate) {
  auto operation = make<UGMutableEntityOperation>(type, "Task");
  operation->setValueForProperty(std::move(value), property);
  return UGMutableTransaction::transactionWithOperationForUUID(operation, uuid);
}

Ref<OTPathComponent> component(OTState from, OTState to, Ref<UGMutableTransaction> operation = nullptr) {
  return make<OTPathComponent>(kIdentifier, operation ? operation : UGMutableTransaction::transaction(), from, to);
}

// Stores components as if they had arrived, without the recording hook.
void store(Source& source, OTSyncController& controller, std::initializer_list<Ref<OTPathComponent>> components) {
  for (const auto& c : components)
    source.MemoryStorage::OTSyncControllerRecordPathComponentEnqueueForTransfer(controller, c, false);
}

// A controller on `source` as a process starting up: restored, not yet seeded.
Ref<OTSyncController> boot(const std::shared_ptr<Source>& source, uint64_t type) {
  auto controller = make<OTSyncController>(type);
  controller->setDataSource(source);
  if (type == OTSyncControllerTypeServer) controller->setMergeClass(OTMergeClassOf<OTMerge>());
  controller->restoreInternalState();
  return controller;
}

struct Fixture {
  std::shared_ptr<Source> source = std::make_shared<Source>();
  Ref<OTSyncController> controller;
  explicit Fixture(uint64_t type, OTState at = OTState()) : controller(boot(source, type)) {
    controller->resetIfNeededAndSeedUsingStateSpaceIdentifier(kIdentifier);
    controller->setCurrentState(at);
    source->recorded.clear();
    source->writes.clear();
  }
};

TEST(SyncController, SeedingPersistsAndRestores) {
  for (uint64_t type : {OTSyncControllerTypeClient, OTSyncControllerTypeServer}) {
    auto source = std::make_shared<Source>();
    source->seed = setting("A", "title", "x", UGEntityOperationTypeCreate);
    auto controller = boot(source, type);
    controller->resetIfNeededAndSeedUsingStateSpaceIdentifier(kIdentifier);
    const OTState end = type == OTSyncControllerTypeClient ? OTState(0, 1) : OTState(1, 0);
    EXPECT_EQ(controller->currentState(), end);
    ASSERT_EQ(source->recorded.size(), 1u);
    EXPECT_EQ(source->recorded[0].first->pathDescription(), "(0,0)->" + std::string(type ? "(0,1)" : "(1,0)"));
    EXPECT_TRUE(source->recorded[0].second);
    EXPECT_EQ(source->begins, 1);
    EXPECT_EQ(source->ends, 1);

    // A fresh controller on the same storage comes back to the same place.
    auto restored = boot(source, type);
    EXPECT_EQ(restored->internalState(), 1u);
    EXPECT_EQ(restored->currentState(), end);
    EXPECT_TRUE(restored->stateSpaceIdentifier()->isEqual(*kIdentifier));

    // After a reset the pairing is gone on disk, but the identifier stays in
    // memory (an absent identifier is never stored).
    restored->reset();
    EXPECT_EQ(restored->internalState(), 0u);
    EXPECT_FALSE(restored->currentState());
    EXPECT_TRUE(restored->stateSpaceIdentifier());
    EXPECT_EQ(source->pathComponentCount(), 0u);
    EXPECT_TRUE(boot(source, type)->needsInitialSeed());
  }

  // Internal state 1 without an identifier restores as 0.
  auto source = std::make_shared<Source>();
  OTSyncController probe(OTSyncControllerTypeClient);
  source->OTSyncControllerSetValueForKey(probe, Value(1), kOTSyncControllerInternalState);
  EXPECT_EQ(boot(source, OTSyncControllerTypeClient)->internalState(), 0u);
}

TEST(SyncController, SettersPersistOnlyChanges) {
  Fixture f(OTSyncControllerTypeClient, OTState(2, 3));
  f.controller->setInternalState(1);
  f.controller->setCurrentState(OTState(2, 3));
  f.controller->setStateSpaceIdentifier(nullptr);
  f.controller->setStateSpaceIdentifier(OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("SERVER-CLIENT"));
  EXPECT_TRUE(f.source->writes.empty());
  f.controller->setCurrentRemoteIndex(4);
  f.controller->setCurrentLocalIndex(5);
  EXPECT_EQ(f.controller->currentState(), OTState(4, 5));
  EXPECT_EQ(f.source->writes, (std::vector<std::string>{"currentState", "currentState"}));
}

TEST(SyncController, ServerSendsOnlyWhileTheClientCanFollow) {
  Fixture f(OTSyncControllerTypeServer, OTState(3, 1));
  f.source->reachable = OTState(3, 1);
  f.controller->stageLocalOperation(*setting("A", "title", "x"));
  f.source->reachable = OTState(2, 4);
  f.controller->stageLocalOperation(*setting("A", "title", "y"));
  ASSERT_EQ(f.source->recorded.size(), 2u);
  EXPECT_EQ(f.source->recorded[0].first->pathDescription(), "(3,1)->(4,1)");
  EXPECT_TRUE(f.source->recorded[0].second);
  EXPECT_EQ(f.source->recorded[1].first->pathDescription(), "(4,1)->(5,1)");
  EXPECT_FALSE(f.source->recorded[1].second);
  EXPECT_EQ(f.controller->currentState(), OTState(5, 1));
  // Three nested transactions reach the data source once.
  const int begins = f.source->begins;
  f.controller->performTransaction([&] {
    f.controller->performTransaction([&] { f.controller->performTransaction([] {}); });
  });
  EXPECT_EQ(f.source->begins, begins + 1);
  EXPECT_EQ(f.source->ends, f.source->begins);
}

TEST(SyncController, MergesDivergedLines) {
  // Server at (5,2) with its line (3,2)->(5,2); the client's line (3,2)->(3,4).
  Fixture f(OTSyncControllerTypeServer, OTState(5, 2));
  auto& s = *f.source;
  OTSyncController& c = *f.controller;
  store(s, c, {component({3, 2}, {4, 2}, setting("A", "title", "server")),
              component({4, 2}, {5, 2}, setting("B", "done", true)),
              component({3, 2}, {3, 3}, setting("A", "title", "client")),
              component({3, 3}, {3, 4}, setting("C", "rank", 7))});
  EXPECT_EQ(c.largestStateKnownToBeReachableByClient(), OTState(3, 4));
  c.mergeWithClientIfNeeded();
  ASSERT_EQ(s.recorded.size(), 2u);
  const auto& [forServer, sendServer] = s.recorded[0];
  const auto& [forClient, sendClient] = s.recorded[1];
  EXPECT_EQ(forServer->pathDescription(), "(5,2)->(5,4)");
  EXPECT_FALSE(sendServer);
  EXPECT_EQ(forClient->pathDescription(), "(3,4)->(5,4)");
  EXPECT_TRUE(sendClient);
  // The server lacks the client's rank; the client lacks B and, the server
  // winning undated conflicts, the server's title.
  EXPECT_EQ(forServer->operation()->allUUIDsArray(), std::vector<std::string>{"C"});
  EXPECT_EQ(forClient->operation()->valueForKeyPath("A.properties.title"), Value("server"));
  EXPECT_TRUE(forClient->operation()->operationForUUID("B"));

  // The server's remainder is on its future remote line and integrated next.
  c.advanceRemoteStateIfPossible();
  EXPECT_EQ(c.currentState(), OTState(5, 4));
  ASSERT_EQ(s.integrated.size(), 1u);
  EXPECT_EQ(s.integrated[0]->allUUIDsArray(), std::vector<std::string>{"C"});

  // Covered or one-axis lines are not merged.
  for (auto [current, reachable] : {std::pair{OTState(5, 5), OTState(3, 4)}, std::pair{OTState(5, 2), OTState(5, 4)}}) {
    Fixture g(OTSyncControllerTypeServer, current);
    g.source->reachable = reachable;
    g.controller->mergeWithClientIfNeeded();
    EXPECT_TRUE(g.source->recorded.empty());
  }
}

TEST(SyncController, MissingClientComponentIsLoggedOnce) {
  std::vector<std::string> lines;
  LogSink previous = setLogSink([&](std::string_view line) { lines.emplace_back(line); });
  Fixture f(OTSyncControllerTypeServer, OTState(5, 2));
  store(*f.source, *f.controller, {component({3, 2}, {5, 2}), component({3, 3}, {3, 4})});
  f.controller->mergeWithClientIfNeeded();
  setLogSink(previous);
  EXPECT_EQ(lines, std::vector<std::string>{"OTSyncController: Could not reconstruct client path component  (3,2)->(3,4)"});
  EXPECT_TRUE(f.source->recorded.empty());
}

TEST(SyncController, SeedsAreAcceptedOnlyAheadOnTheOwnLine) {
  Fixture client(OTSyncControllerTypeClient, OTState(2, 1));
  const auto seed = component({0, 0}, {4, 1}, setting("A", "title", "x", UGEntityOperationTypeCreate));
  EXPECT_TRUE(client.controller->canIntegrateSeedFromState(*seed, {2, 1}));
  EXPECT_FALSE(client.controller->canIntegrateSeedFromState(*seed, {4, 1}));
  EXPECT_FALSE(client.controller->canIntegrateSeedFromState(*seed, {2, 2}));
  const auto foreign = make<OTPathComponent>(OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("X-Y"),
                                             seed->operation(), OTState(0, 0), OTState(4, 1));
  EXPECT_FALSE(client.controller->canIntegrateSeedFromState(*foreign, {2, 1}));
  Fixture server(OTSyncControllerTypeServer, OTState(4, 1));
  EXPECT_TRUE(server.controller->canIntegrateSeedFromState(*component({0, 0}, {4, 3}), {4, 1}));
  EXPECT_FALSE(server.controller->canIntegrateSeedFromState(*component({0, 0}, {4, 3}), {3, 1}));

  client.source->offeredSeed = seed;
  client.controller->processInternalStateAllowingHostUpdate(true);
  EXPECT_EQ(client.controller->currentState(), OTState(4, 1));
  ASSERT_EQ(client.source->integrated.size(), 1u);

  // generateSeed carries the content from the origin to the current state.
  server.source->seed = setting("A", "title", "x", UGEntityOperationTypeCreate);
  auto generated = server.controller->generateSeed();
  EXPECT_EQ(generated->pathDescription(), "(0,0)->(4,1)");
  EXPECT_TRUE(generated->isSeed());
  EXPECT_TRUE(client.controller->canIntegrateSeedFromState(*component({0, 0}, {5, 4}), {2, 4}));
}

// MARK: Composition

// The definition written out: paths grown pass by pass, copies for every
// further candidate, the last path to reach the target in the first pass that
// reaches it, otherwise the furthest path in list order.
Ref<OTPathComponent> composeDirectly(const std::vector<Ref<OTPathComponent>>& components, const OTState& start,
                                     const std::optional<OTState>& target) {
  struct Path {
    std::vector<size_t> steps;
    OTState end;
  };
  std::vector<Path> paths{{{}, start}};
  std::optional<Path> found;
  while (true) {
    bool extended = false;
    std::vector<Path> created;
    for (Path& path : paths) {
      std::vector<size_t> candidates;
      for (size_t i = 0; i < components.size(); ++i)
        if (*components[i]->fromState() == path.end) candidates.push_back(i);
      if (candidates.empty()) continue;
      extended = true;
      for (size_t k = 1; k < candidates.size(); ++k) {
        Path copy = path;
        copy.steps.push_back(candidates[k]);
        copy.end = *components[candidates[k]]->toState();
        if (target && copy.end == *target) found = copy;
        created.push_back(copy);
      }
      path.steps.push_back(candidates[0]);
      path.end = *components[candidates[0]]->toState();
      if (target && path.end == *target) found = path;
    }
    paths.insert(paths.end(), created.begin(), created.end());
    if (!extended || found) break;
  }
  Path chosen = found ? *found : paths[0];
  if (!found)
    for (const Path& path : paths)
      if (path.end.clientIndex() >= chosen.end.clientIndex() && path.end.serverIndex() >= chosen.end.serverIndex())
        chosen = path;
  if (chosen.steps.empty()) return nullptr;
  auto result = components[chosen.steps[0]]->copy();
  for (size_t i = 1; i < chosen.steps.size(); ++i) result->appendPathComponent(*components[chosen.steps[i]]);
  return result;
}

TEST(SyncController, ComposeChoosesTheSamePathAsItsDefinition) {
  // The worked case: without a target the path that took the first candidate
  // wins, and (1,1) does not dominate (0,2).
  const std::vector<Ref<OTPathComponent>> listed = {component({0, 0}, {0, 1}, setting("a", "v", 1)),
                                                    component({0, 1}, {0, 2}, setting("b", "v", 2)),
                                                    component({0, 1}, {1, 1}, setting("c", "v", 3))};
  for (const auto& target : {std::optional<OTState>(OTState(0, 2)), std::optional<OTState>()}) {
    auto composed = OTSyncController::composePathComponentsFromStateUpToState(listed, {0, 0}, target);
    EXPECT_EQ(composed->pathDescription(), "(0,0)->(0,2)");
    EXPECT_EQ(composed->operation()->allUUIDsArray(), (std::vector<std::string>{"a", "b"}));
  }
  // A loop or a step back would let the growth run forever.
  const std::vector<Ref<OTPathComponent>> nowhere = {component({0, 0}, {0, 0}), component({0, 0}, {0, 1}),
                                                     component({0, 1}, {0, 0}), component({0, 1}, {1, 0})};
  EXPECT_EQ(OTSyncController::composePathComponentsFromStateUpToState(nowhere, {0, 0}, std::nullopt)->pathDescription(),
            "(0,0)->(0,1)");
  EXPECT_FALSE(OTSyncController::composePathComponentsFromStateUpToState({}, {0, 0}, OTState(1, 1)));

  const uint64_t seed = 20261123;
  std::mt19937_64 rng(seed);
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  for (int round = 0; round < 3000; ++round) {
    std::vector<Ref<OTPathComponent>> components;
    const int count = uniform(0, 14);
    for (int i = 0; i < count; ++i) {
      const OTState from(uniform(0, 3), uniform(0, 3));
      const int axis = uniform(0, 2);
      const OTState to(from.serverIndex() + (axis != 1 ? uniform(1, 2) : 0),
                       from.clientIndex() + (axis != 0 ? uniform(1, 2) : 0));
      components.push_back(component(from, to, setting("u" + std::to_string(i), "v", i)));
    }
    const OTState start(uniform(0, 1), uniform(0, 1));
    std::optional<OTState> target;
    if (uniform(0, 1) == 1) target = OTState(uniform(0, 5), uniform(0, 5));
    auto fast = OTSyncController::composePathComponentsFromStateUpToState(components, start, target);
    auto direct = composeDirectly(components, start, target);
    ASSERT_EQ(fast == nullptr, direct == nullptr) << "seed " << seed << " round " << round;
    if (!fast) continue;
    ASSERT_EQ(fast->pathDescription(), direct->pathDescription()) << "seed " << seed << " round " << round;
    ASSERT_EQ(fast->operation()->allUUIDsArray(), direct->operation()->allUUIDsArray())
        << "seed " << seed << " round " << round;
  }
}

// The merge records the server's remainder and then the client's, outside any
// controller transaction. A process that dies between the two keeps the
// server's remainder only: the server then counts the merged state as
// reachable by the client, integrates its remainder and never merges again,
// and the client's remainder is never made. The shortest trace: one change on
// each side, a merge cut off between its two records. A host that runs the
// processing inside a controller transaction of its own loses the whole
// merge instead, and the next pass makes it again.
TEST(SyncController, MergeCutOffBetweenItsTwoRecordsStrandsTheClient) {
  struct Dies {};
  class Dying : public Source {
   public:
    using Source::Source;
    int recordsUntilDeath = -1;
    void OTSyncControllerRecordPathComponentEnqueueForTransfer(OTSyncController& c, const Ref<OTPathComponent>& p,
                                                               bool enqueue) override {
      if (recordsUntilDeath == 0) throw Dies{};
      if (recordsUntilDeath > 0) --recordsUntilDeath;
      Source::OTSyncControllerRecordPathComponentEnqueueForTransfer(c, p, enqueue);
    }
  };
  for (bool hostWrapsProcessing : {false, true}) {
    auto file = std::make_shared<MemoryFile>();
    std::shared_ptr<Dying> source;
    Ref<OTSyncController> server;
    auto restart = [&] {  // a new process on the same file
      server.reset();
      source.reset();
      source = std::make_shared<Dying>(file);
      server = boot(source, OTSyncControllerTypeServer);
    };
    auto process = [&] {
      if (hostWrapsProcessing) {
        server->performTransaction([&] { server->processInternalStateAllowingHostUpdate(true); });
      } else {
        server->processInternalStateAllowingHostUpdate(true);
      }
    };
    restart();
    server->resetIfNeededAndSeedUsingStateSpaceIdentifier(kIdentifier);
    server->stageLocalOperation(*setting("A", "title", "server"));
    store(*source, *server, {component({0, 0}, {0, 1}, setting("B", "title", "client"))});
    source->recordsUntilDeath = 1;
    EXPECT_THROW(process(), Dies);
    restart();
    for (int pass = 0; pass < 3; ++pass) process();
    EXPECT_EQ(server->currentState(), OTState(1, 1));
    const auto fromClientState = source->OTSyncControllerPathComponentsInRange(
        *server, *OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(
                     1, 1, 0, std::numeric_limits<int64_t>::max()));
    const bool clientCanMoveOn = std::any_of(fromClientState.begin(), fromClientState.end(),
                                             [](const auto& c) { return *c->fromState() == OTState(0, 1); });
    EXPECT_EQ(clientCanMoveOn, hostWrapsProcessing) << "host wraps processing: " << hostWrapsProcessing;
  }
}

// The furthest state the client can reach is read as the end state with the
// largest client index (and among those the largest server index). Read the
// other way round, as "the components with the largest server index first",
// the server's own components, which the client has not followed once it made
// a change of its own, hide the client's line: after one concurrent change on
// each side the server never merges and neither side can move on.
TEST(SyncController, ReachableStateReadServerIndexFirstNeverMerges) {
  class ServerIndexFirst : public Source {
   public:
    bool serverIndexFirst = false;
    std::optional<OTState> stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(
        OTSyncController& controller) override {
      if (!serverIndexFirst)
        return Source::stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(
            controller);
      std::optional<OTState> best;
      for (const auto& component : OTSyncControllerPathComponentsInRange(controller, *OTRange::infiniteRange())) {
        const OTState& to = *component->toState();
        if (!best || to.serverIndex() > best->serverIndex() ||
            (to.serverIndex() == best->serverIndex() && to.clientIndex() > best->clientIndex()))
          best = to;
      }
      return best;
    }
  };
  for (bool serverIndexFirst : {false, true}) {
    auto source = std::make_shared<ServerIndexFirst>();
    source->serverIndexFirst = serverIndexFirst;
    auto server = boot(source, OTSyncControllerTypeServer);
    server->resetIfNeededAndSeedUsingStateSpaceIdentifier(kIdentifier);
    server->stageLocalOperation(*setting("A", "title", "server"));
    store(*source, *server, {component({0, 0}, {0, 1}, setting("B", "title", "client"))});
    for (int pass = 0; pass < 3; ++pass) server->processInternalStateAllowingHostUpdate(true);
    EXPECT_EQ(server->currentState(), serverIndexFirst ? OTState(1, 0) : OTState(1, 1));
    EXPECT_EQ(source->recorded.size(), serverIndexFirst ? 1u : 3u);
  }
}

}  // namespace
}  // namespace loomwork::synctest
