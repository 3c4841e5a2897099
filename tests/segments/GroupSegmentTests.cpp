// The group segment: its index mappings with their tie-breaks, and the
// "items" transforms its exit hook builds from child-list changes and the
// children's own transforms.
#include <gtest/gtest.h>

#include "SegmentTestSupport.h"

namespace loomwork::testing {
namespace {

TEST(GroupSegment, MapsIndexesAndDropIndexesAcrossChildren) {
  auto a = listOf({1, 2}), b = listOf({}), c = listOf({3, 4, 5});
  auto group = SGGroupSegment::groupSegmentWithSegments({a, b, c});
  Ref<SGSegment> child;
  EXPECT_EQ(group->transformDropIndexToChildSegment(2, &child), 2);  // the end of the earlier child
  EXPECT_EQ(child, a);
  EXPECT_EQ(group->transformDropIndexToChildSegment(0, &child), 0);
  EXPECT_EQ(child, a);
  EXPECT_EQ(group->transformIndexToChildSegment(5, &child), NotFound);
  EXPECT_EQ(child, nullptr);
  EXPECT_EQ(group->transformDropIndexToChildSegment(5, &child), 3);
  EXPECT_EQ(child, c);
  EXPECT_EQ(group->transformIndexToChildSegment(NotFound, &child), NotFound);

  EXPECT_EQ(group->transformIndexFromChildSegment(NotFound, c.get()), NotFound);
  EXPECT_EQ(group->transformIndexFromChildSegment(0, listOf({9}).get()), NotFound);
  EXPECT_EQ(group->leafSegmentForIndex(5), nullptr);
  EXPECT_EQ(a->transformIndexToSegment(0, c.get()), NotFound);

  std::vector<std::string> visited;
  group->depthFirstSearch([&](SGSegment& segment, bool& stop) {
    visited.push_back(segment.className());
    stop = &segment == b.get();
  });
  EXPECT_EQ(visited, (std::vector<std::string>{"SGGroupSegment", "SGListSegment", "SGListSegment"}));
}

TEST(GroupSegment, TurnsChildListChangesAndChildTransformsIntoItsItemsTransform) {
  Ref<NPWNotification> last;
  auto root = recordingRoot(last);
  auto a = listOf({1, 2}), b = listOf({3}), c = listOf({4, 5, 6});
  auto group = SGGroupSegment::groupSegmentWithSegments({a, b, c});
  root->addSegment(group);

  // Removing the middle child: one deletion where its item stood.
  group->removeSegmentAtIndex(1);
  EXPECT_EQ(publishedBy(*last, *group), "-2");
  EXPECT_EQ(b->parentSegment(), nullptr);
  EXPECT_EQ(group->cachedSegmentItemCounts(), (std::vector<int64_t>{2, 3}));

  // A child moved and changed in one pass: its moves, then its own change at
  // its new place.
  root->inOnePass([&] {
    group->moveSegmentAtIndexToIndex(1, 0);
    listIn(*c).remove(0, *c);
  });
  EXPECT_EQ(publishedBy(*last, *group, "segments"), "1>0");
  EXPECT_EQ(publishedBy(*last, *group), "-2 4>1 3>0");
  EXPECT_EQ(idsOf(rowsOf(*group)), "5 6 1 2");

  // A child inserted in the pass in which its items changed: only its
  // current items are inserted.
  auto d = listOf({7});
  root->inOnePass([&] {
    group->insertSegmentAtIndex(d, 1);
    listIn(*d).insert(record(8), 0, *d);
  });
  EXPECT_EQ(publishedBy(*last, *d), "+0");
  EXPECT_EQ(publishedBy(*last, *group), "+2 +3");

  // The same children again publish nothing; an empty group's
  // removeAllSegments publishes an identity "segments" transform.
  last = nullptr;
  group->setSegments({c, d, a});
  EXPECT_EQ(last, nullptr);
  group->setSegments({a, c});
  EXPECT_EQ(d->parentSegment(), group);  // left out, yet still pointing at the group
  EXPECT_EQ(publishedBy(*last, *group), "-3 -2 1>3 0>2");
  EXPECT_EQ(idsOf(rowsOf(*group)), "1 2 5 6");
  auto empty = SGGroupSegment::groupSegment();
  root->addSegment(empty);
  empty->removeAllSegments();
  EXPECT_EQ(publishedBy(*last, *empty, "segments"), "");
  EXPECT_EQ(publishedBy(*last, *empty), "absent");
}

}  // namespace
}  // namespace loomwork::testing
