// The notification walk: successor order, entry and exit hooks, composition
// into a running pass, payload composition and the change announcements.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "loomwork/graph/UniversalGraphObjects.h"
#include "loomwork/notifications.h"

namespace loomwork {
namespace {

// A node that logs its hooks into a shared journal and answers only the hooks
// it is given.
class TestNode : public Object, public NPWNode {
 public:
  TestNode(std::string name, std::string* journal,
           uint32_t hooks = NPWNodeHookNextNodes | NPWNodeHookDidEnter | NPWNodeHookWillExit)
      : name(std::move(name)), journal(journal), hooks(hooks) {}
  uint32_t npwImplementedHooks() const override { return hooks; }
  NPWSuccessors nextNodesForNotification(NPWNotification&) override { return successors; }
  void didEnterNodeWithNotification(NPWNotification& notification) override {
    *journal += "+" + name;
    if (onEnter) onEnter(notification);
  }
  void willExitNodeWithNotification(NPWNotification& notification) override {
    *journal += "-" + name;
    if (onExit) onExit(notification);
  }
  Ref<Object> initiatingNodeForNotificationComposable(NPWNotification&, bool) override {
    *journal += "?" + name;
    return initiating.lock();
  }

  std::string name;
  std::string* journal;
  uint32_t hooks;
  NPWSuccessors successors;
  std::weak_ptr<Object> initiating;
  std::function<void(NPWNotification&)> onEnter, onExit;
};

std::string namesOf(const std::vector<Ref<Object>>& nodes) {
  std::string text;
  for (const auto& node : nodes) text += std::static_pointer_cast<TestNode>(node)->name;
  return text;
}

TEST(Notifications, WalksSuccessorsDepthFirstOncePerPass) {
  std::string journal;
  auto node = [&](const char* name) { return make<TestNode>(name, &journal); };
  auto a = node("a"), b = node("b"), c = node("c"), d = node("d"), e = node("e"), root = node("r");
  auto center = NPWProcessingCenter::sharedCenter();
  NPProcessingContext context;
  context.setNotification(NPWNotification::notification());

  // Nodes of a list first, then its nested lists; what is no node is skipped.
  root->successors = {a, NPWSuccessors{b, NPWSuccessors{c}, make<Object>(), d}, NPWSuccessors{e}};
  EXPECT_EQ(namesOf(center->linearizedNextNodesForNodeContext(*root, context)), "abdce");
  EXPECT_TRUE(center->linearizedNextNodesForNodeContext(*make<Object>(), context).empty());

  // Cycles and second paths stop at nodes already reached; every exit hook
  // runs after those of the node's successors.
  a->successors = {b, a};
  b->successors = {a, c};
  c->successors = {root};
  d->successors = {c};
  NPProcessingContext pass;
  pass.setNotification(NPWNotification::notification());
  EXPECT_EQ(center->processNotificationAtNodeContextDepth(root, pass, 0), 6);
  EXPECT_EQ(journal, "+r+a+b+c-c-b-a+d-d+e-e-r");
  EXPECT_EQ(center->processNotificationAtNodeContextDepth(root, pass, 0), 0);

  // The entry hook may reorder successors; one it adds is not visited, one it
  // removes neither.
  journal.clear();
  auto late = node("l");
  root->successors = {a, b};
  a->successors = {};
  b->successors = {};
  root->onEnter = [&](NPWNotification&) { root->successors = {b, late}; };
  center->initiateNotificationAtNodeComposable(NPWNotification::notification(), root, false);
  EXPECT_EQ(journal, "+r+b-b-r");
  EXPECT_TRUE(center->processingStack().empty());

  // Hooks that a node does not name are never called.
  journal.clear();
  auto quiet = make<TestNode>("q", &journal, 0);
  quiet->successors = {a};
  quiet->initiating = a;
  center->initiateNotificationAtNodeComposable(NPWNotification::notification(), quiet, false);
  EXPECT_EQ(journal, "");
}

TEST(Notifications, ResolvesInitiatingNodesAndComposesIntoTheRunningPass) {
  std::string journal;
  const uint32_t all = NPWNodeHookNextNodes | NPWNodeHookDidEnter | NPWNodeHookWillExit | NPWNodeHookInitiatingNode;
  auto root = make<TestNode>("r", &journal, all), leaf = make<TestNode>("l", &journal, all);
  root->successors = {leaf};
  root->initiating = root;
  leaf->initiating = root;
  auto center = NPWProcessingCenter::sharedCenter();

  auto transactionWith = [](const char* uuid) {
    auto transaction = UGMutableTransaction::transaction();
    auto operation = UGMutableEntityOperation::operationWithTypeEntityName(UGEntityOperationTypeUpdate, "E");
    operation->setValueForProperty(Value(1), "p");
    transaction->setOperationForUUID(operation, uuid);
    return transaction;
  };
  // While the root is entered, a composable start at the leaf is folded into
  // the running notification; once the root has exited, it is a nested pass.
  auto first = NPWNotification::notificationWithGraphTransaction(transactionWith("A"));
  int passesSeen = 0;
  leaf->onExit = [&](NPWNotification&) {
    ++passesSeen;
    if (passesSeen == 1) {
      initiateNotificationComposable(*leaf, NPWNotification::notificationWithGraphTransaction(transactionWith("B")),
                                     true);
      EXPECT_EQ(center->processingStack().size(), 1u);
    }
  };
  root->onExit = [&](NPWNotification& notification) {
    if (passesSeen == 1 && &notification == first.get()) {
      EXPECT_EQ(center->currentProcessingContext()->processingStateForNode(*root), 1);
      initiateNotificationComposable(*leaf, NPWNotification::notification(), false);
      EXPECT_EQ(passesSeen, 2);  // a nested pass ran through the leaf again
    }
  };
  initiateNotificationComposable(*leaf, first, true);
  EXPECT_EQ(first->graphTransaction()->allUUIDsArray(), (std::vector<std::string>{"A", "B"}));
  EXPECT_EQ(journal, "?l?r+r+l-l?l?r-r?l?r+r+l-l-r");
  EXPECT_EQ(center->currentProcessingContext(), nullptr);

  // Objects that are not nodes drop notifications; a node answering none is an error.
  initiateNotificationComposable(*make<Object>(), first, false);
  leaf->initiating.reset();
  EXPECT_THROW(center->initiateNotificationAtNodeComposable(first, leaf, false), Exception);
  EXPECT_TRUE(center->processingStack().empty());
}

class Counter : public Object, public NPWComposing {
 public:
  explicit Counter(int64_t total) : total(total) {}
  void npwComposeWith(const Value& later) override { total += later.objectAs<Counter>()->total; }
  int64_t total = 0;
};

TEST(Notifications, ComposesPayloadsAndReadsTheGraphTransaction) {
  auto earlier = NPWNotification::notification();
  auto later = NPWNotification::notification();
  auto counter = make<Counter>(2), more = make<Counter>(3);
  earlier->setNotificationObjectForKey(Value(counter), "count");
  earlier->setNotificationObjectForKey(Value("old"), "text");
  earlier->setNotificationObjectForKey(Value(1), "kept");
  later->setNotificationObjectForKey(Value(more), "count");
  later->setNotificationObjectForKey(Value("new"), "text");
  later->setNotificationObjectForKey(Value(Dictionary{{Value("a"), Value(Dictionary{{Value("b"), Value(7)}})}}),
                                     "added");
  earlier->composeWith(*later);
  EXPECT_EQ(earlier->notificationObjectForKey("count")->tryObject(), counter.get());
  EXPECT_EQ(counter->total, 5);
  EXPECT_EQ(*earlier->objectForKeyedSubscript("text"), Value("new"));
  EXPECT_EQ(*earlier->notificationObjectForKey("kept"), Value(1));
  EXPECT_EQ(*earlier->valueForKeyPath("added.a.b"), Value(7));
  EXPECT_FALSE(earlier->valueForKeyPath("missing.a"));
  EXPECT_EQ(NPWNotification::notificationWithObjectForKey(Value(1), "k")->description(),
            "NPWNotification with objects: {k = 1;}");

  // The first read of the transaction stores it; a plain one stored is read too.
  auto fresh = NPWNotification::notification();
  EXPECT_EQ(fresh->graphTransaction(), fresh->graphTransaction());
  auto plain = NPWNotification::notificationWithObjectForKey(Value(UGTransaction::transaction()),
                                                             GraphTransactionNotificationKey);
  EXPECT_NE(plain->graphTransaction(), nullptr);
}

// A model object whose "title" the announcements read.
class Model : public Object {
 public:
  std::optional<Value> valueForKey(std::string_view key) const override {
    if (key == "title" && title) return Value(*title);
    if (key == "globalObjectUUID") return Value(globalObjectUUID());
    return std::nullopt;
  }
  std::optional<std::string> title;
};

TEST(Notifications, AnnouncesPropertyAndRelationChanges) {
  std::string journal;
  auto node = make<TestNode>("n", &journal);
  Ref<NPWNotification> seen;
  node->onExit = [&](NPWNotification& notification) { seen = notification.ref<NPWNotification>(); };
  auto model = make<Model>();
  model->title = "Hello";
  didUpdatePropertyInitiateNotificationFromComposable(*model, "title", node.get(), true);
  ASSERT_TRUE(seen);
  EXPECT_TRUE(seen->containsUpdateForPropertyOfObject("title", model.get()));
  EXPECT_FALSE(seen->containsUpdateForPropertyOfObject("other", model.get()));
  Ref<UGEntityOperation> operation = seen->graphTransaction()->operationForUUID(model->globalObjectUUID());
  EXPECT_EQ(*operation->entityName(), "Model");
  EXPECT_EQ(*operation->valueForProperty("title"), Value("Hello"));
  model->title.reset();
  didUpdatePropertyInitiateNotificationFromComposable(*model, "title", node.get(), true);
  EXPECT_TRUE(
      seen->graphTransaction()->operationForUUID(model->globalObjectUUID())->valueForProperty("title")->isNull());

  auto transform = UGMutableListTransform::transform();
  transform->recordInsertedObjectAtIndex(Value(1), 0);
  didUpdateRelationWithTransformInitiateNotificationFromComposable(*model, "items", transform, node.get(), false);
  EXPECT_EQ(seen->graphTransaction()->transformForRelationOfUpdatedObject("items", model.get()), transform);
  EXPECT_FALSE(seen->containsUpdateForPropertyOfObject("items", model.get()));
  seen = nullptr;
  didUpdateRelationWithTransformInitiateNotificationFromComposable(*model, "items", nullptr, node.get(), false);
  didUpdatePropertyInitiateNotificationFromComposable(*model, "title", nullptr, false);
  EXPECT_EQ(seen, nullptr);
}

TEST(Notifications, SharedCenterIsMadeOnceAcrossThreads) {
  std::vector<const NPWProcessingCenter*> centers(8);
  {
    std::vector<std::jthread> threads;
    for (auto& center : centers)
      threads.emplace_back([&center] { center = NPWProcessingCenter::sharedCenter().get(); });
  }
  EXPECT_EQ(std::count(centers.begin(), centers.end(), NPWProcessingCenter::sharedCenter().get()), 8);
}

}  // namespace
}  // namespace loomwork
