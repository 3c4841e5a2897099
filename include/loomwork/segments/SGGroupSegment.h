// SGGroupSegment: the container that lays its children's items end to end.
#pragma once

#include <cstdint>
#include <vector>

#include "loomwork/segments/SGContainerSegment.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Shows the items of its first child, then those of its second, and so on.
// Every change of the child list is published as the transform of the
// relation "segments" (entries carry the child segments); the exit hook turns
// it, with the "items" transforms the children published, into the group's
// "items" transform. The group remembers its children's counts as they stood
// after its last exit hook, which is where a removed or moved child's items
// used to be.
class SGGroupSegment : public SGContainerSegment {
 public:
  using SGContainerSegment::SGContainerSegment;

  static Ref<SGGroupSegment> groupSegment() { return make<SGGroupSegment>(); }
  static Ref<SGGroupSegment> groupSegmentWithSegments(const std::vector<Ref<SGSegment>>& segments);

  // The live child list; callers must not change it.
  const std::vector<Ref<SGSegment>>& segments() const { return segments_; }
  const std::vector<Ref<SGSegment>>& mutableSegments() const { return segments_; }
  // The children's counts at the end of the last exit hook.
  const std::vector<int64_t>& cachedSegmentItemCounts() const { return cachedSegmentItemCounts_; }

  // Replaces the children, publishing the difference (compared by equality)
  // unless it is the identity. Children left out keep their parentSegment.
  void setSegments(const std::vector<Ref<SGSegment>>& segments);
  void addSegment(const Ref<SGSegment>& segment) { insertSegmentsAtIndex({segment}, childCount()); }
  void addSegments(const std::vector<Ref<SGSegment>>& segments) { insertSegmentsAtIndex(segments, childCount()); }
  void insertSegmentAtIndex(const Ref<SGSegment>& segment, int64_t index) { insertSegmentsAtIndex({segment}, index); }
  // Nothing for an empty list. An index above the child count throws
  // Exception (out of range) before anything changes.
  void insertSegmentsAtIndex(const std::vector<Ref<SGSegment>>& segments, int64_t index);
  // `to` is an index of the list without the child. Indexes outside the list
  // throw Exception (out of range); nothing is published then.
  void moveSegmentAtIndexToIndex(int64_t from, int64_t to);
  void removeSegmentAtIndex(int64_t index);
  // Publishes also when there were no children (an identity transform).
  void removeAllSegments();

  // The sum of the children's current counts.
  int64_t itemCount() const override;
  std::optional<IndexSet> indexesForRepresentedObject(const Value& object) const override;
  void depthFirstSearchStop(const DepthFirstSearchBlock& block, bool& stop) override;
  void appendRepresentedObjectsToArray(Array& array) const override;

  int64_t transformIndexFromChildSegment(int64_t index, const SGSegment* child) const override;
  int64_t transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;
  int64_t transformDropIndexFromChildSegment(int64_t index, const SGSegment* child) const override;
  // A drop index on the boundary of two children goes to the end of the
  // earlier one; drop index 0 goes to the first child even when it is empty.
  int64_t transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const override;

  // A copy of the child list.
  NPWSuccessors nextNodesForNotification(NPWNotification& notification) override;
  void willExitNodeWithNotification(NPWNotification& notification) override;
  std::string recursiveDescriptionForNotificationIndentation(NPWNotification* notification,
                                                             int64_t indentation) override;

 private:
  int64_t childCount() const { return static_cast<int64_t>(segments_.size()); }

  std::vector<Ref<SGSegment>> segments_;
  std::vector<int64_t> cachedSegmentItemCounts_;
};

// The relation name of a group's child list.
inline constexpr std::string_view SGGroupSegmentSegmentsRelation = "segments";

}  // namespace loomwork
#pragma GCC visibility pop
