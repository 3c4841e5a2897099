// SGInnerSegmentContainer: the common base of containers that show the items
// of one inner segment (filter, sorting, passthrough and toggle segments).
#pragma once

#include <cstdint>

#include "loomwork/platform/IndexSet.h"
#include "loomwork/segments/SGContainerSegment.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Holds the inner segment, walks to it in searches and notification passes,
// and offers the steps its subclasses share. Replacing the inner segment, and
// what that publishes, is left to each subclass.
class SGInnerSegmentContainer : public SGContainerSegment {
 public:
  using SGContainerSegment::SGContainerSegment;
  ~SGInnerSegmentContainer() override;

  const Ref<SGSegment>& innerSegment() const { return innerSegment_; }

  // The receiver, then the inner segment (when there is one).
  void depthFirstSearchStop(const DepthFirstSearchBlock& block, bool& stop) override;
  // The inner segment, or nothing.
  NPWSuccessors nextNodesForNotification(NPWNotification& notification) override;

 protected:
  // Lets the inner segment go (its parentSegment is cleared); none is left.
  void releaseInnerSegment();
  // Takes the segment in as the inner segment (it may be empty). Any previous
  // inner segment must have been released.
  void adoptInnerSegment(Ref<SGSegment> segment);
  // The inner segment's "items" change in the pass, or empty without an
  // inner segment.
  Ref<UGListTransform> innerItemsTransformInNotification(NPWNotification& notification) const;
  // The inner segment's indexes for the object, each through
  // transformIndexFromChildSegment; those that map to NotFound are left out.
  // Empty without an inner segment.
  IndexSet mappedIndexesForRepresentedObject(const Value& object) const;

 private:
  Ref<SGSegment> innerSegment_;
};

}  // namespace loomwork
#pragma GCC visibility pop
