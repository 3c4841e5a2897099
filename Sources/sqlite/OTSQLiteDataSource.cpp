#include "loomwork/sqlite/OTSQLiteDataSource.h"

#include <sqlite3.h>

#include <memory>
#include <string>
#include <unordered_map>

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
CREATE INDEX IF NOT EXISTS components_from_s ON components(from_s, from_c);
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
  explicit Database(const std::string& path) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
      std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
      sqlite3_close_v2(db_);
      throw OTSQLiteError("OTSQLiteDataSource: cannot open " + path + ": " + message);
    }
    try {
      execute("PRAGMA journal_mode=WAL");
      execute("PRAGMA synchronous=NORMAL");
      execute(kSchema);
    } catch (...) {
      statements_.clear();
      sqlite3_close_v2(db_);
      throw;
    }
  }
  ~Database() {
    statements_.clear();
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

 private:
  sqlite3* db_ = nullptr;
  std::unordered_map<std::string, std::unique_ptr<Statement>> statements_;
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
      sql += c;
      sql += " BETWEEN ? AND ? AND ";
      sql += s;
      sql += " BETWEEN ? AND ?)";
      parameters.insert(parameters.end(),
                        {box->minClientIndex(), box->maxClientIndex(), box->minServerIndex(), box->maxServerIndex()});
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
};

// MARK: OTSQLiteDataSource

OTSQLiteDataSource::OTSQLiteDataSource(const std::string& path)
    : database_(new Database(path.empty() ? std::string(":memory:") : path)) {}

OTSQLiteDataSource::~OTSQLiteDataSource() { delete database_; }

std::optional<Value> OTSQLiteDataSource::OTSyncControllerValueForKey(OTSyncController&, std::string_view key) {
  Statement& select = database_->statement("SELECT value FROM metadata WHERE key = ?");
  if (!select.bind(key).step()) return std::nullopt;
  std::optional<Value> value = decode(select.blob(0));
  select.reset();
  return value;
}

void OTSQLiteDataSource::OTSyncControllerSetValueForKey(OTSyncController&, const std::optional<Value>& value,
                                                        std::string_view key) {
  if (!value) {
    database_->statement("DELETE FROM metadata WHERE key = ?").bind(key).run();
    return;
  }
  const Data bytes = encode(*value);
  database_->statement("INSERT OR REPLACE INTO metadata(key, value) VALUES(?, ?)").bind(key).bind(bytes).run();
}

void OTSQLiteDataSource::removeAllMetadataForOTSyncController(OTSyncController&) {
  database_->atomically([&] {
    database_->statement("DELETE FROM metadata").run();
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
  database_
      ->statement(
          "INSERT INTO components(uid, from_s, from_c, to_s, to_c, data, pending) VALUES(?, ?, ?, ?, ?, ?, ?) "
          "ON CONFLICT(uid) DO UPDATE SET data = excluded.data, pending = max(pending, excluded.pending)")
      .bind(component->uniqueIdentifier())
      .bind(from.serverIndex())
      .bind(from.clientIndex())
      .bind(to.serverIndex())
      .bind(to.clientIndex())
      .bind(*bytes)
      .bind(int64_t{enqueueForTransfer ? 1 : 0})
      .run();
}

std::vector<Ref<OTPathComponent>> OTSQLiteDataSource::OTSyncControllerPathComponentsInRange(OTSyncController&,
                                                                                            const OTRange& range) {
  Where where;
  where.add(range, "from_s", "from_c");
  where.sql += " AND ";
  where.add(range, "to_s", "to_c");
  std::vector<Ref<OTPathComponent>> components;
  auto read = [&](Statement& select, bool test) {
    while (select.step()) {
      if (test && !(range.containsState(OTState(select.integer(2), select.integer(3))) &&
                    range.containsState(OTState(select.integer(4), select.integer(5)))))
        continue;
      Ref<OTPathComponent> component = OTPathComponent::initWithData(select.blob(1));
      if (!component || !component->fromState() || !component->toState()) {
        logMessage("OTSQLiteDataSource: skipped the stored path component " + std::string(select.text(0)) +
                   ", which does not read");
        continue;
      }
      components.push_back(std::move(component));
    }
  };
  if (where.exact) {
    Statement& select =
        database_->statement("SELECT uid, data FROM components WHERE " + where.sql + " ORDER BY id");
    for (int64_t parameter : where.parameters) select.bind(parameter);
    read(select, false);
  } else {
    read(database_->statement("SELECT uid, data, from_s, from_c, to_s, to_c FROM components ORDER BY id"), true);
  }
  return components;
}

void OTSQLiteDataSource::OTSyncControllerRemovePathComponentsNotInRange(OTSyncController&, const OTRange& range) {
  Where where;
  where.add(range, "from_s", "from_c");
  where.sql += " OR ";
  where.add(range, "to_s", "to_c");
  if (where.exact) {
    Statement& remove = database_->statement("DELETE FROM components WHERE NOT (" + where.sql + ")");
    for (int64_t parameter : where.parameters) remove.bind(parameter);
    remove.run();
    return;
  }
  std::vector<int64_t> doomed;
  Statement& select = database_->statement("SELECT id, from_s, from_c, to_s, to_c FROM components");
  while (select.step())
    if (!range.containsState(OTState(select.integer(1), select.integer(2))) &&
        !range.containsState(OTState(select.integer(3), select.integer(4))))
      doomed.push_back(select.integer(0));
  database_->atomically([&] {
    for (int64_t id : doomed) database_->statement("DELETE FROM components WHERE id = ?").bind(id).run();
  });
}

std::optional<OTState> OTSQLiteDataSource::claimedRemoteStateForSyncController(OTSyncController&) {
  Statement& select = database_->statement("SELECT value FROM metadata WHERE key = ?");
  if (!select.bind(kClaimedRemoteStateKey).step()) return std::nullopt;
  std::optional<Value> value = decode(select.blob(0));
  select.reset();
  return value ? OTState::initWithExtendedPropertyList(*value) : std::nullopt;
}

void OTSQLiteDataSource::setClaimedRemoteState(const std::optional<OTState>& state) {
  if (!state) {
    database_->statement("DELETE FROM metadata WHERE key = ?").bind(kClaimedRemoteStateKey).run();
    return;
  }
  const Data bytes = encode(state->extendedPropertyListRepresentation());
  database_->statement("INSERT OR REPLACE INTO metadata(key, value) VALUES(?, ?)")
      .bind(kClaimedRemoteStateKey)
      .bind(bytes)
      .run();
}

void OTSQLiteDataSource::beginTransactionForOTSyncController(OTSyncController&) {
  database_->execute("BEGIN IMMEDIATE");
  inTransaction_ = true;
}

void OTSQLiteDataSource::endTransactionForOTSyncController(OTSyncController&) {
  if (!inTransaction_) return;
  inTransaction_ = false;
  database_->execute("COMMIT");
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
  return component && receive(*component, data);
}

bool OTSQLiteDataSource::receivePathComponent(const OTPathComponent& component) { return receive(component, {}); }

// `data` is the component's byte form when the caller has it already.
bool OTSQLiteDataSource::receive(const OTPathComponent& component, std::span<const uint8_t> data) {
  if (!component.fromState() || !component.toState() || !component.stateSpaceIdentifier() ||
      !component.stateSpaceIdentifier()->fullIdentifier() || !component.operation())
    return false;
  const OTState& from = *component.fromState();
  const OTState& to = *component.toState();
  if (to.serverIndex() < from.serverIndex() || to.clientIndex() < from.clientIndex() || to == from) return false;
  Statement& select = database_->statement("SELECT value FROM metadata WHERE key = ?");
  if (!select.bind(kOTSyncControllerStateSpaceIdentifier).step()) return false;
  const std::optional<Value> identifier = decode(select.blob(0));
  select.reset();
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
