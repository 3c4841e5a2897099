#include "loomwork/sqlite/OTSQLiteDataSource.h"

#include <sqlite3.h>

#include <algorithm>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "loomwork/additions/PropertyListAdditions.h"
#include "loomwork/platform/Log.h"
#include "loomwork/platform/PropertyList.h"
#include "loomwork/sync/OTStateSpaceIdentifier.h"
#include "loomwork/sync/OTSyncController.h"

namespace loomwork {

namespace {

constexpr std::string_view kClaimedRemoteStateKey = "claimedRemoteState";

const char* const kSchema = R"sql(
CREATE TABLE IF NOT EXISTS metadata(key TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS host_values(key TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS components(
  id INTEGER PRIMARY KEY,
  uid TEXT NOT NULL UNIQUE,
  from_s INTEGER NOT NULL, from_c INTEGER NOT NULL,
  to_s INTEGER NOT NULL, to_c INTEGER NOT NULL,
  data BLOB NOT NULL,
  pending INTEGER NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS components_from_c ON components(from_c, from_s);
DROP INDEX IF EXISTS components_from_s;
CREATE INDEX IF NOT EXISTS components_from_s_c ON components(from_s, from_c DESC);
CREATE INDEX IF NOT EXISTS components_to ON components(to_c, to_s);
CREATE INDEX IF NOT EXISTS components_pending ON components(id) WHERE pending = 1;
)sql";

Data encode(const Value& value) {
  std::string error;
  auto bytes = dataFromExtendedPropertyListFormatErrorDescription(value, PropertyListFormat::Binary, &error);
  if (!bytes) throw OTSQLiteError("OTSQLiteDataSource: a value cannot be stored: " + error);
  return std::move(*bytes);
}

std::optional<Value> decode(std::span<const uint8_t> bytes) {
  return extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
      bytes, PropertyListMutabilityOption::Immutable, nullptr, nullptr);
}

}  // namespace

// MARK: SQLite wrappers

class OTSQLiteDataSource::Statement {
 public:
  Statement(sqlite3* db, const std::string& sql) : db_(db) {
    if (sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &statement_,
                           nullptr) != SQLITE_OK)
      fail();
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& reset() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
    next_ = 1;
    return *this;
  }
  Statement& bind(int64_t value) {
    sqlite3_bind_int64(statement_, next_++, value);
    return *this;
  }
  Statement& bind(std::string_view text) {
    sqlite3_bind_text(statement_, next_++, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Statement& bind(std::span<const uint8_t> bytes) {
    sqlite3_bind_blob(statement_, next_++, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
    return *this;
  }
  // True while a row is available.
  bool step() {
    const int rc = sqlite3_step(statement_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) fail();
    return false;
  }
  void run() {
    while (step()) {
    }
    sqlite3_reset(statement_);
  }
  int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  std::string_view text(int column) const {
    const auto* chars = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return chars ? std::string_view(chars, static_cast<size_t>(sqlite3_column_bytes(statement_, column)))
                 : std::string_view();
  }
  std::span<const uint8_t> blob(int column) const {
    const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(statement_, column));
    return bytes ? std::span<const uint8_t>(bytes, static_cast<size_t>(sqlite3_column_bytes(statement_, column)))
                 : std::span<const uint8_t>();
  }

 private:
  [[noreturn]] void fail() {
    std::string message = std::string("OTSQLiteDataSource: ") + sqlite3_errmsg(db_);
    if (statement_) sqlite3_reset(statement_);
    throw OTSQLiteError(message);
  }
  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
  int next_ = 1;
};

class OTSQLiteDataSource::Database {
 public:
  Database(const std::string& path, const OTSQLiteDataSource::Options& options) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
      std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
      sqlite3_close_v2(db_);
      throw OTSQLiteError("OTSQLiteDataSource: cannot open " + path + ": " + message);
    }
    try {
      // Small pages keep the frames a commit appends to the log small; the
      // exclusive lock keeps the log's index in memory and saves the file
      // locks of every transaction.
      execute(("PRAGMA page_size=" + std::to_string(options.pageSize)).c_str());
      if (options.exclusive) execute("PRAGMA locking_mode=EXCLUSIVE");
      execute("PRAGMA journal_mode=WAL");
      execute("PRAGMA synchronous=NORMAL");
      execute("PRAGMA wal_autocheckpoint=8192");
      // Reads of the file go through a memory map instead of one read call
      // per page, and a long line of components stays in the page cache.
      execute("PRAGMA mmap_size=268435456");
      execute("PRAGMA cache_size=-16384");
      execute(kSchema);
      begin_ = std::make_unique<Statement>(db_, "BEGIN IMMEDIATE");
      commit_ = std::make_unique<Statement>(db_, "COMMIT");
    } catch (...) {
      statements_.clear();
      begin_.reset();
      commit_.reset();
      sqlite3_close_v2(db_);
      throw;
    }
  }
  ~Database() {
    statements_.clear();
    begin_.reset();
    commit_.reset();
    // An open transaction is rolled back by closing.
    sqlite3_close_v2(db_);
  }

  void execute(const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
      std::string message = error ? error : sqlite3_errmsg(db_);
      sqlite3_free(error);
      throw OTSQLiteError("OTSQLiteDataSource: " + message);
    }
  }

  // A prepared statement, made once per text and kept.
  Statement& statement(const std::string& sql) {
    noticeRollBack();
    auto it = statements_.find(sql);
    if (it == statements_.end()) it = statements_.emplace(sql, std::make_unique<Statement>(db_, sql)).first;
    return it->second->reset();
  }

  // Runs `body` atomically: inside a running transaction as a savepoint,
  // otherwise as a transaction of its own.
  template <class Body>
  void atomically(Body&& body) {
    execute("SAVEPOINT atomically");
    try {
      body();
    } catch (...) {
      sqlite3_exec(db_, "ROLLBACK TO atomically; RELEASE atomically", nullptr, nullptr, nullptr);
      throw;
    }
    execute("RELEASE atomically");
  }

  sqlite3* handle() const { return db_; }

  void begin() {
    begin_->reset().run();
    open_ = true;
  }
  // Writes the values held back for the transaction, then commits.
  void commit() {
    if (noticeRollBack()) throw OTSQLiteError("OTSQLiteDataSource: the transaction was rolled back after a failure");
    for (auto& [key, bytes] : heldBack_) writeValue(key, bytes);
    heldBack_.clear();
    commit_->reset().run();
    open_ = false;
  }

  // SQLite rolls a transaction back by itself after some failures (a full
  // disk, an I/O error). What is remembered or held back may then be ahead of
  // the file: it is dropped. True when that happened.
  bool noticeRollBack() {
    if (!open_ || !sqlite3_get_autocommit(db_)) return false;
    open_ = false;
    values_.clear();
    heldBack_.clear();
    known_.clear();
    return true;
  }

  // MARK: Controller values
  //
  // Values read or written are remembered (nothing else writes the file while
  // it is open). Inside a controller transaction a write is held back until
  // the commit, so a value set many times in one transaction is written
  // once; reads see it at once. The bytes are made at the call, so a value
  // that cannot be stored fails there.

  std::optional<Value> value(std::string_view key) {
    noticeRollBack();
    if (auto it = values_.find(key); it != values_.end()) return it->second;
    Statement& select = statement("SELECT value FROM metadata WHERE key = ?");
    std::optional<Value> value;
    if (select.bind(key).step()) {
      value = decode(select.blob(0));
      select.reset();
    }
    values_.emplace(std::string(key), value);
    return value;
  }

  void setValue(std::string_view key, const std::optional<Value>& value, bool holdBack) {
    std::optional<Data> bytes;
    if (value) bytes = encode(*value);
    if (holdBack) {
      heldBack_.insert_or_assign(std::string(key), std::move(bytes));
    } else {
      writeValue(key, bytes);
      if (auto it = heldBack_.find(key); it != heldBack_.end()) heldBack_.erase(it);
    }
    values_.insert_or_assign(std::string(key), value);
  }

  void removeAllValues() {
    values_.clear();
    heldBack_.clear();
    statement("DELETE FROM metadata").run();
  }

  // MARK: Components read before
  //
  // The components stored or received through this data source, as read
  // objects by unique identifier, so that a range query hands out copies
  // instead of reading the bytes again. Entries leave with their rows; the
  // number kept is bounded.

  Ref<OTPathComponent> known(std::string_view uid) {
    noticeRollBack();
    auto it = known_.find(uid);
    return it == known_.end() ? nullptr : it->second;
  }
  void remember(std::string_view uid, Ref<OTPathComponent> component) {
    if (auto it = known_.find(uid); it != known_.end()) {
      it->second = std::move(component);
    } else if (known_.size() < kKnownLimit) {
      known_.emplace(std::string(uid), std::move(component));
    }
  }
  void forget(std::string_view uid) {
    if (auto it = known_.find(uid); it != known_.end()) known_.erase(it);
  }
  void forgetAll() { known_.clear(); }

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  template <class T>
  using Map = std::unordered_map<std::string, T, Hash, std::equal_to<>>;
  static constexpr size_t kKnownLimit = 4096;

  void writeValue(std::string_view key, const std::optional<Data>& bytes) {
    if (!bytes) {
      statement("DELETE FROM metadata WHERE key = ?").bind(key).run();
    } else {
      statement("INSERT OR REPLACE INTO metadata(key, value) VALUES(?, ?)").bind(key).bind(*bytes).run();
    }
  }

  sqlite3* db_ = nullptr;
  std::unordered_map<std::string, std::unique_ptr<Statement>> statements_;
  std::unique_ptr<Statement> begin_, commit_;
  Map<std::optional<Value>> values_;
  Map<std::optional<Data>> heldBack_;
  Map<Ref<OTPathComponent>> known_;
  bool open_ = false;  // a transaction was begun and not yet committed
};

// The SQL condition for "the state in columns (s, c) lies in the range", with
// its parameters. Ranges of kinds other than boxes, unions and intersections
// cannot be put into SQL; `exact` is then false.
struct OTSQLiteDataSource::Where {
  std::string sql;
  std::vector<int64_t> parameters;
  bool exact = true;

  void add(const OTRange& range, const char* s, const char* c) {
    if (const auto* box = dynamic_cast<const OTElementaryRange*>(&range)) {
      sql += "(";
      interval(c, box->minClientIndex(), box->maxClientIndex());
      sql += " AND ";
      interval(s, box->minServerIndex(), box->maxServerIndex());
      sql += ")";
    } else if (const auto* compound = dynamic_cast<const OTCompoundRange*>(&range)) {
      const bool isUnion = compound->type() == OTCompoundRangeTypeUnion;
      if (!isUnion && compound->type() != OTCompoundRangeTypeIntersection) {
        sql += "0";
        return;
      }
      if (compound->ranges().empty()) {
        sql += isUnion ? "0" : "1";
        return;
      }
      sql += "(";
      bool first = true;
      for (const auto& member : compound->ranges()) {
        if (!first) sql += isUnion ? " OR " : " AND ";
        first = false;
        if (member) {
          add(*member, s, c);
        } else {
          sql += isUnion ? "0" : "1";
        }
      }
      sql += ")";
    } else {
      exact = false;
    }
  }

 private:
  // A single value is written as an equality, which tells the planner which
  // index fits a line of the state space.
  void interval(const char* column, int64_t min, int64_t max) {
    sql += column;
    if (min == max) {
      sql += " = ?";
      parameters.push_back(min);
    } else {
      sql += " BETWEEN ? AND ?";
      parameters.insert(parameters.end(), {min, max});
    }
  }
};

// MARK: OTSQLiteDataSource

OTSQLiteDataSource::OTSQLiteDataSource(const std::string& path) : OTSQLiteDataSource(path, Options()) {}

OTSQLiteDataSource::OTSQLiteDataSource(const std::string& path, const Options& options)
    : database_(new Database(path.empty() ? std::string(":memory:") : path, options)) {}

sqlite3* OTSQLiteDataSource::connection() { return database_->handle(); }

OTSQLiteDataSource::~OTSQLiteDataSource() { delete database_; }

std::optional<Value> OTSQLiteDataSource::OTSyncControllerValueForKey(OTSyncController&, std::string_view key) {
  return database_->value(key);
}

void OTSQLiteDataSource::OTSyncControllerSetValueForKey(OTSyncController&, const std::optional<Value>& value,
                                                        std::string_view key) {
  database_->setValue(key, value, inTransaction_);
}

void OTSQLiteDataSource::removeAllMetadataForOTSyncController(OTSyncController&) {
  database_->forgetAll();
  database_->atomically([&] {
    database_->removeAllValues();
    database_->statement("DELETE FROM components").run();
  });
}

void OTSQLiteDataSource::OTSyncControllerRecordPathComponentEnqueueForTransfer(OTSyncController&,
                                                                               const Ref<OTPathComponent>& component,
                                                                               bool enqueueForTransfer) {
  if (!component || !component->fromState() || !component->toState()) return;
  std::optional<Data> bytes = component->data();
  if (!bytes) throw OTSQLiteError("OTSQLiteDataSource: the component " + component->uniqueIdentifier() +
                                  " cannot be written as a property list");
  const OTState& from = *component->fromState();
  const OTState& to = *component->toState();
  const std::string uid = component->uniqueIdentifier();
  database_
      ->statement(
          "INSERT INTO components(uid, from_s, from_c, to_s, to_c, data, pending) VALUES(?, ?, ?, ?, ?, ?, ?) "
          "ON CONFLICT(uid) DO UPDATE SET data = excluded.data, pending = max(pending, excluded.pending)")
      .bind(uid)
      .bind(from.serverIndex())
      .bind(from.clientIndex())
      .bind(to.serverIndex())
      .bind(to.clientIndex())
      .bind(*bytes)
      .bind(int64_t{enqueueForTransfer ? 1 : 0})
      .run();
  database_->remember(uid, component->copy());
}

std::vector<Ref<OTPathComponent>> OTSQLiteDataSource::OTSyncControllerPathComponentsInRange(OTSyncController&,
                                                                                            const OTRange& range) {
  Where where;
  where.add(range, "from_s", "from_c");
  where.sql += " AND ";
  where.add(range, "to_s", "to_c");
  // Read in index order and put in the order of storing here: sorting in SQL
  // would copy every row's bytes into a temporary tree first.
  std::vector<std::pair<int64_t, Ref<OTPathComponent>>> found;
  auto read = [&](Statement& select, bool test) {
    while (select.step()) {
      if (test && !(range.containsState(OTState(select.integer(3), select.integer(4))) &&
                    range.containsState(OTState(select.integer(5), select.integer(6)))))
        continue;
      if (Ref<OTPathComponent> known = database_->known(select.text(1))) {
        found.emplace_back(select.integer(0), known->copy());
        continue;
      }
      Ref<OTPathComponent> component = OTPathComponent::initWithData(select.blob(2));
      if (!component || !component->fromState() || !component->toState()) {
        logMessage("OTSQLiteDataSource: skipped the stored path component " + std::string(select.text(1)) +
                   ", which does not read");
        continue;
      }
      found.emplace_back(select.integer(0), std::move(component));
    }
  };
  if (where.exact) {
    Statement& select = database_->statement("SELECT id, uid, data FROM components WHERE " + where.sql);
    for (int64_t parameter : where.parameters) select.bind(parameter);
    read(select, false);
  } else {
    read(database_->statement("SELECT id, uid, data, from_s, from_c, to_s, to_c FROM components"), true);
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<Ref<OTPathComponent>> components;
  components.reserve(found.size());
  for (auto& [id, component] : found) components.push_back(std::move(component));
  return components;
}

void OTSQLiteDataSource::OTSyncControllerRemovePathComponentsNotInRange(OTSyncController&, const OTRange& range) {
  Where where;
  where.add(range, "from_s", "from_c");
  where.sql += " OR ";
  where.add(range, "to_s", "to_c");
  if (where.exact) {
    Statement& remove =
        database_->statement("DELETE FROM components WHERE NOT (" + where.sql + ") RETURNING uid");
    for (int64_t parameter : where.parameters) remove.bind(parameter);
    while (remove.step()) database_->forget(remove.text(0));
    return;
  }
  std::vector<std::pair<int64_t, std::string>> doomed;
  Statement& select = database_->statement("SELECT id, from_s, from_c, to_s, to_c, uid FROM components");
  while (select.step())
    if (!range.containsState(OTState(select.integer(1), select.integer(2))) &&
        !range.containsState(OTState(select.integer(3), select.integer(4))))
      doomed.emplace_back(select.integer(0), std::string(select.text(5)));
  database_->atomically([&] {
    for (const auto& [id, uid] : doomed) {
      database_->statement("DELETE FROM components WHERE id = ?").bind(id).run();
      database_->forget(uid);
    }
  });
}

std::optional<OTState> OTSQLiteDataSource::claimedRemoteStateForSyncController(OTSyncController&) {
  const std::optional<Value> value = database_->value(kClaimedRemoteStateKey);
  return value ? OTState::initWithExtendedPropertyList(*value) : std::nullopt;
}

void OTSQLiteDataSource::setClaimedRemoteState(const std::optional<OTState>& state) {
  std::optional<Value> value;
  if (state) value = state->extendedPropertyListRepresentation();
  database_->setValue(kClaimedRemoteStateKey, value, inTransaction_);
}

void OTSQLiteDataSource::beginTransactionForOTSyncController(OTSyncController&) {
  database_->begin();
  inTransaction_ = true;
}

void OTSQLiteDataSource::endTransactionForOTSyncController(OTSyncController&) {
  if (!inTransaction_) return;
  inTransaction_ = false;
  database_->commit();
}

std::optional<OTState>
OTSQLiteDataSource::stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(
    OTSyncController&) {
  Statement& select = database_->statement("SELECT to_s, to_c FROM components ORDER BY to_c DESC, to_s DESC LIMIT 1");
  if (!select.step()) return std::nullopt;
  OTState state(select.integer(0), select.integer(1));
  select.reset();
  return state;
}

std::optional<OTState>
OTSQLiteDataSource::stateWithLargestClientIndexBeingOriginOfPathComponentWithSmallestServerIndexForOTSyncController(
    OTSyncController&) {
  Statement& select =
      database_->statement("SELECT from_s, from_c FROM components ORDER BY from_s ASC, from_c DESC LIMIT 1");
  if (!select.step()) return std::nullopt;
  OTState state(select.integer(0), select.integer(1));
  select.reset();
  return state;
}

// MARK: Transfer

std::vector<OTSQLiteDataSource::PendingTransfer> OTSQLiteDataSource::pendingTransfers() {
  std::vector<PendingTransfer> pending;
  Statement& select = database_->statement("SELECT uid, data FROM components WHERE pending = 1 ORDER BY id");
  while (select.step()) {
    const auto bytes = select.blob(1);
    pending.push_back({std::string(select.text(0)), Data(bytes.begin(), bytes.end())});
  }
  return pending;
}

void OTSQLiteDataSource::acknowledgeTransfer(std::string_view uniqueIdentifier) {
  database_->statement("UPDATE components SET pending = 0 WHERE uid = ?").bind(uniqueIdentifier).run();
}

bool OTSQLiteDataSource::receivePathComponentData(std::span<const uint8_t> data) {
  Ref<OTPathComponent> component = OTPathComponent::initWithData(data);
  return component && receive(component, data);
}

bool OTSQLiteDataSource::receivePathComponent(const OTPathComponent& component) {
  return receive(component.copy(), {});
}

// `data` is the component's byte form when the caller has it already. The
// component is kept as read, so it must not be shared.
bool OTSQLiteDataSource::receive(const Ref<OTPathComponent>& stored, std::span<const uint8_t> data) {
  const OTPathComponent& component = *stored;
  if (!component.fromState() || !component.toState() || !component.stateSpaceIdentifier() ||
      !component.stateSpaceIdentifier()->fullIdentifier() || !component.operation())
    return false;
  const OTState& from = *component.fromState();
  const OTState& to = *component.toState();
  if (to.serverIndex() < from.serverIndex() || to.clientIndex() < from.clientIndex() || to == from) return false;
  const std::optional<Value> identifier = database_->value(kOTSyncControllerStateSpaceIdentifier);
  if (!identifier || !identifier->isString() ||
      identifier->string() != *component.stateSpaceIdentifier()->fullIdentifier())
    return false;
  std::optional<Data> bytes;
  if (data.empty()) {
    bytes = component.data();
    if (!bytes) return false;
    data = *bytes;
  }
  database_
      ->statement(
          "INSERT INTO components(uid, from_s, from_c, to_s, to_c, data, pending) VALUES(?, ?, ?, ?, ?, ?, 0) "
          "ON CONFLICT(uid) DO NOTHING")
      .bind(component.uniqueIdentifier())
      .bind(from.serverIndex())
      .bind(from.clientIndex())
      .bind(to.serverIndex())
      .bind(to.clientIndex())
      .bind(data)
      .run();
  if (sqlite3_changes(database_->handle()) > 0) database_->remember(component.uniqueIdentifier(), stored);
  return true;
}

// MARK: Host values

std::optional<Value> OTSQLiteDataSource::hostValueForKey(std::string_view key) {
  Statement& select = database_->statement("SELECT value FROM host_values WHERE key = ?");
  if (!select.bind(key).step()) return std::nullopt;
  std::optional<Value> value = decode(select.blob(0));
  select.reset();
  return value;
}

void OTSQLiteDataSource::setHostValueForKey(const std::optional<Value>& value, std::string_view key) {
  if (!value) {
    database_->statement("DELETE FROM host_values WHERE key = ?").bind(key).run();
    return;
  }
  const Data bytes = encode(*value);
  database_->statement("INSERT OR REPLACE INTO host_values(key, value) VALUES(?, ?)").bind(key).bind(bytes).run();
}

std::vector<std::pair<std::string, Value>> OTSQLiteDataSource::hostValuesWithPrefix(std::string_view prefix) {
  std::vector<std::pair<std::string, Value>> values;
  Statement& select =
      database_->statement("SELECT key, value FROM host_values WHERE substr(key, 1, length(?1)) = ?1 ORDER BY key");
  select.bind(prefix);
  while (select.step())
    if (std::optional<Value> value = decode(select.blob(1))) values.emplace_back(std::string(select.text(0)), *value);
  return values;
}

size_t OTSQLiteDataSource::pathComponentCount() {
  Statement& select = database_->statement("SELECT count(*) FROM components");
  select.step();
  const auto count = static_cast<size_t>(select.integer(0));
  select.reset();
  return count;
}

size_t OTSQLiteDataSource::pathComponentBytes() {
  Statement& select = database_->statement("SELECT coalesce(sum(length(data)), 0) FROM components");
  select.step();
  const auto bytes = static_cast<size_t>(select.integer(0));
  select.reset();
  return bytes;
}

}  // namespace loomwork
