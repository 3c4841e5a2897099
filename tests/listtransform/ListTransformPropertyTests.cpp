// Seeded randomized checks of the list-transform algebra against the plain
// step-by-step model, with the random arrays and random valid batch transforms
// they run on.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <iterator>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>

#include "loomwork/listtransform.h"

namespace loomwork::testing {
namespace {

// A seeded generator; tests print the seed with SCOPED_TRACE.
using Rng = std::mt19937_64;

int64_t uniform(Rng& rng, int64_t lo, int64_t hi) {  // [lo, hi]
  return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
}

// An array of n integers from a small alphabet, so that elements repeat.
Array randomArray(Rng& rng, size_t n, int64_t alphabet = 6) {
  Array a;
  for (size_t i = 0; i < n; ++i) a.push_back(Value(uniform(rng, 0, alphabet - 1)));
  return a;
}

// k distinct values drawn from [0, n), ascending.
std::vector<int64_t> distinctSorted(Rng& rng, int64_t n, int64_t k) {
  std::vector<int64_t> all(static_cast<size_t>(n)), chosen;
  std::iota(all.begin(), all.end(), 0);
  std::sample(all.begin(), all.end(), std::back_inserter(chosen), k, rng);  // keeps the order
  return chosen;
}

// A valid batch transform for an array: plain deletions and moves at distinct
// old positions, plain insertions and move targets at distinct new positions.
// Deletions and moves carry the element they take away; insertions carry new
// values (from 100 up, so they stand out).
Ref<UGMutableListTransform> randomTransform(Rng& rng, const Array& array) {
  const auto n = static_cast<int64_t>(array.size());
  std::vector<int64_t> removed = distinctSorted(rng, n, uniform(rng, 0, n));
  std::shuffle(removed.begin(), removed.end(), rng);
  const auto moveCount = static_cast<size_t>(uniform(rng, 0, static_cast<int64_t>(removed.size())));
  const int64_t insertionCount = uniform(rng, 0, 4);
  const int64_t finalCount = n - static_cast<int64_t>(removed.size() - moveCount) + insertionCount;
  std::vector<int64_t> targets = distinctSorted(rng, finalCount, static_cast<int64_t>(moveCount) + insertionCount);
  std::shuffle(targets.begin(), targets.end(), rng);

  auto t = UGMutableListTransform::transform();
  for (size_t k = 0; k < removed.size(); ++k) {
    const Value& object = array[static_cast<size_t>(removed[k])];
    EXPECT_TRUE(k < moveCount ? t->recordMovedObjectFromIndexToIndex(object, removed[k], targets[k])
                              : t->recordDeletedObjectFromIndex(object, removed[k]));
  }
  for (size_t k = moveCount; k < targets.size(); ++k)
    EXPECT_TRUE(t->recordInsertedObjectAtIndex(Value(100 + uniform(rng, 0, 5)), targets[k]));
  return t;
}

// The model of application: remove at every deletion index from the highest
// down, then insert every insertion's object from the lowest index up.
Array applyStepByStep(Array array, const UGListTransform& t) {
  for (auto it = t.deletions().rbegin(); it != t.deletions().rend(); ++it) array.erase(array.begin() + (*it)->index());
  for (const auto& item : t.insertions())
    array.insert(array.begin() + item->index(), item->object().value_or(Value::null()));
  return array;
}

// Checks the canonical form: both arrays strictly ascending, links mutual and
// between a deletion and an insertion of this transform.
::testing::AssertionResult isCanonical(const UGListTransform& t) {
  for (const auto* items : {&t.deletions(), &t.insertions()}) {
    const auto& partners = items == &t.deletions() ? t.insertions() : t.deletions();
    for (size_t i = 0; i < items->size(); ++i) {
      const UGListTransformItem *item = (*items)[i].get(), *partner = item->moveLinkItem();
      auto isPartner = [&](const Ref<UGListTransformItem>& p) { return p.get() == partner; };
      if ((i > 0 && (*items)[i - 1]->index() >= item->index()) ||
          (partner && (partner->moveLinkItem() != item || std::none_of(partners.begin(), partners.end(), isPartner))))
        return ::testing::AssertionFailure() << "not canonical at " << item->index() << ":\n" << t.description();
    }
  }
  return ::testing::AssertionSuccess();
}

std::string describeArray(const Array& a) { return Value(a).description(); }

constexpr uint64_t kSeed = 20261122;
constexpr int kCases = 3000;

// Dropping needless moves as a plain walk over a working copy of the
// insertions, searched linearly.
void literalNormalizeMoves(UGMutableListTransform& t) {
  UGListTransformItemArray working = t.insertions();
  std::vector<bool> drop(t.deletions().size(), false);
  for (size_t p = t.deletions().size(); p-- > 0;) {
    auto& deletion = *t.deletions()[p];
    UGListTransformItem* m = deletion.moveLinkItem();
    if (m == nullptr) continue;
    auto q = std::find_if(working.begin(), working.end(), [m](const auto& item) { return item.get() == m; });
    if (deletion.index() - static_cast<int64_t>(p) == m->index() - (q - working.begin())) {
      drop[p] = true;
      working.erase(q);
      deletion.cutMoveLink();
    }
  }
  UGListTransformItemArray kept;
  for (size_t p = 0; p < drop.size(); ++p)
    if (!drop[p]) kept.push_back(t.deletions()[p]);
  t.mutableDeletions() = kept;
  t.mutableInsertions() = working;
}

// The transition's matching: each old element to the lowest unclaimed
// matching new position, as (old, new) pairs.
std::vector<std::pair<int64_t, int64_t>> matching(const Array& from, const Array& to, int mode) {
  std::vector<std::pair<int64_t, int64_t>> pairs;
  std::vector<bool> claimed(to.size(), false);
  for (size_t i = 0; i < from.size(); ++i) {
    size_t j = 0;
    while (j < to.size() && (claimed[j] || !(mode == 0 ? from[i].isIdenticalTo(to[j]) : from[i] == to[j]))) ++j;
    if (j < to.size()) claimed[j] = true, pairs.emplace_back(i, j);
  }
  return pairs;
}

// The transition recorded change by change: matched elements move, the
// others are deleted, the positions left over are insertions, then needless
// moves are dropped.
Ref<UGListTransform> literalTransition(const Array& from, const Array& to, int mode) {
  auto t = UGMutableListTransform::transform();
  std::vector<bool> moved(from.size(), false), claimed(to.size(), false);
  for (auto [i, j] : matching(from, to, mode)) {
    moved[static_cast<size_t>(i)] = claimed[static_cast<size_t>(j)] = true;
    t->recordMovedObjectFromIndexToIndex(from[static_cast<size_t>(i)], i, j);
  }
  for (size_t i = 0; i < from.size(); ++i)
    if (!moved[i]) t->recordDeletedObjectFromIndex(from[i], static_cast<int64_t>(i));
  for (size_t j = 0; j < to.size(); ++j)
    if (!claimed[j]) t->recordInsertedObjectAtIndex(to[j], static_cast<int64_t>(j));
  literalNormalizeMoves(*t);
  return t;
}

// Turns both arrays into long strings (objects of their own), b holding some
// of a's string objects and some new strings with equal texts.
void makeStrings(Rng& rng, Array& a, Array& b, int64_t texts) {
  auto text = [&](const Value& x) { return Value(std::string(24, 's') + std::to_string(x.integerValue() % texts)); };
  for (Value& x : a) x = text(x);
  const auto last = static_cast<int64_t>(a.size()) - 1;
  for (Value& x : b) x = last < 0 || uniform(rng, 0, 1) ? text(x) : a[static_cast<size_t>(uniform(rng, 0, last))];
}

TEST(ListTransformProperties, TransitionReachesTheNewArrayInBothComparisonModes) {
  Rng rng(kSeed + 1);
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 1) + " case " + std::to_string(c));
    Array a = randomArray(rng, static_cast<size_t>(uniform(rng, 0, 12)), uniform(rng, 1, 8));
    Array b = c % 3 == 0 ? randomArray(rng, static_cast<size_t>(uniform(rng, 0, 12)), uniform(rng, 1, 8))
                         : applyStepByStep(a, *randomTransform(rng, a));
    if (c % 4 == 3) makeStrings(rng, a, b, 4);
    for (auto mode : {UGListTransformObjectComparisonIdentity, UGListTransformObjectComparisonEquality}) {
      auto t = transformForTransitioningFromArrayToArrayObjectComparison(a, b, mode);
      ASSERT_TRUE(isCanonical(*t));
      const Array reached = arrayByApplyingTransform(a, *t);
      ASSERT_EQ(reached, b) << t->description();
      for (size_t i = 0; mode == 0 && i < b.size(); ++i) ASSERT_TRUE(reached[i].isIdenticalTo(b[i])) << i;
      ASSERT_TRUE(t->isEqualToTestChanges(literalTransition(a, b, mode)->testChanges())) << t->description();
    }
  }
}

// Replays the single steps on a copy of the old array; an index that is not
// valid when its step is made throws. Insertion steps take the object of the
// insertion item at that final index.
Array replayLinearized(Array array, const UGListTransform& t, bool withMoves) {
  auto at = [&array](int64_t index, int64_t slack) {
    if (index < 0 || index >= static_cast<int64_t>(array.size()) + slack)
      throw std::out_of_range(std::to_string(index));
    return array.begin() + index;
  };
  auto remove = [&](int64_t index) { array.erase(at(index, 0)); };
  auto insert = [&](int64_t index) {
    Value object("missing insertion");
    for (const auto& item : t.insertions())
      if (item->index() == index) object = item->object().value_or(Value::null());
    array.insert(at(index, 1), object);
  };
  auto move = [&](int64_t from, int64_t to) {
    Value v = *at(from, 0);
    array.erase(at(from, 0));
    array.insert(at(to, 1), v);
  };
  withMoves ? t.enumerateTransformAsLinearizedDeletionsMovesInsertions(remove, move, insert)
            : t.enumerateTransformAsLinearizedDeletionsInsertions(remove, insert);
  return array;
}

TEST(ListTransformProperties, FastLinearizationEmitsTheStepsOfThePlainWalk) {
  Rng rng(kSeed + 4);
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 4) + " case " + std::to_string(c));
    std::vector<TWArrayOperationLinearizer::Change> changes;
    const int64_t n = uniform(rng, 0, 30);
    // Distinct sources (as in any list transform), arbitrary targets, some
    // inserts with repeated targets, and now and then an invalid operation.
    for (int64_t from : distinctSorted(rng, 40, n))
      changes.push_back({from, uniform(rng, 0, 3) == 0 ? -1 : uniform(rng, 0, 40)});
    for (int64_t k = uniform(rng, 0, 6); k > 0; --k) changes.push_back({-1, uniform(rng, 0, 40)});
    if (c % 10 == 0) changes.push_back({-1, -1});
    std::shuffle(changes.begin(), changes.end(), rng);
    const auto fast = TWArrayOperationLinearizer::linearize(changes);
    const auto plain = TWArrayOperationLinearizer::linearizeLiterally(changes);
    ASSERT_TRUE(std::equal(fast.begin(), fast.end(), plain.begin(), plain.end(), [](const auto& x, const auto& y) {
      return x.fromIndex == y.fromIndex && x.toIndex == y.toIndex;
    }));
  }
}

TEST(ListTransformProperties, TransformsAgreeWithTheStepByStepModel) {
  Rng rng(kSeed);
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + " case " + std::to_string(c));
    // Distinct elements, so that a move to the wrong place shows.
    Array a;
    for (int64_t i = 0, n = uniform(rng, 0, 14); i < n; ++i) a.push_back(Value(i));
    auto t = randomTransform(rng, a);
    Array middle = applyStepByStep(a, *t);
    auto second = randomTransform(rng, middle);
    Array expected = applyStepByStep(middle, *second);

    for (bool withMoves : {true, false}) {
      Array replayed;
      ASSERT_NO_THROW(replayed = replayLinearized(a, *t, withMoves)) << t->description();
      ASSERT_EQ(describeArray(replayed), describeArray(middle)) << t->description();
    }
    // transformIndex finds each element where the model puts it, and reports a deleted one.
    IndexSet some, expectedSet;
    for (int64_t i = 0; i < static_cast<int64_t>(a.size()); ++i) {
      const Value& element = a[static_cast<size_t>(i)];
      const auto found = std::find(middle.begin(), middle.end(), element);
      const int64_t to = found == middle.end() ? NotFound : found - middle.begin();
      std::optional<Value> deleted;
      ASSERT_EQ(t->transformIndexDeletedObject(i, &deleted), to) << i << "\n" << t->description();
      ASSERT_EQ(t->transformIndex(i), to);
      ASSERT_EQ(deleted, to == NotFound ? std::optional(element) : std::nullopt);
      if (uniform(rng, 0, 1) == 1) {
        some.addIndex(i);
        if (to != NotFound) expectedSet.addIndex(to);
      }
    }
    ASSERT_EQ(indexSetByApplyingTransform(some, *t), expectedSet) << some.description();
    ASSERT_EQ(t->transformIndex(NotFound), NotFound);

    auto appended = t->transformByAppendingTransform(*second);
    ASSERT_TRUE(isCanonical(*appended));
    ASSERT_EQ(describeArray(arrayByApplyingTransform(a, *appended)), describeArray(expected))
        << t->description() << second->description() << appended->description();
    auto prepended = second->mutableCopy();
    prepended->prependTransform(*t);
    ASSERT_TRUE(isCanonical(*prepended));
    ASSERT_EQ(describeArray(arrayByApplyingTransform(a, *prepended)), describeArray(expected));
    // The arguments are left alone, and the inverse, with its objects, undoes the transform.
    ASSERT_EQ(arrayByApplyingTransform(a, *t), middle);
    ASSERT_EQ(arrayByApplyingTransform(middle, *second), expected);
    ASSERT_EQ(arrayByApplyingTransform(middle, *t->inverseTransform()), a) << t->description();
    ASSERT_EQ(t->cardinalityChange(), static_cast<int64_t>(middle.size()) - static_cast<int64_t>(a.size()));

    auto copy = t->mutableCopy();
    ASSERT_EQ(copy->description(), t->description());
    ASSERT_TRUE(isCanonical(*copy));
    for (size_t i = 0; i < copy->deletions().size(); ++i) ASSERT_NE(copy->deletions()[i], t->deletions()[i]);
    ASSERT_TRUE(copy->isEqualToTestChanges(t->testChanges()));
    ASSERT_EQ(UGListTransform::transformWithTestChanges(t->testChanges())->description(), t->description());
    auto recorded = UGMutableListTransform::transform();
    recorded->recordChangesFromTransform(*t);
    ASSERT_EQ(recorded->description(), t->description());
    // Normalizing moves agrees with the plain walk.
    auto normalized = t->mutableCopy(), walked = t->mutableCopy();
    normalized->normalizeMoves();
    literalNormalizeMoves(*walked);
    ASSERT_EQ(normalized->description(), walked->description()) << t->description();
    ASSERT_TRUE(isCanonical(*normalized));
    ASSERT_EQ(arrayByApplyingTransform(a, *normalized), middle);

    int64_t location = uniform(rng, 0, 8), length = uniform(rng, 0, 8);
    for (const auto& derived :
         {t->transformByLimitingToRange({location, length}), t->movesTransform(), t->transformByDecomposingMoves(),
          t->deletionsTransformIncludingDecomposedMoves(c % 2 == 0),
          t->insertionsTransformIncludingDecomposedMoves(c % 2 == 1), t->transformByDetectingMoves(),
          t->inverseTransform()}) {
      ASSERT_TRUE(isCanonical(*derived));
    }
    // Decomposed moves reach the same array, and with distinct elements detecting moves finds them all again.
    ASSERT_EQ(arrayByApplyingTransform(a, *t->transformByDecomposingMoves()), middle);
    ASSERT_EQ(t->transformByDecomposingMoves()->transformByDetectingMoves()->description(), t->description());
  }
}

size_t moveCount(const UGListTransform& t) {
  return static_cast<size_t>(std::count_if(t.deletions().begin(), t.deletions().end(),
                                           [](const auto& item) { return item->hasMoveLink(); }));
}

// The fewest moves of any transform that takes old element i to new position
// j for every matched pair (i, j), deletes the other old elements and inserts
// the other new positions: every choice of pairs that stay is applied to the
// old positions themselves, so an element landing in the wrong place shows.
size_t bruteForceFewestMoves(size_t n, size_t m, const std::vector<std::pair<int64_t, int64_t>>& pairs) {
  Array positions, expected(m);  // plain insertions stay null when the objects are ignored
  for (size_t i = 0; i < n; ++i) positions.push_back(Value(static_cast<int64_t>(i)));
  for (auto [i, j] : pairs) expected[static_cast<size_t>(j)] = Value(i);
  size_t fewest = pairs.size();
  for (uint32_t staying = 0; staying < (1U << pairs.size()); ++staying) {
    auto t = UGMutableListTransform::transform();
    for (size_t i = 0; i < n; ++i) t->recordDeletedObjectFromIndex(std::nullopt, static_cast<int64_t>(i));
    for (size_t j = 0; j < m; ++j) t->recordInsertedObjectAtIndex(std::nullopt, static_cast<int64_t>(j));
    for (size_t k = 0; k < pairs.size(); ++k) {
      const int64_t i = pairs[k].first, j = pairs[k].second;
      auto& deletions = t->mutableDeletions();
      auto& insertions = t->mutableInsertions();
      auto d = std::find_if(deletions.begin(), deletions.end(), [&](const auto& x) { return x->index() == i; });
      auto in = std::find_if(insertions.begin(), insertions.end(), [&](const auto& x) { return x->index() == j; });
      if (staying >> k & 1U) {
        deletions.erase(d), insertions.erase(in);
      } else {
        (*d)->establishMoveLinkToItem(in->get());
      }
    }
    if (arrayByApplyingTransformIgnoringObjectsInTransform(positions, *t, true) == expected)
      fewest = std::min(fewest, pairs.size() - static_cast<size_t>(std::popcount(staying)));
  }
  return fewest;
}

TEST(ListTransformProperties, FewestMovesTransitionKeepsTheDeletionsAndInsertionsAndMovesLeast) {
  Rng rng(kSeed + 5);
  for (int c = 0; c < kCases / 2; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 5) + " case " + std::to_string(c));
    const int64_t maxSize = c % 3 == 0 ? 8 : 40;  // small enough for the brute force every third case
    Array a = randomArray(rng, static_cast<size_t>(uniform(rng, 0, maxSize)), uniform(rng, 1, 12));
    Array b = c % 2 == 0 ? randomArray(rng, static_cast<size_t>(uniform(rng, 0, maxSize)), uniform(rng, 1, 12))
                         : applyStepByStep(a, *randomTransform(rng, a));
    if (c % 4 == 3) makeStrings(rng, a, b, 5);
    for (auto mode : {UGListTransformObjectComparisonIdentity, UGListTransformObjectComparisonEquality}) {
      auto t = transformWithFewestMovesForTransitioningFromArrayToArrayObjectComparison(a, b, mode);
      auto plain = transformForTransitioningFromArrayToArrayObjectComparison(a, b, mode);
      ASSERT_TRUE(isCanonical(*t));
      const Array reached = arrayByApplyingTransform(a, *t);
      ASSERT_EQ(reached, b) << t->description();
      for (size_t i = 0; mode == 0 && i < b.size(); ++i) ASSERT_TRUE(reached[i].isIdenticalTo(b[i])) << i;
      for (bool withMoves : {true, false}) ASSERT_EQ(replayLinearized(a, *t, withMoves), b) << t->description();
      ASSERT_EQ(t->deletionIndexesIncludingDecomposedMoveIndexes(false),
                plain->deletionIndexesIncludingDecomposedMoveIndexes(false));
      ASSERT_EQ(t->insertionIndexesIncludingDecomposedMoveIndexes(false),
                plain->insertionIndexesIncludingDecomposedMoveIndexes(false));
      ASSERT_LE(moveCount(*t), moveCount(*plain));
      if (maxSize > 8) continue;
      const auto pairs = matching(a, b, mode);
      for (const auto& d : t->deletions())
        ASSERT_TRUE(!d->hasMoveLink() || std::count(pairs.begin(), pairs.end(),
                                                    std::pair(d->index(), d->moveLinkItem()->index())) == 1);
      ASSERT_EQ(moveCount(*t), bruteForceFewestMoves(a.size(), b.size(), pairs)) << t->description();
    }
  }
}

TEST(ListTransformProperties, FewestMovesWorkedCases) {
  // The last of 1,000 to the front: one move, where the transition moves the other 999.
  Array from, to;
  for (int64_t i = 0; i < 1000; ++i) from.push_back(Value(i));
  to.push_back(from.back());
  to.insert(to.end(), from.begin(), from.end() - 1);
  constexpr auto equality = UGListTransformObjectComparisonEquality;
  auto t = transformWithFewestMovesForTransitioningFromArrayToArrayObjectComparison(from, to, equality);
  ASSERT_EQ(moveCount(*t), 1U);
  EXPECT_EQ(t->deletions()[0]->index(), 999);
  EXPECT_EQ(moveCount(*transformForTransitioningFromArrayToArrayObjectComparison(from, to, equality)), 999U);
  EXPECT_TRUE(transformWithFewestMovesForTransitioningFromArrayToArrayObjectComparison(from, from, equality)->isIdentity());

  // Equal elements are matched in order, so a repeated element can cost a
  // move that another matching saves: [p a s a] to [a p a s] takes two moves
  // here, while moving the second "a" to the front alone reaches it too.
  const Array before{"p", "a", "s", "a"}, after{"a", "p", "a", "s"};
  EXPECT_EQ(moveCount(*transformWithFewestMovesForTransitioningFromArrayToArrayObjectComparison(before, after, equality)),
            2U);
  auto single = UGMutableListTransform::transform();
  single->recordMovedObjectFromIndexToIndex(Value("a"), 3, 0);
  EXPECT_EQ(arrayByApplyingTransformIgnoringObjectsInTransform(before, *single, true), after);
}

}  // namespace
}  // namespace loomwork::testing
