#include "loomwork/segments/SGInnerSegmentContainer.h"

namespace loomwork {

SGInnerSegmentContainer::~SGInnerSegmentContainer() = default;

void SGInnerSegmentContainer::depthFirstSearchStop(const DepthFirstSearchBlock& block, bool& stop) {
  SGSegment::depthFirstSearchStop(block, stop);
  if (innerSegment_) innerSegment_->depthFirstSearchStop(block, stop);
}

NPWSuccessors SGInnerSegmentContainer::nextNodesForNotification(NPWNotification&) {
  if (!innerSegment_) return {};
  return {NPWSuccessor(innerSegment_)};
}

void SGInnerSegmentContainer::releaseInnerSegment() {
  if (!innerSegment_) return;
  releaseChildSegment(*innerSegment_);
  innerSegment_.reset();
}

void SGInnerSegmentContainer::adoptInnerSegment(Ref<SGSegment> segment) {
  innerSegment_ = std::move(segment);
  if (innerSegment_) adoptChildSegment(*innerSegment_);
}

Ref<UGListTransform> SGInnerSegmentContainer::innerItemsTransformInNotification(NPWNotification& notification) const {
  if (!innerSegment_) return nullptr;
  return transformForRelationOfSegmentInNotification(SGSegmentItemsRelation, *innerSegment_, notification);
}

IndexSet SGInnerSegmentContainer::mappedIndexesForRepresentedObject(const Value& object) const {
  IndexSet result;
  if (!innerSegment_) return result;
  if (auto inner = innerSegment_->indexesForRepresentedObject(object)) {
    for (int64_t index : *inner) {
      const int64_t position = transformIndexFromChildSegment(index, innerSegment_.get());
      if (position != NotFound) result.addIndex(position);
    }
  }
  return result;
}

}  // namespace loomwork
