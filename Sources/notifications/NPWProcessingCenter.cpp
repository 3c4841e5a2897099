#include "loomwork/notifications/NPWProcessingCenter.h"

#include <algorithm>
#include <unordered_set>

#include "loomwork/platform/Exception.h"

namespace loomwork {

const Ref<NPWProcessingCenter>& NPWProcessingCenter::sharedCenter() {
  // A function-local static is initialised exactly once, also when several
  // threads ask first at the same time.
  static const Ref<NPWProcessingCenter> center = make<NPWProcessingCenter>();
  return center;
}

Ref<NPProcessingContext> NPWProcessingCenter::currentProcessingContext() const {
  return processingStack_.empty() ? nullptr : processingStack_.back();
}

void NPWProcessingCenter::initiateNotificationAtNodeComposable(const Ref<NPWNotification>& notification,
                                                               const Ref<Object>& node, bool composable) {
  if (!notification || !node) return;
  Ref<Object> current = node;
  while (true) {
    NPWNode* asNode = NPWNodeOf(*current);
    if (asNode == nullptr || !asNode->npwImplementsHook(NPWNodeHookInitiatingNode)) break;
    Ref<Object> answer = asNode->initiatingNodeForNotificationComposable(*notification, composable);
    if (!answer) {
      throw Exception(ExceptionKind::InternalInconsistency,
                      "NPWProcessingCenter::initiateNotificationAtNodeComposable: a node answered no initiating node");
    }
    if (answer.get() == current.get()) break;
    current = std::move(answer);
  }

  if (composable && !processingStack_.empty()) {
    NPProcessingContext& innermost = *processingStack_.back();
    if (innermost.processingStateForNode(*current) == NPProcessingContext::NPProcessingStateProcessing) {
      innermost.notification()->composeWith(*notification);
      return;
    }
  }

  auto context = make<NPProcessingContext>();
  context->setNotification(notification);
  processingStack_.push_back(context);
  struct Pop {
    std::vector<Ref<NPProcessingContext>>& stack;
    ~Pop() { stack.pop_back(); }
  } pop{processingStack_};
  processNotificationAtNodeContextDepth(current, *context, 0);
}

int64_t NPWProcessingCenter::processNotificationAtNodeContextDepth(const Ref<Object>& node,
                                                                   NPProcessingContext& context, int64_t depth) {
  if (!node || context.processingStateForNode(*node) != NPProcessingContext::NPProcessingStateNotVisited) return 0;
  NPWNode* asNode = NPWNodeOf(*node);
  NPWNotification& notification = *context.notification();

  const std::vector<Ref<Object>> admitted = linearizedNextNodesForNodeContext(*node, context);
  context.setProcessingStateForNode(NPProcessingContext::NPProcessingStateProcessing, node);
  if (asNode != nullptr && asNode->npwImplementsHook(NPWNodeHookDidEnter)) {
    asNode->didEnterNodeWithNotification(notification);
  }

  // The successors are admitted before the entry hook and visited in the
  // order found after it. When the hook left them as they were (the usual
  // case) no set is needed.
  std::vector<Ref<Object>> ordered = linearizedNextNodesForNodeContext(*node, context);
  int64_t count = 0;
  if (ordered == admitted) {
    for (const Ref<Object>& successor : ordered)
      count += processNotificationAtNodeContextDepth(successor, context, depth + 1);
  } else {
    struct Hash {
      size_t operator()(const Object* o) const { return o->hash(); }
    };
    struct Equal {
      bool operator()(const Object* a, const Object* b) const { return a == b || a->isEqual(*b); }
    };
    std::unordered_set<const Object*, Hash, Equal> allowed;
    for (const Ref<Object>& successor : admitted) allowed.insert(successor.get());
    for (const Ref<Object>& successor : ordered) {
      if (allowed.count(successor.get()) != 0)
        count += processNotificationAtNodeContextDepth(successor, context, depth + 1);
    }
  }

  if (asNode != nullptr && asNode->npwImplementsHook(NPWNodeHookWillExit)) {
    asNode->willExitNodeWithNotification(notification);
  }
  context.setProcessingStateForNode(NPProcessingContext::NPProcessingStateProcessed, node);
  return count + 1;
}

std::vector<Ref<Object>> NPWProcessingCenter::linearizedNextNodesForNodeContext(Object& node,
                                                                                NPProcessingContext& context) {
  std::vector<Ref<Object>> result;
  NPWNode* asNode = NPWNodeOf(node);
  if (asNode == nullptr || !asNode->npwImplementsHook(NPWNodeHookNextNodes)) return result;
  const NPWSuccessors top = asNode->nextNodesForNotification(*context.notification());
  std::vector<const NPWSuccessors*> work{&top};
  std::vector<const NPWSuccessors*> nested;
  while (!work.empty()) {
    const NPWSuccessors* list = work.back();
    work.pop_back();
    nested.clear();
    for (const NPWSuccessor& element : *list) {
      if (element.node()) {
        if (NPWNodeOf(*element.node()) != nullptr) result.push_back(element.node());
      } else if (element.list() != nullptr) {
        nested.push_back(element.list());
      }
    }
    work.insert(work.end(), nested.rbegin(), nested.rend());
  }
  return result;
}

}  // namespace loomwork
