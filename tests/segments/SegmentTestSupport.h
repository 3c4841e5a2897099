// Records, host lists that announce their changes, and a root group that runs
// code at the start and the end of each pass: what the segment tests share.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "loomwork/notifications.h"
#include "loomwork/segments.h"

namespace loomwork::testing {

// A small mutable model object. Records compare by identity.
class Record : public Object {
 public:
  Record(int64_t id, int64_t key) : id(id), key(key) {}
  std::optional<Value> valueForKey(std::string_view name) const override {
    if (name == "key") return Value(key);
    if (name == "id") return Value(id);
    if (name == "globalObjectUUID") return Value(globalObjectUUID());
    return std::nullopt;
  }
  std::string description() const override { return "R" + std::to_string(id); }

  int64_t id;
  int64_t key;
};

inline Value record(int64_t id, int64_t key = 0) { return Value(make<Record>(id, key)); }

// A host list of values that announces every change as an update of its
// relation "records", started from the given segment.
class RecordList : public LWArrayContainer {
 public:
  using LWArrayContainer::LWArrayContainer;

  std::optional<Value> valueForKey(std::string_view name) const override {
    if (name == "globalObjectUUID") return Value(globalObjectUUID());
    return std::nullopt;
  }

  void announce(const Ref<UGListTransform>& transform, Object& from) {
    didUpdateRelationWithTransformInitiateNotificationFromComposable(*this, "records", transform, &from, true);
  }
  void insert(const Value& value, int64_t index, Object& from) {
    mutableArray().insert(mutableArray().begin() + index, value);
    auto transform = UGMutableListTransform::transform();
    transform->recordInsertedObjectAtIndex(value, index);
    announce(transform, from);
  }
  void remove(int64_t index, Object& from) {
    Value value = mutableArray()[static_cast<size_t>(index)];
    mutableArray().erase(mutableArray().begin() + index);
    auto transform = UGMutableListTransform::transform();
    transform->recordDeletedObjectFromIndex(value, index);
    announce(transform, from);
  }
  // `to` is an index of the list after the move.
  void move(int64_t fromIndex, int64_t toIndex, Object& from) {
    Value value = mutableArray()[static_cast<size_t>(fromIndex)];
    mutableArray().erase(mutableArray().begin() + fromIndex);
    mutableArray().insert(mutableArray().begin() + toIndex, value);
    auto transform = UGMutableListTransform::transform();
    transform->recordMovedObjectFromIndexToIndex(value, fromIndex, toIndex);
    announce(transform, from);
  }
  void replace(int64_t index, const Value& value, Object& from) {
    Value old = mutableArray()[static_cast<size_t>(index)];
    mutableArray()[static_cast<size_t>(index)] = value;
    auto transform = UGMutableListTransform::transform();
    transform->recordDeletedObjectFromIndex(old, index);
    transform->recordInsertedObjectAtIndex(value, index);
    announce(transform, from);
  }
};

// The block a list segment reads its list's changes with: the "records"
// transform of the list in the notification's graph transaction.
inline SGListSegment::TransformFromNotificationBlock recordsTransformBlock(const Ref<RecordList>& list) {
  std::weak_ptr<RecordList> weak = list;
  return [weak](NPWNotification& notification) -> Ref<UGListTransform> {
    Ref<RecordList> held = weak.lock();
    if (!held) return nullptr;
    return notification.graphTransaction()->transformForRelationOfUpdatedObject("records", held.get());
  };
}

inline Ref<SGListSegment> listSegment(const Ref<RecordList>& list) {
  auto segment = make<SGListSegment>(list);
  segment->setTransformFromNotificationBlock(recordsTransformBlock(list));
  return segment;
}

// A root group that runs `onEnter` once at the start of the next pass (after
// its successors are fixed) and `onExit` at the end of every pass, after its
// own exit hook, with the pass's notification.
class DriverGroup : public SGGroupSegment {
 public:
  using SGGroupSegment::SGGroupSegment;

  void didEnterNodeWithNotification(NPWNotification& notification) override {
    SGGroupSegment::didEnterNodeWithNotification(notification);
    if (onEnter) {
      std::function<void()> run = std::move(onEnter);
      onEnter = nullptr;
      run();
    }
  }
  void willExitNodeWithNotification(NPWNotification& notification) override {
    SGGroupSegment::willExitNodeWithNotification(notification);
    ++passes;
    if (onExit) onExit(notification);
  }
  // Runs `changes` inside one pass started at the receiver.
  void inOnePass(std::function<void()> changes) {
    onEnter = std::move(changes);
    NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(make<NPWNotification>(), ref(), false);
  }

  std::function<void()> onEnter;
  std::function<void(NPWNotification&)> onExit;
  int64_t passes = 0;
};

// The segment's represented objects.
inline Array rowsOf(const SGSegment& segment) {
  Array rows;
  segment.appendRepresentedObjectsToArray(rows);
  return rows;
}

// The ids of the records in the rows, "-" for anything else: "3 1 -".
inline std::string idsOf(const Array& rows) {
  std::string text;
  for (const Value& row : rows) {
    if (!text.empty()) text += ' ';
    auto record = row.objectAs<Record>();
    text += record ? std::to_string(record->id) : "-";
  }
  return text;
}

inline Ref<SGListSegment> listOf(std::initializer_list<int64_t> ids) {
  auto list = make<RecordList>();
  for (int64_t id : ids) list->mutableArray().push_back(record(id));
  return listSegment(list);
}

inline RecordList& listIn(const SGListSegment& segment) { return static_cast<RecordList&>(*segment.list()); }

// A transform's changes in grouped order: "-2" a deletion from 2, "1>3" a
// move, "+0" an insertion at 0; "" for none.
inline std::string changesOf(const UGListTransform* transform) {
  if (transform == nullptr) return "absent";
  std::string text;
  auto add = [&](const std::string& change) { text += (text.empty() ? "" : " ") + change; };
  transform->enumerateTransformAsGroupedDeletionsMovesInsertions(
      [&](int64_t index, const std::optional<Value>&) { add("-" + std::to_string(index)); },
      [&](int64_t from, int64_t to, const std::optional<Value>&) {
        add(std::to_string(from) + ">" + std::to_string(to));
      },
      [&](int64_t index, const std::optional<Value>&) { add("+" + std::to_string(index)); });
  return text;
}

// The "items" (or other) transform the notification holds for the segment.
inline std::string publishedBy(NPWNotification& notification, const SGSegment& segment,
                               std::string_view relation = "items") {
  return changesOf(SGSegment::transformForRelationOfSegmentInNotification(relation, segment, notification).get());
}

// A root that keeps the notification of its last pass.
inline Ref<DriverGroup> recordingRoot(Ref<NPWNotification>& last) {
  auto root = make<DriverGroup>(std::string("root"));
  root->onExit = [&last](NPWNotification& notification) { last = notification.ref<NPWNotification>(); };
  return root;
}

}  // namespace loomwork::testing
