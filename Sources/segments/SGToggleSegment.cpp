#include "loomwork/segments/SGToggleSegment.h"

#include "loomwork/listtransform/ListTransformArrayOperations.h"

namespace loomwork {

namespace {

// The null value stands for an absent represented object in collected lists.
std::optional<Value> objectOrNone(const Value& value) {
  if (value.isNull()) return std::nullopt;
  return value;
}

}  // namespace

SGToggleSegment::SGToggleSegment() = default;

SGToggleSegment::SGToggleSegment(std::string debugName) : SGContainerSegment(std::move(debugName)) {}

SGToggleSegment::~SGToggleSegment() = default;

void SGToggleSegment::setInnerSegment(Ref<SGSegment> segment) {
  if (segment == innerSegment_) return;
  if (innerSegment_) releaseChildSegment(*innerSegment_);
  innerSegment_ = std::move(segment);
  if (innerSegment_) adoptChildSegment(*innerSegment_);
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
  if (!innerSegment_) return transform;
  Array objects;
  innerSegment_->appendRepresentedObjectsToArray(objects);
  auto& insertions = transform->mutableInsertions();
  insertions.reserve(objects.size());
  for (size_t i = 0; i < objects.size(); ++i) {
    insertions.push_back(UGListTransformItem::itemWithIndexObject(static_cast<int64_t>(i), objectOrNone(objects[i])));
  }
  return transform;
}

Ref<UGMutableListTransform> SGToggleSegment::_transformForHidingItemsWithInnerTransform(
    const UGListTransform* innerTransform) const {
  auto transform = UGMutableListTransform::transform();
  if (!innerSegment_) return transform;
  Array objects;
  innerSegment_->appendRepresentedObjectsToArray(objects);
  // Back to the items as they were before the inner change.
  if (innerTransform != nullptr) applyTransform(objects, *innerTransform->inverseTransform());
  auto& deletions = transform->mutableDeletions();
  deletions.reserve(objects.size());
  for (size_t i = 0; i < objects.size(); ++i) {
    deletions.push_back(UGListTransformItem::itemWithIndexObject(static_cast<int64_t>(i), objectOrNone(objects[i])));
  }
  return transform;
}

void SGToggleSegment::setShowsInnerSegmentBlock(ShowsInnerSegmentBlock block) {
  if (!block && !showsInnerSegmentBlock_) return;
  showsInnerSegmentBlock_ = std::move(block);
  reevaluate();
}

void SGToggleSegment::reevaluate() {
  if (!innerSegment_ || !showsInnerSegmentBlock_) return;
  _setShowsInnerSegmentNotify(showsInnerSegmentBlock_(nullptr, showsInnerSegment_), true);
}

int64_t SGToggleSegment::itemCount() const {
  return showsInnerSegment_ && innerSegment_ ? innerSegment_->itemCount() : 0;
}

int64_t SGToggleSegment::transformIndexFromChildSegment(int64_t index, const SGSegment*) const {
  return showsInnerSegment_ ? index : NotFound;
}

int64_t SGToggleSegment::transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  if (!showsInnerSegment_) return NotFound;
  if (outChild != nullptr) *outChild = innerSegment_;
  return index;
}

int64_t SGToggleSegment::transformDropIndexFromChildSegment(int64_t index, const SGSegment* child) const {
  return transformIndexFromChildSegment(index, child);
}

int64_t SGToggleSegment::transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  return transformIndexToChildSegment(index, outChild);
}

std::optional<IndexSet> SGToggleSegment::indexesForRepresentedObject(const Value& object) const {
  IndexSet result;
  if (!innerSegment_ || !showsInnerSegment_) return result;
  if (auto inner = innerSegment_->indexesForRepresentedObject(object)) {
    for (int64_t index : *inner) {
      const int64_t mapped = transformIndexFromChildSegment(index, innerSegment_.get());
      if (mapped != NotFound) result.addIndex(mapped);
    }
  }
  return result;
}

void SGToggleSegment::appendRepresentedObjectsToArray(Array& array) const {
  if (showsInnerSegment_ && innerSegment_) innerSegment_->appendRepresentedObjectsToArray(array);
}

void SGToggleSegment::depthFirstSearchStop(const DepthFirstSearchBlock& block, bool& stop) {
  SGSegment::depthFirstSearchStop(block, stop);
  if (innerSegment_) innerSegment_->depthFirstSearchStop(block, stop);
}

NPWSuccessors SGToggleSegment::nextNodesForNotification(NPWNotification&) {
  if (!innerSegment_) return {};
  return {NPWSuccessor(innerSegment_)};
}

void SGToggleSegment::didEnterNodeWithNotification(NPWNotification& notification) {
  SGContainerSegment::didEnterNodeWithNotification(notification);
  processingNotification_ = true;
  wasShowingInnerSegmentBeforeNotification_ = showsInnerSegment_;
}

void SGToggleSegment::willExitNodeWithNotification(NPWNotification& notification) {
  SGContainerSegment::willExitNodeWithNotification(notification);
  if (showsInnerSegmentBlock_) showsInnerSegment_ = showsInnerSegmentBlock_(&notification, showsInnerSegment_);
  processingNotification_ = false;
  const bool now = showsInnerSegment_, was = wasShowingInnerSegmentBeforeNotification_;
  Ref<UGListTransform> innerTransform =
      innerSegment_ ? transformForRelationOfSegmentInNotification(SGSegmentItemsRelation, *innerSegment_, notification)
                    : nullptr;
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
