// Records, host lists that announce their changes, and a root group that runs
// code at the start and the end of each pass: what the segment tests share.
#pragma once

#include <functional>
#include <random>
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

  // Runs `edit` on the array, then announces what `record` writes into a transform.
  template <class Edit, class Record>
  void change(Edit edit, Record record, Object& from) {
    edit(mutableArray());
    auto transform = UGMutableListTransform::transform();
    record(*transform);
    didUpdateRelationWithTransformInitiateNotificationFromComposable(*this, "records", transform, &from, true);
  }
  void insert(const Value& value, int64_t index, Object& from) {
    change([&](Array& a) { a.insert(a.begin() + index, value); },
           [&](UGMutableListTransform& t) { t.recordInsertedObjectAtIndex(value, index); }, from);
  }
  void remove(int64_t index, Object& from) {
    Value value = array()[static_cast<size_t>(index)];
    change([&](Array& a) { a.erase(a.begin() + index); },
           [&](UGMutableListTransform& t) { t.recordDeletedObjectFromIndex(value, index); }, from);
  }
  // `to` is an index of the list after the move.
  void move(int64_t fromIndex, int64_t toIndex, Object& from) {
    Value value = array()[static_cast<size_t>(fromIndex)];
    change(
        [&](Array& a) {
          a.erase(a.begin() + fromIndex);
          a.insert(a.begin() + toIndex, value);
        },
        [&](UGMutableListTransform& t) { t.recordMovedObjectFromIndexToIndex(value, fromIndex, toIndex); }, from);
  }
  void replace(int64_t index, const Value& value, Object& from) {
    Value old = array()[static_cast<size_t>(index)];
    change([&](Array& a) { a[static_cast<size_t>(index)] = value; },
           [&](UGMutableListTransform& t) {
             t.recordDeletedObjectFromIndex(old, index);
             t.recordInsertedObjectAtIndex(value, index);
           },
           from);
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

using Rng = std::mt19937_64;
inline int64_t uniform(Rng& rng, int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); }

// A passthrough root that keeps the notification of its last pass and counts passes.
class CapturingRoot : public SGPassthroughSegment {
 public:
  void willExitNodeWithNotification(NPWNotification& notification) override {
    SGPassthroughSegment::willExitNodeWithNotification(notification);
    last = notification.ref<NPWNotification>();
    ++passes;
  }
  Ref<NPWNotification> last;
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

// The "items" (or other) transform the notification holds for the segment, in
// grouped order: "-2" a deletion from 2, "1>3" a move, "+0" an insertion at 0;
// "" for none, "absent" without a transform.
inline std::string publishedBy(NPWNotification& notification, const SGSegment& segment,
                               std::string_view relation = "items") {
  Ref<UGListTransform> transform =
      SGSegment::transformForRelationOfSegmentInNotification(relation, segment, notification);
  if (!transform) return "absent";
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

// A root that keeps the notification of its last pass.
inline Ref<DriverGroup> recordingRoot(Ref<NPWNotification>& last) {
  auto root = make<DriverGroup>(std::string("root"));
  root->onExit = [&last](NPWNotification& notification) { last = notification.ref<NPWNotification>(); };
  return root;
}

}  // namespace loomwork::testing
