// SGFilterSegment: the items of one inner segment that pass a test, in inner
// order.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "loomwork/additions/IntegerArray.h"
#include "loomwork/platform/IndexSet.h"
#include "loomwork/segments/SGInnerSegmentContainer.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Shows the inner segment's items for which filterBlock holds (all of them
// without a block), keeping for each shown position the inner index shown
// there (`mapping`, strictly ascending between passes).
//
// In its exit hook the filter follows the inner segment's published "items"
// change: deleted items go, inserted items are tested and appended, and the
// mapping is sorted again. Its own "items" change then holds the deletions,
// the insertions and a move of every shown position (also of the positions
// that keep their place), and is published even when it changes nothing.
// Items that stay in the inner segment are not tested again; refilter() (or
// shouldRefilterOnNotificationBlock) tests them all and publishes the
// difference.
//
// Changing the block or the inner segment recomputes and publishes at once.
// Used on the thread that processes notifications.
class SGFilterSegment : public SGInnerSegmentContainer {
 public:
  // Whether the inner item at the index is shown.
  using FilterBlock = std::function<bool(SGSegment& innerSegment, int64_t innerIndex)>;
  // Whether the notification calls for a full refilter at the end of the exit hook.
  using ShouldRefilterOnNotificationBlock =
      std::function<bool(NPWNotification& notification, SGFilterSegment& filterSegment)>;

  SGFilterSegment();
  explicit SGFilterSegment(std::string debugName);
  ~SGFilterSegment() override;

  // Another segment: publishes the removal of every shown item, adopts the
  // new one and publishes its shown items. Nothing for the same segment.
  void setInnerSegment(Ref<SGSegment> segment);

  const FilterBlock& filterBlock() const { return filterBlock_; }
  // Refilters and publishes the difference. Setting no block while none is
  // set does nothing (callables have no identity to compare otherwise).
  void setFilterBlock(FilterBlock block);
  const ShouldRefilterOnNotificationBlock& shouldRefilterOnNotificationBlock() const {
    return shouldRefilterOnNotificationBlock_;
  }
  void setShouldRefilterOnNotificationBlock(ShouldRefilterOnNotificationBlock block) {
    shouldRefilterOnNotificationBlock_ = std::move(block);
  }

  // The inner index of each shown position, ascending.
  Ref<const LWMutableIntegerArray> mapping() const { return mapping_; }

  // Tests every inner item again and publishes the difference (updateMappingAndNotify).
  void refilter() { updateMappingAndNotify(); }
  // Recomputes the mapping from scratch and publishes the difference unless
  // it is the identity.
  void updateMappingAndNotify();

  int64_t itemCount() const override { return mapping_->count(); }
  // The position showing the inner index, or NotFound (also for an empty
  // mapping). The child is not looked at.
  int64_t transformIndexFromChildSegment(int64_t index, const SGSegment* child) const override;
  // The inner index at the position, the inner segment as child; NotFound
  // (child untouched) for an empty mapping. A position outside a non-empty
  // mapping throws Exception (out of range).
  int64_t transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;
  // The position where an inner drop index lands: its own position when
  // shown, after the last shown inner index below it, the count beyond all.
  // Below the first shown inner index it is the last shown inner index + 1,
  // not 0. 0 for an empty mapping; NotFound for NotFound.
  int64_t transformDropIndexFromChildSegment(int64_t index, const SGSegment* child) const override;
  // The inner index shown at the drop position, or the last shown one + 1 at
  // the count; 0 for an empty mapping; NotFound (child empty) for NotFound.
  int64_t transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;

  // The inner segment's indexes for the object, mapped; unshown ones left out.
  std::optional<IndexSet> indexesForRepresentedObject(const Value& object) const override;
  void appendRepresentedObjectsToArray(Array& array) const override;
  // The positions whose inner index is in the set.
  IndexSet indexSetByTransformingInnerSegmentIndexSet(const IndexSet& innerIndexes) const;

  void willExitNodeWithNotification(NPWNotification& notification) override;

 private:
  Ref<UGListTransform> _updateMapping();

  FilterBlock filterBlock_;
  ShouldRefilterOnNotificationBlock shouldRefilterOnNotificationBlock_;
  Ref<LWMutableIntegerArray> mapping_;
};

}  // namespace loomwork
#pragma GCC visibility pop
