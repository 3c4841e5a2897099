#include "loomwork/notifications/NPWNode.h"

#include "loomwork/notifications/NPWProcessingCenter.h"

namespace loomwork {

NPWNode::~NPWNode() = default;

NPWSuccessors NPWNode::nextNodesForNotification(NPWNotification&) { return {}; }

void NPWNode::didEnterNodeWithNotification(NPWNotification&) {}

void NPWNode::willExitNodeWithNotification(NPWNotification&) {}

Ref<Object> NPWNode::initiatingNodeForNotificationComposable(NPWNotification&, bool) {
  return dynamic_cast<Object*>(this) != nullptr ? dynamic_cast<Object*>(this)->ref() : nullptr;
}

void initiateNotificationComposable(Object& object, const Ref<NPWNotification>& notification, bool composable) {
  if (NPWNodeOf(object) == nullptr || !notification) return;
  Ref<Object> node = object.ref();
  if (!node) return;
  NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(notification, node, composable);
}

}  // namespace loomwork
