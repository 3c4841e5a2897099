// OTSQLiteDataSource: the storage half of a sync controller's data source, on
// SQLite.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "loomwork/platform/Value.h"
#include "loomwork/sync/OTPathComponent.h"
#include "loomwork/sync/OTRange.h"
#include "loomwork/sync/OTState.h"
#include "loomwork/sync/OTSyncControllerDataSource.h"

struct sqlite3;

#pragma GCC visibility push(default)
namespace loomwork {

// Raised when the database cannot be opened or a statement fails (a file
// that is not a database, a full disk, a locked file). The message is
// SQLite's.
class OTSQLiteError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Everything about storage for one sync controller, in one SQLite database:
// the controller's persisted values, the path components in their byte form
// with their states, the queue of components waiting to be sent, the state
// the other side last claimed, and a key-value table of the host's own.
// Transfer, seeds and the integration into the host's model are left to the
// host: a subclass implements seedForOTSyncController() and the five
// integration calls, and moves components between devices with
// pendingTransfers(), acknowledgeTransfer() and receivePathComponentData().
//
// Durability: the database runs in WAL mode with synchronous=NORMAL. A
// controller transaction is one SQL transaction (BEGIN IMMEDIATE .. COMMIT);
// everything the host writes through setHostValueForKey() inside it belongs
// to it. A committed transaction survives a killed process (its log frames
// are written before the commit returns); only a power loss or an operating
// system crash may lose the last commits, never the database itself. One cut
// off (the process dies, or the data source is destroyed before the end)
// leaves nothing of itself. Calls made outside a controller transaction are
// each atomic on their own.
//
// By default the file is held with an exclusive lock while the data source is
// open: another connection, or a second data source on the same file, cannot
// use it until this one is destroyed. Options::exclusive = false shares it
// (each transaction then takes the file locks, which makes commits slower).
//
// A component lies in a range when both of its states do; it is kept by
// OTSyncControllerRemovePathComponentsNotInRange() when either of its states
// lies in the range (so the seed component, which starts at the origin, and
// the component that ends at the current state stay). Stored components that
// no longer parse are skipped with a log line.
//
// The identifiers and states of the stored components are read once when the
// file opens and then kept in memory (about 200 bytes a component, plus a
// few thousand recently used components whole), so that storing a component
// writes one row and no index, and the controller's range and state
// questions are answered without the file. The file's user_version holds the
// layout of its tables; a file of the earlier layout is brought up to date
// when it opens, and one of a later layout is refused.
//
// One data source serves one controller and is used on one thread at a time.
class OTSQLiteDataSource : public OTSyncControllerDataSource {
 public:
  // Opens (creating it if need be) the database at `path`; ":memory:" opens a
  // private database in memory. Throws OTSQLiteError when the file cannot be
  // opened or is not a database this class can use.
  explicit OTSQLiteDataSource(const std::string& path);

  struct Options {
    // Hold the file with an exclusive lock while open.
    bool exclusive = true;
    // The page size of a new file (an existing file keeps its own). Small
    // pages keep the log frames of a commit small when the file holds little
    // besides components; a host that keeps tables of its own in the file
    // does better with 4096.
    int pageSize = 1024;
  };
  OTSQLiteDataSource(const std::string& path, const Options& options);
  // Closes the database; a controller transaction still open is rolled back.
  ~OTSQLiteDataSource() override;
  OTSQLiteDataSource(const OTSQLiteDataSource&) = delete;
  OTSQLiteDataSource& operator=(const OTSQLiteDataSource&) = delete;

  // MARK: Storage for the controller
  std::optional<Value> OTSyncControllerValueForKey(OTSyncController& controller, std::string_view key) override;
  void OTSyncControllerSetValueForKey(OTSyncController& controller, const std::optional<Value>& value,
                                      std::string_view key) override;
  // Drops the controller's values, every component, the queue and the claimed
  // state; the host's values stay.
  void removeAllMetadataForOTSyncController(OTSyncController& controller) override;
  // Stores the component under its uniqueIdentifier (a component already
  // stored under it is replaced, keeping its place in the order and its
  // queued mark). Components without both states are refused.
  void OTSyncControllerRecordPathComponentEnqueueForTransfer(OTSyncController& controller,
                                                             const Ref<OTPathComponent>& component,
                                                             bool enqueueForTransfer) override;
  // In the order they were first stored.
  std::vector<Ref<OTPathComponent>> OTSyncControllerPathComponentsInRange(OTSyncController& controller,
                                                                          const OTRange& range) override;
  void OTSyncControllerRemovePathComponentsNotInRange(OTSyncController& controller, const OTRange& range) override;
  std::optional<OTState> claimedRemoteStateForSyncController(OTSyncController& controller) override;
  void beginTransactionForOTSyncController(OTSyncController& controller) override;
  void endTransactionForOTSyncController(OTSyncController& controller) override;
  std::optional<OTState>
  stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(
      OTSyncController& controller) override;
  std::optional<OTState>
  stateWithLargestClientIndexBeingOriginOfPathComponentWithSmallestServerIndexForOTSyncController(
      OTSyncController& controller) override;

  // MARK: Transfer, for the host

  // One component waiting to be sent: its unique identifier and its bytes.
  struct PendingTransfer {
    std::string uniqueIdentifier;
    Data data;
  };
  // The components queued for transfer and not yet acknowledged, in the order
  // they were queued.
  std::vector<PendingTransfer> pendingTransfers();
  // Takes the component off the queue (it stays stored). Unknown identifiers
  // are ignored.
  void acknowledgeTransfer(std::string_view uniqueIdentifier);
  // Stores a component received from the other side, not queued. Refused
  // (false) when the bytes do not parse, a state is missing, the toState is
  // not ahead of the fromState, or the component belongs to another state
  // space than the stored identifier (or no identifier is stored). A
  // component already stored under its identifier is left as it is (true).
  bool receivePathComponentData(std::span<const uint8_t> data);
  bool receivePathComponent(const OTPathComponent& component);
  // The state the other side last declared; absent forgets it. Persisted.
  void setClaimedRemoteState(const std::optional<OTState>& state);

  // MARK: The host's own values

  // Kept apart from the controller's metadata (removeAllMetadata leaves them)
  // and written in the running controller transaction, if any. Values are
  // extended property lists (nulls and sets allowed).
  std::optional<Value> hostValueForKey(std::string_view key);
  // Absent removes the key. Throws OTSQLiteError for a value a property list
  // cannot hold (an Object).
  void setHostValueForKey(const std::optional<Value>& value, std::string_view key);
  // Every host value whose key starts with `prefix`, by key.
  std::vector<std::pair<std::string, Value>> hostValuesWithPrefix(std::string_view prefix);

  // The database connection, for a host that keeps tables of its own in the
  // same file, so that its model and the controller's state commit together:
  // statements run on it inside a controller transaction belong to that
  // transaction, and outside one each is atomic on its own. The host must not
  // begin, commit or roll back transactions on it, close it, or touch this
  // class's tables ("metadata", "host_values", "components"); give its own
  // tables names of its own.
  sqlite3* connection();

  // MARK: Inspection

  // The number of stored components and the bytes of their byte forms.
  size_t pathComponentCount();
  size_t pathComponentBytes();
  // Whether a controller transaction is open.
  bool inTransaction() const { return inTransaction_; }

 private:
  class Statement;
  class Database;
  bool receive(const Ref<OTPathComponent>& component, std::span<const uint8_t> data);
  Database* database_;
  bool inTransaction_ = false;
};

}  // namespace loomwork
#pragma GCC visibility pop
