// SGToggleSegment: the items of one inner segment, or none, by a flag.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "loomwork/platform/IndexSet.h"
#include "loomwork/segments/SGInnerSegmentContainer.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Shows its inner segment's items while showsInnerSegment is true and nothing
// otherwise. Switching publishes the insertion or the deletion of every inner
// item; while shown, the inner segment's own changes are passed up as they
// are. A showsInnerSegmentBlock, when set, owns the flag: it decides on every
// pass that reaches the toggle and when the block or the inner segment is
// replaced, and setShowsInnerSegment() is then ignored.
//
// Outside a pass a switch publishes at once; between the toggle's entry and
// exit hooks it is left to the exit hook, which publishes the switch relative
// to the state at entry (hiding deletes the items as they were before the
// inner segment's change of the same pass). Replacing the inner segment
// publishes nothing by itself. Used on the thread that processes notifications.
class SGToggleSegment : public SGInnerSegmentContainer {
 public:
  // Whether to show, given the notification (absent outside a pass) and the
  // current flag.
  using ShowsInnerSegmentBlock = std::function<bool(NPWNotification* notification, bool currentlyShown)>;

  SGToggleSegment();
  explicit SGToggleSegment(std::string debugName);
  ~SGToggleSegment() override;

  void setInnerSegment(Ref<SGSegment> segment);

  bool showsInnerSegment() const { return showsInnerSegment_; }
  // Ignored while a showsInnerSegmentBlock is set.
  void setShowsInnerSegment(bool shows);
  const ShowsInnerSegmentBlock& showsInnerSegmentBlock() const { return showsInnerSegmentBlock_; }
  // Stores the block and re-decides (reevaluate). Setting no block while none
  // is set does nothing (callables have no identity to compare otherwise).
  void setShowsInnerSegmentBlock(ShowsInnerSegmentBlock block);
  // Asks the block (without a notification) when there is an inner segment
  // and a block, and switches to its answer.
  void reevaluate();

  bool processingNotification() const { return processingNotification_; }
  bool wasShowingInnerSegmentBeforeNotification() const { return wasShowingInnerSegmentBeforeNotification_; }

  // The inner segment's count while shown, else 0.
  int64_t itemCount() const override;
  // The index unchanged while shown, else NotFound.
  int64_t transformIndexFromChildSegment(int64_t index, const SGSegment* child) const override;
  // The index unchanged with the inner segment as child while shown; NotFound
  // (child untouched) while hidden.
  int64_t transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;
  // The drop forms map as the plain ones do.
  int64_t transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;

  // The inner segment's indexes while shown; none while hidden.
  std::optional<IndexSet> indexesForRepresentedObject(const Value& object) const override;
  // The inner segment's objects while shown.
  void appendRepresentedObjectsToArray(Array& array) const override;
  // Reaches the inner segment also while hidden.
  void didEnterNodeWithNotification(NPWNotification& notification) override;
  void willExitNodeWithNotification(NPWNotification& notification) override;

  // The switch transforms: every current inner item inserted; every inner
  // item deleted, as the items were before `innerTransform` when one is given.
  Ref<UGMutableListTransform> _transformForShowingItems() const;
  Ref<UGMutableListTransform> _transformForHidingItemsWithInnerTransform(const UGListTransform* innerTransform) const;
  void _setShowsInnerSegmentNotify(bool shows, bool notify);

 private:
  bool showsInnerSegment_ = true;
  ShowsInnerSegmentBlock showsInnerSegmentBlock_;
  bool processingNotification_ = false;
  bool wasShowingInnerSegmentBeforeNotification_ = false;
};

}  // namespace loomwork
#pragma GCC visibility pop
