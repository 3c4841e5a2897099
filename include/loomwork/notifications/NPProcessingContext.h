// NPProcessingContext: the state of one pass of the notification walk.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "loomwork/notifications/NPWNotification.h"
#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

// One pass: the notification it processes and the processing state of every
// node it has reached. Nodes are told apart by Object::isEqual and hash()
// (identity for ordinary objects) and are kept alive until the pass ends.
class NPProcessingContext : public Object {
 public:
  // The processing state of a node.
  enum : int64_t {
    NPProcessingStateNotVisited = 0,
    NPProcessingStateProcessing = 1,  // entered, not yet exited
    NPProcessingStateProcessed = 2,   // exited
  };

  NPProcessingContext() = default;

  const Ref<NPWNotification>& notification() const { return notification_; }
  void setNotification(Ref<NPWNotification> notification) { notification_ = std::move(notification); }

  // The nodes in state 1 (processingNodes) and in state 2 (processedNodes).
  std::vector<Ref<Object>> processingNodes() const { return nodesInState(NPProcessingStateProcessing); }
  std::vector<Ref<Object>> processedNodes() const { return nodesInState(NPProcessingStateProcessed); }

  // State 1 puts the node among the processing nodes, 2 among the processed
  // ones; any other state takes it out of both.
  void setProcessingStateForNode(int64_t state, const Ref<Object>& node);
  // 1, 2, or 0 for a node the pass has not reached.
  int64_t processingStateForNode(const Object& node) const;

 private:
  struct NodeHash {
    size_t operator()(const Object* node) const { return node->hash(); }
  };
  struct NodeEqual {
    bool operator()(const Object* a, const Object* b) const { return a == b || a->isEqual(*b); }
  };
  struct Entry {
    Ref<Object> node;
    int64_t state;
  };
  std::vector<Ref<Object>> nodesInState(int64_t state) const;

  Ref<NPWNotification> notification_;
  std::unordered_map<const Object*, Entry, NodeHash, NodeEqual> states_;
};

}  // namespace loomwork
#pragma GCC visibility pop
