#include "loomwork/segments/SGSortingSegment.h"

#include <algorithm>

#include "loomwork/listtransform/ListTransformArrayOperations.h"
#include "loomwork/platform/Exception.h"
#include "segments/SGMappingAlgorithms.h"

namespace loomwork {

namespace {

bool sameDescriptors(const std::vector<SortDescriptor>& a, const std::vector<SortDescriptor>& b) {
  if (a.size() != b.size()) return false;
  for (size_t k = 0; k < a.size(); ++k) {
    if (a[k].key() != b[k].key() || a[k].ascending() != b[k].ascending()) return false;
    if (a[k].comparator() || b[k].comparator()) return false;
  }
  return true;
}

}  // namespace

SGSortingSegment::SGSortingSegment() : keys_(std::make_unique<sgdetail::SortKeyCache>()) {}

SGSortingSegment::SGSortingSegment(std::string debugName)
    : SGInnerSegmentContainer(std::move(debugName)), keys_(std::make_unique<sgdetail::SortKeyCache>()) {}

SGSortingSegment::~SGSortingSegment() = default;

void SGSortingSegment::setInnerSegment(Ref<SGSegment> segment) {
  if (segment == innerSegment()) return;
  if (innerSegment()) {
    releaseInnerSegment();
    updateMappingAndNotify();
  }
  adoptInnerSegment(std::move(segment));
  keys_->clear();
  updateMappingAndNotify();
}

void SGSortingSegment::setSortDescriptors(std::optional<std::vector<SortDescriptor>> descriptors) {
  if (!descriptors && !sortDescriptors_) return;
  if (descriptors && sortDescriptors_ && sameDescriptors(*descriptors, *sortDescriptors_)) return;
  sortDescriptors_ = std::move(descriptors);
  keys_->setDescriptors(sortDescriptors_ ? &*sortDescriptors_ : nullptr);
  updateMappingAndNotify();
}

void SGSortingSegment::updateMappingAndNotify() {
  Ref<UGListTransform> transform = _updateMapping();
  if (!transform->isIdentity()) publishItemsTransform(transform);
}

Ref<UGListTransform> SGSortingSegment::_updateMapping() {
  std::vector<int64_t> sorted;
  if (innerSegment()) {
    const int64_t count = innerSegment()->itemCount();
    Array objects;
    objects.reserve(static_cast<size_t>(std::max<int64_t>(count, 0)));
    innerSegment()->appendRepresentedObjectsToArray(objects);
    if (static_cast<int64_t>(objects.size()) == count) {
      sorted = keys_->sortedMapping(mapping_, objects);
    } else {
      // An inner segment whose objects disagree with its count gets the
      // documented steps as they are.
      keys_->clear();
      Array scratch = objects;
      Ref<UGMutableListTransform> applied;
      sortUsingDescriptorsResultingTransform(scratch, sortDescriptors_.value_or(std::vector<SortDescriptor>{}),
                                             &applied);
      Array indexes;
      for (int64_t i = 0; i < innerSegment()->itemCount(); ++i) indexes.emplace_back(i);
      applyTransformIgnoringObjectsInTransform(indexes, *applied, true);
      for (const Value& index : indexes) sorted.push_back(index.isInteger() ? index.integerValue() : NotFound);
    }
  } else {
    keys_->clear();
  }
  auto transform = sgdetail::transitionBetweenMappings(mapping_, sorted);
  mapping_ = std::move(sorted);
  mappingChanged();
  return transform;
}

void SGSortingSegment::buildPositions() const {
  positionsValid_ = true;
  const int64_t bound = sgdetail::denseBound(mapping_, 0);
  positionsDense_ = bound >= 0;
  positions_.clear();
  if (!positionsDense_) return;
  positions_.assign(static_cast<size_t>(bound), NotFound);
  for (size_t position = mapping_.size(); position-- > 0;) {
    positions_[static_cast<size_t>(mapping_[position])] = static_cast<int64_t>(position);
  }
}

int64_t SGSortingSegment::transformIndexFromChildSegment(int64_t index, const SGSegment*) const {
  if (!positionsValid_) buildPositions();
  if (!positionsDense_) {
    auto at = std::find(mapping_.begin(), mapping_.end(), index);
    return at == mapping_.end() ? NotFound : at - mapping_.begin();
  }
  if (index < 0 || static_cast<size_t>(index) >= positions_.size()) return NotFound;
  return positions_[static_cast<size_t>(index)];
}

int64_t SGSortingSegment::transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  if (outChild != nullptr) *outChild = innerSegment();
  if (index < 0 || static_cast<size_t>(index) >= mapping_.size()) {
    throw Exception(ExceptionKind::OutOfRange,
                    "index " + std::to_string(index) + " beyond bounds [0 .. " + std::to_string(mapping_.size()) + "]");
  }
  return mapping_[static_cast<size_t>(index)];
}

int64_t SGSortingSegment::transformDropIndexFromChildSegment(int64_t, const SGSegment*) const { return NotFound; }

int64_t SGSortingSegment::transformDropIndexToChildSegment(int64_t, Ref<SGSegment>*) const { return NotFound; }

std::optional<IndexSet> SGSortingSegment::indexesForRepresentedObject(const Value& object) const {
  if (!innerSegment()) return IndexSet();
  return indexSetByTransformingInnerSegmentIndexSet(
      innerSegment()->indexesForRepresentedObject(object).value_or(IndexSet()));
}

IndexSet SGSortingSegment::indexSetByTransformingInnerSegmentIndexSet(const IndexSet& innerIndexes) const {
  IndexSet result;
  for (int64_t index : innerIndexes) result.addIndex(transformIndexFromChildSegment(index, innerSegment().get()));
  return result;
}

void SGSortingSegment::appendRepresentedObjectsToArray(Array& array) const {
  if (!innerSegment()) return;
  Array scratch;
  innerSegment()->appendRepresentedObjectsToArray(scratch);
  // Between passes the mapping is a permutation of the inner items and this
  // is the documented reordering. Inside a pass, before the exit hook has
  // followed the inner change, it may name inner items that are gone; those
  // positions give the null value, so that the count stays itemCount().
  array.reserve(array.size() + mapping_.size());
  for (int64_t index : mapping_) {
    array.push_back(index >= 0 && static_cast<size_t>(index) < scratch.size() ? scratch[static_cast<size_t>(index)]
                                                                              : Value::null());
  }
}

void SGSortingSegment::willExitNodeWithNotification(NPWNotification& notification) {
  bool inserted = false;
  Ref<UGListTransform> innerTransform = innerItemsTransformInNotification(notification);
  if (innerTransform && !innerTransform->isIdentity()) {
    std::vector<int64_t> surviving;
    auto transform = sgdetail::sortingFollowInnerTransform(mapping_, *innerTransform, inserted, surviving);
    keys_->keepPositions(surviving, mapping_.size() - surviving.size());
    mappingChanged();
    // Published also when it changes nothing.
    publishItemsTransform(transform);
  }
  // Inserted items stand at the end until this sort puts them in place.
  if (inserted || !shouldSortBlock_ || shouldSortBlock_(notification)) updateMappingAndNotify();
  SGInnerSegmentContainer::willExitNodeWithNotification(notification);
}

}  // namespace loomwork
