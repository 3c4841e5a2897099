// The filter segment: its index mappings and drop tie-breaks, its exit hook
// held against the step-by-step composition it stands for, and the shared
// mapping algorithms against the documented walks on random input.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <string>

#include "SegmentTestSupport.h"
#include "loomwork/listtransform.h"
#include "segments/SGMappingAlgorithms.h"

namespace loomwork::testing {
namespace {

constexpr uint64_t kSeed = 20261123;
std::string describeItem(const UGListTransformItem& item) {
  std::string text = std::to_string(item.index()) + "(" + (item.object() ? item.object()->description() : "nil") + ")";
  if (item.hasMoveLink()) text += "->" + std::to_string(item.moveLinkItem()->index());
  return text;
}

// Index, object and move partner of every item, in both arrays.
std::string describeItems(const UGListTransform& t) {
  std::string text = "del:";
  for (const auto& item : t.deletions()) text += " " + describeItem(*item);
  text += " ins:";
  for (const auto& item : t.insertions()) text += " " + describeItem(*item);
  return text;
}

// Distinct ascending values from [0, n).
std::vector<int64_t> subset(Rng& rng, int64_t n) {
  std::vector<int64_t> chosen;
  for (int64_t i = 0; i < n; ++i) {
    if (uniform(rng, 0, 2) != 0) chosen.push_back(i);
  }
  return chosen;
}

// A valid transform of a list of n items: deletions, moves and insertions
// recorded at random (colliding ones are refused and so left out).
Ref<UGMutableListTransform> randomInnerTransform(Rng& rng, int64_t n) {
  auto t = UGMutableListTransform::transform();
  std::vector<int64_t> old(static_cast<size_t>(n));
  std::iota(old.begin(), old.end(), 0);
  std::shuffle(old.begin(), old.end(), rng);
  old.resize(static_cast<size_t>(uniform(rng, 0, n)));
  const int64_t plainInsertions = uniform(rng, 0, 4);
  const auto moveCount = static_cast<size_t>(uniform(rng, 0, static_cast<int64_t>(old.size())));
  const int64_t finalCount = n - static_cast<int64_t>(old.size() - moveCount) + plainInsertions;
  std::vector<int64_t> targets(static_cast<size_t>(finalCount));
  std::iota(targets.begin(), targets.end(), 0);
  std::shuffle(targets.begin(), targets.end(), rng);
  for (size_t k = 0; k < old.size(); ++k) {
    if (k < moveCount) {
      t->recordMovedObjectFromIndexToIndex(Value(old[k] * 10), old[k], targets[k]);
    } else {
      t->recordDeletedObjectFromIndex(uniform(rng, 0, 3) == 0 ? std::nullopt : std::optional(Value(old[k] * 10)),
                                      old[k]);
    }
  }
  for (int64_t k = 0; k < plainInsertions; ++k) {
    t->recordInsertedObjectAtIndex(Value(1000 + k), targets[moveCount + static_cast<size_t>(k)]);
  }
  return t;
}

TEST(FilterMappingAlgorithms, FollowingAnInnerChangeMatchesTheStepByStepComposition) {
  Rng rng(kSeed);
  for (int c = 0; c < 3000; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + " case " + std::to_string(c));
    const int64_t n = uniform(rng, 0, 14);
    const std::vector<int64_t> before = subset(rng, n);
    const auto inner = randomInnerTransform(rng, n);
    const int64_t modulus = uniform(rng, 1, 3);
    const bool withTest = uniform(rng, 0, 3) != 0;
    sgdetail::KeepBlock keep;
    if (withTest) keep = [modulus](int64_t index) { return index % modulus == 0; };
    // Some represented objects are absent, which the moves carry as none.
    auto represented = [](int64_t index) -> std::optional<Value> {
      if (index % 5 == 4) return std::nullopt;
      return Value(index * 7);
    };
    std::vector<int64_t> fast = before, literal = before;
    const auto fastTransform = sgdetail::filterFollowInnerTransform(fast, *inner, keep, represented);
    const auto literalTransform = sgdetail::filterFollowInnerTransformLiterally(literal, *inner, keep, represented);
    ASSERT_EQ(fast, literal) << inner->description();
    ASSERT_EQ(describeItems(*fastTransform), describeItems(*literalTransform)) << inner->description();
  }
}

TEST(FilterMappingAlgorithms, TransitionsAndDifferencesMatchTheDocumentedOnes) {
  Rng rng(kSeed + 1);
  auto values = [](const std::vector<int64_t>& v) {
    Array a;
    for (int64_t x : v) a.emplace_back(x);
    return a;
  };
  for (int c = 0; c < 3000; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 1) + " case " + std::to_string(c));
    const int64_t n = uniform(rng, 0, 12);
    std::vector<int64_t> from(static_cast<size_t>(n)), to;
    std::iota(from.begin(), from.end(), 0);
    std::shuffle(from.begin(), from.end(), rng);
    to = from;
    std::shuffle(to.begin(), to.end(), rng);
    if (c % 3 == 1) {  // other sets, now and then with repeated and far-off values
      from.resize(static_cast<size_t>(uniform(rng, 0, n)));
      for (int64_t k = uniform(rng, 0, 3); k > 0; --k) to.push_back(uniform(rng, 0, 20));
      if (c % 7 == 1) to.push_back(int64_t{1} << 40);
    }
    const auto fast = sgdetail::transitionBetweenMappings(from, to);
    const auto literal = transformForTransitioningFromArrayToArrayObjectComparison(
        values(from), values(to), UGListTransformObjectComparisonEquality);
    ASSERT_EQ(describeItems(*fast), describeItems(*literal));
    ASSERT_EQ(fast->isIdentity(), from == to);

    // The refilter difference: deletions at old positions, insertions at new
    // ones, and applied it turns the old shown list into the new one.
    std::vector<int64_t> oldShown = subset(rng, n), newShown = subset(rng, n);
    auto difference = sgdetail::filterDifference(oldShown, newShown);
    Array applied = arrayByApplyingTransform(values(oldShown), *difference);
    for (const auto& insertion : difference->insertions()) {
      applied[static_cast<size_t>(insertion->index())] = Value(newShown[static_cast<size_t>(insertion->index())]);
    }
    ASSERT_EQ(applied, values(newShown));
  }
}

// A group whose child list stayed lays its children's changes side by side;
// it must give what offsetting each child's transform and recording its
// changes one by one gives, or refuse when a child leaves its own range.
TEST(FilterMappingAlgorithms, LayingChildChangesSideBySideMatchesRecordingThemOneByOne) {
  Rng rng(kSeed + 2);
  for (int c = 0; c < 2000; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 2) + " case " + std::to_string(c));
    auto laid = UGMutableListTransform::transform();
    auto recorded = UGMutableListTransform::transform();
    bool fits = true, laidOut = true;
    int64_t oldStart = 0, newStart = 0;
    for (int64_t child = uniform(rng, 1, 4); child > 0; --child) {
      const int64_t count = uniform(rng, 0, 6);
      const auto items = randomInnerTransform(rng, count);
      // Now and then a child whose changes reach into the next child's rows.
      const int64_t slip = uniform(rng, 0, 9) == 0 ? -uniform(rng, 1, 3) : 0;
      const auto shifted = items->transformByApplyingOffsetToDeletionAndMoveFromIndexes(oldStart + slip)
                               ->transformByApplyingOffsetToInsertionAndMoveToIndexes(newStart);
      auto ascending = [](const UGListTransformItemArray& items, int64_t after) {
        return items.empty() || items.front()->index() > after;
      };
      fits =
          fits && ascending(shifted->deletions(), laid->deletions().empty() ? -1 : laid->deletions().back()->index());
      laidOut = laidOut && sgdetail::appendShiftedChanges(*items, oldStart + slip, newStart, laid->mutableDeletions(),
                                                          laid->mutableInsertions());
      shifted->enumerateTransformAsGroupedDeletionsMovesInsertions(
          [&](int64_t index, const std::optional<Value>& object) {
            recorded->recordDeletedObjectFromIndex(object, index);
          },
          [&](int64_t from, int64_t to, const std::optional<Value>& object) {
            recorded->recordMovedObjectFromIndexToIndex(object, from, to);
          },
          [&](int64_t index, const std::optional<Value>& object) {
            recorded->recordInsertedObjectAtIndex(object, index);
          });
      oldStart += count;
      newStart += count + items->cardinalityChange();
    }
    ASSERT_EQ(laidOut, fits);
    if (laidOut) {
      ASSERT_EQ(describeItems(*laid), describeItems(*recorded));
    }
  }
}

// A filter over a list of ten numbers under a capturing root.
struct FilterFixture {
  FilterFixture() {
    Array numbers;
    for (int64_t i = 0; i < 10; ++i) numbers.emplace_back(i);
    list = make<LWArrayContainer>(numbers);
    leaf = make<SGListSegment>(list);
    leaf->setTransformFromNotificationBlock([this](NPWNotification&) { return std::exchange(pending, nullptr); });
    filter = make<SGFilterSegment>();
    filter->setInnerSegment(leaf);
    root = make<CapturingRoot>();
    root->setInnerSegment(filter);
  }
  Ref<UGListTransform> lastFilterTransform() {
    return SGSegment::transformForRelationOfSegmentInNotification("items", *filter, *root->last);
  }
  // Applies the change to the list and runs one pass; returns its notification.
  Ref<NPWNotification> change(const Ref<UGMutableListTransform>& transform) {
    applyTransform(list->mutableArray(), *transform);
    pending = transform;
    auto notification = NPWNotification::notification();
    NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(notification, leaf, false);
    return notification;
  }
  Ref<LWArrayContainer> list;
  Ref<SGListSegment> leaf;
  Ref<SGFilterSegment> filter;
  Ref<CapturingRoot> root;
  Ref<UGListTransform> pending;
};

// Mappings of shown rows are checked on random trees by RowValidatorTests;
// here the drop tie-breaks and the cases that map nowhere.
TEST(FilterSegment, MapsIndexesAndDropsWithItsTieBreaks) {
  FilterFixture f;
  f.leaf->setList(make<LWArrayContainer>(Array{Value(0), Value(1), Value(2), Value(3), Value(4)}));
  f.filter->setFilterBlock([](SGSegment&, int64_t index) { return index % 2 == 1; });
  ASSERT_EQ(f.filter->mapping()->vector(), (std::vector<int64_t>{1, 3}));
  // Below the first shown index a drop lands after the last shown one.
  for (auto [inner, outer] : {std::pair<int64_t, int64_t>{0, 4}, {2, 1}, {3, 1}, {5, 2}, {NotFound, NotFound}}) {
    EXPECT_EQ(f.filter->transformDropIndexFromChildSegment(inner, f.leaf.get()), outer) << inner;
  }
  Ref<SGSegment> child;
  for (auto [outer, inner] : {std::pair<int64_t, int64_t>{2, 4}, {1, 3}, {NotFound, NotFound}}) {
    EXPECT_EQ(f.filter->transformDropIndexToChildSegment(outer, &child), inner) << outer;
    EXPECT_EQ(child, inner == NotFound ? nullptr : f.leaf);
  }
  EXPECT_EQ(f.filter->transformIndexFromChildSegment(2, nullptr), NotFound);
  EXPECT_THROW(f.filter->transformIndexToChildSegment(2, &child), Exception);
  EXPECT_EQ(f.filter->indexesForRepresentedObject(Value(2)), IndexSet{});
  EXPECT_EQ(f.filter->indexSetByTransformingInnerSegmentIndexSet(IndexSet{0, 1, 2, 3}), (IndexSet{0, 1}));

  // An empty mapping: nothing maps, drops go to 0, the child stays as it was.
  f.filter->setFilterBlock([](SGSegment&, int64_t) { return false; });
  child = f.filter;
  EXPECT_EQ(f.filter->transformIndexToChildSegment(0, &child), NotFound);
  EXPECT_EQ(child, f.filter);
  EXPECT_EQ(f.filter->transformDropIndexFromChildSegment(3, nullptr), 0);
  EXPECT_EQ(f.filter->transformDropIndexToChildSegment(3, &child), 0);
  EXPECT_EQ(child, f.leaf);
}

TEST(FilterSegment, PublishesEveryInnerChangeAndRefiltersOnRequest) {
  FilterFixture f;
  f.filter->setFilterBlock(
      [](SGSegment& inner, int64_t index) { return inner.representedObjectAtIndex(index)->integerValue() % 2 == 0; });
  ASSERT_EQ(f.filter->mapping()->vector(), (std::vector<int64_t>{0, 2, 4, 6, 8}));

  // An inserted odd number is not shown, yet the filter publishes a change
  // (every position "moves" to where it already is).
  auto insertOdd = UGMutableListTransform::transform();
  insertOdd->recordInsertedObjectAtIndex(Value(11), 1);
  auto notification = f.change(insertOdd);
  auto published = SGSegment::transformForRelationOfSegmentInNotification("items", *f.filter, *notification);
  ASSERT_TRUE(published);
  EXPECT_EQ(published->deletions().size(), 5u);
  EXPECT_EQ(arrayByApplyingTransformIgnoringObjectsInTransform(Array{Value(0), Value(2), Value(4), Value(6), Value(8)},
                                                               *published, true),
            (Array{Value(0), Value(2), Value(4), Value(6), Value(8)}));
  EXPECT_EQ(f.filter->mapping()->vector(), (std::vector<int64_t>{0, 3, 5, 7, 9}));

  // Items that stay are not tested again until a refilter: 2 becomes odd.
  f.list->mutableArray()[3] = Value(3);
  auto touch = UGMutableListTransform::transform();
  touch->recordMovedObjectFromIndexToIndex(Value(3), 4, 4);
  f.change(touch);
  EXPECT_EQ(f.filter->itemCount(), 5);
  f.filter->setShouldRefilterOnNotificationBlock([](NPWNotification&, SGFilterSegment&) { return true; });
  notification = f.change(UGMutableListTransform::transform());
  published = SGSegment::transformForRelationOfSegmentInNotification("items", *f.filter, *notification);
  ASSERT_TRUE(published);
  EXPECT_EQ(describeItems(*published), "del: 1(nil) ins:");
  EXPECT_EQ(f.filter->itemCount(), 4);

  // From "all" to "none": deletions from every old position, no insertions.
  f.filter->setShouldRefilterOnNotificationBlock(nullptr);
  f.filter->setFilterBlock(nullptr);
  ASSERT_EQ(f.filter->itemCount(), 11);
  f.filter->setFilterBlock([](SGSegment&, int64_t) { return false; });
  EXPECT_EQ(f.filter->itemCount(), 0);
  ASSERT_TRUE(f.lastFilterTransform());
  EXPECT_EQ(describeItems(*f.lastFilterTransform()),
            "del: 0(nil) 1(nil) 2(nil) 3(nil) 4(nil) 5(nil) 6(nil) 7(nil) 8(nil) 9(nil) 10(nil) ins:");
}

}  // namespace
}  // namespace loomwork::testing
