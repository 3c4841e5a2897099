// Applying list transforms to arrays and index sets, and the transform
// between two arrays.
#pragma once

#include <vector>

#include "loomwork/listtransform/UGListTransform.h"
#include "loomwork/platform/IndexSet.h"
#include "loomwork/platform/SortDescriptor.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// How transformForTransitioningFromArrayToArrayObjectComparison() matches
// elements of the two arrays. Other values count as equality.
enum UGListTransformObjectComparison : int {
  UGListTransformObjectComparisonIdentity = 0,  // the same string, container or object
  UGListTransformObjectComparisonEquality = 1,  // equal values
};

// Applies a transform to an array in place: removes the element at every
// deletion index, from the highest down, then inserts each insertion's object
// (the null value when it has none) from the lowest index up. When ignoring
// the objects in the transform, a move's insertion puts the element that stood
// at its deletion index and a plain insertion puts the null value as a
// placeholder. An index beyond the array throws Exception (out of range) and
// leaves the array as it was. Linear in the array and the transform.
void applyTransform(Array& array, const UGListTransform& transform);
void applyTransformIgnoringObjectsInTransform(Array& array, const UGListTransform& transform, bool ignoringObjects);
Array arrayByApplyingTransform(const Array& array, const UGListTransform& transform);
Array arrayByApplyingTransformIgnoringObjectsInTransform(const Array& array, const UGListTransform& transform,
                                                         bool ignoringObjects);

// Maps every member through transformIndex() and drops the deleted ones.
// An identity transform leaves the set alone.
void applyTransform(IndexSet& indexes, const UGListTransform& transform);
IndexSet indexSetByApplyingTransform(const IndexSet& indexes, const UGListTransform& transform);

// Sorts the array (stably) by the descriptors; when resultingTransform is given,
// stores there the transform from the unsorted to the sorted array.
void sortUsingDescriptorsResultingTransform(Array& array, const std::vector<SortDescriptor>& descriptors,
                                            Ref<UGMutableListTransform>* resultingTransform);

// The transform that turns `from` into `to`: each element of `from` is matched
// with the lowest unmatched position of an equal (or identical) element in
// `to` and recorded as a move, the rest of `from` as deletions and the rest of
// `to` as insertions; then moves whose element keeps its place among the
// surviving elements are dropped (UGMutableListTransform::normalizeMoves).
// Unchanged arrays give an empty UGListTransform, anything else a
// UGMutableListTransform. Expected O(n) with hashing.
//
// It does not minimise the moves: a matched element stays only when no element
// after it that stays has a lower target, so moving the last of 1,000 elements
// to the front reports the other 999 as moves. For the fewest moves use
// transformWithFewestMovesForTransitioningFromArrayToArrayObjectComparison().
Ref<UGListTransform> transformForTransitioningFromArrayToArrayObjectComparison(const Array& from, const Array& to,
                                                                               UGListTransformObjectComparison objectComparison);

// The same deletions and insertions as the transition above, with the fewest
// moves for its matching: of the matched elements, one longest run whose new
// positions increase with their old ones stays in place and every other one is
// a move (moving the last of 1,000 elements to the front is one move). Equal
// elements are matched in order, as above; with repeated elements another
// matching can need fewer moves ([p a s a] to [a p a s] is two moves here, one
// when the second "a" goes first). O(n log n) for the moves after the expected
// O(n) matching. Unchanged arrays give an empty UGListTransform, anything else
// a UGMutableListTransform.
Ref<UGListTransform> transformWithFewestMovesForTransitioningFromArrayToArrayObjectComparison(
    const Array& from, const Array& to, UGListTransformObjectComparison objectComparison);

}  // namespace loomwork
#pragma GCC visibility pop
