// Worked cases of recording, composition, transitions, copies, derived
// transforms, application errors and descriptions. What application reaches is
// checked against the plain model in ListTransformPropertyTests.cpp.
#include <gtest/gtest.h>

#include "RandomTransforms.h"

namespace loomwork::testing {
namespace {

Array letters(std::string_view s) {
  Array a;
  for (char c : s) a.push_back(Value(std::string(1, c)));
  return a;
}

// "-i " per plain deletion, "f>t " per move and "+i " per plain insertion.
std::string shape(const UGListTransform& t) {
  std::string s;
  for (const auto& d : t.deletions())
    s += d->hasMoveLink() ? std::to_string(d->index()) + ">" + std::to_string(d->moveLinkItem()->index()) + " "
                          : "-" + std::to_string(d->index()) + " ";
  for (const auto& i : t.insertions())
    if (!i->hasMoveLink()) s += "+" + std::to_string(i->index()) + " ";
  return s;
}

TEST(ListTransform, RecordingRefusesCollidingIndexes) {
  auto t = UGMutableListTransform::transform();
  EXPECT_TRUE(t->recordDeletedObjectFromIndex(Value("x"), 3));
  EXPECT_FALSE(t->recordDeletedObjectFromIndex(Value("y"), 3));
  EXPECT_TRUE(t->recordInsertedObjectAtIndex(Value("i"), 4));
  EXPECT_FALSE(t->recordMovedObjectFromIndexToIndex(Value("m"), 1, 4));  // insertion half collides
  EXPECT_FALSE(t->recordMovedObjectFromIndexToIndex(Value("m"), 3, 7));  // deletion half collides
  EXPECT_TRUE(t->recordMovedObjectFromIndexToIndex(Value("m"), 0, 2));
  EXPECT_EQ(shape(*t), "0>2 -3 +4 ");
  EXPECT_EQ(*t->deletions()[1]->object(), Value("x"));
}

TEST(ListTransform, CompositionCancelsAndJoinsMoves) {
  auto insert = UGMutableListTransform::transform(), remove = UGMutableListTransform::transform();
  insert->recordInsertedObjectAtIndex(Value("x"), 2);
  remove->recordDeletedObjectFromIndex(Value("x"), 2);
  EXPECT_TRUE(insert->transformByAppendingTransform(*remove)->isIdentity());

  auto first = UGMutableListTransform::transform(), second = UGMutableListTransform::transform();
  first->recordMovedObjectFromIndexToIndex(Value("a"), 0, 3);
  second->recordMovedObjectFromIndexToIndex(Value("a"), 3, 1);
  EXPECT_EQ(shape(*first->transformByAppendingTransform(*second)), "0>1 ");
  // Appending a transform to itself composes it with a copy of itself.
  first->appendTransform(*first);
  EXPECT_EQ(arrayByApplyingTransformIgnoringObjectsInTransform(letters("abcd"), *first, true), letters("cdab"));
}

TEST(ListTransform, TransitionComparesByIdentityOrEquality) {
  // Texts longer than a value holds inline are separate string objects.
  auto longTexts = [] {
    Array texts;
    for (char c : std::string_view("abc")) texts.emplace_back(std::string(30, c));
    return texts;
  };
  const Array same = longTexts();
  auto unchanged = transformForTransitioningFromArrayToArrayObjectComparison(same, same, 0);
  EXPECT_TRUE(unchanged->isIdentity());
  EXPECT_EQ(std::dynamic_pointer_cast<UGMutableListTransform>(unchanged), nullptr);
  // Equal texts in new string objects are not the same objects; every mode but 0 compares by equality.
  EXPECT_EQ(shape(*transformForTransitioningFromArrayToArrayObjectComparison(same, longTexts(), 0)),
            "-0 -1 -2 +0 +1 +2 ");
  EXPECT_TRUE(transformForTransitioningFromArrayToArrayObjectComparison(same, longTexts(), 7)->isIdentity());
  // Short texts live in the value, so equal ones are the same string.
  EXPECT_TRUE(transformForTransitioningFromArrayToArrayObjectComparison(letters("abc"), letters("abc"), 0)->isIdentity());
}

TEST(ListTransform, CopiesOffsetsAndDerivedTransforms) {
  auto t = UGMutableListTransform::transform();
  t->recordMovedObjectFromIndexToIndex(Value("a"), 0, 5);
  t->recordDeletedObjectFromIndex(Value("b"), 1);
  t->recordInsertedObjectAtIndex(Value("c"), 2);
  EXPECT_EQ(t->copy().get(), t.get());
  EXPECT_EQ(t->transformByApplyingOffsetToIndexes(0).get(), t.get());
  EXPECT_EQ(shape(*t->transformByApplyingOffsetToIndexes(1)), "1>6 -2 +3 ");
  EXPECT_EQ(shape(*t->transformByApplyingOffsetToDeletionAndMoveFromIndexes(2)), "2>5 -3 +2 ");
  EXPECT_EQ(shape(*t->transformByApplyingOffsetToInsertionAndMoveToIndexes(-1)), "0>4 -1 +1 ");
  EXPECT_EQ(shape(*t->inverseTransform()), "-2 5>0 +1 ");

  EXPECT_EQ(shape(*t->transformByLimitingToRange({0, 2})), "-0 -1 ");
  EXPECT_EQ(shape(*t->deletionsTransformIncludingDecomposedMoves(true)), "-0 -1 ");
  EXPECT_EQ(shape(*t->deletionsTransformIncludingDecomposedMoves(false)), "-1 ");
  EXPECT_EQ(shape(*t->insertionsTransformIncludingDecomposedMoves(true)), "+2 +5 ");
  EXPECT_EQ(shape(*t->insertionsTransformIncludingDecomposedMoves(false)), "+2 ");
  EXPECT_EQ(shape(*t->movesTransform()), "0>5 ");
  EXPECT_EQ(t->insertionIndexesIncludingDecomposedMoveIndexes(true), (IndexSet{2, 5}));
  EXPECT_EQ(t->insertionIndexesIncludingDecomposedMoveIndexes(false), (IndexSet{2}));
  EXPECT_EQ(t->deletionIndexesIncludingDecomposedMoveIndexes(false), (IndexSet{1}));
  auto detected = t->transformByDecomposingMoves();
  EXPECT_EQ(shape(*detected), "-0 -1 +2 +5 ");
  detected->detectMoves();
  EXPECT_EQ(shape(*detected), "0>5 -1 +2 ");
  EXPECT_EQ(shape(*t), "0>5 -1 +2 ");  // the source keeps its move throughout
}

TEST(ListTransform, ApplicationIgnoringObjectsAndBadIndexes) {
  auto t = UGMutableListTransform::transform();
  t->recordMovedObjectFromIndexToIndex(std::nullopt, 0, 2);
  t->recordInsertedObjectAtIndex(Value("new"), 0);
  Array a = letters("abc");
  EXPECT_EQ(arrayByApplyingTransformIgnoringObjectsInTransform(a, *t, true),
            (Array{Value::null(), Value("b"), Value("a"), Value("c")}));
  EXPECT_EQ(arrayByApplyingTransform(a, *t), (Array{Value("new"), Value("b"), Value::null(), Value("c")}));

  auto bad = UGMutableListTransform::transform(), far = UGMutableListTransform::transform();
  bad->recordDeletedObjectFromIndex(std::nullopt, 3);
  EXPECT_THROW(applyTransform(a, *bad), Exception);
  far->recordInsertedObjectAtIndex(Value("x"), 5);
  try {
    applyTransform(a, *far);
    FAIL();
  } catch (const Exception& e) {
    EXPECT_STREQ(Exception::kindName(e.kind()), "out of range");
  }
  EXPECT_EQ(a, letters("abc"));  // untouched after a refused application
}

TEST(ListTransform, SortingReportsItsTransform) {
  const Array unsorted{3, 1, 2};
  Array a = unsorted;
  Ref<UGMutableListTransform> t;
  sortUsingDescriptorsResultingTransform(a, {SortDescriptor("self")}, &t);
  EXPECT_EQ(a, (Array{1, 2, 3}));
  ASSERT_TRUE(t);
  EXPECT_EQ(arrayByApplyingTransform(unsorted, *t), a);
  sortUsingDescriptorsResultingTransform(a, {SortDescriptor("self", false)}, &t);
  EXPECT_EQ(a, (Array{3, 2, 1}));
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
            "UGMutableListTransform with {\n    deletions:\n        4   (nil)\n        1   (b)\n    moves:\n"
            "        0 -> 3   (a)\n    insertions:\n        0   (7)\n}\n");
  EXPECT_EQ(UGListTransform::transform()->description(),
            "UGListTransform with {\n    deletions:\n    moves:\n    insertions:\n}\n");
  EXPECT_EQ(t->deletions()[0]->description(), "0 (a)  movelink 3");
  EXPECT_EQ(t->insertions()[0]->description(), "0 (7)");

  EXPECT_EQ(UGListChange::insertionAtIndexObject(2, Value("x"))->description(), "Insertion 2 (x)");
  EXPECT_EQ(UGListChange::moveFromIndexToIndexObject(1, 4, std::nullopt)->description(), "Move 1 -> 4 (nil)");
  auto change = UGListChange::deletionFromIndexObject(3, Value(1));
  EXPECT_EQ(change->description(), "Deletion 3 (1)");
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

  // Releasing the transform cuts the links of the items that outlive it.
  std::weak_ptr<UGListTransformItem> item;
  Ref<UGListTransformItem> heldDeletion, heldInsertion, heldAlone;  // the first two are partners
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
  EXPECT_FALSE(heldDeletion->hasMoveLink() || heldInsertion->hasMoveLink() || heldAlone->hasMoveLink());
  EXPECT_EQ(heldAlone->moveLink(), nullptr);
}

}  // namespace
}  // namespace loomwork::testing
