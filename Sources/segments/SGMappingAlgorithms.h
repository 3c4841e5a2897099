// The index-mapping work of the filter and sorting segments, on plain vectors,
// so that the segments stay small and the tests can hold the fast forms
// against straightforward ones on random input.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "loomwork/listtransform/UGListTransform.h"
#include "loomwork/platform/SortDescriptor.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"

namespace loomwork::sgdetail {

using Mapping = std::vector<int64_t>;
using KeepBlock = std::function<bool(int64_t innerIndex)>;
using RepresentedBlock = std::function<std::optional<Value>(int64_t innerIndex)>;

// transformIndexDeletedObject() for every index of [0, count), built in one
// walk over the transform; other indexes are asked of the transform itself.
class TransformIndexTable {
 public:
  TransformIndexTable(const UGListTransform& transform, int64_t count);
  int64_t map(int64_t index, std::optional<Value>* deletedObject = nullptr) const;

 private:
  const UGListTransform& transform_;
  std::vector<int64_t> target_;
  // For a deleted index, its deletion item (for the deleted object).
  std::vector<const UGListTransformItem*> deletion_;
};

// The largest value of the mapping plus one (0 for an empty mapping), or -1
// when a value is negative or so large that a table over [0, max] is waste.
int64_t denseBound(const Mapping& mapping, size_t slack);

// The same transform as transformForTransitioningFromArrayToArrayObjectComparison
// over the integers as values with equality, without making the values.
Ref<UGListTransform> transitionBetweenMappings(const Mapping& from, const Mapping& to);

// The filter's exit-hook step for an inner change: moves the mapping through
// `inner`, appends the inserted inner indexes that pass `keep` (none: all),
// sorts the mapping, and returns deletions, then insertions at the end, then a
// move of every position to its sorted place, composed in that order.
Ref<UGMutableListTransform> filterFollowInnerTransform(Mapping& mapping, const UGListTransform& inner,
                                                       const KeepBlock& keep, const RepresentedBlock& represented);
// The same, made step by step with the transform operations themselves.
Ref<UGMutableListTransform> filterFollowInnerTransformLiterally(Mapping& mapping, const UGListTransform& inner,
                                                                const KeepBlock& keep,
                                                                const RepresentedBlock& represented);

// The group's exit-hook step for a child whose place did not change: appends
// copies of `items` to `deletions` and `insertions` with the offsets added,
// linking the copies of every move again (a recorded move carries its deletion
// half's object in both halves), which is what recording the offset changes
// one by one gives while every index comes after the last one there. False,
// with the arrays left partly filled, when one would not or a move half's
// partner is not among the other array's items.
bool appendShiftedChanges(const UGListTransform& items, int64_t deletionOffset, int64_t insertionOffset,
                          UGListTransformItemArray& deletions, UGListTransformItemArray& insertions);

// The filter's full recompute: the mapping of every inner index that passes
// `keep`, and the difference from the old mapping as deletions at old
// positions and insertions at new ones, compared by inner index only.
Ref<UGMutableListTransform> filterDifference(const Mapping& from, const Mapping& to);

// The sorting segment's exit-hook step for an inner change: moves the mapping
// through `inner`, drops deleted entries, appends inserted inner indexes, and
// returns the deletions and insertions (no objects). Sets `inserted` when
// anything was appended; `survivingPositions` receives the old positions of
// the entries kept, in order.
Ref<UGMutableListTransform> sortingFollowInnerTransform(Mapping& mapping, const UGListTransform& inner, bool& inserted,
                                                        std::vector<int64_t>& survivingPositions);

// The order of inner items under sort descriptors, with the sort keys read
// once per item and kept beside the mapping, position by position. The
// stable sort that the sorting segment stands for puts an item before
// another exactly when its keys compare lower or, the keys being the same,
// its inner index is lower; this keeps that order and re-reads only what it
// must.
class SortKeyCache {
 public:
  void setDescriptors(const std::vector<SortDescriptor>* descriptors);
  // Forgets every key (the descriptors or the inner segment changed).
  void clear();
  // Follows the mapping's edits of sortingFollowInnerTransform: keeps the
  // keys of the surviving positions (given in order) and adds unknown keys
  // for `appended` new positions.
  void keepPositions(const std::vector<int64_t>& survivingPositions, size_t appended);

  // The sorted permutation of the inner indexes 0 ..< objects.size() for the
  // current keys of `objects` (the inner represented objects by inner index),
  // starting from `mapping` (the current order). The keys are read for every
  // object; only objects whose keys differ from the kept ones, and new ones,
  // are placed again when the rest is still in order. Leaves the kept keys
  // aligned with the result.
  Mapping sortedMapping(const Mapping& mapping, const Array& objects);

 private:
  int compareKeys(const Value* a, int64_t ia, const Value* b, int64_t ib) const;
  void readKeys(const Value& object, Value* out) const;

  const std::vector<SortDescriptor>* descriptors_ = nullptr;
  size_t width_ = 0;
  std::vector<Value> keys_;     // width_ keys per position of the mapping
  std::vector<uint8_t> known_;  // per position: keys_ holds its keys
};

// The stable sort of the inner indexes by the descriptors, done as the
// sorting segment's documented recompute does it: sorting the objects with
// their resulting transform and applying that to 0, 1, ...
Mapping sortedMappingLiterally(const Array& objects, const std::vector<SortDescriptor>& descriptors);

}  // namespace loomwork::sgdetail
