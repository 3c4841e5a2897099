// SGSegment: the base of the segment tree that turns model lists into
// sectioned, filtered, sorted rows.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "loomwork/listtransform/UGListTransform.h"
#include "loomwork/notifications/NPWNode.h"
#include "loomwork/notifications/NPWNotification.h"
#include "loomwork/platform/IndexSet.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

class SGContainerSegment;

// A segment: a flat list of items (a count and a represented object per
// index) in a tree whose containers lay their children's items out. Every
// segment is a notification node; a notification started at any segment is
// processed from the root of its tree, and in its exit hook each segment
// publishes the change of its items as the list transform of its relation
// "items", keyed by its globalObjectUUID, in the running notification's graph
// transaction.
//
// Segments live in shared pointers (make<T>()). A container owns its
// children; a child holds its parent weakly. Indexes are signed 64-bit;
// NotFound means there is no such index, and index mapping never throws.
// A segment tree is used by the thread that processes its notifications.
class SGSegment : public Object, public NPWNode {
 public:
  using DebugNameBlock = std::function<std::string()>;
  using DepthFirstSearchBlock = std::function<void(SGSegment& segment, bool& stop)>;
  using IndexTest = std::function<bool(SGSegment& segment, int64_t index)>;

  SGSegment();
  // initWithName: / initWithNameBlock:.
  explicit SGSegment(std::string debugName);
  explicit SGSegment(DebugNameBlock debugNameBlock);
  ~SGSegment() override;

  // A random UUID made with the segment; not its graph identity (that is
  // globalObjectUUID()).
  const std::string& uuid() const { return uuid_; }

  // The containing segment, or empty for a root.
  Ref<SGContainerSegment> parentSegment() const { return parentSegment_.lock(); }
  // Containers call this when they adopt or release a child.
  void setParentSegment(const Ref<SGContainerSegment>& parent) { parentSegment_ = parent; }

  const std::optional<std::string>& debugName() const { return debugName_; }
  void setDebugName(std::optional<std::string> debugName) { debugName_ = std::move(debugName); }
  // Takes precedence over debugName in description().
  const DebugNameBlock& debugNameBlock() const { return debugNameBlock_; }
  void setDebugNameBlock(DebugNameBlock block) { debugNameBlock_ = std::move(block); }

  // The topmost ancestor, or the receiver itself without a parent.
  Ref<SGSegment> rootSegment() const;
  // Whether the segment is a proper ancestor (by identity). Every segment
  // descends from none (a null segment); none descends from itself.
  bool descendsFromSegment(const SGSegment* segment) const;

  // Maps an index of the receiver's items to the segment's items: upwards
  // when the segment is an ancestor (or none, the root), else downwards from
  // the receiver as the segment's ancestor. NotFound when it cannot be mapped.
  int64_t transformIndexToSegment(int64_t index, const SGSegment* segment) const;
  // Upwards through each parent's transformIndexFromChildSegment; NotFound
  // when the ancestor is not met. A null ancestor maps to the root's items.
  int64_t transformIndexToAncestorSegment(int64_t index, const SGSegment* ancestor) const;
  // Downwards from the ancestor (the root when null) through each container's
  // transformIndexToChildSegment; NotFound unless the walk reaches the receiver.
  int64_t transformIndexFromAncestorSegment(int64_t index, const SGSegment* ancestor) const;

  // Calls the block for the receiver and, in containers, for the descendants
  // in pre-order, until the block sets stop.
  void depthFirstSearch(const DepthFirstSearchBlock& block);
  virtual void depthFirstSearchStop(const DepthFirstSearchBlock& block, bool& stop);

  // The leaf that shows the item (the receiver itself here); empty when none does.
  virtual Ref<SGSegment> leafSegmentForIndex(int64_t index) const;

  // The first index after `index` (the count read once) for which the test
  // holds, or NotFound.
  int64_t firstIndexPassingTest(const IndexTest& test) { return firstIndexAfterIndexPassingTest(-1, test); }
  int64_t firstIndexAfterIndexPassingTest(int64_t index, const IndexTest& test);
  // The last index before `index` for which the test holds; NotFound when
  // `index` is above itemCount() or below 1.
  int64_t lastIndexPassingTest(const IndexTest& test) { return lastIndexBeforeIndexPassingTest(itemCount(), test); }
  int64_t lastIndexBeforeIndexPassingTest(int64_t index, const IndexTest& test);

  // The number of items; 0 here.
  virtual int64_t itemCount() const;
  // The object shown at the index; absent here.
  virtual std::optional<Value> representedObjectAtIndex(int64_t index) const;
  // Absent here.
  virtual std::optional<Value> items() const;
  // Appends every represented object in order, the null value where one is
  // absent.
  virtual void appendRepresentedObjectsToArray(Array& array) const;
  // Every index that shows an object equal to the given one: an empty set
  // here; absent in the abstract container.
  virtual std::optional<IndexSet> indexesForRepresentedObject(const Value& object) const;

  // Node hooks: segments answer all four; the successors are the children.
  uint32_t npwImplementedHooks() const override;
  NPWSuccessors nextNodesForNotification(NPWNotification& notification) override;
  void didEnterNodeWithNotification(NPWNotification& notification) override;
  void willExitNodeWithNotification(NPWNotification& notification) override;
  // The root segment.
  Ref<Object> initiatingNodeForNotificationComposable(NPWNotification& notification, bool composable) override;

  // "globalObjectUUID" (the graph identity), "uuid", "debugName", "itemCount".
  std::optional<Value> valueForKey(std::string_view key) const override;

  // "<name> (<ClassName: 0x...>)" with the debug name (block first), else
  // Object::description().
  std::string description() const override;
  // The receiver's line and, when the notification holds one, its "items"
  // transform; containers add their children four spaces deeper.
  std::string recursiveDescriptionForNotification(NPWNotification* notification) {
    return recursiveDescriptionForNotificationIndentation(notification, 0);
  }
  virtual std::string recursiveDescriptionForNotificationIndentation(NPWNotification* notification,
                                                                     int64_t indentation);
  // The transform as "[name] " followed by its deletions, moves and
  // insertions, one per line, indented by `indentation` spaces.
  std::string descriptionForTransformNameIndentation(const UGListTransform& transform, std::string_view name,
                                                     int64_t indentation) const;

  // The transform the notification's graph transaction holds for the
  // relation of the segment, or empty.
  static Ref<UGListTransform> transformForRelationOfSegmentInNotification(std::string_view relation,
                                                                          const SGSegment& segment,
                                                                          NPWNotification& notification);

 protected:
  // Publishes the transform as the change of the receiver's relation
  // ("items", or "segments" for a group): folded into the running pass when
  // the root is being processed, else processed in a new pass from the root.
  void publishTransformForRelation(const Ref<UGListTransform>& transform, std::string_view relation);
  void publishItemsTransform(const Ref<UGListTransform>& transform) { publishTransformForRelation(transform, "items"); }

 private:
  std::string uuid_;
  std::weak_ptr<SGContainerSegment> parentSegment_;
  std::optional<std::string> debugName_;
  DebugNameBlock debugNameBlock_;
};

// The relation name of a segment's item list.
inline constexpr std::string_view SGSegmentItemsRelation = "items";

}  // namespace loomwork
#pragma GCC visibility pop
