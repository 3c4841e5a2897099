#include "loomwork/segments/SGListSegment.h"

#include "loomwork/platform/Exception.h"

namespace loomwork {

Value LWArrayContainer::objectAtIndex(int64_t index) const {
  if (index < 0 || index >= count()) {
    throw Exception(ExceptionKind::OutOfRange, "LWArrayContainer::objectAtIndex: index beyond the end of the array");
  }
  return array_[static_cast<size_t>(index)];
}

int64_t LWArrayContainer::indexOfObject(const Value& object) const {
  for (size_t i = 0; i < array_.size(); ++i) {
    if (array_[i] == object) return static_cast<int64_t>(i);
  }
  return NotFound;
}

void SGListSegment::setList(Ref<LWRandomAccessContainer> list) {
  if (list == list_) return;
  auto transform = UGMutableListTransform::transform();
  for (int64_t i = 0; list_ && i < list_->count(); ++i) transform->recordDeletedObjectFromIndex(std::nullopt, i);
  list_ = std::move(list);
  for (int64_t i = 0; list_ && i < list_->count(); ++i) transform->recordInsertedObjectAtIndex(std::nullopt, i);
  if (!transform->isIdentity()) publishItemsTransform(transform);
}

int64_t SGListSegment::itemCount() const { return list_ ? list_->count() : 0; }

std::optional<Value> SGListSegment::representedObjectAtIndex(int64_t index) const {
  if (!list_) return std::nullopt;
  Value element = list_->objectAtIndex(index);
  if (representedObjectBlock_) return representedObjectBlock_(element, index);
  return element;
}

void SGListSegment::appendRepresentedObjectsToArray(Array& array) const {
  if (!list_) return;
  const int64_t count = list_->count();
  array.reserve(array.size() + static_cast<size_t>(std::max<int64_t>(count, 0)));
  for (int64_t i = 0; i < count; ++i) {
    if (representedObjectBlock_) {
      array.push_back(representedObjectBlock_(list_->objectAtIndex(i), i).value_or(Value::null()));
    } else {
      array.push_back(list_->objectAtIndex(i));
    }
  }
}

std::optional<IndexSet> SGListSegment::indexesForRepresentedObject(const Value& object) const {
  IndexSet indexes;
  if (!list_) return indexes;
  if (representedObjectBlock_) {
    const int64_t count = list_->count();
    for (int64_t i = 0; i < count; ++i) {
      std::optional<Value> represented = representedObjectBlock_(list_->objectAtIndex(i), i);
      if (represented && represented->isEqual(object)) indexes.addIndex(i);
    }
    return indexes;
  }
  const int64_t index = list_->indexOfObject(object);
  if (index != NotFound) indexes.addIndex(index);
  return indexes;
}

void SGListSegment::willExitNodeWithNotification(NPWNotification& notification) {
  if (!list_ || !transformFromNotificationBlock_) return;
  if (Ref<UGListTransform> transform = transformFromNotificationBlock_(notification)) publishItemsTransform(transform);
}

}  // namespace loomwork
