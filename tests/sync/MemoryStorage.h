// A data source's storage half kept in memory, with the same host-facing
// calls as OTSQLiteDataSource (queue, receipt, claimed state, host values),
// so that one host can run on either.
//
// Components are kept in the order first stored; range queries scan them,
// which is fine for the small stores that clean() leaves. What is stored
// lives in a MemoryFile that outlives the storage, and controller
// transactions are kept by snapshot: a transaction that is begun and never
// ended is undone when the storage goes away, as a database would.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "loomwork/sync.h"

namespace loomwork::synctest {

class MemoryStorage;

// What a MemoryStorage keeps, shared by the storages made on it one after the
// other (as a database file outlives the processes that open it).
struct MemoryFile {
 private:
  friend class MemoryStorage;
  struct Stored {
    std::string uid;
    Ref<OTPathComponent> component;
    bool pending;
    std::shared_ptr<const Data> bytes;  // written once, when first asked for

    const Data& data() {
      if (!bytes) bytes = std::make_shared<const Data>(*component->data());
      return *bytes;
    }
  };
  using Table = std::map<std::string, Value, std::less<>>;
  Table metadata_, hostValues_;
  std::vector<Stored> components_;
  std::optional<OTState> claimed_;
};

class MemoryStorage : public OTSyncControllerDataSource {
 public:
  explicit MemoryStorage(std::shared_ptr<MemoryFile> file = std::make_shared<MemoryFile>()) : file_(std::move(file)) {}
  // As closing a database: a transaction still open is rolled back.
  ~MemoryStorage() override { rollBackOpenTransaction(); }
  MemoryStorage(const MemoryStorage&) = delete;
  MemoryStorage& operator=(const MemoryStorage&) = delete;

  struct PendingTransfer {
    std::string uniqueIdentifier;
    Data data;
  };

  std::optional<Value> OTSyncControllerValueForKey(OTSyncController&, std::string_view key) override {
    return find(metadata_, key);
  }
  void OTSyncControllerSetValueForKey(OTSyncController&, const std::optional<Value>& value,
                                      std::string_view key) override {
    put(metadata_, value, key);
  }
  void removeAllMetadataForOTSyncController(OTSyncController&) override {
    metadata_.clear();
    components_.clear();
    claimed_.reset();
  }
  void OTSyncControllerRecordPathComponentEnqueueForTransfer(OTSyncController&, const Ref<OTPathComponent>& component,
                                                             bool enqueue) override {
    if (!component || !component->fromState() || !component->toState()) return;
    const std::string uid = component->uniqueIdentifier();
    for (Stored& stored : components_) {
      if (stored.uid == uid) {
        stored.component = component;
        stored.bytes.reset();
        stored.pending = stored.pending || enqueue;
        return;
      }
    }
    components_.push_back({uid, component, enqueue, nullptr});
  }
  std::vector<Ref<OTPathComponent>> OTSyncControllerPathComponentsInRange(OTSyncController&,
                                                                          const OTRange& range) override {
    std::vector<Ref<OTPathComponent>> found;
    for (const Stored& stored : components_)
      if (range.containsState(*stored.component->fromState()) && range.containsState(*stored.component->toState()))
        found.push_back(stored.component);
    return found;
  }
  void OTSyncControllerRemovePathComponentsNotInRange(OTSyncController&, const OTRange& range) override {
    std::erase_if(components_, [&](const Stored& stored) {
      return !range.containsState(*stored.component->fromState()) &&
             !range.containsState(*stored.component->toState());
    });
  }
  std::optional<OTState> claimedRemoteStateForSyncController(OTSyncController&) override { return claimed_; }
  void beginTransactionForOTSyncController(OTSyncController&) override {
    if (keepsSnapshots) snapshot_ = *file_;
  }
  void endTransactionForOTSyncController(OTSyncController&) override { snapshot_.reset(); }
  std::optional<OTState> stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(
      OTSyncController&) override {
    return best([](const Stored& s) { return *s.component->toState(); },
                [](const OTState& a, const OTState& b) {
                  return std::pair(a.clientIndex(), a.serverIndex()) > std::pair(b.clientIndex(), b.serverIndex());
                });
  }
  std::optional<OTState> stateWithLargestClientIndexBeingOriginOfPathComponentWithSmallestServerIndexForOTSyncController(
      OTSyncController&) override {
    return best([](const Stored& s) { return *s.component->fromState(); },
                [](const OTState& a, const OTState& b) {
                  return a.serverIndex() < b.serverIndex() ||
                         (a.serverIndex() == b.serverIndex() && a.clientIndex() > b.clientIndex());
                });
  }

  // The host-facing calls of OTSQLiteDataSource.
  std::vector<PendingTransfer> pendingTransfers() {
    std::vector<PendingTransfer> pending;
    for (Stored& stored : components_)
      if (stored.pending) pending.push_back({stored.uid, stored.data()});
    return pending;
  }
  void acknowledgeTransfer(std::string_view uid) {
    for (Stored& stored : components_)
      if (stored.uid == uid) stored.pending = false;
  }
  bool receivePathComponentData(std::span<const uint8_t> data) {
    Ref<OTPathComponent> component = OTPathComponent::initWithData(data);
    if (!component || !component->fromState() || !component->toState() || !component->stateSpaceIdentifier())
      return false;
    const std::optional<Value> identifier = find(metadata_, kOTSyncControllerStateSpaceIdentifier);
    if (!identifier || !identifier->isString() ||
        component->stateSpaceIdentifier()->fullIdentifier() != std::string(identifier->string()))
      return false;
    const OTState& from = *component->fromState();
    const OTState& to = *component->toState();
    if (to.serverIndex() < from.serverIndex() || to.clientIndex() < from.clientIndex() || to == from) return false;
    const std::string uid = component->uniqueIdentifier();
    for (const Stored& stored : components_)
      if (stored.uid == uid) return true;
    components_.push_back({uid, component, false, nullptr});
    return true;
  }
  void setClaimedRemoteState(const std::optional<OTState>& state) { claimed_ = state; }
  std::optional<Value> hostValueForKey(std::string_view key) { return find(hostValues_, key); }
  void setHostValueForKey(const std::optional<Value>& value, std::string_view key) { put(hostValues_, value, key); }
  std::vector<std::pair<std::string, Value>> hostValuesWithPrefix(std::string_view prefix) {
    std::vector<std::pair<std::string, Value>> values;
    for (auto it = hostValues_.lower_bound(std::string(prefix)); it != hostValues_.end() && it->first.starts_with(prefix);
         ++it)
      values.emplace_back(*it);
    return values;
  }
  size_t pathComponentCount() { return components_.size(); }
  size_t pathComponentBytes() {
    size_t bytes = 0;
    for (Stored& stored : components_) bytes += stored.data().size();
    return bytes;
  }
  // Whether transactions can be rolled back (each costs a copy of the store).
  bool keepsSnapshots = true;
  // Undoes a transaction that was begun and not ended (a crash in the middle).
  void rollBackOpenTransaction() {
    if (snapshot_) *file_ = std::move(*snapshot_);
    snapshot_.reset();
  }

 private:
  using Stored = MemoryFile::Stored;
  using Table = MemoryFile::Table;
  // The first of the components' end states (or start states) that no other beats.
  template <class State, class Beats>
  std::optional<OTState> best(State state, Beats beats) {
    std::optional<OTState> found;
    for (const Stored& stored : components_)
      if (!found || beats(state(stored), *found)) found = state(stored);
    return found;
  }
  static std::optional<Value> find(const Table& table, std::string_view key) {
    auto it = table.find(key);
    return it == table.end() ? std::nullopt : std::optional<Value>(it->second);
  }
  static void put(Table& table, const std::optional<Value>& value, std::string_view key) {
    if (value) {
      table.insert_or_assign(std::string(key), *value);
    } else if (auto it = table.find(key); it != table.end()) {
      table.erase(it);
    }
  }

  std::shared_ptr<MemoryFile> file_;
  Table& metadata_ = file_->metadata_;
  Table& hostValues_ = file_->hostValues_;
  std::vector<Stored>& components_ = file_->components_;
  std::optional<OTState>& claimed_ = file_->claimed_;
  std::optional<MemoryFile> snapshot_;
};

}  // namespace loomwork::synctest
