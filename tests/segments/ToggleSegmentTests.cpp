// Toggle and passthrough segments, and a seeded randomized run over trees of
// filters, sortings, toggles, passthroughs and groups in which every pass is
// checked: each segment's published "items" change, applied to its rows
// before the pass, gives its rows after it, and replayed step by step it
// stays inside the list at every step.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

#include "loomwork/listtransform.h"
#include "loomwork/segments.h"

namespace loomwork::toggletests {
namespace {

constexpr uint64_t kSeed = 20261125;
using Rng = std::mt19937_64;

int64_t uniform(Rng& rng, int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); }

class Item : public Object {
 public:
  Item(int64_t id, int64_t key, bool flag) : id(id), key(key), flag(flag) {}
  std::optional<Value> valueForKey(std::string_view name) const override {
    if (name == "key") return Value(key);
    if (name == "flag") return Value(flag);
    if (name == "id") return Value(id);
    return std::nullopt;
  }
  std::string description() const override { return "#" + std::to_string(id); }
  int64_t id, key;
  bool flag;
};

Array rowsOf(const SGSegment& segment) {
  Array rows;
  segment.appendRepresentedObjectsToArray(rows);
  return rows;
}

std::string describeRows(const Array& rows) {
  std::string text;
  for (const Value& row : rows) text += (text.empty() ? "" : " ") + row.description();
  return text;
}

// A root that runs a check at the end of every pass, after its own exit hook.
class CheckingRoot : public SGPassthroughSegment {
 public:
  void willExitNodeWithNotification(NPWNotification& notification) override {
    SGPassthroughSegment::willExitNodeWithNotification(notification);
    last = notification.ref<NPWNotification>();
    ++passes;
    if (check) check(notification);
  }
  std::function<void(NPWNotification&)> check;
  Ref<NPWNotification> last;
  int64_t passes = 0;
};

Ref<LWArrayContainer> numbers(int64_t count, int64_t first = 0) {
  Array array;
  for (int64_t i = 0; i < count; ++i) array.emplace_back(first + i);
  return make<LWArrayContainer>(array);
}

TEST(ToggleSegment, HidesShowsAndDefersSwitchesInsideAPass) {
  auto list = numbers(3);
  auto leaf = make<SGListSegment>(list);
  Ref<UGListTransform> pending;
  std::function<void()> duringPass;
  leaf->setTransformFromNotificationBlock([&](NPWNotification&) {
    if (duringPass) std::exchange(duringPass, nullptr)();
    return std::exchange(pending, nullptr);
  });
  auto toggle = make<SGToggleSegment>();
  toggle->setInnerSegment(leaf);
  auto root = make<CheckingRoot>();
  root->setInnerSegment(toggle);
  auto published = [&] {
    return SGSegment::transformForRelationOfSegmentInNotification("items", *toggle, *root->last);
  };

  // Hidden: no items, nothing maps, nothing appended, yet the search reaches the inner segment.
  toggle->setShowsInnerSegment(false);
  ASSERT_TRUE(published());
  EXPECT_EQ(published()->deletions().size(), 3u);
  EXPECT_EQ(toggle->itemCount(), 0);
  EXPECT_EQ(toggle->transformIndexFromChildSegment(1, leaf.get()), NotFound);
  Ref<SGSegment> child = root;
  EXPECT_EQ(toggle->transformIndexToChildSegment(1, &child), NotFound);
  EXPECT_EQ(child, root);
  EXPECT_EQ(toggle->transformDropIndexToChildSegment(0, &child), NotFound);
  EXPECT_TRUE(rowsOf(*toggle).empty());
  EXPECT_EQ(toggle->indexesForRepresentedObject(Value(1)), IndexSet{});
  int reached = 0;
  toggle->depthFirstSearch([&](SGSegment& segment, bool&) { reached += &segment == leaf.get(); });
  EXPECT_EQ(reached, 1);

  toggle->setShowsInnerSegment(true);
  EXPECT_EQ(describeRows(rowsOf(*toggle)), "0 1 2");
  EXPECT_EQ(published()->insertions().size(), 3u);
  EXPECT_EQ(toggle->transformIndexToChildSegment(2, &child), 2);
  EXPECT_EQ(child, leaf);
  EXPECT_EQ(toggle->indexesForRepresentedObject(Value(1)), IndexSet{1});

  // Hidden in the pass that also removes an item: the deletions cover the
  // items as they were before the removal, published once by the exit hook.
  const int64_t passes = root->passes;
  pending = [] {
    auto t = UGMutableListTransform::transform();
    t->recordDeletedObjectFromIndex(Value(1), 1);
    return t;
  }();
  list->mutableArray().erase(list->mutableArray().begin() + 1);
  duringPass = [&] { toggle->setShowsInnerSegment(false); };
  NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(NPWNotification::notification(), leaf,
                                                                            false);
  EXPECT_EQ(root->passes, passes + 1);
  ASSERT_TRUE(published());
  EXPECT_EQ(published()->deletions().size(), 3u);
  EXPECT_EQ(published()->insertions().size(), 0u);
  EXPECT_EQ(published()->deletions()[1]->object(), Value(1));

  // A block owns the flag: setShowsInnerSegment changes nothing.
  bool wanted = true;
  toggle->setShowsInnerSegmentBlock([&wanted](NPWNotification*, bool) { return wanted; });
  EXPECT_TRUE(toggle->showsInnerSegment());
  toggle->setShowsInnerSegment(false);
  EXPECT_TRUE(toggle->showsInnerSegment());
  wanted = false;
  toggle->reevaluate();
  EXPECT_FALSE(toggle->showsInnerSegment());
}

// Exchanging a toggle's inner segment publishes nothing, so whoever shows the
// rows is not told: the shortest case of rows changing without a transform.
TEST(ToggleSegment, ExchangingTheInnerSegmentPublishesNoChange) {
  auto toggle = make<SGToggleSegment>();
  auto root = make<CheckingRoot>();
  root->setInnerSegment(toggle);
  toggle->setInnerSegment(make<SGListSegment>(numbers(1)));
  const int64_t passes = root->passes;
  toggle->setInnerSegment(make<SGListSegment>(numbers(2, 10)));
  EXPECT_EQ(root->passes, passes);
  EXPECT_EQ(describeRows(rowsOf(*root)), "10 11");
}

// A toggle switched inside a pass before the walk has entered it publishes
// at once, from its inner rows as they are then. When its inner list has
// already changed for this pass (the list segment reads the host's list
// directly), that switch describes the new rows, not the rows it showed: here
// it deletes two rows where it showed one. Between its entry and exit hooks
// the switch waits for the exit hook and is right.
TEST(ToggleSegment, TogglesSwitchedBeforeTheWalkReachesThem) {
  auto first = make<SGListSegment>(numbers(0));
  auto list = numbers(1);
  auto second = make<SGListSegment>(list);
  auto toggle = make<SGToggleSegment>();
  toggle->setInnerSegment(second);
  auto root = make<CheckingRoot>();
  auto group = SGGroupSegment::groupSegmentWithSegments({first, toggle});
  root->setInnerSegment(group);

  auto insertion = UGMutableListTransform::transform();
  insertion->recordInsertedObjectAtIndex(Value(1), 1);
  list->mutableArray().push_back(Value(1));
  second->setTransformFromNotificationBlock([&](NPWNotification&) { return std::exchange(insertion, nullptr); });
  first->setTransformFromNotificationBlock([&](NPWNotification&) -> Ref<UGListTransform> {
    toggle->setShowsInnerSegment(false);  // the walk has not entered the toggle yet
    return nullptr;
  });
  NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(NPWNotification::notification(), second,
                                                                            false);
  auto published = SGSegment::transformForRelationOfSegmentInNotification("items", *toggle, *root->last);
  ASSERT_TRUE(published);
  EXPECT_EQ(published->deletions().size(), 2u);  // it showed one row
  EXPECT_THROW(arrayByApplyingTransform(Array{Value(0)}, *published), Exception);
}

TEST(PassthroughSegment, PassesItemsThroughAndPublishesExchanges) {
  auto passthrough = make<SGPassthroughSegment>();
  auto root = make<CheckingRoot>();
  root->setInnerSegment(passthrough);
  auto published = [&] {
    return SGSegment::transformForRelationOfSegmentInNotification("items", *passthrough, *root->last);
  };
  // An empty inner segment replaced by another: two passes, each publishing
  // an identity change.
  passthrough->setInnerSegment(make<SGListSegment>(numbers(0)));
  auto empty = make<SGListSegment>(numbers(0));
  const int64_t passes = root->passes;
  passthrough->setInnerSegment(empty);
  EXPECT_EQ(root->passes, passes + 2);
  ASSERT_TRUE(published());
  EXPECT_TRUE(published()->isIdentity());

  auto two = make<SGListSegment>(numbers(2));
  two->setDebugName("two");
  passthrough->setInnerSegment(two);
  EXPECT_EQ(published()->insertions().size(), 2u);
  EXPECT_EQ(empty->parentSegment(), nullptr);
  EXPECT_EQ(two->parentSegment(), passthrough);
  EXPECT_EQ(passthrough->transformIndexFromChildSegment(NotFound, two.get()), NotFound);
  Ref<SGSegment> child;
  EXPECT_EQ(passthrough->transformIndexToChildSegment(1, &child), 1);
  EXPECT_EQ(child, two);
  EXPECT_EQ(passthrough->transformDropIndexToChildSegment(2, &child), 2);
  EXPECT_EQ(passthrough->indexesForRepresentedObject(Value(1)), IndexSet{1});
  EXPECT_EQ(root->transformIndexToSegment(1, two.get()), 1);
  passthrough->setDebugName("p");
  EXPECT_EQ(passthrough->recursiveDescriptionForNotification(root->last.get()),
            "p (<SGPassthroughSegment: " + addressString(passthrough.get()) + ">)\n[items] insertions 0   (nil)\n\n" +
                std::string(18, ' ') + "1   (nil)\n\n\n    two (<SGListSegment: " + addressString(two.get()) + ">)\n");
}

// ---------------------------------------------------------------------------
// Randomized trees.

struct Tree {
  Ref<CheckingRoot> root = make<CheckingRoot>();
  std::vector<Ref<SGListSegment>> leaves;
  std::vector<Ref<SGToggleSegment>> toggles;
  std::vector<Ref<SGFilterSegment>> filters;
  std::vector<Ref<SGSortingSegment>> sortings;
  std::vector<Ref<SGPassthroughSegment>> passthroughs;
  std::vector<Ref<SGGroupSegment>> groups;
  std::map<const SGListSegment*, Ref<UGListTransform>> pending;
  std::map<const SGToggleSegment*, bool> blockWants;
  // Run inside the next pass from the exit hook of the leaf whose list changed.
  std::function<void()> duringPass;
  int64_t nextId = 0;
};

bool updatesProperty(NPWNotification& notification, std::string_view property) {
  auto transaction = notification.graphTransaction();
  for (const std::string& uuid : *transaction) {
    if (transaction->operationForUUID(uuid)->valueForProperty(property)) return true;
  }
  return false;
}

Value newItem(Tree& tree, Rng& rng) {
  return Value(make<Item>(tree.nextId++, uniform(rng, 0, 5), uniform(rng, 0, 2) != 0));
}

Ref<SGListSegment> newLeaf(Tree& tree, Rng& rng) {
  Array items;
  for (int64_t k = uniform(rng, 0, 6); k > 0; --k) items.push_back(newItem(tree, rng));
  auto leaf = make<SGListSegment>(make<LWArrayContainer>(items));
  Tree* t = &tree;
  const SGListSegment* key = leaf.get();
  leaf->setTransformFromNotificationBlock([t, key](NPWNotification&) -> Ref<UGListTransform> {
    auto found = t->pending.find(key);
    if (found == t->pending.end()) return nullptr;
    if (t->duringPass) std::exchange(t->duringPass, nullptr)();
    auto transform = found->second;
    t->pending.erase(found);
    return transform;
  });
  tree.leaves.push_back(leaf);
  return leaf;
}

Ref<SGSegment> newSegment(Tree& tree, Rng& rng, int depth) {
  if (depth == 0 || uniform(rng, 0, 5) == 0) return newLeaf(tree, rng);
  switch (uniform(rng, 0, 4)) {
    case 0: {
      auto filter = make<SGFilterSegment>();
      filter->setInnerSegment(newSegment(tree, rng, depth - 1));
      if (uniform(rng, 0, 3) != 0) {
        filter->setFilterBlock([](SGSegment& inner, int64_t index) {
          auto item = inner.representedObjectAtIndex(index);
          auto object = item ? item->objectAs<Item>() : nullptr;
          return object && object->flag;
        });
      }
      filter->setShouldRefilterOnNotificationBlock(
          [](NPWNotification& n, SGFilterSegment&) { return updatesProperty(n, "flag"); });
      tree.filters.push_back(filter);
      return filter;
    }
    case 1: {
      auto sorting = make<SGSortingSegment>();
      sorting->setInnerSegment(newSegment(tree, rng, depth - 1));
      sorting->setSortDescriptors(std::vector<SortDescriptor>{SortDescriptor("key", uniform(rng, 0, 1) == 1)});
      if (uniform(rng, 0, 2) != 0) {
        sorting->setShouldSortBlock([](NPWNotification& n) { return updatesProperty(n, "key"); });
      }
      tree.sortings.push_back(sorting);
      return sorting;
    }
    case 2: {
      auto toggle = make<SGToggleSegment>();
      toggle->setInnerSegment(newSegment(tree, rng, depth - 1));
      if (uniform(rng, 0, 2) == 0) {
        Tree* t = &tree;
        const SGToggleSegment* key = toggle.get();
        tree.blockWants[key] = true;
        toggle->setShowsInnerSegmentBlock([t, key](NPWNotification*, bool) { return t->blockWants[key]; });
      } else {
        toggle->setShowsInnerSegment(uniform(rng, 0, 2) != 0);
      }
      tree.toggles.push_back(toggle);
      return toggle;
    }
    case 3: {
      auto passthrough = make<SGPassthroughSegment>();
      passthrough->setInnerSegment(newSegment(tree, rng, depth - 1));
      tree.passthroughs.push_back(passthrough);
      return passthrough;
    }
    default: {
      auto group = SGGroupSegment::groupSegment();
      for (int64_t k = uniform(rng, 1, 3); k > 0; --k) group->addSegment(newSegment(tree, rng, depth - 1));
      tree.groups.push_back(group);
      return group;
    }
  }
}

// The rows after the pass from the rows before it and the published change:
// moves carry their row along and plain insertions leave a null placeholder.
// Also replays the change step by step, throwing when a step leaves the list.
void expectChangeLeadsToRows(const Array& before, const UGListTransform& change, const Array& after,
                             const std::string& where) {
  Array applied;
  ASSERT_NO_THROW(applied = arrayByApplyingTransformIgnoringObjectsInTransform(before, change, true))
      << where << change.description();
  ASSERT_EQ(applied.size(), after.size()) << where << change.description() << describeRows(before);
  for (size_t i = 0; i < after.size(); ++i) {
    ASSERT_TRUE(applied[i].isNull() || applied[i] == after[i])
        << where << " row " << i << "\n"
        << change.description() << describeRows(before) << " / " << describeRows(after);
  }
  Array replay = before;
  bool inside = true;
  auto valid = [&](int64_t index, int64_t slack) {
    inside = inside && index >= 0 && index < static_cast<int64_t>(replay.size()) + slack;
    return inside;
  };
  change.enumerateTransformAsLinearizedDeletionsMovesInsertions(
      [&](int64_t index) {
        if (valid(index, 0)) replay.erase(replay.begin() + index);
      },
      [&](int64_t from, int64_t to) {
        if (!valid(from, 0)) return;
        Value row = replay[static_cast<size_t>(from)];
        replay.erase(replay.begin() + from);
        if (valid(to, 1)) replay.insert(replay.begin() + to, row);
      },
      [&](int64_t index) {
        if (valid(index, 1)) replay.insert(replay.begin() + index, Value::null());
      });
  ASSERT_TRUE(inside) << where << change.description();
  ASSERT_EQ(replay.size(), after.size()) << where;
  for (size_t i = 0; i < after.size(); ++i) ASSERT_TRUE(replay[i].isNull() || replay[i] == after[i]) << where << i;
}

// Every segment's rows agree with its count, its object lookups and its
// mappings to and from its children.
void expectConsistentRows(SGSegment& segment, const Array& rows, const std::string& where) {
  ASSERT_EQ(segment.itemCount(), static_cast<int64_t>(rows.size())) << where;
  auto* container = dynamic_cast<SGContainerSegment*>(&segment);
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto index = static_cast<int64_t>(i);
    ASSERT_EQ(segment.representedObjectAtIndex(index), rows[i]) << where << i;
    auto indexes = segment.indexesForRepresentedObject(rows[i]);
    ASSERT_TRUE(!indexes || indexes->containsIndex(index)) << where << i;
    if (container == nullptr) continue;
    Ref<SGSegment> child;
    const int64_t childIndex = container->transformIndexToChildSegment(index, &child);
    ASSERT_TRUE(child && childIndex != NotFound) << where << i;
    ASSERT_EQ(child->representedObjectAtIndex(childIndex), rows[i]) << where << i;
    ASSERT_EQ(container->transformIndexFromChildSegment(childIndex, child.get()), index) << where << i;
  }
}

// Chooses among the leaves those whose list may change in the next pass.
Ref<SGListSegment> attachedLeaf(Tree& tree, Rng& rng) {
  std::vector<Ref<SGListSegment>> attached;
  for (const auto& leaf : tree.leaves) {
    if (leaf->rootSegment() == tree.root) attached.push_back(leaf);
  }
  if (attached.empty()) return nullptr;
  return attached[static_cast<size_t>(uniform(rng, 0, static_cast<int64_t>(attached.size()) - 1))];
}

template <class T>
Ref<T> pick(Rng& rng, const std::vector<Ref<T>>& from) {
  if (from.empty()) return nullptr;
  return from[static_cast<size_t>(uniform(rng, 0, static_cast<int64_t>(from.size()) - 1))];
}

// A random edit of a leaf's list, announced by the leaf in the next pass.
void editList(Tree& tree, Rng& rng, const Ref<SGListSegment>& leaf) {
  auto list = std::dynamic_pointer_cast<LWArrayContainer>(leaf->list());
  Array before = list->array();
  Array& items = list->mutableArray();
  for (int64_t k = uniform(rng, 1, 3); k > 0; --k) {
    const auto n = static_cast<int64_t>(items.size());
    switch (uniform(rng, 0, 3)) {
      case 0:
        items.insert(items.begin() + uniform(rng, 0, n), newItem(tree, rng));
        break;
      case 1:
        if (n > 0) items.erase(items.begin() + uniform(rng, 0, n - 1));
        break;
      case 2:
        if (n > 1) {
          const int64_t from = uniform(rng, 0, n - 1);
          Value moved = items[static_cast<size_t>(from)];
          items.erase(items.begin() + from);
          items.insert(items.begin() + uniform(rng, 0, n - 1), moved);
        }
        break;
      default:
        if (n > 0) items[static_cast<size_t>(uniform(rng, 0, n - 1))] = newItem(tree, rng);
    }
  }
  tree.pending[leaf.get()] =
      transformForTransitioningFromArrayToArrayObjectComparison(before, items, UGListTransformObjectComparisonIdentity);
}

// Switches a toggle: directly, or through the answer of its block.
void flipToggle(Tree& tree, const Ref<SGToggleSegment>& toggle, bool reevaluate) {
  auto wants = tree.blockWants.find(toggle.get());
  if (wants == tree.blockWants.end()) {
    toggle->setShowsInnerSegment(!toggle->showsInnerSegment());
  } else {
    wants->second = !wants->second;
    if (reevaluate) toggle->reevaluate();
  }
}

Item* randomItem(Tree& tree, Rng& rng) {
  auto leaf = attachedLeaf(tree, rng);
  if (!leaf || leaf->itemCount() == 0) return nullptr;
  return leaf->representedObjectAtIndex(uniform(rng, 0, leaf->itemCount() - 1))->objectAs<Item>().get();
}

// The unoptimised sanitizer build runs a tenth of the trees.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kTrees = 50;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr int kTrees = 50;
#else
constexpr int kTrees = 500;
#endif
#else
constexpr int kTrees = 500;
#endif

TEST(SegmentTrees, EveryPassPublishesTheChangeOfEverySegmentsRows) {
  const int kSteps = 40;
  int64_t checkedPasses = 0;
  for (int treeNumber = 0; treeNumber < kTrees; ++treeNumber) {
    const uint64_t seed = kSeed + static_cast<uint64_t>(treeNumber);
    SCOPED_TRACE("seed " + std::to_string(seed));
    Rng rng(seed);
    Tree tree;
    tree.root->setInnerSegment(newSegment(tree, rng, static_cast<int>(uniform(rng, 1, 4))));

    std::map<const SGSegment*, Array> snapshot;
    auto takeSnapshot = [&] {
      snapshot.clear();
      tree.root->depthFirstSearch([&](SGSegment& segment, bool&) { snapshot[&segment] = rowsOf(segment); });
    };
    takeSnapshot();
    bool failed = false;
    tree.root->check = [&](NPWNotification& notification) {
      if (failed) return;
      ++checkedPasses;
      // Deepest first, so that a failure names the segment where it starts.
      std::vector<SGSegment*> segments;
      tree.root->depthFirstSearch([&](SGSegment& segment, bool&) { segments.push_back(&segment); });
      for (auto it = segments.rbegin(); it != segments.rend() && !failed; ++it) {
        SGSegment& segment = **it;
        const std::string where = segment.className() + " " + addressString(&segment) + ": ";
        const Array rows = rowsOf(segment);
        auto before = snapshot.find(&segment);
        if (before != snapshot.end()) {
          auto change = SGSegment::transformForRelationOfSegmentInNotification("items", segment, notification);
          expectChangeLeadsToRows(before->second, change ? *change : *UGListTransform::transform(), rows, where);
        }
        expectConsistentRows(segment, rows, where);
        if (::testing::Test::HasFatalFailure()) failed = true;
      }
      takeSnapshot();
    };

    for (int step = 0; step < kSteps && !failed; ++step) {
      const int64_t what = uniform(rng, 0, 9);
      SCOPED_TRACE("step " + std::to_string(step) + " kind " + std::to_string(what));
      if (what <= 3) {  // list edits, now and then with more changes inside the same pass
        auto leaf = attachedLeaf(tree, rng);
        if (!leaf) continue;
        editList(tree, rng, leaf);
        if (uniform(rng, 0, 2) == 0) {
          tree.duringPass = [&tree, &rng] {
            // Toggles between their entry and exit hooks (the changed leaf's
            // ancestors) switch now; see TogglesSwitchedBeforeTheWalkReachesThem
            // for the others.
            auto toggle = pick(rng, tree.toggles);
            auto context = NPWProcessingCenter::sharedCenter()->currentProcessingContext();
            if (toggle && toggle->rootSegment() == tree.root && context->processingStateForNode(*toggle) == 1) {
              flipToggle(tree, toggle, false);
            }
            if (Item* item = randomItem(tree, rng)) {
              item->key = uniform(rng, 0, 5);
              didUpdatePropertyInitiateNotificationFromComposable(*item, "key", tree.root.get(), true);
            }
          };
        }
        NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(NPWNotification::notification(), leaf,
                                                                                  false);
        tree.pending.clear();
        tree.duringPass = nullptr;
      } else if (what == 4) {  // a record's sort key or filter flag changes
        if (Item* item = randomItem(tree, rng)) {
          const bool flag = uniform(rng, 0, 1) == 1;
          if (flag) {
            item->flag = !item->flag;
          } else {
            item->key = uniform(rng, 0, 5);
          }
          didUpdatePropertyInitiateNotificationFromComposable(*item, flag ? "flag" : "key", tree.root.get(), false);
        }
      } else if (what == 5) {
        if (auto toggle = pick(rng, tree.toggles)) flipToggle(tree, toggle, true);
      } else if (what == 6) {
        if (auto filter = pick(rng, tree.filters)) {
          const int64_t modulus = uniform(rng, 1, 3);
          filter->setFilterBlock([modulus](SGSegment&, int64_t index) { return index % modulus == 0; });
        }
      } else if (what == 7) {
        if (auto sorting = pick(rng, tree.sortings)) {
          std::vector<SortDescriptor> descriptors{SortDescriptor("key", uniform(rng, 0, 1) == 1)};
          if (uniform(rng, 0, 1) == 1) descriptors.emplace_back("id", false);
          sorting->setSortDescriptors(descriptors);
        }
      } else if (what == 8) {
        if (auto passthrough = pick(rng, tree.passthroughs)) passthrough->setInnerSegment(newLeaf(tree, rng));
      } else {
        auto group = pick(rng, tree.groups);
        if (!group) continue;
        const auto count = static_cast<int64_t>(group->segments().size());
        switch (uniform(rng, 0, 2)) {
          case 0:
            group->insertSegmentAtIndex(newSegment(tree, rng, 1), uniform(rng, 0, count));
            break;
          case 1:
            if (count > 0) group->removeSegmentAtIndex(uniform(rng, 0, count - 1));
            break;
          default:
            if (count > 1) group->moveSegmentAtIndexToIndex(uniform(rng, 0, count - 1), uniform(rng, 0, count - 1));
        }
      }
    }
    tree.root->check = nullptr;
    if (failed) break;
  }
  EXPECT_GT(checkedPasses, kTrees * kSteps / 2);
}

}  // namespace
}  // namespace loomwork::toggletests
