// SGSortingSegment: the items of one inner segment, ordered by sort
// descriptors applied to their represented objects.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "loomwork/platform/IndexSet.h"
#include "loomwork/platform/SortDescriptor.h"
#include "loomwork/segments/SGInnerSegmentContainer.h"

#pragma GCC visibility push(default)
namespace loomwork {

namespace sgdetail {
class SortKeyCache;
}

// Shows all of the inner segment's items in the order of the sort
// descriptors (a stable sort: items that compare the same keep their inner
// order), keeping for each shown position the inner index shown there
// (`mappingToInnerIndexes`, a permutation of the inner indexes after a sort).
//
// In its exit hook the segment follows the inner segment's published "items"
// change: deleted items go and inserted items are appended at the end, which
// it publishes as deletions and insertions. Then it sorts again, publishing
// the difference into the same pass: always after insertions; otherwise when
// shouldSortBlock says so, or on every pass when there is no shouldSortBlock.
// The sort reads every item's keys but places again only items whose keys
// changed, so a pass costs one read of the keys and linear work.
//
// A sorted segment accepts no drops. Changing the descriptors or the inner
// segment sorts and publishes at once. Used on the thread that processes
// notifications.
class SGSortingSegment : public SGInnerSegmentContainer {
 public:
  // Whether a notification without inner insertions calls for a sort.
  using ShouldSortBlock = std::function<bool(NPWNotification& notification)>;

  SGSortingSegment();
  explicit SGSortingSegment(std::string debugName);
  ~SGSortingSegment() override;

  // Another segment: publishes the removal of every shown item, adopts the
  // new one and publishes its items, sorted. Nothing for the same segment.
  void setInnerSegment(Ref<SGSegment> segment);

  // The descriptors, or absent when none were set (then the inner order).
  const std::optional<std::vector<SortDescriptor>>& sortDescriptors() const { return sortDescriptors_; }
  // Stores a copy and sorts, publishing the difference; nothing when both
  // are absent or both hold the same descriptors (the same key paths and
  // directions, neither with a comparator: comparators cannot be compared).
  void setSortDescriptors(std::optional<std::vector<SortDescriptor>> descriptors);
  const ShouldSortBlock& shouldSortBlock() const { return shouldSortBlock_; }
  void setShouldSortBlock(ShouldSortBlock block) { shouldSortBlock_ = std::move(block); }

  // The inner index shown at each position.
  const std::vector<int64_t>& mappingToInnerIndexes() const { return mapping_; }

  // Sorts from scratch and publishes the difference unless it is the identity.
  void updateMappingAndNotify();

  int64_t itemCount() const override { return static_cast<int64_t>(mapping_.size()); }
  // The position showing the inner index, or NotFound. Constant time.
  int64_t transformIndexFromChildSegment(int64_t index, const SGSegment* child) const override;
  // The inner index at the position; the child is the inner segment even
  // when there is none. A position outside the mapping throws Exception
  // (out of range).
  int64_t transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;
  // NotFound: a sorted segment accepts no drops.
  int64_t transformDropIndexFromChildSegment(int64_t index, const SGSegment* child) const override;
  // NotFound, the child untouched.
  int64_t transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;

  // The positions of the inner segment's indexes for the object; empty
  // without an inner segment.
  std::optional<IndexSet> indexesForRepresentedObject(const Value& object) const override;
  void appendRepresentedObjectsToArray(Array& array) const override;
  // The position of each inner index of the set. An inner index not shown
  // adds NotFound, which an index set cannot hold, so it is left out.
  IndexSet indexSetByTransformingInnerSegmentIndexSet(const IndexSet& innerIndexes) const;

  void willExitNodeWithNotification(NPWNotification& notification) override;

 private:
  Ref<UGListTransform> _updateMapping();
  void mappingChanged() { positionsValid_ = false; }
  void buildPositions() const;

  std::optional<std::vector<SortDescriptor>> sortDescriptors_;
  ShouldSortBlock shouldSortBlock_;
  std::vector<int64_t> mapping_;
  std::unique_ptr<sgdetail::SortKeyCache> keys_;
  // The position of each inner index (first occurrence), built on demand;
  // when the mapping holds values too large for a table, lookups search it.
  mutable std::vector<int64_t> positions_;
  mutable bool positionsValid_ = false;
  mutable bool positionsDense_ = false;
};

// Holds one number; kept for hosts that box inner indexes themselves.
class SGSortingSegmentTemporaryWrapper : public Object {
 public:
  explicit SGSortingSegmentTemporaryWrapper(Value number) : number_(std::move(number)) {}
  static Ref<SGSortingSegmentTemporaryWrapper> wrapper(Value number) {
    return make<SGSortingSegmentTemporaryWrapper>(std::move(number));
  }
  const Value& number() const { return number_; }
  void setNumber(Value number) { number_ = std::move(number); }

 private:
  Value number_;
};

}  // namespace loomwork
#pragma GCC visibility pop
