#include "loomwork/segments/SGPassthroughSegment.h"

namespace loomwork {

SGPassthroughSegment::~SGPassthroughSegment() = default;

void SGPassthroughSegment::setInnerSegment(Ref<SGSegment> segment) {
  if (segment == innerSegment()) return;
  // Both halves are published even when they change nothing.
  if (innerSegment()) {
    auto removal = UGMutableListTransform::transform();
    for (int64_t index = 0; index < innerSegment()->itemCount(); ++index) {
      removal->recordDeletedObjectFromIndex(std::nullopt, index);
    }
    releaseInnerSegment();
    publishItemsTransform(removal);
  }
  adoptInnerSegment(std::move(segment));
  if (innerSegment()) {
    auto arrival = UGMutableListTransform::transform();
    for (int64_t index = 0; index < innerSegment()->itemCount(); ++index) {
      arrival->recordInsertedObjectAtIndex(std::nullopt, index);
    }
    publishItemsTransform(arrival);
  }
}

int64_t SGPassthroughSegment::itemCount() const { return innerSegment() ? innerSegment()->itemCount() : 0; }

int64_t SGPassthroughSegment::transformIndexFromChildSegment(int64_t index, const SGSegment*) const { return index; }

int64_t SGPassthroughSegment::transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  if (index == NotFound) return NotFound;
  if (outChild != nullptr) *outChild = innerSegment();
  return index;
}

int64_t SGPassthroughSegment::transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  return transformIndexToChildSegment(index, outChild);
}

std::optional<IndexSet> SGPassthroughSegment::indexesForRepresentedObject(const Value& object) const {
  if (!innerSegment()) return IndexSet();
  return innerSegment()->indexesForRepresentedObject(object);
}

void SGPassthroughSegment::appendRepresentedObjectsToArray(Array& array) const {
  if (innerSegment()) innerSegment()->appendRepresentedObjectsToArray(array);
}

void SGPassthroughSegment::willExitNodeWithNotification(NPWNotification& notification) {
  if (auto transform = innerItemsTransformInNotification(notification)) publishItemsTransform(transform);
}

std::string SGPassthroughSegment::recursiveDescriptionForNotificationIndentation(NPWNotification* notification,
                                                                                 int64_t indentation) {
  std::string text = SGSegment::recursiveDescriptionForNotificationIndentation(notification, indentation);
  text += "\n";
  if (innerSegment())
    text += innerSegment()->recursiveDescriptionForNotificationIndentation(notification, indentation + 4);
  return text;
}

}  // namespace loomwork
