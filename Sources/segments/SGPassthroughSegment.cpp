#include "loomwork/segments/SGPassthroughSegment.h"

namespace loomwork {

SGPassthroughSegment::~SGPassthroughSegment() = default;

void SGPassthroughSegment::setInnerSegment(Ref<SGSegment> segment) {
  if (segment == innerSegment_) return;
  // Both halves are published even when they change nothing.
  if (innerSegment_) {
    auto removal = UGMutableListTransform::transform();
    for (int64_t index = 0; index < innerSegment_->itemCount(); ++index) {
      removal->recordDeletedObjectFromIndex(std::nullopt, index);
    }
    releaseChildSegment(*innerSegment_);
    innerSegment_.reset();
    publishItemsTransform(removal);
  }
  innerSegment_ = std::move(segment);
  if (innerSegment_) {
    adoptChildSegment(*innerSegment_);
    auto arrival = UGMutableListTransform::transform();
    for (int64_t index = 0; index < innerSegment_->itemCount(); ++index) {
      arrival->recordInsertedObjectAtIndex(std::nullopt, index);
    }
    publishItemsTransform(arrival);
  }
}

int64_t SGPassthroughSegment::itemCount() const { return innerSegment_ ? innerSegment_->itemCount() : 0; }

int64_t SGPassthroughSegment::transformIndexFromChildSegment(int64_t index, const SGSegment*) const { return index; }

int64_t SGPassthroughSegment::transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  if (index == NotFound) return NotFound;
  if (outChild != nullptr) *outChild = innerSegment_;
  return index;
}

int64_t SGPassthroughSegment::transformDropIndexFromChildSegment(int64_t index, const SGSegment* child) const {
  return transformIndexFromChildSegment(index, child);
}

int64_t SGPassthroughSegment::transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  return transformIndexToChildSegment(index, outChild);
}

std::optional<IndexSet> SGPassthroughSegment::indexesForRepresentedObject(const Value& object) const {
  if (!innerSegment_) return IndexSet();
  return innerSegment_->indexesForRepresentedObject(object);
}

void SGPassthroughSegment::appendRepresentedObjectsToArray(Array& array) const {
  if (innerSegment_) innerSegment_->appendRepresentedObjectsToArray(array);
}

void SGPassthroughSegment::depthFirstSearchStop(const DepthFirstSearchBlock& block, bool& stop) {
  SGSegment::depthFirstSearchStop(block, stop);
  if (innerSegment_) innerSegment_->depthFirstSearchStop(block, stop);
}

NPWSuccessors SGPassthroughSegment::nextNodesForNotification(NPWNotification&) {
  if (!innerSegment_) return {};
  return {NPWSuccessor(innerSegment_)};
}

void SGPassthroughSegment::willExitNodeWithNotification(NPWNotification& notification) {
  if (!innerSegment_) return;
  if (auto transform =
          transformForRelationOfSegmentInNotification(SGSegmentItemsRelation, *innerSegment_, notification)) {
    publishItemsTransform(transform);
  }
}

std::string SGPassthroughSegment::recursiveDescriptionForNotificationIndentation(NPWNotification* notification,
                                                                                 int64_t indentation) {
  std::string text = SGSegment::recursiveDescriptionForNotificationIndentation(notification, indentation);
  text += "\n";
  if (innerSegment_)
    text += innerSegment_->recursiveDescriptionForNotificationIndentation(notification, indentation + 4);
  return text;
}

}  // namespace loomwork
