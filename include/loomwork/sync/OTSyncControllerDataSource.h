// OTSyncControllerDataSource: what a host supplies to a sync controller:
// storage, transfer and the integration of remote changes into its model.
#pragma once

#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "loomwork/graph/UGTransaction.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"
#include "loomwork/sync/OTPathComponent.h"
#include "loomwork/sync/OTRange.h"
#include "loomwork/sync/OTState.h"

#pragma GCC visibility push(default)
namespace loomwork {

class OTSyncController;

// The host's side of one sync controller. The controller stores nothing
// itself: every persisted value, every path component and every change of the
// host's model goes through these calls, each of which receives the
// controller first. The host owns the data source; the controller holds it
// weakly. Calls come on the thread that drives the controller.
//
// The calls between beginTransactionForOTSyncController() and the matching
// endTransactionForOTSyncController() belong together: a data source that
// stores durably makes them one atomic unit, so that a process killed in the
// middle leaves none of them behind.
class OTSyncControllerDataSource {
 public:
  virtual ~OTSyncControllerDataSource() = default;

  // The value last stored under the key for this controller, or absent.
  virtual std::optional<Value> OTSyncControllerValueForKey(OTSyncController& controller, std::string_view key) = 0;
  // Stores the value under the key; absent removes the key.
  virtual void OTSyncControllerSetValueForKey(OTSyncController& controller, const std::optional<Value>& value,
                                              std::string_view key) = 0;
  // Drops every stored value and path component of this controller.
  virtual void removeAllMetadataForOTSyncController(OTSyncController& controller) = 0;

  // A transaction that creates the host's whole current content from nothing;
  // an identity transaction (or empty) when there is nothing.
  virtual Ref<UGTransaction> seedForOTSyncController(OTSyncController& controller) = 0;

  // Stores the component; when `enqueueForTransfer` also queues it for
  // sending to the other side.
  virtual void OTSyncControllerRecordPathComponentEnqueueForTransfer(OTSyncController& controller,
                                                                     const Ref<OTPathComponent>& component,
                                                                     bool enqueueForTransfer) = 0;
  // The stored components that lie in the range, in a stable order.
  virtual std::vector<Ref<OTPathComponent>> OTSyncControllerPathComponentsInRange(OTSyncController& controller,
                                                                                  const OTRange& range) = 0;
  // Deletes every stored component that does not lie in the range.
  virtual void OTSyncControllerRemovePathComponentsNotInRange(OTSyncController& controller, const OTRange& range) = 0;

  // Whether the host can apply remote changes now.
  virtual bool OTSyncControllerCanIntegrateOperations(OTSyncController& controller) = 0;
  // A replacement seed received from the other side, if any.
  virtual Ref<OTPathComponent> availableSeedForSyncController(OTSyncController& controller) = 0;
  // Replaces the host's content by the seed's content.
  virtual void OTSyncControllerIntegrateReplacementSeed(OTSyncController& controller,
                                                        const Ref<UGMutableTransaction>& seed) = 0;
  // Applies the remote transaction to the host's model; the host may take the
  // transaction's content (it is not used afterwards).
  virtual void OTSyncControllerIntegrateAndConsumeOperation(OTSyncController& controller,
                                                            const Ref<UGMutableTransaction>& operation) = 0;
  // Runs the block at a time and on a thread where the host's model may be
  // changed (at once, in the simplest host).
  virtual void OTSyncControllerPerformIntegrationBlock(OTSyncController& controller,
                                                       std::function<void()> block) = 0;

  // The state the other side last declared it has reached, or absent.
  virtual std::optional<OTState> claimedRemoteStateForSyncController(OTSyncController& controller) = 0;

  // Open and close a storage transaction; the controller nests its own
  // transactions, so these come in matching pairs and never nest.
  virtual void beginTransactionForOTSyncController(OTSyncController& controller) = 0;
  virtual void endTransactionForOTSyncController(OTSyncController& controller) = 0;

  // The furthest state the client is known to be able to reach: the end
  // state of the stored components that has the largest client index, and
  // among those the largest server index. Absent when no component is stored.
  virtual std::optional<OTState>
  stateWithLargestClientIndexPointedToByPathComponentWithLargestServerIndexForOTSyncController(
      OTSyncController& controller) = 0;
  // Among the stored components with the smallest server index, the start
  // state with the largest client index. Absent when no component is stored.
  virtual std::optional<OTState>
  stateWithLargestClientIndexBeingOriginOfPathComponentWithSmallestServerIndexForOTSyncController(
      OTSyncController& controller) = 0;
};

}  // namespace loomwork
#pragma GCC visibility pop
