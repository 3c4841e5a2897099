#include "loomwork/segments/SGGroupSegment.h"

#include <algorithm>

#include "loomwork/listtransform/ListTransformArrayOperations.h"
#include "loomwork/platform/Exception.h"
#include "segments/SGMappingAlgorithms.h"

namespace loomwork {

namespace {

Array segmentValues(const std::vector<Ref<SGSegment>>& segments) {
  Array values;
  values.reserve(segments.size());
  for (const Ref<SGSegment>& segment : segments) values.emplace_back(segment);
  return values;
}

// Start of each child's items: starts[j] is the sum of counts[0..j).
std::vector<int64_t> startsOf(const std::vector<int64_t>& counts) {
  std::vector<int64_t> starts(counts.size() + 1, 0);
  for (size_t j = 0; j < counts.size(); ++j) starts[j + 1] = starts[j] + counts[j];
  return starts;
}

}  // namespace

Ref<SGGroupSegment> SGGroupSegment::groupSegmentWithSegments(const std::vector<Ref<SGSegment>>& segments) {
  auto group = make<SGGroupSegment>();
  group->addSegments(segments);
  return group;
}

void SGGroupSegment::setSegments(const std::vector<Ref<SGSegment>>& segments) {
  Ref<UGListTransform> transform = transformForTransitioningFromArrayToArrayObjectComparison(
      segmentValues(segments_), segmentValues(segments), UGListTransformObjectComparisonEquality);
  for (const Ref<SGSegment>& segment : segments) {
    if (segment) adoptChildSegment(*segment);
  }
  segments_ = segments;
  if (!transform->isIdentity()) publishTransformForRelation(transform, SGGroupSegmentSegmentsRelation);
}

void SGGroupSegment::insertSegmentsAtIndex(const std::vector<Ref<SGSegment>>& segments, int64_t index) {
  if (segments.empty()) return;
  if (index < 0 || index > childCount()) {
    throw Exception(ExceptionKind::OutOfRange, "SGGroupSegment::insertSegmentsAtIndex: index beyond the child list");
  }
  auto transform = UGMutableListTransform::transform();
  int64_t k = 0;
  for (const Ref<SGSegment>& segment : segments) {
    segments_.insert(segments_.begin() + index + k, segment);
    if (segment) adoptChildSegment(*segment);
    transform->recordInsertedObjectAtIndex(Value(segment), index + k);
    ++k;
  }
  publishTransformForRelation(transform, SGGroupSegmentSegmentsRelation);
}

void SGGroupSegment::moveSegmentAtIndexToIndex(int64_t from, int64_t to) {
  if (from < 0 || from >= childCount() || to < 0 || to >= childCount()) {
    throw Exception(ExceptionKind::OutOfRange,
                    "SGGroupSegment::moveSegmentAtIndexToIndex: index beyond the child list");
  }
  Ref<SGSegment> segment = segments_[static_cast<size_t>(from)];
  segments_.erase(segments_.begin() + from);
  segments_.insert(segments_.begin() + to, segment);
  auto transform = UGMutableListTransform::transform();
  transform->recordMovedObjectFromIndexToIndex(Value(segment), from, to);
  publishTransformForRelation(transform, SGGroupSegmentSegmentsRelation);
}

void SGGroupSegment::removeSegmentAtIndex(int64_t index) {
  if (index < 0 || index >= childCount()) {
    throw Exception(ExceptionKind::OutOfRange, "SGGroupSegment::removeSegmentAtIndex: index beyond the child list");
  }
  Ref<SGSegment> segment = segments_[static_cast<size_t>(index)];
  segments_.erase(segments_.begin() + index);
  if (segment) releaseChildSegment(*segment);
  auto transform = UGMutableListTransform::transform();
  transform->recordDeletedObjectFromIndex(Value(segment), index);
  publishTransformForRelation(transform, SGGroupSegmentSegmentsRelation);
}

void SGGroupSegment::removeAllSegments() {
  const std::vector<Ref<SGSegment>> former = std::move(segments_);
  segments_.clear();
  auto transform = UGMutableListTransform::transform();
  for (size_t i = 0; i < former.size(); ++i) {
    if (former[i]) releaseChildSegment(*former[i]);
    transform->recordDeletedObjectFromIndex(Value(former[i]), static_cast<int64_t>(i));
  }
  publishTransformForRelation(transform, SGGroupSegmentSegmentsRelation);
}

int64_t SGGroupSegment::itemCount() const {
  int64_t count = 0;
  for (const Ref<SGSegment>& segment : segments_) count += segment ? segment->itemCount() : 0;
  return count;
}

std::optional<IndexSet> SGGroupSegment::indexesForRepresentedObject(const Value& object) const {
  IndexSet indexes;
  for (const Ref<SGSegment>& segment : segments_) {
    if (!segment) continue;
    std::optional<IndexSet> childIndexes = segment->indexesForRepresentedObject(object);
    if (!childIndexes) continue;
    for (int64_t index : *childIndexes) {
      const int64_t mapped = transformIndexFromChildSegment(index, segment.get());
      if (mapped != NotFound) indexes.addIndex(mapped);
    }
  }
  return indexes;
}

void SGGroupSegment::depthFirstSearchStop(const DepthFirstSearchBlock& block, bool& stop) {
  SGSegment::depthFirstSearchStop(block, stop);
  // A snapshot: the block may change the child list.
  const std::vector<Ref<SGSegment>> children = segments_;
  for (const Ref<SGSegment>& segment : children) {
    if (stop) break;
    if (segment) segment->depthFirstSearchStop(block, stop);
  }
}

void SGGroupSegment::appendRepresentedObjectsToArray(Array& array) const {
  for (const Ref<SGSegment>& segment : segments_) {
    if (segment) segment->appendRepresentedObjectsToArray(array);
  }
}

int64_t SGGroupSegment::transformIndexFromChildSegment(int64_t index, const SGSegment* child) const {
  if (index == NotFound) return NotFound;
  int64_t before = 0;
  for (const Ref<SGSegment>& segment : segments_) {
    if (segment.get() == child) return index + before;
    before += segment ? segment->itemCount() : 0;
  }
  return NotFound;
}

int64_t SGGroupSegment::transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  if (outChild != nullptr) outChild->reset();
  if (index == NotFound || index < 0) return NotFound;
  for (const Ref<SGSegment>& segment : segments_) {
    const int64_t count = segment ? segment->itemCount() : 0;
    if (index < count) {
      if (outChild != nullptr) *outChild = segment;
      return index;
    }
    index -= count;
  }
  return NotFound;
}

int64_t SGGroupSegment::transformDropIndexFromChildSegment(int64_t index, const SGSegment* child) const {
  return transformIndexFromChildSegment(index, child);
}

int64_t SGGroupSegment::transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const {
  if (outChild != nullptr) outChild->reset();
  if (index == NotFound || index < 0) return NotFound;
  for (const Ref<SGSegment>& segment : segments_) {
    const int64_t count = segment ? segment->itemCount() : 0;
    if (index <= count) {
      if (outChild != nullptr) *outChild = segment;
      return index;
    }
    index -= count;
  }
  return NotFound;
}

NPWSuccessors SGGroupSegment::nextNodesForNotification(NPWNotification&) {
  NPWSuccessors successors;
  successors.reserve(segments_.size());
  for (const Ref<SGSegment>& segment : segments_) successors.emplace_back(segment);
  return successors;
}

void SGGroupSegment::willExitNodeWithNotification(NPWNotification& notification) {
  auto result = UGMutableListTransform::transform();
  std::vector<int64_t> counts;
  counts.reserve(segments_.size());
  for (const Ref<SGSegment>& segment : segments_) counts.push_back(segment ? segment->itemCount() : 0);
  const std::vector<int64_t> oldStarts = startsOf(cachedSegmentItemCounts_);
  const std::vector<int64_t> newStarts = startsOf(counts);
  // Children that the cache or the list does not know (a change that bypassed
  // the exit hooks) count as empty rather than reading out of bounds.
  auto cached = [&](int64_t j) {
    return j >= 0 && static_cast<size_t>(j) < cachedSegmentItemCounts_.size() ? cachedSegmentItemCounts_[j] : 0;
  };
  auto oldStart = [&](int64_t j) {
    return oldStarts[std::min(static_cast<size_t>(std::max<int64_t>(j, 0)), oldStarts.size() - 1)];
  };
  auto newStart = [&](int64_t j) {
    return newStarts[std::min(static_cast<size_t>(std::max<int64_t>(j, 0)), newStarts.size() - 1)];
  };
  auto child = [&](int64_t j) -> Ref<SGSegment> {
    return j >= 0 && static_cast<size_t>(j) < segments_.size() ? segments_[j] : nullptr;
  };
  auto itemsOf = [&](const Ref<SGSegment>& segment) -> Ref<UGListTransform> {
    return segment ? transformForRelationOfSegmentInNotification(SGSegmentItemsRelation, *segment, notification)
                   : nullptr;
  };

  Ref<UGListTransform> segmentsTransform =
      transformForRelationOfSegmentInNotification(SGGroupSegmentSegmentsRelation, *this, notification);
  if (!segmentsTransform || segmentsTransform->isIdentity()) {
    // The children stayed where they were: their shifted changes, child after
    // child, are already in ascending order in both arrays, and laying them
    // side by side is what recording them one by one gives.
    bool laidOut = true;
    for (size_t j = 0; laidOut && j < segments_.size(); ++j) {
      if (Ref<UGListTransform> items = itemsOf(segments_[j])) {
        laidOut = sgdetail::appendShiftedChanges(*items, oldStart(static_cast<int64_t>(j)), newStarts[j],
                                                 result->mutableDeletions(), result->mutableInsertions());
      }
    }
    if (laidOut) {
      if (!result->isIdentity()) publishItemsTransform(result);
      cachedSegmentItemCounts_ = std::move(counts);
      return;
    }
    result = UGMutableListTransform::transform();
  }
  if (!segmentsTransform) segmentsTransform = UGListTransform::transform();

  // Removed children arrive from the last one up; their rows are recorded
  // afterwards from the first one down, so that each recorded deletion lands
  // at the end of the transform's deletions instead of before all the others.
  std::vector<int64_t> deletedChildren;
  segmentsTransform->enumerateTransformAsGroupedDeletionsMovesInsertions(
      [&](int64_t deleted, const std::optional<Value>&) { deletedChildren.push_back(deleted); },
      [&](int64_t from, int64_t to, const std::optional<Value>&) {
        auto moves = UGMutableListTransform::transform();
        for (int64_t k = 0; k < cached(from); ++k) {
          moves->recordMovedObjectFromIndexToIndex(std::nullopt, oldStart(from) + k, newStart(to) + k);
        }
        if (Ref<UGListTransform> items = itemsOf(child(to))) {
          moves->appendTransform(*items->transformByApplyingOffsetToIndexes(newStart(to)));
        }
        result->recordChangesFromTransform(*moves);
      },
      [&](int64_t inserted, const std::optional<Value>&) {
        Ref<SGSegment> segment = child(inserted);
        const int64_t count = segment ? segment->itemCount() : 0;
        for (int64_t k = 0; k < count; ++k) {
          result->recordInsertedObjectAtIndex(std::nullopt, newStart(inserted) + k);
        }
      });
  std::sort(deletedChildren.begin(), deletedChildren.end());
  for (int64_t deleted : deletedChildren)
    for (int64_t k = 0; k < cached(deleted); ++k) result->recordDeletedObjectFromIndex(std::nullopt, oldStart(deleted) + k);

  Ref<UGMutableListTransform> inverse = segmentsTransform->inverseTransform();
  const IndexSet insertedOrMoved = segmentsTransform->insertionIndexesIncludingDecomposedMoveIndexes(true);
  for (size_t j = 0; j < segments_.size(); ++j) {
    const auto index = static_cast<int64_t>(j);
    Ref<UGListTransform> items = itemsOf(segments_[j]);
    if (!items || insertedOrMoved.containsIndex(index)) continue;
    const int64_t old = inverse->transformIndex(index);
    if (old == NotFound) continue;
    Ref<UGListTransform> shifted = items->transformByApplyingOffsetToDeletionAndMoveFromIndexes(oldStart(old))
                                       ->transformByApplyingOffsetToInsertionAndMoveToIndexes(newStarts[j]);
    result->recordChangesFromTransform(*shifted);
  }

  if (!result->isIdentity()) publishItemsTransform(result);
  cachedSegmentItemCounts_ = std::move(counts);
}

std::string SGGroupSegment::recursiveDescriptionForNotificationIndentation(NPWNotification* notification,
                                                                           int64_t indentation) {
  std::string text = SGSegment::recursiveDescriptionForNotificationIndentation(notification, indentation);
  if (notification != nullptr) {
    if (Ref<UGListTransform> segmentsTransform =
            transformForRelationOfSegmentInNotification(SGGroupSegmentSegmentsRelation, *this, *notification)) {
      text += descriptionForTransformNameIndentation(*segmentsTransform, SGGroupSegmentSegmentsRelation, indentation);
    }
  }
  const std::vector<Ref<SGSegment>> children = segments_;
  for (const Ref<SGSegment>& segment : children) {
    text += '\n';
    if (segment) text += segment->recursiveDescriptionForNotificationIndentation(notification, indentation + 4);
  }
  return text;
}

}  // namespace loomwork
