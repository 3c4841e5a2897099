// SGPassthroughSegment: the items of one inner segment, which can be
// exchanged in a fixed place of the tree.
#pragma once

#include <cstdint>
#include <optional>

#include "loomwork/platform/IndexSet.h"
#include "loomwork/segments/SGInnerSegmentContainer.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Shows exactly its inner segment's items and passes the inner segment's
// "items" change up as its own. Exchanging the inner segment publishes the
// deletion of the old items and then the insertion of the new ones, each
// even when it changes nothing. Used on the thread that processes
// notifications.
class SGPassthroughSegment : public SGInnerSegmentContainer {
 public:
  using SGInnerSegmentContainer::SGInnerSegmentContainer;
  ~SGPassthroughSegment() override;

  void setInnerSegment(Ref<SGSegment> segment);

  // The inner segment's count; 0 without one.
  int64_t itemCount() const override;
  // The index unchanged (NotFound stays NotFound).
  int64_t transformIndexFromChildSegment(int64_t index, const SGSegment* child) const override;
  // The index unchanged with the inner segment as child; NotFound (child
  // untouched) for NotFound.
  int64_t transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;
  // The drop forms map as the plain ones do.
  int64_t transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;

  std::optional<IndexSet> indexesForRepresentedObject(const Value& object) const override;
  void appendRepresentedObjectsToArray(Array& array) const override;
  void willExitNodeWithNotification(NPWNotification& notification) override;
  // The base description, then the inner segment's four spaces deeper.
  std::string recursiveDescriptionForNotificationIndentation(NPWNotification* notification,
                                                             int64_t indentation) override;

 private:
};

}  // namespace loomwork
#pragma GCC visibility pop
