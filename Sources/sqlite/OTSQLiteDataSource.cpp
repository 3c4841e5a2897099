#include "loomwork/sqlite/OTSQLiteDataSource.h"

#include "sqlite/CoalescingVfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>

#include "loomwork/additions/PropertyListAdditions.h"
#include "loomwork/platform/Log.h"
#include "loomwork/platform/PropertyList.h"
#include "loomwork/sync/OTRange.h"
#include "loomwork/sync/OTStateSpaceIdentifier.h"
#include "loomwork/sync/OTSyncController.h"

namespace loomwork {

namespace {

constexpr std::string_view kClaimedRemoteStateKey = "claimedRemoteState";

// The file's layout, kept in its user_version. Version 1 files (user_version
// 0) kept a unique index on the component identifiers and four indexes on
// their states; the data source now keeps those in memory (see Catalog), so a
// stored component costs one row of one table.
constexpr int kSchemaVersion = 2;

const char* const kTables = R"sql(
CREATE TABLE IF NOT EXISTS metadata(key TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS host_values(key TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;
)sql";

const char* const kComponentsTable = R"sql(
CREATE TABLE components_v2(
  id INTEGER PRIMARY KEY,
  uid TEXT NOT NULL,
  from_s INTEGER NOT NULL, from_c INTEGER NOT NULL,
  to_s INTEGER NOT NULL, to_c INTEGER NOT NULL,
  data BLOB NOT NULL,
  pending INTEGER NOT NULL DEFAULT 0);
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

// What the data source keeps in memory of each stored component: all but its
// bytes. The row ids give the order in which components were first stored.
struct Entry {
  std::string uid;
  OTState from, to;
  bool pending = false;
  // The byte form of a queued component stored through this data source, kept
  // until it is acknowledged (for a bounded number of components), so that
  // sending it does not read the row back.
  std::shared_ptr<const Data> bytes;
};

// The stored components' identifiers and states, indexed for the controller's
// questions: range queries walk the origins by client or by server index,
// the two state queries read the ends of ordered sets, and identifiers find
// their rows without an index in the file.
class Catalog {
 public:
  void clear() {
    kept_ = 0;
    entries_.clear();
    byUid_.clear();
    byFromC_.clear();
    byFromS_.clear();
    byTo_.clear();
    pending_.clear();
  }

  void add(int64_t id, Entry entry) {
    const OTState from = entry.from;
    const OTState to = entry.to;
    if (entry.pending) pending_.insert(id);
    if (entry.bytes && (!entry.pending || kept_ >= kKeptLimit)) entry.bytes = nullptr;
    if (entry.bytes) ++kept_;
    byUid_.emplace(entry.uid, id);
    entries_.emplace(id, std::move(entry));
    byFromC_.emplace(from.clientIndex(), from.serverIndex(), id);
    byFromS_.emplace(from.serverIndex(), from.clientIndex(), id);
    byTo_.emplace(to.clientIndex(), to.serverIndex(), id);
  }

  void remove(int64_t id) {
    auto it = entries_.find(id);
    if (it == entries_.end()) return;
    const Entry& entry = it->second;
    byFromC_.erase({entry.from.clientIndex(), entry.from.serverIndex(), id});
    byFromS_.erase({entry.from.serverIndex(), entry.from.clientIndex(), id});
    byTo_.erase({entry.to.clientIndex(), entry.to.serverIndex(), id});
    pending_.erase(id);
    if (entry.bytes) --kept_;
    if (auto named = byUid_.find(entry.uid); named != byUid_.end()) byUid_.erase(named);
    entries_.erase(it);
  }

  const Entry* find(int64_t id) const {
    auto it = entries_.find(id);
    return it == entries_.end() ? nullptr : &it->second;
  }
  std::optional<int64_t> idOf(std::string_view uid) const {
    auto it = byUid_.find(uid);
    return it == byUid_.end() ? std::nullopt : std::optional<int64_t>(it->second);
  }
  void setPending(int64_t id, bool pending) {
    auto it = entries_.find(id);
    if (it == entries_.end()) return;
    it->second.pending = pending;
    if (pending) {
      pending_.insert(id);
    } else {
      pending_.erase(id);
      keepBytes(it->second, nullptr);
    }
  }
  void keepBytes(Entry& entry, std::shared_ptr<const Data> bytes) {
    if (entry.bytes) --kept_;
    entry.bytes = nullptr;
    if (bytes && entry.pending && kept_ < kKeptLimit) {
      entry.bytes = std::move(bytes);
      ++kept_;
    }
  }
  Entry* find(int64_t id) {
    auto it = entries_.find(id);
    return it == entries_.end() ? nullptr : &it->second;
  }
  const std::set<int64_t>& pending() const { return pending_; }
  size_t size() const { return entries_.size(); }

  // The components with both states in `range`, by row id.
  std::vector<int64_t> inRange(const OTRange& range) const {
    std::vector<int64_t> ids;
    if (!candidates(range, ids)) {
      ids.clear();
      for (const auto& [id, entry] : entries_) ids.push_back(id);
    } else {
      std::sort(ids.begin(), ids.end());
      ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    }
    std::erase_if(ids, [&](int64_t id) {
      const Entry& entry = entries_.at(id);
      return !range.containsState(entry.from) || !range.containsState(entry.to);
    });
    return ids;
  }

  // The components with neither state in `range`, as runs of row ids with no
  // other stored component between their first and last.
  std::vector<std::pair<int64_t, int64_t>> outside(const OTRange& range) const {
    std::vector<std::pair<int64_t, int64_t>> runs;
    bool inRun = false;
    for (const auto& [id, entry] : entries_) {
      const bool doomed = !range.containsState(entry.from) && !range.containsState(entry.to);
      if (doomed && inRun) {
        runs.back().second = id;
      } else if (doomed) {
        runs.emplace_back(id, id);
      }
      inRun = doomed;
    }
    return runs;
  }

  // The stored components with row ids in [first, last].
  std::vector<int64_t> between(int64_t first, int64_t last) const {
    std::vector<int64_t> ids;
    for (auto it = entries_.lower_bound(first); it != entries_.end() && it->first <= last; ++it) ids.push_back(it->first);
    return ids;
  }

  // The largest toState by client index, then by server index.
  std::optional<OTState> largestDestination() const {
    if (byTo_.empty()) return std::nullopt;
    const auto& [c, s, id] = *byTo_.rbegin();
    return OTState(s, c);
  }
  // The fromState with the smallest server index and, among those, the
  // largest client index.
  std::optional<OTState> smallestOrigin() const {
    if (byFromS_.empty()) return std::nullopt;
    const int64_t s = std::get<0>(*byFromS_.begin());
    auto it = s == kLargest ? byFromS_.end() : byFromS_.lower_bound({s + 1, kSmallest, kSmallest});
    --it;
    return OTState(s, std::get<1>(*it));
  }

 private:
  using Key = std::tuple<int64_t, int64_t, int64_t>;  // (first index, second index, row id)
  static constexpr int64_t kSmallest = std::numeric_limits<int64_t>::min();
  static constexpr int64_t kLargest = std::numeric_limits<int64_t>::max();
  static constexpr size_t kKeptLimit = 4096;

  // Adds to `ids` every component whose fromState lies in `range`, a superset
  // of those the range holds whole. False when the range's kind gives no
  // bound: every component is then a candidate.
  bool candidates(const OTRange& range, std::vector<int64_t>& ids) const {
    if (const auto* box = dynamic_cast<const OTElementaryRange*>(&range)) {
      const int64_t c0 = box->minClientIndex(), c1 = box->maxClientIndex();
      const int64_t s0 = box->minServerIndex(), s1 = box->maxServerIndex();
      // A line along the server axis is walked by server index.
      if (c0 != c1 && s0 == s1) {
        walk(byFromS_, s0, s1, c0, c1, ids);
      } else {
        walk(byFromC_, c0, c1, s0, s1, ids);
      }
      return true;
    }
    if (const auto* compound = dynamic_cast<const OTCompoundRange*>(&range)) {
      if (compound->type() == OTCompoundRangeTypeUnion) {
        for (const auto& member : compound->ranges())
          if (member && !candidates(*member, ids)) return false;
        return true;
      }
      if (compound->type() == OTCompoundRangeTypeIntersection) {
        for (const auto& member : compound->ranges())
          if (member) {
            std::vector<int64_t> some;
            if (candidates(*member, some)) {
              ids.insert(ids.end(), some.begin(), some.end());
              return true;
            }
          }
        return false;
      }
    }
    return false;
  }

  // The keys of `index` with first in [p0, p1] and second in [q0, q1]; a run
  // of keys outside [q0, q1] is skipped with one search.
  static void walk(const std::set<Key>& index, int64_t p0, int64_t p1, int64_t q0, int64_t q1,
                   std::vector<int64_t>& ids) {
    if (p0 > p1 || q0 > q1) return;
    auto it = index.lower_bound({p0, q0, kSmallest});
    while (it != index.end() && std::get<0>(*it) <= p1) {
      const auto& [p, q, id] = *it;
      if (q < q0) {
        it = index.lower_bound({p, q0, kSmallest});
      } else if (q > q1) {
        if (p == kLargest) break;
        it = index.lower_bound({p + 1, q0, kSmallest});
      } else {
        ids.push_back(id);
        ++it;
      }
    }
  }

  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  std::map<int64_t, Entry> entries_;
  std::unordered_map<std::string, int64_t, Hash, std::equal_to<>> byUid_;
  std::set<Key> byFromC_, byFromS_, byTo_;
  std::set<int64_t> pending_;
  size_t kept_ = 0;  // entries holding their bytes
};

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
    if (sqlite3_open_v2(path.c_str(), &db_, flags, sqlite_detail::coalescingVfsName()) != SQLITE_OK) {
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
      prepareTables();
      begin_ = std::make_unique<Statement>(db_, "BEGIN IMMEDIATE");
      commit_ = std::make_unique<Statement>(db_, "COMMIT");
      loadCatalog();
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

  // Creates the tables of a new file, or brings those of an older one up to
  // date, in one transaction.
  void prepareTables() {
    execute("BEGIN IMMEDIATE");
    try {
      execute(kTables);
      int version = 0;
      {
        Statement pragma(db_, "PRAGMA user_version");
        if (pragma.step()) version = static_cast<int>(pragma.integer(0));
      }
      if (version > kSchemaVersion)
        throw OTSQLiteError("OTSQLiteDataSource: the file was written by a newer version of this library (layout " +
                            std::to_string(version) + ")");
      if (version < kSchemaVersion) {
        bool hasComponents = false;
        {
          Statement table(db_, "SELECT 1 FROM sqlite_schema WHERE type = 'table' AND name = 'components'");
          hasComponents = table.step();
        }
        execute(kComponentsTable);
        if (hasComponents)
          execute(
              "INSERT INTO components_v2(id, uid, from_s, from_c, to_s, to_c, data, pending) "
              "SELECT id, uid, from_s, from_c, to_s, to_c, data, pending FROM components ORDER BY id;"
              "DROP TABLE components;");
        execute(("ALTER TABLE components_v2 RENAME TO components; PRAGMA user_version = " +
                 std::to_string(kSchemaVersion))
                    .c_str());
      }
      execute("COMMIT");
    } catch (...) {
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
      throw;
    }
  }

  // Reads the identifiers and states of every stored component.
  void loadCatalog() {
    catalog_.clear();
    Statement select(db_, "SELECT id, uid, from_s, from_c, to_s, to_c, pending FROM components");
    while (select.step())
      catalog_.add(select.integer(0),
                   Entry{std::string(select.text(1)), OTState(select.integer(2), select.integer(3)),
                         OTState(select.integer(4), select.integer(5)), select.integer(6) != 0, nullptr});
  }

  Catalog& catalog() {
    noticeRollBack();
    return catalog_;
  }

  // Stores a component new to the file and enters it in the catalog.
  void insertComponent(Entry entry, std::span<const uint8_t> bytes) {
    statement("INSERT INTO components(uid, from_s, from_c, to_s, to_c, data, pending) VALUES(?, ?, ?, ?, ?, ?, ?)")
        .bind(entry.uid)
        .bind(entry.from.serverIndex())
        .bind(entry.from.clientIndex())
        .bind(entry.to.serverIndex())
        .bind(entry.to.clientIndex())
        .bind(bytes)
        .bind(int64_t{entry.pending ? 1 : 0})
        .run();
    catalog_.add(sqlite3_last_insert_rowid(db_), std::move(entry));
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
      // What the body changed in memory is undone by reading the file again.
      known_.clear();
      loadCatalog();
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
    writeAcknowledgements();
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
    acknowledged_.clear();
    known_.clear();
    loadCatalog();
    return true;
  }

  // MARK: Acknowledgements
  //
  // A component taken off the queue inside a controller transaction is marked
  // in the file at the commit, together with the others of the transaction:
  // one statement for each stretch of rows with nothing still queued between.

  void acknowledge(int64_t id, bool holdBack) {
    catalog().setPending(id, false);
    if (holdBack) {
      acknowledged_.push_back(id);
    } else {
      statement("UPDATE components SET pending = 0 WHERE id = ?").bind(id).run();
    }
  }

  void writeAcknowledgements() {
    if (acknowledged_.empty()) return;
    std::sort(acknowledged_.begin(), acknowledged_.end());
    const std::set<int64_t>& queued = catalog_.pending();
    for (size_t i = 0; i < acknowledged_.size();) {
      const int64_t first = acknowledged_[i];
      const auto nextQueued = queued.upper_bound(first);
      size_t j = i;
      while (j + 1 < acknowledged_.size() && (nextQueued == queued.end() || acknowledged_[j + 1] < *nextQueued)) ++j;
      statement("UPDATE components SET pending = 0 WHERE id BETWEEN ? AND ? AND pending = 1")
          .bind(first)
          .bind(acknowledged_[j])
          .run();
      i = j + 1;
    }
    acknowledged_.clear();
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
  std::vector<int64_t> acknowledged_;  // held back until the commit
  Map<Ref<OTPathComponent>> known_;
  Catalog catalog_;
  bool open_ = false;  // a transaction was begun and not yet committed
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
  database_->catalog().clear();
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
  std::string uid = component->uniqueIdentifier();
  Catalog& catalog = database_->catalog();
  auto shared = std::make_shared<const Data>(std::move(*bytes));
  if (const std::optional<int64_t> id = catalog.idOf(uid)) {
    // The same identifier names the same two states: only the bytes and the
    // queued mark can change.
    const bool pending = enqueueForTransfer || catalog.find(*id)->pending;
    database_->statement("UPDATE components SET data = ?, pending = ? WHERE id = ?")
        .bind(*shared)
        .bind(int64_t{pending ? 1 : 0})
        .bind(*id)
        .run();
    catalog.setPending(*id, pending);
    catalog.keepBytes(*catalog.find(*id), shared);
  } else {
    database_->insertComponent(Entry{uid, from, to, enqueueForTransfer, shared}, *shared);
  }
  database_->remember(uid, component->copy());
}

std::vector<Ref<OTPathComponent>> OTSQLiteDataSource::OTSyncControllerPathComponentsInRange(OTSyncController&,
                                                                                            const OTRange& range) {
  Catalog& catalog = database_->catalog();
  const std::vector<int64_t> ids = catalog.inRange(range);
  std::vector<Ref<OTPathComponent>> components;
  components.reserve(ids.size());
  std::vector<size_t> unread;  // positions in `ids`, ascending as the ids
  for (size_t i = 0; i < ids.size(); ++i) {
    if (Ref<OTPathComponent> known = database_->known(catalog.find(ids[i])->uid)) {
      components.push_back(known->copy());
    } else {
      components.push_back(nullptr);
      unread.push_back(i);
    }
  }
  if (!unread.empty()) {
    auto take = [&](size_t at, std::span<const uint8_t> bytes) {
      Ref<OTPathComponent> component = OTPathComponent::initWithData(bytes);
      if (!component || !component->fromState() || !component->toState()) {
        logMessage("OTSQLiteDataSource: skipped the stored path component " + catalog.find(ids[at])->uid +
                   ", which does not read");
        return;
      }
      components[at] = std::move(component);
    };
    // The rows not remembered are read by row id; when they are most of a
    // stretch of rows, one pass over the stretch costs less than a search for
    // each.
    const int64_t first = ids[unread.front()], last = ids[unread.back()];
    if (static_cast<double>(unread.size()) * 4 >= static_cast<double>(last - first) + 1) {
      Statement& select = database_->statement("SELECT id, data FROM components WHERE id BETWEEN ? AND ?");
      select.bind(first).bind(last);
      size_t next = 0;
      while (next < unread.size() && select.step()) {
        const int64_t id = select.integer(0);
        while (next < unread.size() && ids[unread[next]] < id) ++next;
        if (next < unread.size() && ids[unread[next]] == id) take(unread[next++], select.blob(1));
      }
      select.reset();
    } else {
      for (size_t at : unread) {
        Statement& select = database_->statement("SELECT data FROM components WHERE id = ?");
        if (select.bind(ids[at]).step()) {
          take(at, select.blob(0));
          select.reset();
        }
      }
    }
    std::erase(components, nullptr);
  }
  return components;
}

void OTSQLiteDataSource::OTSyncControllerRemovePathComponentsNotInRange(OTSyncController&, const OTRange& range) {
  Catalog& catalog = database_->catalog();
  const auto doomed = catalog.outside(range);
  if (doomed.empty()) return;
  // Components go mostly in stretches of the oldest rows: one statement a
  // stretch.
  auto remove = [&] {
    for (const auto& [first, last] : doomed) {
      database_->statement("DELETE FROM components WHERE id BETWEEN ? AND ?").bind(first).bind(last).run();
      for (int64_t id : catalog.between(first, last)) {
        database_->forget(catalog.find(id)->uid);
        catalog.remove(id);
      }
    }
  };
  if (inTransaction_) {
    remove();
  } else {
    database_->atomically(remove);
  }
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
  return database_->catalog().largestDestination();
}

std::optional<OTState>
OTSQLiteDataSource::stateWithLargestClientIndexBeingOriginOfPathComponentWithSmallestServerIndexForOTSyncController(
    OTSyncController&) {
  return database_->catalog().smallestOrigin();
}

// MARK: Transfer

std::vector<OTSQLiteDataSource::PendingTransfer> OTSQLiteDataSource::pendingTransfers() {
  std::vector<PendingTransfer> pending;
  Catalog& catalog = database_->catalog();
  pending.reserve(catalog.pending().size());
  for (int64_t id : catalog.pending()) {
    if (const Entry* entry = catalog.find(id); entry && entry->bytes) {
      pending.push_back({entry->uid, *entry->bytes});
      continue;
    }
    Statement& select = database_->statement("SELECT data FROM components WHERE id = ?");
    if (!select.bind(id).step()) continue;
    const auto bytes = select.blob(0);
    pending.push_back({catalog.find(id)->uid, Data(bytes.begin(), bytes.end())});
    select.reset();
  }
  return pending;
}

void OTSQLiteDataSource::acknowledgeTransfer(std::string_view uniqueIdentifier) {
  Catalog& catalog = database_->catalog();
  const std::optional<int64_t> id = catalog.idOf(uniqueIdentifier);
  if (!id || !catalog.find(*id)->pending) return;
  database_->acknowledge(*id, inTransaction_);
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
  std::string uid = component.uniqueIdentifier();
  Catalog& catalog = database_->catalog();
  if (catalog.idOf(uid)) return true;
  std::optional<Data> bytes;
  if (data.empty()) {
    bytes = component.data();
    if (!bytes) return false;
    data = *bytes;
  }
  database_->insertComponent(Entry{uid, from, to, false, nullptr}, data);
  database_->remember(uid, stored);
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

size_t OTSQLiteDataSource::pathComponentCount() { return database_->catalog().size(); }

size_t OTSQLiteDataSource::pathComponentBytes() {
  Statement& select = database_->statement("SELECT coalesce(sum(length(data)), 0) FROM components");
  select.step();
  const auto bytes = static_cast<size_t>(select.integer(0));
  select.reset();
  return bytes;
}

}  // namespace loomwork
