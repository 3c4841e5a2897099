#include "loomwork/segments/SGContainerSegment.h"

namespace loomwork {

int64_t SGContainerSegment::transformIndexFromChildSegment(int64_t, const SGSegment*) const { return NotFound; }

int64_t SGContainerSegment::transformIndexToChildSegment(int64_t, Ref<SGSegment>* outChild) const {
  if (outChild != nullptr) outChild->reset();
  return NotFound;
}

int64_t SGContainerSegment::transformDropIndexFromChildSegment(int64_t index, const SGSegment* child) const {
  return transformIndexFromChildSegment(index, child);
}

int64_t SGContainerSegment::transformDropIndexToChildSegment(int64_t, Ref<SGSegment>* outChild) const {
  if (outChild != nullptr) outChild->reset();
  return NotFound;
}

NPWSuccessors SGContainerSegment::nextNodesForNotification(NPWNotification&) { return {}; }

std::optional<Value> SGContainerSegment::representedObjectAtIndex(int64_t index) const {
  Ref<SGSegment> child;
  const int64_t mapped = transformIndexToChildSegment(index, &child);
  if (mapped == NotFound || !child) return std::nullopt;
  return child->representedObjectAtIndex(mapped);
}

Ref<SGSegment> SGContainerSegment::leafSegmentForIndex(int64_t index) const {
  Ref<SGSegment> child;
  const int64_t mapped = transformIndexToChildSegment(index, &child);
  if (mapped == NotFound || !child) return nullptr;
  return child->leafSegmentForIndex(mapped);
}

std::optional<IndexSet> SGContainerSegment::indexesForRepresentedObject(const Value&) const { return std::nullopt; }

void SGContainerSegment::adoptChildSegment(SGSegment& child) { child.setParentSegment(ref<SGContainerSegment>()); }

}  // namespace loomwork
