// The SQLite storage: the same answers as the in-memory storage on random
// histories, durability across a killed process, and bad bytes on disk or
// from the other device.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "../MemoryStorage.h"
#include "../Simulation.h"
#include "loomwork/platform/Log.h"
#include "loomwork/sqlite.h"

namespace loomwork::synctest {
namespace {

const auto kIdentifier = OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("SERVER-CLIENT");

// The host calls are not used by these tests.
template <class Storage>
class Bare : public Storage {
 public:
  using Storage::Storage;
  Ref<UGTransaction> seedForOTSyncController(OTSyncController&) override { return nullptr; }
  bool OTSyncControllerCanIntegrateOperations(OTSyncController&) override { return false; }
  Ref<OTPathComponent> availableSeedForSyncController(OTSyncController&) override { return nullptr; }
  void OTSyncControllerIntegrateReplacementSeed(OTSyncController&, const Ref<UGMutableTransaction>&) override {}
  void OTSyncControllerIntegrateAndConsumeOperation(OTSyncController&, const Ref<UGMutableTransaction>&) override {}
  void OTSyncControllerPerformIntegrationBlock(OTSyncController&, std::function<void()> block) override { block(); }
};

std::filesystem::path temporaryFile(const std::string& name) {
  auto path = std::filesystem::temp_directory_path() / ("loomwork-" + std::to_string(::getpid()) + "-" + name);
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path.string() + suffix);
  return path;
}

Ref<OTPathComponent> component(OTState from, OTState to, int marker) {
  auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeUpdate, "Task");
  operation->setValueForProperty(Value(marker), "v");
  operation->setValueForProperty(Value::set({Value::null(), Value("s")}), "w");
  return make<OTPathComponent>(kIdentifier, UGMutableTransaction::transactionWithOperationForUUID(operation, "U"), from,
                               to);
}

std::vector<std::string> identifiers(const std::vector<Ref<OTPathComponent>>& components) {
  std::vector<std::string> text;
  for (const auto& c : components) text.push_back(c->uniqueIdentifier() + " " + c->operation()->description());
  return text;
}

std::string hex(const Data& bytes) {
  static const char* digits = "0123456789abcdef";
  std::string text;
  for (uint8_t byte : bytes) text += {digits[byte >> 4], digits[byte & 15]};
  return text;
}

Ref<OTRange> randomRange(std::mt19937_64& rng, int depth = 0) {
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  if (depth < 2 && uniform(0, 2) == 0) {
    std::vector<Ref<OTRange>> members;
    for (int n = uniform(0, 3); n > 0; --n) members.push_back(randomRange(rng, depth + 1));
    return uniform(0, 1) ? Ref<OTRange>(OTRange::rangeFromUnionOfRanges(members))
                         : Ref<OTRange>(OTRange::rangeFromIntersectionOfRanges(members));
  }
  auto bound = [&](bool low) -> int64_t {
    if (uniform(0, 4) == 0) return low ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    return uniform(0, 6);
  };
  return OTRange::rangeFromClientIndexToClientIndexFromServerIndexToServerIndex(bound(true), bound(false), bound(true),
                                                                                bound(false));
}

TEST(SQLiteStore, AnswersAsTheMemoryStorageOnRandomHistories) {
  const uint64_t seed = 4242;
  std::mt19937_64 rng(seed);
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  const auto path = temporaryFile("random.sqlite");
  for (int run = 0; run < 40; ++run) {
    for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path.string() + suffix);
    auto file = std::make_shared<MemoryFile>();
    auto sqlite = std::make_shared<Bare<OTSQLiteDataSource>>(path.string());
    auto memory = std::make_shared<Bare<MemoryStorage>>(file);
    OTSyncController controller(OTSyncControllerTypeServer);
    auto both = [&](auto change) { change(*sqlite), change(*memory); };
    auto identify = [&] {
      both([&](auto& s) {
        s.OTSyncControllerSetValueForKey(controller, Value("SERVER-CLIENT"), kOTSyncControllerStateSpaceIdentifier);
      });
    };
    identify();
    bool inTransaction = false;
    for (int step = 0; step < 60; ++step) {
      const std::string where = "seed " + std::to_string(seed) + " run " + std::to_string(run) + " step " +
                                std::to_string(step);
      const OTState from(uniform(0, 5), uniform(0, 5));
      const OTState to(from.serverIndex() + uniform(0, 1), from.clientIndex() + uniform(0, 1));
      switch (uniform(0, 7)) {
        case 0:
        case 1: {
          const bool enqueue = uniform(0, 1);
          both([&](auto& s) {
            s.OTSyncControllerRecordPathComponentEnqueueForTransfer(controller, component(from, to, step), enqueue);
          });
          break;
        }
        case 2: {
          auto bytes = *component(from, to, step)->data();
          ASSERT_EQ(sqlite->receivePathComponentData(bytes), memory->receivePathComponentData(bytes)) << where;
          break;
        }
        case 3: {
          auto range = randomRange(rng);
          both([&](auto& s) { s.OTSyncControllerRemovePathComponentsNotInRange(controller, *range); });
          break;
        }
        case 4: {
          auto pending = sqlite->pendingTransfers();
          auto expected = memory->pendingTransfers();
          ASSERT_EQ(pending.size(), expected.size()) << where;
          for (size_t i = 0; i < pending.size(); ++i) ASSERT_EQ(pending[i].uniqueIdentifier, expected[i].uniqueIdentifier);
          if (!pending.empty()) {
            const auto& uid = pending[static_cast<size_t>(uniform(0, static_cast<int>(pending.size()) - 1))].uniqueIdentifier;
            both([&](auto& s) { s.acknowledgeTransfer(uid); });
          }
          break;
        }
        case 5:
          // Values written inside a transaction are read back at once.
          both([&](auto& s) {
            inTransaction ? s.endTransactionForOTSyncController(controller)
                          : s.beginTransactionForOTSyncController(controller);
          });
          inTransaction = !inTransaction;
          break;
        case 6: {
          const std::string key = uniform(0, 1) ? "a" : "b";
          const std::optional<Value> value = uniform(0, 3) ? std::optional<Value>(Value(step)) : std::nullopt;
          const OTState claimed(step, uniform(0, 5));
          both([&](auto& s) {
            s.OTSyncControllerSetValueForKey(controller, value, key);
            s.setClaimedRemoteState(claimed);
          });
          break;
        }
        default:
          if (uniform(0, 5) == 0) {
            both([&](auto& s) { s.removeAllMetadataForOTSyncController(controller); });
            if (uniform(0, 1)) identify();
          } else if (uniform(0, 2) == 0) {
            // Closed and opened again; a transaction still open is cut off.
            sqlite.reset();
            memory.reset();
            sqlite = std::make_shared<Bare<OTSQLiteDataSource>>(path.string());
            memory = std::make_shared<Bare<MemoryStorage>>(file);
            inTransaction = false;
          }
          break;
      }
      for (const char* key : {"a", "b", kOTSyncControllerStateSpaceIdentifier.data()})
        ASSERT_EQ(sqlite->OTSyncControllerValueForKey(controller, key), memory->OTSyncControllerValueForKey(controller, key))
            << where << " " << key;
      ASSERT_EQ(sqlite->claimedRemoteStateForSyncController(controller), memory->claimedRemoteStateForSyncController(controller))
          << where;
      auto range = randomRange(rng);
      auto found = sqlite->OTSyncControllerPathComponentsInRange(controller, *range);
      ASSERT_EQ(identifiers(found), identifiers(memory->OTSyncControllerPathComponentsInRange(controller, *range)))
          << where << " " << range->description();
      // What a query hands out is the caller's: changing it changes nothing stored.
      for (const auto& c : found) c->reduceByPathComponent(*c);
      ASSERT_EQ(sqlite->stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(controller),
                memory->stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(controller))
          << where;
      ASSERT_EQ(sqlite->stateWithLargestClientIndexBeingOriginOfPathComponentWithSmallestServerIndexForOTSyncController(controller),
                memory->stateWithLargestClientIndexBeingOriginOfPathComponentWithSmallestServerIndexForOTSyncController(controller))
          << where;
      ASSERT_EQ(sqlite->pathComponentCount(), memory->pathComponentCount()) << where;
    }
    if (inTransaction) both([&](auto& s) { s.endTransactionForOTSyncController(controller); });
  }
}

// A file of the earlier layout, with its unique index on identifiers and its
// indexes on states, is brought up to date when it opens; a later layout is
// refused.
TEST(SQLiteStore, OpensFilesOfOtherLayouts) {
  const auto path = temporaryFile("layout.sqlite");
  OTSyncController controller(OTSyncControllerTypeClient);
  const Data first = *component({0, 0}, {0, 1}, 1)->data();
  const Data second = *component({0, 1}, {1, 1}, 2)->data();
  {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    const std::string sql =
        "CREATE TABLE metadata(key TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;"
        "CREATE TABLE host_values(key TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;"
        "CREATE TABLE components(id INTEGER PRIMARY KEY, uid TEXT NOT NULL UNIQUE, from_s INTEGER NOT NULL,"
        " from_c INTEGER NOT NULL, to_s INTEGER NOT NULL, to_c INTEGER NOT NULL, data BLOB NOT NULL,"
        " pending INTEGER NOT NULL DEFAULT 0);"
        "CREATE INDEX components_from_c ON components(from_c, from_s);"
        "CREATE INDEX components_to ON components(to_c, to_s);"
        "INSERT INTO components VALUES(4, 'SERVER-CLIENT-(0,0)->(0,1)', 0, 0, 0, 1, x'" + hex(first) + "', 1);"
        "INSERT INTO components VALUES(9, 'SERVER-CLIENT-(0,1)->(1,1)', 0, 1, 1, 1, x'" + hex(second) + "', 0);";
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
  }
  {
    auto store = std::make_shared<Bare<OTSQLiteDataSource>>(path.string());
    EXPECT_EQ(identifiers(store->OTSyncControllerPathComponentsInRange(controller, *OTRange::infiniteRange())),
              identifiers({component({0, 0}, {0, 1}, 1), component({0, 1}, {1, 1}, 2)}));
    ASSERT_EQ(store->pendingTransfers().size(), 1u);
    EXPECT_EQ(store->pendingTransfers()[0].data, first);
    EXPECT_EQ(store->stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(controller),
              OTState(1, 1));
    // Stored again under the same identifier: replaced in place, not added.
    store->OTSyncControllerRecordPathComponentEnqueueForTransfer(controller, component({0, 1}, {1, 1}, 3), false);
    EXPECT_EQ(store->pathComponentCount(), 2u);
  }
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version = 99", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  EXPECT_THROW(Bare<OTSQLiteDataSource> refused(path.string()), OTSQLiteError);
}

TEST(SQLiteStore, KeepsValuesAndRefusesForeignComponents) {
  auto store = std::make_shared<Bare<OTSQLiteDataSource>>(":memory:");
  OTSyncController controller(OTSyncControllerTypeClient);
  const Value nested = Value::dictionary({{"s", Value(2)}, {"n", Value::null()}, {"set", Value::set({Value(1)})}});
  store->OTSyncControllerSetValueForKey(controller, nested, "k");
  EXPECT_EQ(store->OTSyncControllerValueForKey(controller, "k"), nested);

  // Nothing is received before the pairing is known, nor from another one.
  const Data bytes = *component({0, 0}, {0, 1}, 1)->data();
  EXPECT_FALSE(store->receivePathComponentData(bytes));
  store->OTSyncControllerSetValueForKey(controller, Value("SERVER-CLIENT"), kOTSyncControllerStateSpaceIdentifier);
  EXPECT_TRUE(store->receivePathComponentData(bytes));
  auto foreign = component({0, 1}, {0, 2}, 2);
  foreign->setStateSpaceIdentifier(OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier("X-Y"));
  EXPECT_FALSE(store->receivePathComponentData(*foreign->data()));
  EXPECT_FALSE(store->receivePathComponentData(*component({0, 2}, {0, 1}, 3)->data()));
  EXPECT_FALSE(store->receivePathComponentData(*component({0, 2}, {0, 2}, 3)->data()));
  Data truncated(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(bytes.size() / 2));
  EXPECT_FALSE(store->receivePathComponentData(truncated));
  EXPECT_FALSE(store->receivePathComponentData({}));
  EXPECT_EQ(store->pathComponentCount(), 1u);

  // Host values survive the removal of the controller's metadata.
  store->setHostValueForKey(Value("a"), "e/1");
  store->setHostValueForKey(Value("b"), "e/2");
  store->setHostValueForKey(Value("c"), "f/1");
  store->removeAllMetadataForOTSyncController(controller);
  EXPECT_EQ(store->hostValuesWithPrefix("e/").size(), 2u);
  EXPECT_THROW(store->setHostValueForKey(Value(make<Object>()), "o"), OTSQLiteError);
}

TEST(SQLiteStore, UnreadableStoredComponentIsSkippedWithALogLine) {
  const auto path = temporaryFile("corrupt.sqlite");
  OTSyncController controller(OTSyncControllerTypeClient);
  {
    auto store = std::make_shared<Bare<OTSQLiteDataSource>>(path.string());
    store->OTSyncControllerRecordPathComponentEnqueueForTransfer(controller, component({0, 0}, {0, 1}, 1), false);
    store->OTSyncControllerRecordPathComponentEnqueueForTransfer(controller, component({0, 1}, {0, 2}, 2), false);
  }
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "UPDATE components SET data = x'62706c6973743030ff' WHERE from_c = 0", nullptr, nullptr,
                         nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  std::vector<std::string> lines;
  LogSink previous = setLogSink([&](std::string_view line) { lines.emplace_back(line); });
  auto store = std::make_shared<Bare<OTSQLiteDataSource>>(path.string());
  auto found = store->OTSyncControllerPathComponentsInRange(controller, *OTRange::infiniteRange());
  setLogSink(previous);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]->pathDescription(), "(0,1)->(0,2)");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("SERVER-CLIENT-(0,0)->(0,1)"), std::string::npos);

  // A file that is not a database is refused with an exception.
  const auto garbage = temporaryFile("garbage.sqlite");
  std::ofstream(garbage) << std::string(4096, 'x');
  EXPECT_THROW(Bare<OTSQLiteDataSource> refused(garbage.string()), OTSQLiteError);
}

void execute(OTSQLiteDataSource& store, const std::string& sql) {
  ASSERT_EQ(sqlite3_exec(store.connection(), sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
}

// A controller transaction is all or nothing across a process that is killed,
// with what the host wrote in it: its values and rows of its own tables.
TEST(SQLiteStore, CommittedTransactionsSurviveAKilledProcess) {
  const auto path = temporaryFile("killed.sqlite");
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    auto store = std::make_shared<Bare<OTSQLiteDataSource>>(path.string());
    auto controller = make<OTSyncController>(OTSyncControllerTypeClient);
    controller->setDataSource(store);
    controller->restoreInternalState();
    controller->resetIfNeededAndSeedUsingStateSpaceIdentifier(kIdentifier);
    execute(*store, "CREATE TABLE model(name TEXT)");
    // Each transaction writes far more log than one write call carries.
    controller->performTransaction([&] {
      store->setHostValueForKey(Value(std::string(400000, 'k')), "big");
      store->setHostValueForKey(Value("kept"), "e/1");
      execute(*store, "INSERT INTO model VALUES('kept')");
      controller->stageLocalOperation(*component({0, 0}, {0, 1}, 1)->operation());
    });
    controller->beginTransaction();
    store->setHostValueForKey(Value(std::string(400000, 'l')), "big");
    store->setHostValueForKey(Value("lost"), "e/2");
    execute(*store, "INSERT INTO model VALUES('lost')");
    controller->stageLocalOperation(*component({0, 1}, {0, 2}, 2)->operation());
    ::kill(::getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  auto store = std::make_shared<Bare<OTSQLiteDataSource>>(path.string());
  auto controller = make<OTSyncController>(OTSyncControllerTypeClient);
  controller->setDataSource(store);
  controller->restoreInternalState();
  EXPECT_EQ(controller->currentState(), OTState(0, 1));
  EXPECT_EQ(store->hostValueForKey("e/1"), Value("kept"));
  EXPECT_EQ(store->hostValueForKey("big"), Value(std::string(400000, 'k')));
  EXPECT_FALSE(store->hostValueForKey("e/2"));
  EXPECT_EQ(store->pathComponentCount(), 1u);
  EXPECT_EQ(store->pendingTransfers().size(), 1u);
  sqlite3_stmt* rows = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(store->connection(), "SELECT group_concat(name) FROM model", -1, &rows, nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_step(rows), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(rows, 0)), "kept");
  sqlite3_finalize(rows);

  // Held exclusively, the file cannot be read beside the store; shared, it can.
  auto readable = [&] {
    sqlite3* other = nullptr;
    sqlite3_open(path.c_str(), &other);
    const int result = sqlite3_exec(other, "SELECT count(*) FROM model", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    return result == SQLITE_OK;
  };
  EXPECT_FALSE(readable());
  store.reset();
  controller.reset();
  auto shared = std::make_shared<Bare<OTSQLiteDataSource>>(path.string(), OTSQLiteDataSource::Options{false, 4096});
  EXPECT_EQ(shared->hostValueForKey("e/1"), Value("kept"));
  EXPECT_TRUE(readable());
}

TEST(SQLiteStore, SimulationConvergesOnDatabaseFiles) {
  const Faults all{true, true, true, true, true, true};
  const char* text = std::getenv("LOOMWORK_SIM_RUNS");
  const uint64_t runs = text ? static_cast<uint64_t>(std::atoi(text)) : 30;
  for (uint64_t seed = 1; seed <= runs; ++seed) {
    Simulation<OTSQLiteDataSource> simulation(seed, seed % 2 ? all : Faults{.crashes = true}, 60);
    ASSERT_EQ(simulation.run(), "") << "seed " << seed;
    EXPECT_LE(std::max(simulation.storedComponents(0), simulation.storedComponents(1)), 6u) << "seed " << seed;
  }
}

}  // namespace
}  // namespace loomwork::synctest
