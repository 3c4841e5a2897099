// NPWProcessingCenter: the depth-first notification walk over a node graph.
#pragma once

#include <cstdint>
#include <vector>

#include "loomwork/notifications/NPProcessingContext.h"
#include "loomwork/notifications/NPWNode.h"
#include "loomwork/notifications/NPWNotification.h"
#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Walks the node graph depth-first from the node where a notification starts:
// entry hooks on the way down, exit hooks on the way back, each node at most
// once per pass. A stack of passes lets a hook start a further notification;
// a composable one whose initiating node is being processed in the innermost
// pass is folded into that pass's notification instead.
//
// One shared instance for the process (sharedCenter()). No locks: the center
// and the passes it runs belong to the thread that owns the model.
class NPWProcessingCenter : public Object {
 public:
  NPWProcessingCenter() = default;

  // The process's center, made once on first use (also under concurrent first calls).
  static const Ref<NPWProcessingCenter>& sharedCenter();

  // The running passes, innermost last; empty when nothing is processed.
  const std::vector<Ref<NPProcessingContext>>& processingStack() const { return processingStack_; }
  // The innermost pass, or empty.
  Ref<NPProcessingContext> currentProcessingContext() const;

  // Resolves the initiating node (asking initiatingNodeForNotificationComposable
  // of each node that answers it until one answers itself), then either
  // composes the notification into the innermost pass (composable, and the
  // node is in state 1 there) or runs a new pass from that node. Throws
  // Exception (internal inconsistency) when a node answers none.
  void initiateNotificationAtNodeComposable(const Ref<NPWNotification>& notification, const Ref<Object>& node,
                                            bool composable);
  // Processes the node and, recursively, the successors admitted before its
  // entry hook; returns the number of nodes processed (0 when the node was
  // already reached in this pass). The depth is passed down only.
  int64_t processNotificationAtNodeContextDepth(const Ref<Object>& node, NPProcessingContext& context, int64_t depth);
  // The node's successors as one flat list: nodes of a list first, in order,
  // then its nested lists, each the same way (for [a, [b, [c], d], [e]]:
  // a, b, d, c, e). Empty for an object that is not a node or does not answer
  // nextNodesForNotification. Duplicates are kept.
  std::vector<Ref<Object>> linearizedNextNodesForNodeContext(Object& node, NPProcessingContext& context);

 private:
  std::vector<Ref<NPProcessingContext>> processingStack_;
};

}  // namespace loomwork
#pragma GCC visibility pop
