// The device engine. One thread (the io_context's) does everything: local
// edits, the controller's processing, the SQLite file and the socket. The
// wire protocol after a connection opens:
//   client -> server  Hello "<client device> <pairing or ->"
//   server -> client  Hello "<pairing>": the client's own when it is the
//                     server's current one; else the current one when no
//                     other client holds it; else a new one
//   then both ways    Component / Acknowledgement / Claim, and Seed from the
//                     server.
// Anything else (a frame before the hellos, a frame that does not decode, a
// component the store refuses, an implausible claim) drops the connection
// with a log line; what was stored before stays sound because every store
// call is atomic on its own.
#include "Device.h"

#include <algorithm>
#include <concepts>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <set>

#include "TaskMerge.h"
#include "Wire.h"
#include "loomwork/additions/PropertyListAdditions.h"
#include "loomwork/platform/Log.h"
#include "loomwork/sqlite/OTSQLiteDataSource.h"

#include <sqlite3.h>

namespace loomwork::tasks {

namespace {

constexpr std::string_view kDeviceKey = "device";
// On the server: the device identifier of the client its pairing was given to.
constexpr std::string_view kPairingHolderKey = "pairingHolder";
// The server offers a replacement seed to a client this many of its own steps
// behind.
constexpr int64_t kSeedOfferGap = 512;
// Open connections a server keeps at once (one client, and strangers until
// they say something wrong).
constexpr size_t kMaxConnections = 8;
// Frames at least this long report their arrival in SyncStatus::seedProgress.
constexpr size_t kProgressThreshold = 256 * 1024;

bool isIdentifierText(std::string_view text) {
  if (text.empty() || text.size() > 64) return false;
  for (char c : text)
    if (!std::isalnum(static_cast<unsigned char>(c))) return false;
  return true;
}

// The model's own tables, in the sync store's file. A task's and a list's
// properties each have a column, used when the value has the column's type;
// anything else (another type, an explicit null, a property or an entity kind
// this version does not know) is kept in `entity_extras` as a one-value
// binary property list, so the model read back equals the model written.
constexpr const char* kModelSchema = R"(
CREATE TABLE IF NOT EXISTS tasks(uuid TEXT PRIMARY KEY, title TEXT, notes TEXT, due INTEGER, done INTEGER,
                                 list TEXT, modified REAL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS lists(uuid TEXT PRIMARY KEY, name TEXT, sort_order REAL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS other_entities(uuid TEXT PRIMARY KEY, kind TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS entity_extras(uuid TEXT NOT NULL, name TEXT NOT NULL, value BLOB NOT NULL,
                                         PRIMARY KEY(uuid, name)) WITHOUT ROWID;
)";

enum class Column { Text, Integer, Boolean, Real, Date };
struct ColumnSpec {
  const char* property;
  Column type;
};
const std::vector<ColumnSpec> kTaskColumns = {{"title", Column::Text},   {"notes", Column::Text},
                                              {"due", Column::Integer},  {"done", Column::Boolean},
                                              {"list", Column::Text},    {"modified", Column::Date}};
const std::vector<ColumnSpec> kListColumns = {{"name", Column::Text}, {"order", Column::Real}};

bool fits(const Value& value, Column type) {
  switch (type) {
    case Column::Text: return value.isString();
    case Column::Integer: return value.isInteger();
    case Column::Boolean: return value.isBoolean();
    case Column::Real: return value.isReal();
    case Column::Date: return value.isDate();
  }
  return false;
}

// A prepared statement on the store's connection, kept for the device's life.
class ModelStatement {
 public:
  ModelStatement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr) != SQLITE_OK) fail();
  }
  ~ModelStatement() { sqlite3_finalize(statement_); }
  ModelStatement(const ModelStatement&) = delete;
  ModelStatement& operator=(const ModelStatement&) = delete;
  sqlite3_stmt* get() { return statement_; }
  ModelStatement& reset() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
    return *this;
  }
  void text(int index, const std::string& value) {
    sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
  }
  // Runs a statement that returns no rows.
  void run() {
    if (sqlite3_step(statement_) != SQLITE_DONE) fail();
    sqlite3_reset(statement_);
  }
  bool step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) fail();
    return false;
  }
  std::string columnText(int index) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, index));
    return text ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement_, index))) : std::string();
  }

 private:
  [[noreturn]] void fail() {
    std::string message = sqlite3_errmsg(db_);
    sqlite3_reset(statement_);
    throw OTSQLiteError("loomwork-tasks: " + message);
  }
  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
};

// The data source: storage from OTSQLiteDataSource, the model kept in tables
// of its own in the same file and written in the same transactions, so that
// an integration and its model change commit together.
class Store final : public OTSQLiteDataSource {
 public:
  // A new file gets 4 KiB pages: a seed writes the whole model at once, a
  // hundred thousand rows and a component of megabytes, and on smaller pages
  // that takes several times longer.
  Store(const std::string& path, TaskModel& model)
      : OTSQLiteDataSource(path, Options{.exclusive = true, .pageSize = 4096}), model_(model) {
    if (sqlite3_exec(connection(), kModelSchema, nullptr, nullptr, nullptr) != SQLITE_OK)
      throw OTSQLiteError(std::string("loomwork-tasks: ") + sqlite3_errmsg(connection()));
    sqlite3* db = connection();
    insertTask_ = std::make_unique<ModelStatement>(db, "INSERT OR REPLACE INTO tasks VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    insertList_ = std::make_unique<ModelStatement>(db, "INSERT OR REPLACE INTO lists VALUES(?1, ?2, ?3)");
    insertOther_ = std::make_unique<ModelStatement>(db, "INSERT OR REPLACE INTO other_entities VALUES(?1, ?2)");
    insertExtra_ = std::make_unique<ModelStatement>(db, "INSERT INTO entity_extras VALUES(?1, ?2, ?3)");
    for (const char* table : {"tasks", "lists", "other_entities", "entity_extras"})
      remove_.push_back(
          std::make_unique<ModelStatement>(db, (std::string("DELETE FROM ") + table + " WHERE uuid = ?1").c_str()));
  }

  Ref<OTPathComponent> receivedSeed;
  bool queueChanged = true;  // something was queued since pendingTransfers() was last read

  void persist(const ModelChange& change) {
    // The tables mirror the model, so an entity new to it has no rows yet.
    for (const auto& uuid : change.inserted) write(uuid, false);
    for (const auto& [uuid, before] : change.updated) write(uuid);
    for (const auto& [uuid, before] : change.deleted) write(uuid);
  }

  Ref<UGMutableTransaction> storedModel() {
    std::map<std::string, Ref<UGMutableEntityOperation>> operations;
    sqlite3* db = connection();
    auto read = [&](const char* sql, const char* kind, const std::vector<ColumnSpec>& columns) {
      ModelStatement rows(db, sql);
      while (rows.step()) {
        auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeCreate, kind ? std::string(kind)
                                                                                           : rows.columnText(1));
        for (size_t i = 0; i < columns.size(); ++i) {
          const int column = static_cast<int>(i) + 1;
          if (sqlite3_column_type(rows.get(), column) == SQLITE_NULL) continue;
          Value value;
          switch (columns[i].type) {
            case Column::Text: value = Value(rows.columnText(column)); break;
            case Column::Integer: value = Value(sqlite3_column_int64(rows.get(), column)); break;
            case Column::Boolean: value = Value(sqlite3_column_int64(rows.get(), column) != 0); break;
            case Column::Real: value = Value(sqlite3_column_double(rows.get(), column)); break;
            case Column::Date: value = Value::date(sqlite3_column_double(rows.get(), column)); break;
          }
          operation->setValueForProperty(value, columns[i].property);
        }
        operations.emplace(rows.columnText(0), operation);
      }
    };
    read("SELECT uuid, title, notes, due, done, list, modified FROM tasks", kTaskKind, kTaskColumns);
    read("SELECT uuid, name, sort_order FROM lists", kListKind, kListColumns);
    read("SELECT uuid, kind FROM other_entities", nullptr, {});
    ModelStatement extras(db, "SELECT uuid, name, value FROM entity_extras");
    while (extras.step()) {
      auto it = operations.find(extras.columnText(0));
      const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(extras.get(), 2));
      auto value = extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
          std::span<const uint8_t>(bytes, static_cast<size_t>(sqlite3_column_bytes(extras.get(), 2))),
          PropertyListMutabilityOption::Immutable, nullptr, nullptr);
      if (it == operations.end() || !value || !value->isArray() || value->array().size() != 1) {
        logMessage("loomwork-tasks: skipped an unreadable stored value of " + extras.columnText(0));
        continue;
      }
      it->second->setValueForProperty(value->array()[0], extras.columnText(1));
    }
    auto content = UGMutableTransaction::transaction();
    for (auto& [uuid, operation] : operations) content->setOperationForUUID(operation, uuid);
    return content;
  }

  Ref<UGTransaction> seedForOTSyncController(OTSyncController&) override { return model_.contentTransaction(); }
  bool OTSyncControllerCanIntegrateOperations(OTSyncController&) override { return true; }

  // A received seed is used only while no component leads on from the
  // current state: components are the exact way forward.
  Ref<OTPathComponent> availableSeedForSyncController(OTSyncController& controller) override {
    if (!receivedSeed || !controller.currentState()) return nullptr;
    if (!controller.canIntegrateSeedFromState(*receivedSeed, *controller.currentState())) {
      receivedSeed.reset();
      return nullptr;
    }
    if (!controller.requestPathComponentsOnFutureRemoteLineFromState(*controller.currentState()).empty())
      return nullptr;
    return receivedSeed;
  }
  void OTSyncControllerIntegrateReplacementSeed(OTSyncController&, const Ref<UGMutableTransaction>& seed) override {
    persist(model_.replace(*seed));
    receivedSeed.reset();
  }
  void OTSyncControllerIntegrateAndConsumeOperation(OTSyncController&,
                                                    const Ref<UGMutableTransaction>& operation) override {
    persist(model_.apply(*operation));
  }
  void OTSyncControllerPerformIntegrationBlock(OTSyncController&, std::function<void()> block) override { block(); }
  void OTSyncControllerRecordPathComponentEnqueueForTransfer(OTSyncController& controller,
                                                             const Ref<OTPathComponent>& component,
                                                             bool enqueue) override {
    OTSQLiteDataSource::OTSyncControllerRecordPathComponentEnqueueForTransfer(controller, component, enqueue);
    if (enqueue) queueChanged = true;
  }
  void removeAllMetadataForOTSyncController(OTSyncController& controller) override {
    OTSQLiteDataSource::removeAllMetadataForOTSyncController(controller);
    queueChanged = true;
  }

 private:
  // Rewrites one entity's rows from the model (or removes them).
  void write(const std::string& uuid, bool removeFirst = true) {
    if (removeFirst)
      for (auto& remove : remove_) {
        remove->reset().text(1, uuid);
        remove->run();
      }
    const Entity* entity = model_.find(uuid);
    if (!entity) return;
    const bool task = entity->kind == kTaskKind, list = entity->kind == kListKind;
    const auto& columns = task ? kTaskColumns : list ? kListColumns : std::vector<ColumnSpec>();
    ModelStatement& insert = task ? *insertTask_ : list ? *insertList_ : *insertOther_;
    insert.reset().text(1, uuid);
    if (!task && !list) insert.text(2, entity->kind);
    for (size_t i = 0; i < columns.size(); ++i) {
      auto it = entity->properties.find(columns[i].property);
      if (it == entity->properties.end() || !fits(it->second, columns[i].type)) continue;
      const int index = static_cast<int>(i) + 2;
      switch (columns[i].type) {
        case Column::Text: insert.text(index, std::string(it->second.string())); break;
        case Column::Integer:
        case Column::Boolean: sqlite3_bind_int64(insert.get(), index, it->second.integerValue()); break;
        case Column::Real: sqlite3_bind_double(insert.get(), index, it->second.doubleValue()); break;
        case Column::Date: sqlite3_bind_double(insert.get(), index, it->second.dateValue()); break;
      }
    }
    insert.run();
    for (const auto& property : entity->properties) {
      const auto& [name, value] = property;
      const bool inColumn = std::any_of(columns.begin(), columns.end(), [&property](const ColumnSpec& column) {
        return property.first == column.property && fits(property.second, column.type);
      });
      if (inColumn) continue;
      auto bytes = dataFromExtendedPropertyListFormatErrorDescription(Value(Array{value}), PropertyListFormat::Binary,
                                                                      nullptr);
      if (!bytes) continue;  // nothing a transaction carries fails to write
      insertExtra_->reset().text(1, uuid);
      insertExtra_->text(2, name);
      sqlite3_bind_blob(insertExtra_->get(), 3, bytes->data(), static_cast<int>(bytes->size()), SQLITE_TRANSIENT);
      insertExtra_->run();
    }
  }

  TaskModel& model_;
  std::unique_ptr<ModelStatement> insertTask_, insertList_, insertOther_, insertExtra_;
  std::vector<std::unique_ptr<ModelStatement>> remove_;
};

struct Connection {
  explicit Connection(asio::io_context& context) : socket(context) {}
  asio::ip::tcp::socket socket;
  std::string peerName;
  FrameReader reader;
  std::array<uint8_t, 64 * 1024> buffer{};
  std::deque<std::shared_ptr<std::vector<uint8_t>>> writes;
  bool writing = false;
  bool ready = false;  // hellos exchanged
  bool closed = false;
  std::set<std::string> sent;  // components written on this connection
  std::optional<OTState> claimSent;
  bool seedOffered = false;
};
using ConnectionRef = std::shared_ptr<Connection>;

}  // namespace

struct Device::Impl {
  Impl(asio::io_context& context, DeviceOptions options)
      : context(context), options(std::move(options)), reconnectTimer(context), tickTimer(context) {}

  asio::io_context& context;
  DeviceOptions options;
  TaskModel model;
  std::shared_ptr<Store> store;
  std::shared_ptr<OTSyncController> controller;
  std::string deviceIdentifier;
  std::optional<asio::ip::tcp::acceptor> acceptor;
  unsigned short port = 0;
  std::vector<ConnectionRef> connections;
  ConnectionRef peer;  // the connection whose hellos were exchanged
  asio::steady_timer reconnectTimer;
  asio::steady_timer tickTimer;
  std::chrono::milliseconds backoff{50};
  bool online = true;
  bool pumpScheduled = false;
  std::set<std::string> waiting;  // queued component identifiers not yet acknowledged
  std::optional<double> progress;
  std::function<void(const SyncStatus&)> statusObserver;
  // Handlers hold a weak reference: one that runs after the device is gone
  // does nothing.
  std::shared_ptr<int> life = std::make_shared<int>(0);

  bool isServer() const { return options.role == Role::Server; }
  bool paired() const { return controller->internalState() == 1; }

  template <class F>
  auto guarded(F f) {
    return [life = std::weak_ptr<int>(life), f = std::move(f)](auto&&... args) mutable
             requires std::invocable<F&, decltype(args)...> {
      if (life.expired()) return;
      f(std::forward<decltype(args)>(args)...);
    };
  }

  // MARK: Start and the model

  void start() {
    store = std::make_shared<Store>(options.databasePath, model);
    controller = make<OTSyncController>(isServer() ? OTSyncControllerTypeServer : OTSyncControllerTypeClient);
    controller->setDataSource(store);
    if (isServer()) controller->setMergeClass(OTMergeClassOf<TaskMerge>());
    controller->restoreInternalState();
    if (auto stored = store->hostValueForKey(kDeviceKey); stored && stored->isString()) {
      deviceIdentifier = std::string(stored->string());
    } else {
      deviceIdentifier = OTStateSpaceIdentifier::randomDeviceIdentifier();
      store->setHostValueForKey(Value(deviceIdentifier), kDeviceKey);
    }
    model.replace(*store->storedModel());
    // A server pairs in advance, before any client asks, so that the seed of
    // its whole content is ready when the first client connects.
    if (isServer() && !paired())
      controller->performTransaction([&] {
        controller->resetIfNeededAndSeedUsingStateSpaceIdentifier(freshIdentifier());
        store->setHostValueForKey(std::nullopt, kPairingHolderKey);
      });
    if (isServer()) {
      port = options.port;
      listen();
    } else {
      connect();
    }
    tick();
  }

  // A storage failure inside a controller transaction leaves it open (the
  // controller ends nothing on the way out) and the model ahead of the file:
  // nothing later could commit. The process stops; the file rolls back to its
  // last commit and a restart goes on from there.
  [[noreturn]] static void fail(const std::exception& error) {
    logMessage(std::string("loomwork-tasks: storage failed, stopping: ") + error.what());
    std::_Exit(1);
  }

  void commit(const UGTransaction& transaction) {
    try {
      controller->performTransaction([&] {
        store->persist(model.apply(transaction));
        controller->stageLocalOperation(transaction);
      });
    } catch (const std::exception& error) {
      fail(error);
    }
    if (peer) flush(peer);
    notifyStatus();
  }

  // MARK: Processing

  void schedulePump() {
    if (pumpScheduled) return;
    pumpScheduled = true;
    asio::post(context, guarded([this] { pump(); }));
  }

  void pump() {
    pumpScheduled = false;
    for (int pass = 0; pass < 4 && paired(); ++pass) {
      const auto before = controller->currentState();
      try {
        controller->performTransaction([&] { controller->processInternalStateAllowingHostUpdate(true); });
      } catch (const std::exception& error) {
        fail(error);
      }
      if (controller->currentState() == before) break;
    }
    if (peer) flush(peer);
    notifyStatus();
  }

  // Reads the queue when something was queued since it was last read.
  std::vector<OTSQLiteDataSource::PendingTransfer> refreshWaiting() {
    std::vector<OTSQLiteDataSource::PendingTransfer> pending;
    if (!store->queueChanged) return pending;
    store->queueChanged = false;
    pending = store->pendingTransfers();
    waiting.clear();
    for (const auto& transfer : pending) waiting.insert(transfer.uniqueIdentifier);
    return pending;
  }

  void flush(const ConnectionRef& connection) {
    if (!connection->ready || connection->closed) return;
    for (const auto& transfer : refreshWaiting()) {
      if (!connection->sent.insert(transfer.uniqueIdentifier).second) continue;
      write(connection, encodeComponent(transfer.uniqueIdentifier, transfer.data));
    }
    if (controller->currentState() && controller->currentState() != connection->claimSent) {
      connection->claimSent = controller->currentState();
      write(connection, encodeClaim(*controller->currentState()));
    }
  }

  void tick() {
    tickTimer.expires_after(std::chrono::seconds(1));
    tickTimer.async_wait(guarded([this](const asio::error_code& error) {
      if (error) return;
      pump();
      tick();
    }));
  }

  // MARK: Connections

  void listen() {
    if (acceptor) return;
    asio::ip::tcp::endpoint endpoint(asio::ip::make_address(options.host), port);
    acceptor.emplace(context);
    acceptor->open(endpoint.protocol());
    acceptor->set_option(asio::socket_base::reuse_address(true));
    acceptor->bind(endpoint);
    acceptor->listen();
    port = acceptor->local_endpoint().port();
    accept();
  }

  void accept() {
    auto connection = std::make_shared<Connection>(context);
    acceptor->async_accept(connection->socket, guarded([this, connection](const asio::error_code& error) {
      if (error == asio::error::operation_aborted || !acceptor) return;
      if (!error && connections.size() >= kMaxConnections) {
        logMessage("loomwork-tasks: refusing a connection: " + std::to_string(kMaxConnections) + " are open");
        asio::error_code ignored;
        connection->socket.close(ignored);
      } else if (!error) {
        opened(connection);
      }
      accept();
    }));
  }

  void connect() {
    if (!online || peer || !connections.empty()) return;
    auto connection = std::make_shared<Connection>(context);
    connections.push_back(connection);
    asio::ip::tcp::endpoint endpoint;
    try {
      endpoint = asio::ip::tcp::endpoint(asio::ip::make_address(options.host), options.port);
    } catch (const std::exception&) {
      asio::ip::tcp::resolver resolver(context);
      endpoint = *resolver.resolve(options.host, std::to_string(options.port)).begin();
    }
    connection->socket.async_connect(endpoint, guarded([this, connection](const asio::error_code& error) {
      if (connection->closed) return;
      if (error) {
        close(connection, {});
        return;
      }
      std::erase(connections, connection);
      opened(connection);
      write(connection, encodeFrame(FrameKind::Hello, deviceIdentifier + " " + (pairing().empty() ? "-" : pairing())));
    }));
  }

  void scheduleReconnect() {
    if (isServer() || !online) return;
    reconnectTimer.expires_after(backoff);
    backoff = std::min(backoff * 2, std::chrono::milliseconds(2000));
    reconnectTimer.async_wait(guarded([this](const asio::error_code& error) {
      if (!error) connect();
    }));
  }

  void opened(const ConnectionRef& connection) {
    asio::error_code ignored;
    connection->socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    auto remote = connection->socket.remote_endpoint(ignored);
    connection->peerName = remote.address().to_string() + ":" + std::to_string(remote.port());
    connections.push_back(connection);
    read(connection);
  }

  void close(const ConnectionRef& connection, const std::string& reason) {
    if (connection->closed) return;
    if (!reason.empty())
      logMessage("loomwork-tasks: dropping the connection with " + connection->peerName + ": " + reason);
    connection->closed = true;
    asio::error_code ignored;
    connection->socket.close(ignored);
    std::erase(connections, connection);
    if (peer == connection) peer.reset();
    progress.reset();
    if (!isServer() && connections.empty()) scheduleReconnect();
    notifyStatus();
  }

  void write(const ConnectionRef& connection, std::vector<uint8_t> bytes) {
    connection->writes.push_back(std::make_shared<std::vector<uint8_t>>(std::move(bytes)));
    if (!connection->writing) writeNext(connection);
  }

  void writeNext(const ConnectionRef& connection) {
    if (connection->closed || connection->writes.empty()) {
      connection->writing = false;
      return;
    }
    connection->writing = true;
    auto bytes = connection->writes.front();
    asio::async_write(connection->socket, asio::buffer(*bytes),
                      guarded([this, connection, bytes](const asio::error_code& error, size_t) {
                        if (connection->closed) return;
                        connection->writes.pop_front();
                        if (error) {
                          close(connection, {});
                          return;
                        }
                        writeNext(connection);
                      }));
  }

  void read(const ConnectionRef& connection) {
    connection->socket.async_read_some(
        asio::buffer(connection->buffer), guarded([this, connection](const asio::error_code& error, size_t length) {
          if (connection->closed) return;
          if (error) {
            close(connection, connection->reader.inFrame() ? "the stream ended inside a message" : "");
            return;
          }
          std::vector<Frame> frames;
          const bool good = connection->reader.feed(std::span(connection->buffer.data(), length), frames);
          for (auto& frame : frames) {
            try {
              if (!handle(connection, frame)) return;
            } catch (const std::exception& error) {
              // The store refused a write (a full disk, say). Outside a
              // controller transaction each write is whole or absent and the
              // peer resends what was not acknowledged.
              if (controller->transactionCount() > 0) fail(error);
              close(connection, std::string("storing failed: ") + error.what());
              return;
            }
          }
          if (!good) {
            close(connection, connection->reader.error());
            return;
          }
          if (connection->reader.inFrame() && connection->reader.expectedLength() >= kProgressThreshold) {
            const double value = static_cast<double>(connection->reader.receivedLength()) /
                                 static_cast<double>(connection->reader.expectedLength());
            if (!progress || value - *progress >= 0.01) {
              progress = value;
              notifyStatus();
            }
          } else if (progress) {
            progress.reset();
            notifyStatus();
          }
          read(connection);
        }));
  }

  // MARK: Messages

  // Returns false after dropping the connection.
  bool handle(const ConnectionRef& connection, const Frame& frame) {
    auto hostile = [&](const std::string& reason) {
      close(connection, reason);
      return false;
    };
    const std::span<const uint8_t> payload(frame.payload);
    const std::string text(frame.payload.begin(), frame.payload.end());
    if (frame.kind != FrameKind::Hello && !connection->ready) return hostile("a message before the hellos");
    switch (frame.kind) {
      case FrameKind::Hello:
        if (connection->ready) return hostile("a second hello");
        return isServer() ? serverHello(connection, text) : clientHello(connection, text);
      case FrameKind::Component: {
        auto component = decodeComponent(payload);
        if (!component) return hostile("a malformed component message");
        if (!store->receivePathComponentData(component->data))
          return hostile("a component that does not parse or belongs to another pairing");
        write(connection, encodeFrame(FrameKind::Acknowledgement, component->uniqueIdentifier));
        schedulePump();
        return true;
      }
      case FrameKind::Acknowledgement:
        store->acknowledgeTransfer(text);
        waiting.erase(text);
        notifyStatus();
        return true;
      case FrameKind::Claim: {
        auto claim = decodeClaim(payload);
        const OTState current = controller->currentState().value_or(OTState());
        if (!claim || (isServer() ? claim->serverIndex() > current.serverIndex()
                                  : claim->clientIndex() > current.clientIndex()))
          return hostile("an impossible claimed state");
        auto claimed = store->claimedRemoteStateForSyncController(*controller);
        if (!claimed ||
            (claim->serverIndex() >= claimed->serverIndex() && claim->clientIndex() >= claimed->clientIndex()))
          store->setClaimedRemoteState(*claim);
        if (isServer()) offerSeedIfBehind(connection, *claim, current);
        schedulePump();
        return true;
      }
      case FrameKind::Seed: {
        if (isServer()) return hostile("a seed sent to the server");
        auto seed = OTPathComponent::initWithData(payload);
        if (!seed || !seed->isSeed()) return hostile("a seed that does not parse");
        if (controller->currentState() && controller->canIntegrateSeedFromState(*seed, *controller->currentState())) {
          store->receivedSeed = seed;
          schedulePump();
        }
        return true;
      }
    }
    return hostile("an unknown message");
  }

  static Ref<OTStateSpaceIdentifier> freshIdentifier() {
    return OTStateSpaceIdentifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier(
        OTStateSpaceIdentifier::randomDeviceIdentifier(), OTStateSpaceIdentifier::randomDeviceIdentifier());
  }

  bool serverHello(const ConnectionRef& connection, const std::string& text) {
    const auto space = text.find(' ');
    if (space == std::string::npos) return close(connection, "a malformed hello"), false;
    const std::string client = text.substr(0, space), claimedPairing = text.substr(space + 1);
    if (!isIdentifierText(client) || (claimedPairing != "-" && claimedPairing.size() > 130))
      return close(connection, "a malformed hello"), false;
    const auto holder = store->hostValueForKey(kPairingHolderKey);
    const bool held = holder && holder->isString();
    if (paired() && claimedPairing == pairing()) {
      // The client that holds the pairing, back again.
    } else if (paired() && (!held || holder->string() == client)) {
      // The pairing made in advance (or handed to this client before it
      // could store it) goes to this client.
      store->setHostValueForKey(Value(client), kPairingHolderKey);
    } else {
      // Another client: a new pairing, so that its components and the old
      // client's are foreign to each other.
      controller->performTransaction([&] {
        controller->resetIfNeededAndSeedUsingStateSpaceIdentifier(freshIdentifier());
        store->setHostValueForKey(Value(client), kPairingHolderKey);
      });
    }
    if (peer && peer != connection) close(peer, "replaced by a newer connection");
    peer = connection;
    connection->ready = true;
    store->queueChanged = true;
    write(connection, encodeFrame(FrameKind::Hello, pairing()));
    flush(connection);
    notifyStatus();
    return true;
  }

  bool clientHello(const ConnectionRef& connection, const std::string& text) {
    auto identifier = OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier(text);
    if (text.size() > 130 || !identifier->serverIdentifier() || !isIdentifierText(*identifier->serverIdentifier()) ||
        !identifier->clientIdentifier() || !isIdentifierText(*identifier->clientIdentifier()))
      return close(connection, "a malformed hello"), false;
    if (!paired() || text != pairing())
      controller->performTransaction([&] { controller->resetIfNeededAndSeedUsingStateSpaceIdentifier(identifier); });
    peer = connection;
    connection->ready = true;
    backoff = std::chrono::milliseconds(50);
    store->queueChanged = true;
    flush(connection);
    schedulePump();
    notifyStatus();
    return true;
  }

  void offerSeedIfBehind(const ConnectionRef& connection, const OTState& claim, const OTState& current) {
    if (connection->seedOffered || claim.clientIndex() != current.clientIndex() ||
        current.serverIndex() - claim.serverIndex() < kSeedOfferGap)
      return;
    connection->seedOffered = true;
    if (auto seed = controller->generateSeed())
      if (auto bytes = seed->data()) write(connection, encodeFrame(FrameKind::Seed, *bytes));
  }

  // MARK: Status

  std::string pairing() const {
    const auto& identifier = controller ? controller->stateSpaceIdentifier() : nullptr;
    return paired() && identifier && identifier->fullIdentifier() ? *identifier->fullIdentifier() : std::string();
  }

  SyncStatus status() {
    refreshWaiting();
    SyncStatus status;
    status.currentState = controller->currentState();
    status.claimedRemoteState = store->claimedRemoteStateForSyncController(*controller);
    status.componentsWaiting = waiting.size();
    status.online = online;
    status.connected = peer != nullptr;
    status.seedProgress = progress;
    return status;
  }

  void notifyStatus() {
    if (statusObserver) statusObserver(status());
  }

  void setOnline(bool value) {
    if (online == value) return;
    online = value;
    if (!online) {
      reconnectTimer.cancel();
      if (acceptor) {
        asio::error_code ignored;
        acceptor->close(ignored);
        acceptor.reset();
      }
      for (auto connection : std::vector(connections)) close(connection, {});
    } else if (isServer()) {
      listen();
    } else {
      backoff = std::chrono::milliseconds(50);
      connect();
    }
    notifyStatus();
  }

  void shutdown() {
    life.reset();
    for (auto& connection : connections) {
      connection->closed = true;
      asio::error_code ignored;
      connection->socket.close(ignored);
    }
    connections.clear();
    peer.reset();
    if (acceptor) {
      asio::error_code ignored;
      acceptor->close(ignored);
    }
    reconnectTimer.cancel();
    tickTimer.cancel();
  }
};

Device::Device(asio::io_context& context, DeviceOptions options)
    : impl_(std::make_unique<Impl>(context, std::move(options))) {}
Device::~Device() { impl_->shutdown(); }
void Device::start() { impl_->start(); }
TaskModel& Device::model() { return impl_->model; }
const DeviceOptions& Device::options() const { return impl_->options; }
unsigned short Device::listeningPort() const { return impl_->port; }
void Device::commit(const Ref<UGTransaction>& transaction) { impl_->commit(*transaction); }
void Device::setOnline(bool online) { impl_->setOnline(online); }
SyncStatus Device::status() const { return impl_->status(); }
void Device::setStatusObserver(std::function<void(const SyncStatus&)> observer) {
  impl_->statusObserver = std::move(observer);
}
bool Device::isQuiet() const {
  const SyncStatus status = impl_->status();
  return status.connected && status.componentsWaiting == 0 && status.currentState &&
         status.currentState == status.claimedRemoteState && !impl_->pumpScheduled;
}
std::string Device::deviceIdentifier() const { return impl_->deviceIdentifier; }
std::string Device::pairing() const { return impl_->pairing(); }

}  // namespace loomwork::tasks
