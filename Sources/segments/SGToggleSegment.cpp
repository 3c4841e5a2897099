#include "loomwork/segments/SGToggleSegment.h"

#include "loomwork/listtransform/ListTransformArrayOperations.h"

namespace loomwork {

namespace {

// The null value stands for an absent represented object in collected lists.
std::optional<Value> objectOrNone(const Value& value) {
  if (value.isNull()) return std::nullopt;
  return value;
}

// One item per object, at the object's index.
void appendItemsForObjects(UGListTransformItemArray& items, const Array& objects) {
  items.reserve(items.size() + objects.size());
  for (size_t i = 0; i < objects.size(); ++i) {
    items.push_back(UGListTransformItem::itemWithIndexObject(static_cast<int64_t>(i), objectOrNone(objects[i])));
  }
}

}  // namespace

SGToggleSegment::SGToggleSegment() = default;

SGToggleSegment::SGToggleSegment(std::string debugName) : SGInnerSegmentContainer(std::move(debugName)) {}

SGToggleSegment::~SGToggleSegment() = default;

void SGToggleSegment::setInnerSegment(Ref<SGSegment> segment) {
  if (segment == innerSegment()) return;
  releaseInnerSegment();
  adoptInnerSegment(std::move(segment));
  reevaluate();
}

void SGToggleSegment::setShowsInnerSegment(bool shows) {
  if (showsInnerSegmentBlock_) return;
  _setShowsInnerSegmentNotify(shows, true);
}

void SGToggleSegment::_setShowsInnerSegmentNotify(bool shows, bool notify) {
  if (shows == showsInnerSegment_) return;
  showsInnerSegment_ = shows;
  // Inside a pass the exit hook publishes the switch.
  if (!notify || processingNotification_) return;
  auto transform = shows ? _transformForShowingItems() : _transformForHidingItemsWithInnerTransform(nullptr);
  if (!transform->isIdentity()) publishItemsTransform(transform);
}

Ref<UGMutableListTransform> SGToggleSegment::_transformForShowingItems() const {
  auto transform = UGMutableListTransform::transform();
  if (!innerSegment()) return transform;
  Array objects;
  innerSegment()->appendRepresentedObjectsToArray(objects);
  appendItemsForObjects(transform->mutableInsertions(), objects);
  return transform;
}

Ref<UGMutableListTransform> SGToggleSegment::_transformForHidingItemsWithInnerTransform(
    const UGListTransform* innerTransform) const {
  auto transform = UGMutableListTransform::transform();
  if (!innerSegment()) return transform;
  Array objects;
  innerSegment()->appendRepresentedObjectsToArray(objects);
  // Back to the items as they were before the inner change.
  if (innerTransform != nullptr) applyTransform(objects, *innerTransform->inverseTransform());
  appendItemsForObjects(transform->mutableDeletions(), objects);
  return transform;
}

void SGToggleSegment::setShowsInnerSegmentBlock(ShowsInnerSegmentBlock block) {
  if (!block && !showsInnerSegmentBlock_) return;
  showsInnerSegmentBlock_ = std::move(block);
  reevaluate();
}

void SGToggleSegment::reevaluate() {
  if (!innerSegment() || !showsInnerSegmentBlock_) return;
  _setShowsInnerSegmentNotify(showsInnerSegmentBlock_(nullptr, showsInnerSegment_), true);
}

int64_t SGToggleSegment::itemCount() const {
  return showsInnerSegment_ && innerSegment() ? innerSegment()->itemCount() : 0;
}

int64_t SGToggleSegment::transformIndexFromChildSegment(int64_t index, const SGSegment*) const {
  return showsInnerSegment_ ? index : NotFound;
}

int64_t SGToggleSegment::transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  if (!showsInnerSegment_) return NotFound;
  if (outChild != nullptr) *outChild = innerSegment();
  return index;
}

int64_t SGToggleSegment::transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  return transformIndexToChildSegment(index, outChild);
}

std::optional<IndexSet> SGToggleSegment::indexesForRepresentedObject(const Value& object) const {
  if (!showsInnerSegment_) return IndexSet();
  return mappedIndexesForRepresentedObject(object);
}

void SGToggleSegment::appendRepresentedObjectsToArray(Array& array) const {
  if (showsInnerSegment_ && innerSegment()) innerSegment()->appendRepresentedObjectsToArray(array);
}

void SGToggleSegment::didEnterNodeWithNotification(NPWNotification& notification) {
  SGInnerSegmentContainer::didEnterNodeWithNotification(notification);
  processingNotification_ = true;
  wasShowingInnerSegmentBeforeNotification_ = showsInnerSegment_;
}

void SGToggleSegment::willExitNodeWithNotification(NPWNotification& notification) {
  SGInnerSegmentContainer::willExitNodeWithNotification(notification);
  if (showsInnerSegmentBlock_) showsInnerSegment_ = showsInnerSegmentBlock_(&notification, showsInnerSegment_);
  processingNotification_ = false;
  const bool now = showsInnerSegment_, was = wasShowingInnerSegmentBeforeNotification_;
  Ref<UGListTransform> innerTransform = innerItemsTransformInNotification(notification);
  Ref<UGListTransform> result;
  if (now && was) {
    result = innerTransform;
  } else if (now) {
    result = _transformForShowingItems();
  } else if (was) {
    result = _transformForHidingItemsWithInnerTransform(innerTransform.get());
  }
  if (result && !result->isIdentity()) publishItemsTransform(result);
}

}  // namespace loomwork
