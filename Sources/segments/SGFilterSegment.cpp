#include "loomwork/segments/SGFilterSegment.h"

#include <algorithm>

#include "segments/SGMappingAlgorithms.h"

namespace loomwork {

SGFilterSegment::SGFilterSegment() : mapping_(LWMutableIntegerArray::array()) {}

SGFilterSegment::SGFilterSegment(std::string debugName)
    : SGInnerSegmentContainer(std::move(debugName)), mapping_(LWMutableIntegerArray::array()) {}

SGFilterSegment::~SGFilterSegment() = default;

void SGFilterSegment::setInnerSegment(Ref<SGSegment> segment) {
  if (segment == innerSegment()) return;
  if (innerSegment()) {
    releaseInnerSegment();
    updateMappingAndNotify();
  }
  adoptInnerSegment(std::move(segment));
  updateMappingAndNotify();
}

void SGFilterSegment::setFilterBlock(FilterBlock block) {
  if (!block && !filterBlock_) return;
  filterBlock_ = std::move(block);
  updateMappingAndNotify();
}

void SGFilterSegment::updateMappingAndNotify() {
  Ref<UGListTransform> transform = _updateMapping();
  if (!transform->isIdentity()) publishItemsTransform(transform);
}

Ref<UGListTransform> SGFilterSegment::_updateMapping() {
  std::vector<int64_t> shown;
  if (innerSegment()) {
    // The count is read again every step: the test may change the inner segment.
    for (int64_t index = 0; index < innerSegment()->itemCount(); ++index) {
      if (!filterBlock_ || filterBlock_(*innerSegment(), index)) shown.push_back(index);
    }
  }
  auto transform = sgdetail::filterDifference(mapping_->vector(), shown);
  mapping_->setVector(std::move(shown));
  return transform;
}

// Every operation leaves the mapping ascending, so the documented linear
// searches become binary ones with the same answers (the first occurrence).
int64_t SGFilterSegment::transformIndexFromChildSegment(int64_t index, const SGSegment*) const {
  const auto& mapping = mapping_->vector();
  auto at = std::lower_bound(mapping.begin(), mapping.end(), index);
  return at != mapping.end() && *at == index ? at - mapping.begin() : NotFound;
}

int64_t SGFilterSegment::transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  if (mapping_->count() == 0) return NotFound;
  if (outChild != nullptr) *outChild = innerSegment();
  return mapping_->integerAtIndex(index);
}

int64_t SGFilterSegment::transformDropIndexFromChildSegment(int64_t index, const SGSegment*) const {
  if (index == NotFound) return NotFound;
  const auto& mapping = mapping_->vector();
  if (mapping.empty()) return 0;
  // The walk keeps the last shown inner index + 1 when the first shown one is
  // already above the drop index.
  auto at = std::lower_bound(mapping.begin(), mapping.end(), index);
  if (at == mapping.begin() && *at != index) return mapping.back() + 1;
  return at - mapping.begin();
}

int64_t SGFilterSegment::transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  if (index == NotFound) {
    if (outChild != nullptr) outChild->reset();
    return NotFound;
  }
  if (outChild != nullptr) *outChild = innerSegment();
  if (mapping_->count() == 0) return 0;
  if (index == mapping_->count()) return mapping_->lastInteger() + 1;
  return mapping_->integerAtIndex(index);
}

std::optional<IndexSet> SGFilterSegment::indexesForRepresentedObject(const Value& object) const {
  return mappedIndexesForRepresentedObject(object);
}

void SGFilterSegment::appendRepresentedObjectsToArray(Array& array) const {
  if (itemCount() == 0 || !innerSegment()) return;
  // The shown inner objects one by one, rather than all inner objects
  // collected and most of them dropped. Inside a pass, before the exit hook
  // has followed the inner change, the mapping may name inner items that are
  // gone; those positions give the null value, so that the count stays
  // itemCount().
  const int64_t innerCount = innerSegment()->itemCount();
  array.reserve(array.size() + mapping_->vector().size());
  for (int64_t index : mapping_->vector()) {
    std::optional<Value> object;
    if (index >= 0 && index < innerCount) object = innerSegment()->representedObjectAtIndex(index);
    array.push_back(object ? std::move(*object) : Value::null());
  }
}

IndexSet SGFilterSegment::indexSetByTransformingInnerSegmentIndexSet(const IndexSet& innerIndexes) const {
  std::vector<int64_t> positions;
  const auto& mapping = mapping_->vector();
  for (size_t position = 0; position < mapping.size(); ++position) {
    if (innerIndexes.containsIndex(mapping[position])) positions.push_back(static_cast<int64_t>(position));
  }
  return IndexSet::fromIndexes(positions);
}

void SGFilterSegment::willExitNodeWithNotification(NPWNotification& notification) {
  Ref<SGSegment> inner = innerSegment();
  Ref<UGListTransform> innerTransform = innerItemsTransformInNotification(notification);
  if (innerTransform && !innerTransform->isIdentity()) {
    // A copy: the test may replace the filter's block while it runs.
    const FilterBlock test = filterBlock_;
    sgdetail::KeepBlock keep;
    if (test) keep = [&test, &inner](int64_t index) { return test(*inner, index); };
    auto represented = [&inner](int64_t index) { return inner->representedObjectAtIndex(index); };
    std::vector<int64_t> mapping = mapping_->vector();
    auto transform = sgdetail::filterFollowInnerTransform(mapping, *innerTransform, keep, represented);
    mapping_->setVector(std::move(mapping));
    // Published also when it changes nothing.
    publishItemsTransform(transform);
  }
  if (shouldRefilterOnNotificationBlock_ && shouldRefilterOnNotificationBlock_(notification, *this)) {
    updateMappingAndNotify();
  }
}

}  // namespace loomwork
