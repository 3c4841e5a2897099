// The node contract of the notification walk: nodes, their optional hooks,
// and successors given as nested lists.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <vector>

#include "loomwork/notifications/NPWNotification.h"
#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

class NPWSuccessor;
// What nextNodesForNotification() answers: nodes and nested lists of them.
using NPWSuccessors = std::vector<NPWSuccessor>;

// One element of a successor list: a node (any object; one that is not an
// NPWNode is skipped by the walk) or a nested list, to any depth.
class NPWSuccessor {
 public:
  NPWSuccessor(Ref<Object> node) : node_(std::move(node)) {}
  template <class T>
  requires std::derived_from<T, Object> NPWSuccessor(Ref<T> node) : node_(std::move(node)) {}
  NPWSuccessor(NPWSuccessors list) : list_(std::make_shared<NPWSuccessors>(std::move(list))) {}

  // The node, or empty for a nested list.
  const Ref<Object>& node() const { return node_; }
  // The nested list, or null for a node.
  const NPWSuccessors* list() const { return list_.get(); }

 private:
  Ref<Object> node_;
  std::shared_ptr<const NPWSuccessors> list_;
};

// The optional hooks of a node, as bits of NPWNode::npwImplementedHooks().
enum NPWNodeHook : uint32_t {
  NPWNodeHookNextNodes = 1u << 0,       // nextNodesForNotification()
  NPWNodeHookDidEnter = 1u << 1,        // didEnterNodeWithNotification()
  NPWNodeHookWillExit = 1u << 2,        // willExitNodeWithNotification()
  NPWNodeHookInitiatingNode = 1u << 3,  // initiatingNodeForNotificationComposable()
};

// A node of the notification walk. An object becomes a node by deriving from
// NPWNode beside Object (the walk finds it with a dynamic_cast); nodes live in
// shared pointers. Every hook is optional: a node names the hooks it answers in
// npwImplementedHooks(), and the walk never calls a hook that is not named
// there. A subclass that overrides a hook adds its bit to its base's answer.
class NPWNode {
 public:
  virtual ~NPWNode();

  // The hooks this node answers; none by default.
  virtual uint32_t npwImplementedHooks() const { return 0; }
  bool npwImplementsHook(NPWNodeHook hook) const { return (npwImplementedHooks() & hook) != 0; }

  // The nodes that come after this one for the notification, in order, as
  // nodes or nested lists. Never absent (an empty list for none).
  virtual NPWSuccessors nextNodesForNotification(NPWNotification& notification);
  // Called on the way down and on the way back up of a pass.
  virtual void didEnterNodeWithNotification(NPWNotification& notification);
  virtual void willExitNodeWithNotification(NPWNotification& notification);
  // The node at which a notification started here is processed instead; the
  // receiver itself ends the search. Answering none is a programming error.
  virtual Ref<Object> initiatingNodeForNotificationComposable(NPWNotification& notification, bool composable);
};

// The NPWNode side of an object, or null when it is not a node.
inline NPWNode* NPWNodeOf(Object& object) { return dynamic_cast<NPWNode*>(&object); }

// Every object's entry point: when the object is an NPWNode owned by a shared
// pointer, hands the notification to the shared center
// (NPWProcessingCenter::initiateNotificationAtNodeComposable) with the object
// as node; otherwise does nothing.
void initiateNotificationComposable(Object& object, const Ref<NPWNotification>& notification, bool composable);

}  // namespace loomwork
#pragma GCC visibility pop
