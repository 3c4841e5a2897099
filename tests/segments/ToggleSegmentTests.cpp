// Toggle and passthrough segments: hiding, showing and switches deferred
// inside a pass, exchanges of the inner segment and index mappings. Their
// published changes under random edits are checked by RowValidatorTests.
#include <gtest/gtest.h>

#include <string>

#include "SegmentTestSupport.h"
#include "loomwork/listtransform.h"

namespace loomwork::testing {
namespace {

std::string describeRows(const Array& rows) {
  std::string text;
  for (const Value& row : rows) text += (text.empty() ? "" : " ") + row.description();
  return text;
}

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
  auto root = make<CapturingRoot>();
  root->setInnerSegment(toggle);
  auto published = [&] {
    return SGSegment::transformForRelationOfSegmentInNotification("items", *toggle, *root->last);
  };

  // Hidden: no items, nothing maps, nothing appended, yet the search reaches the inner segment.
  toggle->setShowsInnerSegment(false);
  ASSERT_TRUE(published());
  EXPECT_EQ(published()->deletions().size(), 3u);
  EXPECT_EQ(toggle->transformIndexFromChildSegment(1, leaf.get()), NotFound);
  Ref<SGSegment> child = root;
  EXPECT_EQ(toggle->transformIndexToChildSegment(1, &child), NotFound);
  EXPECT_EQ(child, root);
  EXPECT_EQ(toggle->transformDropIndexToChildSegment(0, &child), NotFound);
  EXPECT_TRUE(rowsOf(*toggle).empty());
  int reached = 0;
  toggle->depthFirstSearch([&](SGSegment& segment, bool&) { reached += &segment == leaf.get(); });
  EXPECT_EQ(reached, 1);

  toggle->setShowsInnerSegment(true);
  EXPECT_EQ(describeRows(rowsOf(*toggle)), "0 1 2");
  EXPECT_EQ(published()->insertions().size(), 3u);

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
  EXPECT_EQ(published()->deletions().size(), 3u);
  EXPECT_EQ(published()->insertions().size(), 0u);
  EXPECT_EQ(published()->deletions()[1]->object(), Value(1));

  // A block owns the flag: setShowsInnerSegment changes nothing.
  bool wanted = true;
  toggle->setShowsInnerSegmentBlock([&wanted](NPWNotification*, bool) { return wanted; });
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
  auto root = make<CapturingRoot>();
  root->setInnerSegment(toggle);
  toggle->setInnerSegment(make<SGListSegment>(numbers(1)));
  const int64_t passes = root->passes;
  toggle->setInnerSegment(make<SGListSegment>(numbers(2, 10)));
  EXPECT_EQ(root->passes, passes);
  EXPECT_EQ(describeRows(rowsOf(*root)), "10 11");
}

TEST(PassthroughSegment, PassesItemsThroughAndPublishesExchanges) {
  auto passthrough = make<SGPassthroughSegment>();
  auto root = make<CapturingRoot>();
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
  passthrough->setInnerSegment(two);
  EXPECT_EQ(published()->insertions().size(), 2u);
  EXPECT_EQ(empty->parentSegment(), nullptr);
  EXPECT_EQ(passthrough->transformIndexFromChildSegment(NotFound, two.get()), NotFound);
  Ref<SGSegment> child;
  EXPECT_EQ(passthrough->transformDropIndexToChildSegment(2, &child), 2);
  EXPECT_EQ(child, two);
}

}  // namespace
}  // namespace loomwork::testing
