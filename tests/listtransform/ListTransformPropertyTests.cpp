// Seeded randomized checks of the list-transform algebra against the plain
// step-by-step model.
#include <gtest/gtest.h>

#include "RandomTransforms.h"

namespace loomwork::testing {
namespace {

constexpr uint64_t kSeed = 20261122;
constexpr int kCases = 3000;

TEST(ListTransformProperties, CompositionAgreesWithApplyingOneAfterTheOther) {
  Rng rng(kSeed);
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + " case " + std::to_string(c));
    Array a = randomArray(rng, static_cast<size_t>(uniform(rng, 0, 10)));
    auto first = randomTransform(rng, a);
    Array middle = applyStepByStep(a, *first);
    auto second = randomTransform(rng, middle);
    Array expected = applyStepByStep(middle, *second);

    auto appended = first->transformByAppendingTransform(*second);
    ASSERT_TRUE(isCanonical(*appended));
    ASSERT_EQ(describeArray(arrayByApplyingTransform(a, *appended)), describeArray(expected))
        << first->description() << second->description() << appended->description();

    auto prepended = second->mutableCopy();
    prepended->prependTransform(*first);
    ASSERT_TRUE(isCanonical(*prepended));
    ASSERT_EQ(describeArray(arrayByApplyingTransform(a, *prepended)), describeArray(expected));

    // The arguments are left alone, and the inverse, with its objects, undoes the transform.
    ASSERT_EQ(arrayByApplyingTransform(a, *first), middle);
    ASSERT_EQ(arrayByApplyingTransform(middle, *second), expected);
    ASSERT_EQ(arrayByApplyingTransform(middle, *first->inverseTransform()), a) << first->description();
  }
}

std::string withoutClassName(const UGListTransform& t) {
  std::string text = t.description();
  return text.substr(text.find(" with "));
}

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
  for (size_t p = 0; p < drop.size(); ++p) {
    if (!drop[p]) kept.push_back(t.deletions()[p]);
  }
  t.mutableDeletions() = kept;
  t.mutableInsertions() = working;
}

// The transition recorded change by change: each old element moves to the
// lowest unclaimed matching position of the new array or is deleted, the
// positions left over are insertions, then needless moves are dropped.
Ref<UGListTransform> literalTransition(const Array& from, const Array& to, int mode) {
  auto matches = [mode](const Value& x, const Value& y) { return mode == 0 ? x.isIdenticalTo(y) : x == y; };
  auto t = UGMutableListTransform::transform();
  std::vector<bool> claimed(to.size(), false);
  for (size_t i = 0; i < from.size(); ++i) {
    size_t j = 0;
    while (j < to.size() && (claimed[j] || !matches(from[i], to[j]))) ++j;
    if (j < to.size()) {
      claimed[j] = true;
      t->recordMovedObjectFromIndexToIndex(from[i], static_cast<int64_t>(i), static_cast<int64_t>(j));
    } else {
      t->recordDeletedObjectFromIndex(from[i], static_cast<int64_t>(i));
    }
  }
  for (size_t j = 0; j < to.size(); ++j) {
    if (!claimed[j]) t->recordInsertedObjectAtIndex(to[j], static_cast<int64_t>(j));
  }
  literalNormalizeMoves(*t);
  return t;
}

TEST(ListTransformProperties, TransitionReachesTheNewArrayInBothComparisonModes) {
  Rng rng(kSeed + 1);
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 1) + " case " + std::to_string(c));
    Array a = randomArray(rng, static_cast<size_t>(uniform(rng, 0, 12)), uniform(rng, 1, 8));
    Array b = c % 3 == 0 ? randomArray(rng, static_cast<size_t>(uniform(rng, 0, 12)), uniform(rng, 1, 8))
                         : applyStepByStep(a, *randomTransform(rng, a));
    if (c % 4 == 3) {
      // Strings, b holding some of a's string objects and some new strings with equal texts.
      auto text = [](const Value& x) { return Value("s" + std::to_string(x.integerValue() % 4)); };
      for (Value& x : a) x = text(x);
      const auto last = static_cast<int64_t>(a.size()) - 1;
      for (Value& x : b) x = last < 0 || uniform(rng, 0, 1) ? text(x) : a[static_cast<size_t>(uniform(rng, 0, last))];
    }
    for (int mode : {0, 1}) {
      auto t = transformForTransitioningFromArrayToArrayObjectComparison(a, b, mode);
      ASSERT_TRUE(isCanonical(*t));
      const Array reached = arrayByApplyingTransform(a, *t);
      ASSERT_EQ(reached, b) << t->description();
      for (size_t i = 0; mode == 0 && i < b.size(); ++i) ASSERT_TRUE(reached[i].isIdenticalTo(b[i])) << i;
      ASSERT_EQ(arrayByApplyingTransformIgnoringObjectsInTransform(a, *t, false), b);
      ASSERT_EQ(withoutClassName(*t), withoutClassName(*literalTransition(a, b, mode)));
    }
  }
}

// Replays the single steps on a copy of the old array, checking each index
// when it is used. Insertion steps take the object of the insertion item at
// that final index.
Array replayLinearized(const Array& old, const UGListTransform& t, bool withMoves, std::string* failure) {
  Array array = old;
  auto valid = [&](int64_t index, int64_t slack, const char* step) {
    if (index >= 0 && index < static_cast<int64_t>(array.size()) + slack) return true;
    if (failure->empty()) *failure = step + std::to_string(index);
    return false;
  };
  auto remove = [&](int64_t index) {
    if (valid(index, 0, "removal at ")) array.erase(array.begin() + index);
  };
  auto insert = [&](int64_t index) {
    Value object("missing insertion");
    for (const auto& item : t.insertions())
      if (item->index() == index) object = item->object().value_or(Value::null());
    if (valid(index, 1, "insertion at ")) array.insert(array.begin() + index, object);
  };
  auto move = [&](int64_t from, int64_t to) {
    if (!valid(from, 0, "move from ") || !valid(to, 0, "move to ")) return;
    Value v = array[static_cast<size_t>(from)];
    array.erase(array.begin() + from);
    array.insert(array.begin() + to, v);
  };
  if (withMoves) {
    t.enumerateTransformAsLinearizedDeletionsMovesInsertions(remove, move, insert);
  } else {
    t.enumerateTransformAsLinearizedDeletionsInsertions(remove, insert);
  }
  return array;
}

TEST(ListTransformProperties, LinearizedStepsAndIndexMappingAgreeWithApplication) {
  Rng rng(kSeed + 3);
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 3) + " case " + std::to_string(c));
    // Distinct elements, so that a move to the wrong place shows.
    Array a;
    for (int64_t i = 0, n = uniform(rng, 0, 14); i < n; ++i) a.push_back(Value(i));
    auto t = randomTransform(rng, a);
    Array expected = applyStepByStep(a, *t);
    for (bool withMoves : {true, false}) {
      std::string failure;
      Array replayed = replayLinearized(a, *t, withMoves, &failure);
      ASSERT_EQ(failure, "") << t->description();
      ASSERT_EQ(describeArray(replayed), describeArray(expected)) << t->description();
    }

    // transformIndex agrees with where application puts each element.
    Array result = arrayByApplyingTransform(a, *t);
    IndexSet some, expectedSet;
    for (int64_t i = 0; i < static_cast<int64_t>(a.size()); ++i) {
      std::optional<Value> deleted;
      int64_t to = t->transformIndexDeletedObject(i, &deleted);
      ASSERT_EQ(t->transformIndex(i), to);
      if (to == NotFound) {
        ASSERT_TRUE(deleted.has_value());
        ASSERT_EQ(*deleted, a[static_cast<size_t>(i)]);
      } else {
        ASSERT_FALSE(deleted.has_value());
        ASSERT_LT(to, static_cast<int64_t>(result.size()));
        ASSERT_EQ(result[static_cast<size_t>(to)], a[static_cast<size_t>(i)]) << i << "\n" << t->description();
      }
      if (uniform(rng, 0, 1) == 1) {
        some.addIndex(i);
        if (to != NotFound) expectedSet.addIndex(to);
      }
    }
    ASSERT_EQ(indexSetByApplyingTransform(some, *t), expectedSet) << some.description();
    ASSERT_EQ(t->transformIndex(NotFound), NotFound);
  }
}

TEST(ListTransformProperties, FastLinearizationEmitsTheStepsOfThePlainWalk) {
  Rng rng(kSeed + 4);
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 4) + " case " + std::to_string(c));
    std::vector<TWArrayOperationLinearizer::Change> changes;
    const int64_t n = uniform(rng, 0, 30);
    // Distinct sources (as in any list transform), arbitrary targets, some
    // inserts with repeated targets, and now and then an invalid operation.
    for (int64_t from : distinctSorted(rng, 40, n)) {
      changes.push_back({from, uniform(rng, 0, 3) == 0 ? -1 : uniform(rng, 0, 40)});
    }
    for (int64_t k = uniform(rng, 0, 6); k > 0; --k) changes.push_back({-1, uniform(rng, 0, 40)});
    if (c % 10 == 0) changes.push_back({-1, -1});
    std::shuffle(changes.begin(), changes.end(), rng);
    auto fast = TWArrayOperationLinearizer::linearize(changes);
    auto plain = TWArrayOperationLinearizer::linearizeLiterally(changes);
    ASSERT_EQ(fast.size(), plain.size());
    for (size_t i = 0; i < fast.size(); ++i) {
      ASSERT_EQ(fast[i].fromIndex, plain[i].fromIndex) << "step " << i;
      ASSERT_EQ(fast[i].toIndex, plain[i].toIndex) << "step " << i;
    }
  }
}

TEST(ListTransformProperties, CopiesNormalizationAndDerivedTransformsMatchTheirModels) {
  Rng rng(kSeed + 6);
  for (int c = 0; c < kCases; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 6) + " case " + std::to_string(c));
    Array a = randomArray(rng, static_cast<size_t>(uniform(rng, 0, 12)));
    auto t = randomTransform(rng, a);
    auto copy = t->mutableCopy();
    ASSERT_EQ(copy->description(), t->description());
    ASSERT_TRUE(isCanonical(*copy));
    for (size_t i = 0; i < copy->deletions().size(); ++i) ASSERT_NE(copy->deletions()[i], t->deletions()[i]);
    ASSERT_EQ(t->testChanges().size(), copy->testChanges().size());
    ASSERT_TRUE(copy->isEqualToTestChanges(t->testChanges()));
    // Normalizing moves agrees with the plain walk.
    auto normalized = t->mutableCopy(), walked = t->mutableCopy();
    normalized->normalizeMoves();
    literalNormalizeMoves(*walked);
    ASSERT_EQ(normalized->description(), walked->description()) << t->description();
    ASSERT_TRUE(isCanonical(*normalized));
    ASSERT_EQ(arrayByApplyingTransform(a, *normalized), arrayByApplyingTransform(a, *t));

    auto rebuilt = UGListTransform::transformWithTestChanges(t->testChanges());
    ASSERT_EQ(rebuilt->description(), t->description());
    auto recorded = UGMutableListTransform::transform();
    recorded->recordChangesFromTransform(*t);
    ASSERT_EQ(recorded->description(), t->description());

    int64_t location = uniform(rng, 0, 8), length = uniform(rng, 0, 8);
    for (const auto& derived :
         {t->transformByLimitingToRange({location, length}), t->movesTransform(), t->transformByDecomposingMoves(),
          t->deletionsTransformIncludingDecomposedMoves(c % 2 == 0),
          t->insertionsTransformIncludingDecomposedMoves(c % 2 == 1), t->transformByDetectingMoves(),
          t->inverseTransform()}) {
      ASSERT_TRUE(isCanonical(*derived));
    }
    // Decomposed moves still reach the same array; detected moves too.
    ASSERT_EQ(arrayByApplyingTransform(a, *t->transformByDecomposingMoves()), arrayByApplyingTransform(a, *t));
    ASSERT_EQ(arrayByApplyingTransform(a, *t->transformByDecomposingMoves()->transformByDetectingMoves()),
              arrayByApplyingTransform(a, *t));
    ASSERT_EQ(t->cardinalityChange(),
              static_cast<int64_t>(arrayByApplyingTransform(a, *t).size()) - static_cast<int64_t>(a.size()));
  }
}

}  // namespace
}  // namespace loomwork::testing
