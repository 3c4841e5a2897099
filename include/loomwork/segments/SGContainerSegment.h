// SGContainerSegment: the abstract base of segments that have children.
#pragma once

#include <cstdint>
#include <optional>

#include "loomwork/segments/SGSegment.h"

#pragma GCC visibility push(default)
namespace loomwork {

// A segment whose items are shown by its children. The defaults map nothing
// (NotFound, no child); concrete containers override the four mappings:
//  - transformIndexFromChildSegment: a child's item index to the container's
//    (NotFound when the child's item is not shown);
//  - transformIndexToChildSegment: a container's item index to the child that
//    shows it and the index there;
//  - the drop forms do the same for an insertion point, which may equal the count.
// A container owns its children and sets their parentSegment to itself.
class SGContainerSegment : public SGSegment {
 public:
  using SGSegment::SGSegment;

  // NotFound.
  virtual int64_t transformIndexFromChildSegment(int64_t index, const SGSegment* child) const;
  // Sets *outChild (when given) to empty and returns NotFound.
  virtual int64_t transformIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const;
  // transformIndexFromChildSegment.
  virtual int64_t transformDropIndexFromChildSegment(int64_t index, const SGSegment* child) const;
  // Sets *outChild (when given) to empty and returns NotFound; it does not
  // forward to transformIndexToChildSegment.
  virtual int64_t transformDropIndexToChildSegment(int64_t index, Ref<SGSegment>* outChild) const;

  // An empty list here.
  NPWSuccessors nextNodesForNotification(NPWNotification& notification) override;
  // Through transformIndexToChildSegment to the child; absent / empty when
  // the index maps to no child.
  std::optional<Value> representedObjectAtIndex(int64_t index) const override;
  Ref<SGSegment> leafSegmentForIndex(int64_t index) const override;
  // Absent in this abstract base.
  std::optional<IndexSet> indexesForRepresentedObject(const Value& object) const override;

 protected:
  // Takes the child in (its parentSegment becomes the receiver) or lets it go.
  void adoptChildSegment(SGSegment& child);
  static void releaseChildSegment(SGSegment& child) { child.setParentSegment(nullptr); }
};

}  // namespace loomwork
#pragma GCC visibility pop
