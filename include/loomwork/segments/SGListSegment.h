// SGListSegment: the leaf segment that shows a host's random-access list.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "loomwork/listtransform/UGListTransform.h"
#include "loomwork/segments/LWRandomAccessContainer.h"
#include "loomwork/segments/SGSegment.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Shows the elements of a list (optionally mapped to represented objects) as
// its items. The list belongs to the host, which tells the segment what
// changed through transformFromNotificationBlock: in its exit hook the segment
// asks the block for the list transform the notification stands for and
// publishes it as its "items" change. The segment does not look at the list's
// contents to find changes.
class SGListSegment : public SGSegment {
 public:
  // The list transform of the list that the notification stands for, or
  // empty when the list is untouched.
  using TransformFromNotificationBlock = std::function<Ref<UGListTransform>(NPWNotification& notification)>;
  // The object shown for an element at an index, or absent.
  using RepresentedObjectBlock = std::function<std::optional<Value>(const Value& element, int64_t index)>;

  // initWithList: stores the list without publishing anything.
  explicit SGListSegment(Ref<LWRandomAccessContainer> list = nullptr) : list_(std::move(list)) {}

  const Ref<LWRandomAccessContainer>& list() const { return list_; }
  // A different list object publishes the deletion of every old item and the
  // insertion of every new one (nothing when both are empty).
  void setList(Ref<LWRandomAccessContainer> list);

  const TransformFromNotificationBlock& transformFromNotificationBlock() const {
    return transformFromNotificationBlock_;
  }
  void setTransformFromNotificationBlock(TransformFromNotificationBlock block) {
    transformFromNotificationBlock_ = std::move(block);
  }
  const RepresentedObjectBlock& representedObjectBlock() const { return representedObjectBlock_; }
  void setRepresentedObjectBlock(RepresentedObjectBlock block) { representedObjectBlock_ = std::move(block); }

  // The list's count; 0 without a list.
  int64_t itemCount() const override;
  // The element (through representedObjectBlock when set). An index outside
  // the list is the list's own failure; absent without a list.
  std::optional<Value> representedObjectAtIndex(int64_t index) const override;
  void appendRepresentedObjectsToArray(Array& array) const override;
  // With a representedObjectBlock every index whose represented object is
  // equal to the object; without one the list's indexOfObject (or nothing).
  std::optional<IndexSet> indexesForRepresentedObject(const Value& object) const override;

  // Publishes what transformFromNotificationBlock answers, when there is a
  // list and a block.
  void willExitNodeWithNotification(NPWNotification& notification) override;

 private:
  Ref<LWRandomAccessContainer> list_;
  TransformFromNotificationBlock transformFromNotificationBlock_;
  RepresentedObjectBlock representedObjectBlock_;
};

}  // namespace loomwork
#pragma GCC visibility pop
