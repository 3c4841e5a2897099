// Worked cases of recording, composition, mapping, copying and description.
#include <gtest/gtest.h>

#include "RandomTransforms.h"

namespace loomwork::testing {
namespace {

Array letters(std::string_view s) {
  Array a;
  for (char c : s) a.push_back(Value(std::string(1, c)));
  return a;
}

TEST(ListTransform, RecordingRefusesCollidingIndexes) {
  auto t = UGMutableListTransform::transform();
  EXPECT_TRUE(t->recordDeletedObjectFromIndex(Value("x"), 3));
  EXPECT_FALSE(t->recordDeletedObjectFromIndex(Value("y"), 3));
  ASSERT_EQ(t->deletions().size(), 1u);
  EXPECT_EQ(*t->deletions()[0]->object(), Value("x"));

  EXPECT_TRUE(t->recordInsertedObjectAtIndex(Value("i"), 4));
  EXPECT_FALSE(t->recordMovedObjectFromIndexToIndex(Value("m"), 1, 4));  // insertion half collides
  EXPECT_FALSE(t->recordMovedObjectFromIndexToIndex(Value("m"), 3, 7));  // deletion half collides
  EXPECT_EQ(t->deletions().size(), 1u);
  EXPECT_EQ(t->insertions().size(), 1u);
  EXPECT_TRUE(t->recordMovedObjectFromIndexToIndex(Value("m"), 0, 2));
  EXPECT_EQ(t->deletions()[0]->moveLinkItem(), t->insertions()[0].get());
  EXPECT_EQ(t->cardinalityChange(), 0);
  EXPECT_FALSE(t->isIdentity());
  EXPECT_EQ(UGOrderedSetTransformIndexDeleted, 2147483647);
}

TEST(ListTransform, CompositionCancelsAndJoinsMoves) {
  auto insert = UGMutableListTransform::transform();
  insert->recordInsertedObjectAtIndex(Value("x"), 2);
  auto remove = UGMutableListTransform::transform();
  remove->recordDeletedObjectFromIndex(Value("x"), 2);
  EXPECT_TRUE(insert->transformByAppendingTransform(*remove)->isIdentity());

  auto first = UGMutableListTransform::transform();
  first->recordMovedObjectFromIndexToIndex(Value("a"), 0, 3);
  auto second = UGMutableListTransform::transform();
  second->recordMovedObjectFromIndexToIndex(Value("a"), 3, 1);
  auto joined = first->transformByAppendingTransform(*second);
  ASSERT_EQ(joined->deletions().size(), 1u);
  ASSERT_EQ(joined->insertions().size(), 1u);
  EXPECT_EQ(joined->deletions()[0]->index(), 0);
  EXPECT_EQ(joined->insertions()[0]->index(), 1);
  EXPECT_EQ(joined->deletions()[0]->moveLinkItem(), joined->insertions()[0].get());

  // A moved element deleted later leaves a plain deletion at its old place.
  auto moveThenDelete = first->transformByAppendingTransform(*remove->transformByApplyingOffsetToIndexes(1));
  ASSERT_EQ(moveThenDelete->deletions().size(), 1u);
  EXPECT_FALSE(moveThenDelete->deletions()[0]->hasMoveLink());
  EXPECT_EQ(moveThenDelete->deletions()[0]->index(), 0);
  EXPECT_TRUE(moveThenDelete->insertions().empty());

  // Appending a transform to itself composes it with a copy of itself.
  auto twice = first->mutableCopy();
  twice->appendTransform(*twice);
  EXPECT_EQ(arrayByApplyingTransformIgnoringObjectsInTransform(letters("abcd"), *twice, true), letters("cdab"))
      << twice->description();
}

TEST(ListTransform, TransitionAndNormalization) {
  auto t = transformForTransitioningFromArrayToArrayObjectComparison(letters("abcd"), letters("bcda"), 1);
  ASSERT_EQ(t->deletions().size(), 1u);
  ASSERT_EQ(t->insertions().size(), 1u);
  EXPECT_EQ(t->deletions()[0]->index(), 0);
  EXPECT_EQ(t->insertions()[0]->index(), 3);
  EXPECT_TRUE(t->deletions()[0]->hasMoveLink());

  Array same = letters("abc");
  auto unchanged = transformForTransitioningFromArrayToArrayObjectComparison(same, same, 0);
  EXPECT_TRUE(unchanged->isIdentity());
  EXPECT_EQ(std::dynamic_pointer_cast<UGMutableListTransform>(unchanged), nullptr);
  // Equal texts in new string objects are not the same objects.
  EXPECT_EQ(transformForTransitioningFromArrayToArrayObjectComparison(same, letters("abc"), 0)->deletions().size(), 3u);
  EXPECT_TRUE(transformForTransitioningFromArrayToArrayObjectComparison(same, letters("abc"), 1)->isIdentity());
  EXPECT_TRUE(transformForTransitioningFromArrayToArrayObjectComparison(same, letters("abc"), 7)->isIdentity());
  EXPECT_TRUE(transformForTransitioningFromArrayToArrayObjectComparison({}, {}, 1)->isIdentity());

  auto fromEmpty = transformForTransitioningFromArrayToArrayObjectComparison({}, letters("xy"), 1);
  EXPECT_EQ(fromEmpty->insertions().size(), 2u);
  EXPECT_EQ(*fromEmpty->insertions()[1]->object(), Value("y"));
}

TEST(ListTransform, IndexMapping) {
  auto t = UGMutableListTransform::transform();
  t->recordDeletedObjectFromIndex(Value("b"), 1);
  t->recordInsertedObjectAtIndex(Value("z"), 0);
  EXPECT_EQ(t->transformIndex(2), 2);
  EXPECT_EQ(t->transformIndex(0), 1);
  std::optional<Value> deleted;
  EXPECT_EQ(t->transformIndexDeletedObject(1, &deleted), NotFound);
  EXPECT_EQ(deleted, Value("b"));
  EXPECT_EQ(t->transformIndexDeletedObject(5, &deleted), 5);
  EXPECT_FALSE(deleted.has_value());
  EXPECT_EQ(t->transformIndex(NotFound), NotFound);

  auto move = UGMutableListTransform::transform();
  move->recordMovedObjectFromIndexToIndex(Value("a"), 0, 3);
  move->recordDeletedObjectFromIndex(Value("c"), 2);
  EXPECT_EQ(move->transformIndex(0), 3);
  EXPECT_EQ(indexSetByApplyingTransform(IndexSet{0, 1, 2, 3}, *move), (IndexSet{0, 1, 3}));
  EXPECT_EQ(indexSetByApplyingTransform(IndexSet{4, 9}, *UGListTransform::transform()), (IndexSet{4, 9}));
}

TEST(ListTransform, InverseCopiesAndOffsets) {
  auto t = UGMutableListTransform::transform();
  t->recordMovedObjectFromIndexToIndex(Value("a"), 0, 3);
  t->recordDeletedObjectFromIndex(Value("b"), 1);
  auto inverse = t->inverseTransform();
  ASSERT_EQ(inverse->deletions().size(), 1u);
  EXPECT_EQ(inverse->deletions()[0]->index(), 3);
  EXPECT_EQ(inverse->deletions()[0]->moveLinkItem()->index(), 0);
  ASSERT_EQ(inverse->insertions().size(), 2u);
  EXPECT_EQ(inverse->insertions()[1]->index(), 1);
  EXPECT_EQ(*inverse->insertions()[1]->object(), Value("b"));

  // copy() is the receiver itself in both classes; mutableCopy() is new.
  EXPECT_EQ(t->copy().get(), t.get());
  EXPECT_EQ(t->copyByPreservingMutability().get(), t.get());
  EXPECT_EQ(UGListTransform::transformWithTransform(*t).get(), t.get());
  auto copy = UGMutableListTransform::transformWithTransform(*t);
  EXPECT_NE(copy.get(), t.get());
  EXPECT_NE(copy->insertions()[0].get(), t->insertions()[0].get());
  EXPECT_EQ(copy->deletions()[0]->moveLinkItem(), copy->insertions()[0].get());

  EXPECT_EQ(t->transformByApplyingOffsetToIndexes(0).get(), t.get());
  auto shifted = t->transformByApplyingOffsetToDeletionAndMoveFromIndexes(2);
  EXPECT_EQ(shifted->deletions()[0]->index(), 2);
  EXPECT_EQ(shifted->insertions()[0]->index(), 3);
  EXPECT_EQ(t->transformByApplyingOffsetToInsertionAndMoveToIndexes(-1)->insertions()[0]->index(), 2);
}

TEST(ListTransform, DerivedTransformsSplitMoves) {
  auto t = UGMutableListTransform::transform();
  t->recordMovedObjectFromIndexToIndex(Value("a"), 0, 5);
  t->recordDeletedObjectFromIndex(Value("b"), 1);
  t->recordInsertedObjectAtIndex(Value("c"), 2);

  auto limited = t->transformByLimitingToRange({0, 2});
  ASSERT_EQ(limited->deletions().size(), 2u);
  EXPECT_FALSE(limited->deletions()[0]->hasMoveLink());
  EXPECT_TRUE(limited->insertions().empty());
  EXPECT_TRUE(t->deletions()[0]->hasMoveLink());  // the source keeps its move

  EXPECT_EQ(t->deletionsTransformIncludingDecomposedMoves(true)->deletions().size(), 2u);
  EXPECT_EQ(t->deletionsTransformIncludingDecomposedMoves(false)->deletions().size(), 1u);
  EXPECT_TRUE(t->deletionsTransformIncludingDecomposedMoves(true)->insertions().empty());
  EXPECT_EQ(t->insertionsTransformIncludingDecomposedMoves(false)->insertions().size(), 1u);
  auto moves = t->movesTransform();
  EXPECT_EQ(moves->deletions().size(), 1u);
  EXPECT_EQ(moves->insertions().size(), 1u);
  EXPECT_EQ(t->insertionIndexesIncludingDecomposedMoveIndexes(true), (IndexSet{2, 5}));
  EXPECT_EQ(t->insertionIndexesIncludingDecomposedMoveIndexes(false), (IndexSet{2}));
  EXPECT_EQ(t->deletionIndexesIncludingDecomposedMoveIndexes(false), (IndexSet{1}));

  auto detected = t->transformByDecomposingMoves();
  EXPECT_FALSE(detected->deletions()[0]->hasMoveLink());
  detected->detectMoves();
  EXPECT_EQ(detected->deletions()[0]->moveLinkItem(), detected->insertions()[1].get());
}

TEST(ListTransform, ApplicationIgnoringObjectsAndBadIndexes) {
  auto t = UGMutableListTransform::transform();
  t->recordMovedObjectFromIndexToIndex(std::nullopt, 0, 2);
  t->recordInsertedObjectAtIndex(Value("new"), 0);
  Array a = letters("abc");
  EXPECT_EQ(arrayByApplyingTransformIgnoringObjectsInTransform(a, *t, true),
            (Array{Value::null(), Value("b"), Value("a"), Value("c")}));
  EXPECT_EQ(arrayByApplyingTransform(a, *t), (Array{Value("new"), Value("b"), Value::null(), Value("c")}));

  auto bad = UGMutableListTransform::transform();
  bad->recordDeletedObjectFromIndex(std::nullopt, 3);
  EXPECT_THROW(applyTransform(a, *bad), Exception);
  auto far = UGMutableListTransform::transform();
  far->recordInsertedObjectAtIndex(Value("x"), 5);
  try {
    applyTransform(a, *far);
    FAIL();
  } catch (const Exception& e) {
    EXPECT_EQ(e.kind(), ExceptionKind::OutOfRange);
  }
  EXPECT_EQ(a, letters("abc"));  // untouched after a refused application
}

TEST(ListTransform, SortingReportsItsTransform) {
  Array a{Value(3), Value(1), Value(2)};
  Ref<UGMutableListTransform> t;
  sortUsingDescriptorsResultingTransform(a, {SortDescriptor("self")}, &t);
  EXPECT_EQ(a, (Array{Value(1), Value(2), Value(3)}));
  ASSERT_TRUE(t);
  EXPECT_EQ(arrayByApplyingTransform(Array{Value(3), Value(1), Value(2)}, *t), a);
  sortUsingDescriptorsResultingTransform(a, {SortDescriptor("self", false)}, &t);
  EXPECT_EQ(a, (Array{Value(3), Value(2), Value(1)}));
  sortUsingDescriptorsResultingTransform(a, {SortDescriptor("self", false)}, &t);
  EXPECT_TRUE(t->isIdentity());
}

TEST(ListTransform, Descriptions) {
  auto t = UGMutableListTransform::transform();
  t->recordDeletedObjectFromIndex(Value("b"), 1);
  t->recordDeletedObjectFromIndex(std::nullopt, 4);
  t->recordMovedObjectFromIndexToIndex(Value("a"), 0, 3);
  t->recordInsertedObjectAtIndex(Value(7), 0);
  EXPECT_EQ(t->description(),
            "UGMutableListTransform with {\n"
            "    deletions:\n"
            "        4   (nil)\n"
            "        1   (b)\n"
            "    moves:\n"
            "        0 -> 3   (a)\n"
            "    insertions:\n"
            "        0   (7)\n"
            "}\n");
  EXPECT_EQ(UGListTransform::transform()->description(),
            "UGListTransform with {\n    deletions:\n    moves:\n    insertions:\n}\n");
  EXPECT_EQ(t->deletions()[0]->description(), "0 (a)  movelink 3");
  EXPECT_EQ(t->insertions()[0]->description(), "0 (7)");

  EXPECT_EQ(UGListChange::insertionAtIndexObject(2, Value("x"))->description(), "Insertion 2 (x)");
  EXPECT_EQ(UGListChange::moveFromIndexToIndexObject(1, 4, std::nullopt)->description(), "Move 1 -> 4 (nil)");
  EXPECT_EQ(UGListChange::deletionFromIndexObject(3, Value(1))->description(), "Deletion 3 (1)");
  auto change = UGListChange::deletionFromIndexObject(3, Value(1));
  EXPECT_EQ(change->hash(), 2u & 3u & static_cast<size_t>(NotFound));
  EXPECT_TRUE(change->isEqual(*UGListChange::deletionFromIndexObject(3, Value(1.0))));
  EXPECT_FALSE(change->isEqual(*UGListChange::deletionFromIndexObject(3, std::nullopt)));
}

TEST(ListTransform, ItemLinksNeverDangle) {
  auto a = UGListTransformItem::itemWithIndexObject(1, std::nullopt);
  {
    auto b = UGListTransformItem::itemWithIndexObject(2, std::nullopt);
    a->establishMoveLinkToItem(b);
    EXPECT_EQ(a->moveLink(), b);
    auto c = UGListTransformItem::itemWithIndexObject(3, std::nullopt);
    c->establishMoveLinkToItem(a);  // a leaves b for c
    EXPECT_FALSE(b->hasMoveLink());
    EXPECT_EQ(a->moveLinkItem(), c.get());
  }
  EXPECT_FALSE(a->hasMoveLink());  // c is gone and took its link along
  EXPECT_FALSE(a->copy()->hasMoveLink());

  std::weak_ptr<UGListTransformItem> item;
  Ref<UGListTransformItem> heldDeletion, heldInsertion, heldAlone;
  {
    auto t = UGMutableListTransform::transform();
    t->recordMovedObjectFromIndexToIndex(Value(1), 0, 1);
    t->recordMovedObjectFromIndexToIndex(Value(2), 2, 3);
    t->recordMovedObjectFromIndexToIndex(Value(3), 4, 5);
    item = t->deletions()[0];
    heldDeletion = t->deletions()[1];
    heldInsertion = t->insertions()[1];
    heldAlone = t->insertions()[2];
  }
  EXPECT_TRUE(item.expired());
  // Releasing the transform cuts the links of the items that outlive it.
  EXPECT_FALSE(heldDeletion->hasMoveLink());
  EXPECT_FALSE(heldInsertion->hasMoveLink());
  EXPECT_FALSE(heldAlone->hasMoveLink());
  EXPECT_EQ(heldAlone->moveLink(), nullptr);
}

}  // namespace
}  // namespace loomwork::testing
