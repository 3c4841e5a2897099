// Random arrays and random valid batch transforms for the property tests, and
// the plain step-by-step model the library's results are checked against.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>

#include "loomwork/listtransform.h"

namespace loomwork::testing {

// A seeded generator; tests print the seed with SCOPED_TRACE.
using Rng = std::mt19937_64;

inline int64_t uniform(Rng& rng, int64_t lo, int64_t hi) {  // [lo, hi]
  return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
}

// An array of n integers from a small alphabet, so that elements repeat.
inline Array randomArray(Rng& rng, size_t n, int64_t alphabet = 6) {
  Array a;
  for (size_t i = 0; i < n; ++i) a.push_back(Value(uniform(rng, 0, alphabet - 1)));
  return a;
}

// k distinct values drawn from [0, n), ascending.
inline std::vector<int64_t> distinctSorted(Rng& rng, int64_t n, int64_t k) {
  std::vector<int64_t> all(static_cast<size_t>(n));
  std::iota(all.begin(), all.end(), 0);
  std::shuffle(all.begin(), all.end(), rng);
  all.resize(static_cast<size_t>(std::min(k, n)));
  std::sort(all.begin(), all.end());
  return all;
}

// A valid batch transform for an array: plain deletions and moves at distinct
// old positions, plain insertions and move targets at distinct new positions.
// Deletions and moves carry the element they take away; insertions carry new
// values (from 100 up, so they stand out).
inline Ref<UGMutableListTransform> randomTransform(Rng& rng, const Array& array) {
  const auto n = static_cast<int64_t>(array.size());
  const int64_t removedCount = uniform(rng, 0, n);
  std::vector<int64_t> removed = distinctSorted(rng, n, removedCount);
  std::shuffle(removed.begin(), removed.end(), rng);
  const int64_t moveCount = uniform(rng, 0, static_cast<int64_t>(removed.size()));
  std::vector<int64_t> moves(removed.begin(), removed.begin() + moveCount);
  std::vector<int64_t> deletions(removed.begin() + moveCount, removed.end());
  const int64_t insertionCount = uniform(rng, 0, 4);
  const int64_t finalCount = n - static_cast<int64_t>(deletions.size()) + insertionCount;
  std::vector<int64_t> targets = distinctSorted(rng, finalCount, moveCount + insertionCount);
  std::shuffle(targets.begin(), targets.end(), rng);

  auto t = UGMutableListTransform::transform();
  for (int64_t d : deletions) EXPECT_TRUE(t->recordDeletedObjectFromIndex(array[static_cast<size_t>(d)], d));
  for (size_t k = 0; k < moves.size(); ++k) {
    EXPECT_TRUE(t->recordMovedObjectFromIndexToIndex(array[static_cast<size_t>(moves[k])], moves[k], targets[k]));
  }
  for (size_t k = moves.size(); k < targets.size(); ++k) {
    EXPECT_TRUE(t->recordInsertedObjectAtIndex(Value(100 + uniform(rng, 0, 5)), targets[k]));
  }
  return t;
}

// The model of application: remove at every deletion index from the highest
// down, then insert every insertion's object from the lowest index up.
inline Array applyStepByStep(Array array, const UGListTransform& t) {
  for (auto it = t.deletions().rbegin(); it != t.deletions().rend(); ++it) {
    array.erase(array.begin() + (*it)->index());
  }
  for (const auto& item : t.insertions()) {
    array.insert(array.begin() + item->index(), item->object().value_or(Value::null()));
  }
  return array;
}

// Checks the canonical form: both arrays strictly ascending, links mutual and
// between a deletion and an insertion of this transform.
inline ::testing::AssertionResult isCanonical(const UGListTransform& t) {
  for (const auto* items : {&t.deletions(), &t.insertions()}) {
    const auto& partners = items == &t.deletions() ? t.insertions() : t.deletions();
    for (size_t i = 0; i < items->size(); ++i) {
      const UGListTransformItem& item = *(*items)[i];
      if (i > 0 && (*items)[i - 1]->index() >= item.index())
        return ::testing::AssertionFailure() << "not strictly ascending:\n" << t.description();
      const UGListTransformItem* partner = item.moveLinkItem();
      auto isPartner = [&](const Ref<UGListTransformItem>& p) { return p.get() == partner; };
      if (partner && (partner->moveLinkItem() != &item || std::none_of(partners.begin(), partners.end(), isPartner)))
        return ::testing::AssertionFailure() << "broken move link at " << item.index() << ":\n" << t.description();
    }
  }
  return ::testing::AssertionSuccess();
}

inline std::string describeArray(const Array& a) { return Value(a).description(); }

}  // namespace loomwork::testing
