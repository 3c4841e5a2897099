#include "loomwork/segments/SGSegment.h"

#include <fmt/format.h>

#include "loomwork/graph/UGTransaction.h"
#include "loomwork/notifications/NPWGraphObjectAnnouncements.h"
#include "loomwork/platform/UUID.h"
#include "loomwork/segments/SGContainerSegment.h"

namespace loomwork {

SGSegment::SGSegment() : uuid_(newUUIDString()) {}

SGSegment::SGSegment(std::string debugName) : SGSegment() { debugName_ = std::move(debugName); }

SGSegment::SGSegment(DebugNameBlock debugNameBlock) : SGSegment() { debugNameBlock_ = std::move(debugNameBlock); }

SGSegment::~SGSegment() = default;

Ref<SGSegment> SGSegment::rootSegment() const {
  Ref<SGContainerSegment> parent = parentSegment();
  if (!parent)
    return std::const_pointer_cast<SGSegment>(std::static_pointer_cast<const SGSegment>(weak_from_this().lock()));
  while (Ref<SGContainerSegment> next = parent->parentSegment()) parent = std::move(next);
  return parent;
}

bool SGSegment::descendsFromSegment(const SGSegment* segment) const {
  for (Ref<SGContainerSegment> parent = parentSegment(); parent; parent = parent->parentSegment()) {
    if (parent.get() == segment) return true;
  }
  return segment == nullptr;
}

int64_t SGSegment::transformIndexToSegment(int64_t index, const SGSegment* segment) const {
  if (descendsFromSegment(segment)) return transformIndexToAncestorSegment(index, segment);
  return segment->transformIndexFromAncestorSegment(index, this);
}

int64_t SGSegment::transformIndexToAncestorSegment(int64_t index, const SGSegment* ancestor) const {
  if (this == ancestor) return index;
  const SGSegment* segment = this;
  Ref<SGContainerSegment> parent = parentSegment();
  while (parent) {
    index = parent->transformIndexFromChildSegment(index, segment);
    if (parent.get() == ancestor) return index;
    Ref<SGContainerSegment> next = parent->parentSegment();
    segment = parent.get();
    // `segment` stays alive through `held` while `parent` moves on.
    Ref<SGContainerSegment> held = std::move(parent);
    parent = std::move(next);
    if (!parent) return ancestor == nullptr ? index : NotFound;
  }
  return ancestor == nullptr ? index : NotFound;
}

int64_t SGSegment::transformIndexFromAncestorSegment(int64_t index, const SGSegment* ancestor) const {
  // The walk holds each child it reaches; the ancestor is the caller's, or
  // held here when it is the root.
  Ref<SGSegment> root = ancestor == nullptr ? rootSegment() : nullptr;
  const SGSegment* at = ancestor != nullptr ? ancestor : root.get();
  Ref<SGSegment> current;
  while (at != this) {
    const auto* container = dynamic_cast<const SGContainerSegment*>(at);
    if (container == nullptr) return NotFound;
    Ref<SGSegment> child;
    index = container->transformIndexToChildSegment(index, &child);
    if (!child) return NotFound;
    current = std::move(child);
    at = current.get();
  }
  return index;
}

void SGSegment::depthFirstSearch(const DepthFirstSearchBlock& block) {
  bool stop = false;
  depthFirstSearchStop(block, stop);
}

void SGSegment::depthFirstSearchStop(const DepthFirstSearchBlock& block, bool& stop) {
  if (!stop) block(*this, stop);
}

Ref<SGSegment> SGSegment::leafSegmentForIndex(int64_t) const {
  return std::const_pointer_cast<SGSegment>(ref<SGSegment>());
}

int64_t SGSegment::firstIndexAfterIndexPassingTest(int64_t index, const IndexTest& test) {
  const int64_t count = itemCount();
  if (index >= count) return NotFound;
  for (int64_t i = index < -1 ? 0 : index + 1; i < count; ++i) {
    if (test(*this, i)) return i;
  }
  return NotFound;
}

int64_t SGSegment::lastIndexBeforeIndexPassingTest(int64_t index, const IndexTest& test) {
  if (index > itemCount() || index < 1) return NotFound;
  for (int64_t i = index - 1; i >= 0; --i) {
    if (test(*this, i)) return i;
  }
  return NotFound;
}

int64_t SGSegment::itemCount() const { return 0; }

std::optional<Value> SGSegment::representedObjectAtIndex(int64_t) const { return std::nullopt; }

std::optional<Value> SGSegment::items() const { return std::nullopt; }

void SGSegment::appendRepresentedObjectsToArray(Array& array) const {
  for (int64_t i = 0; i < itemCount(); ++i) array.push_back(representedObjectAtIndex(i).value_or(Value::null()));
}

std::optional<IndexSet> SGSegment::indexesForRepresentedObject(const Value&) const { return IndexSet(); }

uint32_t SGSegment::npwImplementedHooks() const {
  return NPWNodeHookNextNodes | NPWNodeHookDidEnter | NPWNodeHookWillExit | NPWNodeHookInitiatingNode;
}

NPWSuccessors SGSegment::nextNodesForNotification(NPWNotification&) { return {}; }

void SGSegment::didEnterNodeWithNotification(NPWNotification&) {}

void SGSegment::willExitNodeWithNotification(NPWNotification&) {}

Ref<Object> SGSegment::initiatingNodeForNotificationComposable(NPWNotification&, bool) { return rootSegment(); }

std::optional<Value> SGSegment::valueForKey(std::string_view key) const {
  if (key == "globalObjectUUID") return Value(globalObjectUUID());
  if (key == "uuid") return Value(uuid_);
  if (key == "debugName") return debugName_ ? std::optional<Value>(Value(*debugName_)) : std::nullopt;
  if (key == "itemCount") return Value(itemCount());
  return std::nullopt;
}

std::string SGSegment::description() const {
  if (debugNameBlock_) return fmt::format("{} (<{}: {}>)", debugNameBlock_(), className(), addressString(this));
  if (debugName_) return fmt::format("{} (<{}: {}>)", *debugName_, className(), addressString(this));
  return Object::description();
}

std::string SGSegment::recursiveDescriptionForNotificationIndentation(NPWNotification* notification,
                                                                      int64_t indentation) {
  std::string text(static_cast<size_t>(std::max<int64_t>(indentation, 0)), ' ');
  text += description();
  text += '\n';
  if (notification != nullptr) {
    if (Ref<UGListTransform> items = transformForRelationOfSegmentInNotification("items", *this, *notification)) {
      text += descriptionForTransformNameIndentation(*items, "items", indentation);
    }
  }
  return text;
}

std::string SGSegment::descriptionForTransformNameIndentation(const UGListTransform& transform, std::string_view name,
                                                              int64_t indentation) const {
  const std::string p(static_cast<size_t>(std::max<int64_t>(indentation, 0)), ' ');
  size_t characters = 0;
  for (unsigned char c : name) characters += (c & 0xC0) != 0x80 ? 1 : 0;
  const std::string q(characters + 3, ' ');
  const std::string w(10, ' ');
  std::string text = p + "[" + std::string(name) + "] ";
  bool first = true;
  auto place = [&](bool firstOfGroup, std::string_view group, const std::string& item) {
    if (first) {
      text += fmt::format("{} {}\n", group, item);
    } else if (firstOfGroup) {
      text += fmt::format("{}{}{} {}\n", p, q, group, item);
    } else {
      text += fmt::format("{}{}{}{}\n", p, q, w, item);
    }
    first = false;
  };
  auto index = [](int64_t i) { return static_cast<uint64_t>(i); };
  bool groupStarted = false;
  transform.enumerateTransformAsGroupedDeletionsMovesInsertions(
      [&](int64_t i, const std::optional<Value>& object) {
        place(!groupStarted, "deletions", fmt::format("{}   ({})", index(i), describe(object)));
        groupStarted = true;
      },
      {}, {});
  groupStarted = false;
  transform.enumerateTransformAsGroupedDeletionsMovesInsertions(
      {},
      [&](int64_t from, int64_t to, const std::optional<Value>& object) {
        place(!groupStarted, "moves", fmt::format("{} -> {}   ({})\n", index(from), index(to), describe(object)));
        groupStarted = true;
      },
      {});
  groupStarted = false;
  transform.enumerateTransformAsGroupedDeletionsMovesInsertions(
      {}, {}, [&](int64_t i, const std::optional<Value>& object) {
        place(!groupStarted, "insertions", fmt::format("{}   ({})\n", index(i), describe(object)));
        groupStarted = true;
      });
  return text;
}

Ref<UGListTransform> SGSegment::transformForRelationOfSegmentInNotification(std::string_view relation,
                                                                            const SGSegment& segment,
                                                                            NPWNotification& notification) {
  return notification.graphTransaction()->transformForRelationOfUpdatedObject(relation, &segment);
}

void SGSegment::publishTransformForRelation(const Ref<UGListTransform>& transform, std::string_view relation) {
  didUpdateRelationWithTransformInitiateNotificationFromComposable(*this, relation, transform, this, true);
}

}  // namespace loomwork
