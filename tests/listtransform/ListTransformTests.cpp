// Worked cases of recording, composition, transitions, copies, derived
// transforms, application errors and descriptions, and of the linearizer's
// batches as its delegate hears them and its misuse errors. What application
// reaches is checked against the plain model in ListTransformPropertyTests.cpp.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "loomwork/listtransform.h"

namespace loomwork::testing {
namespace {

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

// "kind: message" of the Exception a call throws.
std::string reason(const std::function<void()>& call) {
  try {
    call();
  } catch (const Exception& e) {
    return std::string(Exception::kindName(e.kind())) + ": " + e.what();
  }
  return "no exception";
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
  EXPECT_EQ(*t->deletions()[1]->object(), Value("x"));  // kept, not replaced by the refused one
}

TEST(ListTransform, CompositionJoinsMovesAndTakesItselfAsArgument) {
  auto first = UGMutableListTransform::transform(), second = UGMutableListTransform::transform();
  first->recordMovedObjectFromIndexToIndex(Value("a"), 0, 3);
  second->recordMovedObjectFromIndexToIndex(Value("a"), 3, 1);
  EXPECT_EQ(shape(*first->transformByAppendingTransform(*second)), "0>1 ");
  // Appending a transform to itself composes it with a copy of itself.
  first->appendTransform(*first);
  EXPECT_EQ(arrayByApplyingTransformIgnoringObjectsInTransform(Array{"a", "b", "c", "d"}, *first, true),
            (Array{"c", "d", "a", "b"}));
}

TEST(ListTransform, TransitionOfEqualArraysAndUnknownComparisonModes) {
  // Identity and equality on strings of their own are checked against the
  // plain model in ListTransformPropertyTests.cpp.
  const Array same{std::string(30, 'a'), std::string(30, 'b')}, twin{std::string(30, 'a'), std::string(30, 'b')};
  auto unchanged =
      transformForTransitioningFromArrayToArrayObjectComparison(same, same, UGListTransformObjectComparisonIdentity);
  EXPECT_TRUE(unchanged->isIdentity());
  EXPECT_EQ(std::dynamic_pointer_cast<UGMutableListTransform>(unchanged), nullptr);
  // Every mode but 0 compares by equality.
  const auto seven = UGListTransformObjectComparison(7);
  EXPECT_TRUE(transformForTransitioningFromArrayToArrayObjectComparison(same, twin, seven)->isIdentity());
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

  EXPECT_EQ(shape(*t->transformByLimitingToRange({0, 2})), "-0 -1 ");
  EXPECT_EQ(shape(*t->deletionsTransformIncludingDecomposedMoves(true)), "-0 -1 ");
  EXPECT_EQ(shape(*t->deletionsTransformIncludingDecomposedMoves(false)), "-1 ");
  EXPECT_EQ(shape(*t->insertionsTransformIncludingDecomposedMoves(true)), "+2 +5 ");
  EXPECT_EQ(shape(*t->insertionsTransformIncludingDecomposedMoves(false)), "+2 ");
  EXPECT_EQ(shape(*t->movesTransform()), "0>5 ");
  EXPECT_EQ(t->insertionIndexesIncludingDecomposedMoveIndexes(true), (IndexSet{2, 5}));
  EXPECT_EQ(t->insertionIndexesIncludingDecomposedMoveIndexes(false), (IndexSet{2}));
  EXPECT_EQ(t->deletionIndexesIncludingDecomposedMoveIndexes(false), (IndexSet{1}));
  EXPECT_EQ(shape(*t->transformByDecomposingMoves()), "-0 -1 +2 +5 ");
  EXPECT_EQ(shape(*t), "0>5 -1 +2 ");  // the source keeps its move throughout
}

TEST(ListTransform, ApplicationBadIndexesAndSorting) {
  auto t = UGMutableListTransform::transform();
  t->recordMovedObjectFromIndexToIndex(std::nullopt, 0, 2);
  t->recordInsertedObjectAtIndex(Value("new"), 0);
  const Array abc{"a", "b", "c"};
  Array a = abc;
  EXPECT_EQ(arrayByApplyingTransformIgnoringObjectsInTransform(a, *t, true), (Array{Value::null(), "b", "a", "c"}));
  EXPECT_EQ(arrayByApplyingTransform(a, *t), (Array{"new", "b", Value::null(), "c"}));

  // A deletion at the end, or an insertion one past the end, is out of range.
  auto bad = UGMutableListTransform::transform(), far = UGMutableListTransform::transform();
  bad->recordDeletedObjectFromIndex(std::nullopt, 3);
  far->recordInsertedObjectAtIndex(Value("x"), 4);
  EXPECT_EQ(reason([&] { applyTransform(a, *bad); }), "out of range: index 3 beyond bounds [0 .. 3]");
  EXPECT_EQ(reason([&] { applyTransform(a, *far); }), "out of range: index 4 beyond bounds [0 .. 3]");
  EXPECT_EQ(a, abc);  // untouched after a refused application

  // Sorting reports the transform that it made.
  const Array unsorted{3, 1, 2};
  Array sorted = unsorted;
  sortUsingDescriptorsResultingTransform(sorted, {SortDescriptor("self")}, &t);
  EXPECT_EQ(sorted, (Array{1, 2, 3}));
  EXPECT_EQ(arrayByApplyingTransform(unsorted, *t), sorted);
  sortUsingDescriptorsResultingTransform(sorted, {SortDescriptor("self")}, &t);
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
  Ref<UGListTransformItem> deletion, insertion;
  {
    auto t = UGMutableListTransform::transform();
    t->recordMovedObjectFromIndexToIndex(Value(1), 0, 1);
    deletion = t->deletions()[0];
    insertion = t->insertions()[0];
  }
  EXPECT_FALSE(deletion->hasMoveLink() || insertion->hasMoveLink());
}

using Steps = std::vector<std::string>;

struct Recorder : TWArrayOperationLinearizerDelegate {
  Steps calls;
  void arrayOperationLinearizerWillBeginUpdates(TWArrayOperationLinearizer&) override { calls.push_back("begin"); }
  void arrayOperationLinearizerRemoveObjectAtIndex(TWArrayOperationLinearizer&, int64_t i) override {
    calls.push_back("remove " + std::to_string(i));
  }
  void arrayOperationLinearizerMoveObjectAtIndexToIndex(TWArrayOperationLinearizer&, int64_t f, int64_t t) override {
    calls.push_back("move " + std::to_string(f) + " " + std::to_string(t));
  }
  void arrayOperationLinearizerInsertObjectAtIndex(TWArrayOperationLinearizer&, int64_t i) override {
    calls.push_back("insert " + std::to_string(i));
  }
  void arrayOperationLinearizerDidEndUpdates(TWArrayOperationLinearizer&) override { calls.push_back("end"); }
};

TEST(Linearizer, WorkedBatchesReachTheDelegateInOrder) {
  const IndexSet odd{1, 3}, from{0, 5}, to{3, 1};
  const std::pair<std::function<void(TWArrayOperationLinearizer&)>, Steps> cases[] = {
      {[&](auto& l) { l.removeObjectsAtIndexes(odd); }, {"remove 3", "remove 1"}},
      {[](auto& l) { l.moveObjectAtIndexToIndex(0, 2); }, {"move 0 2"}},
      {[](auto& l) { l.removeObjectAtIndex(0), l.moveObjectAtIndexToIndex(2, 0); }, {"move 2 1", "remove 0"}},
      {[](auto& l) { l.insertObjectAtIndex(4), l.insertObjectAtIndex(1), l.removeObjectAtIndex(2); },
       {"remove 2", "insert 1", "insert 4"}},
      {[&](auto& l) { l.moveObjectsAtIndexesToIndexes(from, to); }, {"move 5 3", "move 0 1"}},
      {[](auto& l) { l.insertObjectAtIndex(-1); }, {}},  // an operation from -1 to -1 is invalid and is left out
  };
  // One linearizer for every batch; each batch has a new delegate, which the linearizer does not keep alive.
  auto linearizer = TWArrayOperationLinearizer::arrayOperationLinearizer();
  std::weak_ptr<Recorder> previous;
  for (const auto& [batch, steps] : cases) {
    EXPECT_TRUE(previous.expired());
    auto recorder = std::make_shared<Recorder>();
    previous = recorder;
    linearizer->setDelegate(recorder);
    linearizer->beginUpdates();
    batch(*linearizer);
    linearizer->endUpdates();
    Steps expected{"begin"};
    expected.insert(expected.end(), steps.begin(), steps.end());
    expected.push_back("end");
    EXPECT_EQ(recorder->calls, expected);
  }
  linearizer->beginUpdates();  // and a batch runs without its delegate
  linearizer->insertObjectAtIndex(0);
  EXPECT_NO_THROW(linearizer->endUpdates());
}

TEST(Linearizer, OperationTextsAndMisuse) {
  EXPECT_EQ(TWArrayOperation(-1, 3).description(), "<TWArrayOperation> INSERT to index: 3");
  EXPECT_EQ(TWArrayOperation(2, -1).description(), "<TWArrayOperation> REMOVE from index: 2");
  EXPECT_EQ(TWArrayOperation(2, 5).description(), "<TWArrayOperation> MOVE from index: 2 to index: 5");
  EXPECT_EQ(TWArrayOperation(-1, -1).description(), "<TWArrayOperation> INVALID from index: -1, to index: -1");
  EXPECT_FALSE(TWArrayOperation(-2, 4).isValid());
  EXPECT_TRUE(TWArrayOperation(0, 0).isMove());

  TWArrayOperationLinearizer l;
  EXPECT_EQ(reason([&] { l.endUpdates(); }),
            "internal inconsistency: Called endUpdates without previously calling beginUpdates");
  EXPECT_EQ(reason([&] { l.insertObjectAtIndex(0); }),
            "internal inconsistency: Can't insert, beginUpdates wasn't called");
  EXPECT_EQ(reason([&] { l.removeObjectsAtIndexes(IndexSet{1}); }),
            "internal inconsistency: Can't remove, beginUpdates wasn't called");
  EXPECT_EQ(reason([&] { l.moveObjectAtIndexToIndex(0, 1); }),
            "internal inconsistency: Can't move, beginUpdates wasn't called");
  l.beginUpdates();
  EXPECT_EQ(reason([&] { l.beginUpdates(); }),
            "internal inconsistency: Called beginUpdates for the second time without previously calling endUpdates");
  EXPECT_EQ(reason([&] {
              l.moveObjectsAtIndexesToIndexes(IndexSet{1, 2}, IndexSet{3});
            }),
            "invalid argument: [TWArrayOperationLinearizer moveObjectsAtIndexesToIndexes] Argument `atIndexes` and "
            "`toIndexes` must contain the same count of indexes but don't");
  l.insertObjectAtIndex(1);
  l.moveObjectAtIndexToIndex(0, 2);
  EXPECT_NO_THROW(l.endUpdatesWithInsertBlockRemoveBlockMoveBlock(nullptr, nullptr, nullptr));  // blocks may be empty
  EXPECT_EQ(reason([&] { l.endUpdatesWithInsertBlockRemoveBlockMoveBlock(nullptr, nullptr, nullptr); }),
            "internal inconsistency: Called endUpdates without previously calling beginUpdates");
}

}  // namespace
}  // namespace loomwork::testing
