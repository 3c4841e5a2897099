// OTSyncController: one device's side of the two-party operational-transform
// synchronisation between a server and a client.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "loomwork/graph/UGTransaction.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"
#include "loomwork/sync/OTMerge.h"
#include "loomwork/sync/OTPathComponent.h"
#include "loomwork/sync/OTState.h"
#include "loomwork/sync/OTStateSpaceIdentifier.h"
#include "loomwork/sync/OTSyncControllerDataSource.h"

#pragma GCC visibility push(default)
namespace loomwork {

// The keys of the controller's persisted values.
inline constexpr std::string_view kOTSyncControllerInternalState = "internalState";
inline constexpr std::string_view kOTSyncControllerCurrentState = "currentState";
inline constexpr std::string_view kOTSyncControllerStateSpaceIdentifier = "stateSpaceIdentifier";

// Which side a controller keeps. Unscoped with a fixed underlying type: a
// controller made with any other number does (almost) nothing.
enum OTSyncControllerType : uint64_t {
  OTSyncControllerTypeServer = 0,
  OTSyncControllerTypeClient = 1,
};

// Keeps one device's side of the synchronisation of one server with one
// client. It tracks where this device stands in the state space, turns each
// local change into a path component (stageLocalOperation()), integrates the
// components received from the other side, and on the server merges a
// client's diverged line with the server's own (mergeClass) and records the
// transformed remainders.
//
// The controller stores nothing itself: persisted values, path components and
// model changes all go through the data source, which the host owns and the
// controller holds weakly. Failed preconditions (not restored, not paired, no
// data source, no merge class, another type) make operations return without
// effect; nothing is thrown. Used on one thread, the host's; controller
// transactions nest by count and are not safe across threads.
class OTSyncController : public Object {
 public:
  // initWithType: 0 server, 1 client. Set dataSource (and on the server
  // mergeClass), then call restoreInternalState().
  explicit OTSyncController(uint64_t type) : type_(type) {}

  bool internalStateRestored() const { return internalStateRestored_; }
  uint64_t type() const { return type_; }

  // Empty when none was set or the host has released it.
  std::shared_ptr<OTSyncControllerDataSource> dataSource() const { return dataSource_.lock(); }
  void setDataSource(const std::shared_ptr<OTSyncControllerDataSource>& dataSource) { dataSource_ = dataSource; }

  // No default: a server without a merge class never merges.
  const OTMergeClass& mergeClass() const { return mergeClass_; }
  void setMergeClass(OTMergeClass mergeClass) { mergeClass_ = std::move(mergeClass); }

  const Ref<OTStateSpaceIdentifier>& stateSpaceIdentifier() const { return stateSpaceIdentifier_; }
  // Ignores an empty identifier (so a reset keeps the old one in memory until
  // the next seed); stores and persists one whose full identifier differs.
  void setStateSpaceIdentifier(const Ref<OTStateSpaceIdentifier>& identifier);

  const std::optional<OTState>& currentState() const { return currentState_; }
  // Stores and persists the state whenever it differs from the old one (an
  // absent old state never equals; setting absent removes the stored value).
  void setCurrentState(const std::optional<OTState>& state);

  uint64_t internalState() const { return internalState_; }
  // Persists the value only when it differs from the old one.
  void setInternalState(uint64_t internalState);

  int64_t transactionCount() const { return transactionCount_; }

  // The current state's index along this device's own axis (server index on
  // the server, client index on the client) and along the other one; 0 when
  // there is no current state. Setting one replaces the current state.
  int64_t currentLocalIndex() const;
  int64_t currentRemoteIndex() const;
  void setCurrentLocalIndex(int64_t index);
  void setCurrentRemoteIndex(int64_t index);

  // Asked of the data source; absent without one or when nothing is stored.
  std::optional<OTState> largestStateKnownToBeReachableByClient() const;
  std::optional<OTState> smallestPossibleClientState() const;

  // Loads the persisted values once; later calls do nothing.
  void restoreInternalState();
  // True while there is no pairing (internal state 0).
  bool needsInitialSeed() const { return internalState_ == 0; }
  // Starts a new pairing (resetting a present one): internal state 1, the
  // identifier, state (0,0), and the data source's seed staged unless it is an
  // identity. Does nothing for an internal state other than 0 or 1.
  void resetIfNeededAndSeedUsingStateSpaceIdentifier(const Ref<OTStateSpaceIdentifier>& identifier);
  // Forgets the pairing (only when paired): all metadata removed, no current
  // state, internal state 0.
  void reset();

  // Restored, paired and a data source set.
  bool canStageLocalOperations() const;
  // Records one local change as the component one step along this device's
  // axis and moves the current state there. The controller keeps a mutable
  // copy of the transaction. Only when paired and a data source is set.
  void stageLocalOperation(const UGTransaction& transaction);

  // The periodic entry point (only when paired). Server: merge if needed,
  // integrate if `allowHostUpdate`, clean. Client: integrate if allowed, clean.
  void processInternalStateAllowingHostUpdate(bool allowHostUpdate);
  // Server only: when the client's line and the server's have diverged from a
  // common base, merges them and records the server's remainder (kept) and
  // the client's (queued for transfer). Logs one line when the client's line
  // cannot be put together from the stored components.
  void mergeWithClientIfNeeded();
  // Integrates an acceptable replacement seed and the components that lead on
  // from the current state along the remote axis, through the data source's
  // integration block.
  void advanceRemoteStateIfPossible();
  // Lets the data source drop the components no future step can need.
  void clean();

  // A component from (0,0) to the current state holding a mutable copy of the
  // data source's seed transaction, with this controller's identifier: what
  // the other side accepts as a replacement seed. Empty without a data source
  // or a current state.
  Ref<OTPathComponent> generateSeed();

  // Controller transactions nest by count; the data source hears of the
  // outermost begin and end only.
  void beginTransaction();
  void endTransaction();
  // beginTransaction(), the block, endTransaction(). When the block throws,
  // the transaction is left open (nothing is ended on the way out), so a
  // durable data source keeps none of it.
  void performTransaction(const std::function<void()>& block);

  // True only for a seed with this controller's identifier that lies on this
  // device's own line and strictly ahead of `state` along the remote axis.
  bool canIntegrateSeedFromState(const OTPathComponent& seed, const OTState& state) const;
  // The stored components on the remote axis through `state`: on the client
  // client S.c..S.c by server S.s..MAX, on the server client S.c..MAX by
  // server S.s..S.s. Empty without a data source or for another type.
  std::vector<Ref<OTPathComponent>> requestPathComponentsOnFutureRemoteLineFromState(const OTState& state) const;

  // Finds a chain of components from `start` and joins it into one component
  // (a copy; the components given are not changed): the shortest chain to
  // `target` when one reaches it, otherwise the furthest chain, with ties
  // between chains broken by the order of the components as given. Empty when
  // no component leads on from `start`. Components without both states, or
  // whose toState is not ahead of their fromState in one index and behind in
  // none, are not used. Linear in the number of components for a chain with a
  // few branches.
  static Ref<OTPathComponent> composePathComponentsFromStateUpToState(
      const std::vector<Ref<OTPathComponent>>& components, const OTState& start,
      const std::optional<OTState>& target);

  // A component with this controller's identifier along its own axis (the
  // local index changes, the remote one is the current one) or along the
  // other one. The component takes the operation object itself.
  Ref<OTPathComponent> pathComponentFromLocalIndexToLocalIndexOperation(int64_t fromIndex, int64_t toIndex,
                                                                        Ref<UGMutableTransaction> operation) const;
  Ref<OTPathComponent> pathComponentFromRemoteIndexToRemoteIndexOperation(int64_t fromIndex, int64_t toIndex,
                                                                          Ref<UGMutableTransaction> operation) const;

  // "<OTSyncController: server|client state:<state> internalState:<n>>".
  std::string description() const override;

 private:
  bool isServer() const { return type_ == OTSyncControllerTypeServer; }
  bool isClient() const { return type_ == OTSyncControllerTypeClient; }
  OTState stateOrOrigin() const { return currentState_.value_or(OTState()); }

  bool internalStateRestored_ = false;
  uint64_t type_;
  std::weak_ptr<OTSyncControllerDataSource> dataSource_;
  OTMergeClass mergeClass_;
  Ref<OTStateSpaceIdentifier> stateSpaceIdentifier_;
  std::optional<OTState> currentState_;
  uint64_t internalState_ = 0;
  int64_t transactionCount_ = 0;
};

}  // namespace loomwork
#pragma GCC visibility pop
