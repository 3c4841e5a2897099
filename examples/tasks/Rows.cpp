// The segment tree behind a device's rows, kept in step with the model.
//
// Tree: the root group has one section group per list, in list order. A
// section shows the list's open tasks and then its done tasks:
//
//   section (group)
//     sorting (due day, title) > filter (search) > list segment > open tasks
//     toggle (done shown) > sorting > filter > list segment > done tasks
//
// Each "part" (open or done) keeps its tasks in an LWArrayContainer in no
// particular order; the sorting segment orders them. Completing a task moves
// it from one container to the other.
//
// One model transaction is one notification pass: the containers are changed
// first and each part remembers the transform of its container; the pass then
// starts at the root, whose entry hook adds, drops and reorders the sections,
// and each list segment hands in its part's transform on the way back up. The
// root publishes one transform for the pass, and the rows follow it.
#include "Rows.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "loomwork/additions/StringScoring.h"
#include "loomwork/additions/TWDayDate.h"
#include "loomwork/notifications.h"
#include "loomwork/segments.h"

namespace loomwork::tasks {

namespace {

struct Part;

// What a list segment shows for a task. The sorting segment reads its keys
// through valueForKey; the rows and the filter read the fields directly.
class TaskItem : public Object {
 public:
  std::string uuid, list, title;
  std::optional<int64_t> due;
  bool done = false;
  Part* part = nullptr;  // where it is shown, or nowhere (no such list)
  // The sort key, made once per change because a re-sort reads every item's:
  // the due day as fixed-width digits (none after every day), the title and
  // the UUID, separated by NUL so that a title sorts before its extensions.
  // Compared by code point, it orders by due day, then title, then UUID.
  Value sortKey;
  std::string keyText;  // the same key as a string, for comparing with neighbours

  void updateSortKey() {
    char digits[24];
    const auto biased = due ? static_cast<unsigned long long>(*due) + (1ull << 62) : ~0ull;
    std::snprintf(digits, sizeof digits, "%020llu", biased);
    std::string key = digits;
    key += '\0';
    key += title;
    key += '\0';
    key += uuid;
    sortKey = Value(key);
    keyText = std::move(key);
  }
  std::optional<Value> valueForKey(std::string_view key) const override {
    if (key == "sortKey") return sortKey;
    return Object::valueForKey(key);
  }
  Row row() const { return Row{uuid, list, title, due, done}; }
};

TaskItem& itemOf(const Value& value) { return *static_cast<TaskItem*>(value.tryObject()); }

// One chain of segments over one container.
struct Part {
  Ref<LWArrayContainer> container = make<LWArrayContainer>();
  Ref<SGListSegment> list;
  Ref<SGSortingSegment> sorting;
  Ref<SGFilterSegment> filter;
  Ref<SGToggleSegment> toggle;  // the done part only
  Ref<SGSegment> top;
  // Pending for the running pass.
  Ref<UGMutableListTransform> change;
  std::vector<TaskItem*> leaving, arriving;
  std::vector<TaskItem*> rekeyed;  // staying, with a new sort key
  bool resort = false, retitle = false;
};

struct SectionParts {
  std::string list;
  Ref<SGGroupSegment> group;
  Part open, done;
};

struct ListInfo {
  std::string name;
  double order = 0;
  std::shared_ptr<SectionParts> section;  // empty until the next pass builds it
};

// The root: a group whose entry hook runs the pass's section changes, so they
// land in the same pass as the changes of the tasks.
class RootGroup : public SGGroupSegment {
 public:
  std::function<void()> onEnter;
  void didEnterNodeWithNotification(NPWNotification& notification) override {
    SGGroupSegment::didEnterNodeWithNotification(notification);
    if (auto run = std::move(onEnter)) {
      onEnter = nullptr;
      run();
    }
  }
};

}  // namespace

std::string TaskRows::dayText(int64_t day) {
  auto date = TWDayDate::dayDateWithGMTDateAtMidnight(Date{static_cast<double>(day) * 86400.0});
  if (!date) return "?";
  auto parts = date->dateComponents();
  char text[32];
  std::snprintf(text, sizeof text, "%04lld-%02lld-%02lld", static_cast<long long>(parts.year.value_or(0)),
                static_cast<long long>(parts.month.value_or(0)), static_cast<long long>(parts.day.value_or(0)));
  return text;
}

struct TaskRows::Impl {
  TaskModel& model;
  std::shared_ptr<Impl*> alive = std::make_shared<Impl*>(this);
  Ref<RootGroup> root = make<RootGroup>();
  std::unordered_map<std::string, Ref<TaskItem>> tasks;
  std::unordered_map<std::string, ListInfo> lists;
  std::vector<std::shared_ptr<SectionParts>> shown;    // the root's children, in order
  std::vector<std::shared_ptr<SectionParts>> dropped;  // kept alive until the pass ends
  // Sections of lists deleted in the running change, which lists created in
  // the same change take over (a whole-model replacement swaps every list):
  // their rows then leave and arrive through the parts' containers, instead
  // of whole sections leaving and joining the root.
  std::vector<std::shared_ptr<SectionParts>> spare;
  bool sectionsChanged = false;

  std::vector<Row> rows, previous;  // previous: the rows as the observer last saw them
  std::vector<size_t> refreshed;
  std::unordered_set<TaskItem*> touched;  // changed in place this pass

  bool showDone = true;
  std::string query;
  bool queryBlank = true;
  std::optional<AbbreviationScorer> scorer;
  bool refilterAll = false;

  bool inPass = false;
  std::vector<ModelChange> queued;
  TransformObserver observer;
  bool keepsRowsBefore = true;
  std::function<void(const std::string&)> errorObserver;
  size_t errors = 0;

  explicit Impl(TaskModel& m) : model(m) {}

  // MARK: Building

  void buildPart(Part& part, bool doneTasks) {
    part.list = make<SGListSegment>(part.container);
    part.list->setTransformFromNotificationBlock(
        [&part](NPWNotification&) -> Ref<UGListTransform> { return std::exchange(part.change, nullptr); });
    // The filter works on the container's order, which only changes at the
    // ends, and the sorting segment above it takes in whatever the filter
    // publishes and hands up only what moved in the sorted order.
    part.filter = make<SGFilterSegment>();
    part.filter->setFilterBlock([this](SGSegment& inner, int64_t index) {
      if (queryBlank) return true;
      auto object = inner.representedObjectAtIndex(index);
      return object && scorer->score(itemOf(*object).title) > 0;
    });
    part.filter->setShouldRefilterOnNotificationBlock(
        [this, &part](NPWNotification&, SGFilterSegment&) { return refilterAll || (part.retitle && !queryBlank); });
    part.filter->setInnerSegment(part.list);
    part.sorting = make<SGSortingSegment>();
    part.sorting->setSortDescriptors(std::vector<SortDescriptor>{SortDescriptor("sortKey")});
    part.sorting->setShouldSortBlock([&part](NPWNotification&) { return part.resort; });
    part.sorting->setInnerSegment(part.filter);
    part.top = part.sorting;
    if (doneTasks) {
      part.toggle = make<SGToggleSegment>();
      part.toggle->setShowsInnerSegmentBlock([this](NPWNotification*, bool) { return showDone; });
      part.toggle->setInnerSegment(part.sorting);
      part.top = part.toggle;
    }
  }

  // A section with the list's tasks already in its containers: it is built on
  // its own (its segments settle in passes of their own) and then joins the root.
  std::shared_ptr<SectionParts> buildSection(const std::string& list, const std::vector<TaskItem*>& members) {
    auto section = std::make_shared<SectionParts>();
    section->list = list;
    for (TaskItem* item : members) {
      Part& part = item->done ? section->done : section->open;
      item->part = &part;
      part.container->mutableArray().emplace_back(item->ref<TaskItem>());
    }
    buildPart(section->open, false);
    buildPart(section->done, true);
    section->group = SGGroupSegment::groupSegmentWithSegments({section->open.top, section->done.top});
    return section;
  }

  Part* partFor(const TaskItem& item) {
    auto it = lists.find(item.list);
    if (it == lists.end() || !it->second.section) return nullptr;
    return item.done ? &it->second.section->done : &it->second.section->open;
  }

  // Runs in the root's entry hook: builds the sections of new lists and puts
  // the sections in list order.
  void arrangeSections() {
    std::unordered_map<std::string, std::vector<TaskItem*>> waiting;
    bool anyNew = false;
    for (auto& [uuid, info] : lists) anyNew |= !info.section;
    if (anyNew) {
      for (auto& [uuid, item] : tasks) {
        auto it = lists.find(item->list);
        if (it != lists.end() && !it->second.section) waiting[item->list].push_back(item.get());
      }
      for (auto& [uuid, info] : lists)
        if (!info.section) info.section = buildSection(uuid, waiting[uuid]);
    }
    std::vector<std::pair<const std::string*, ListInfo*>> order;
    for (auto& [uuid, info] : lists) order.emplace_back(&uuid, &info);
    std::sort(order.begin(), order.end(), [](const auto& a, const auto& b) {
      if (a.second->order != b.second->order) return a.second->order < b.second->order;
      if (a.second->name != b.second->name) return a.second->name < b.second->name;
      return *a.first < *b.first;
    });
    shown.clear();
    std::vector<Ref<SGSegment>> children;
    for (auto& [uuid, info] : order) {
      shown.push_back(info->section);
      children.push_back(info->section->group);
    }
    root->setSegments(children);
  }

  // MARK: Following the model

  void dropSection(ListInfo& info) {
    if (!info.section) return;
    for (Part* part : {&info.section->open, &info.section->done})
      for (const Value& value : part->container->array()) itemOf(value).part = nullptr;
    spare.push_back(std::move(info.section));
  }

  // Gives a new list a spare section, its old tasks leaving it.
  void adoptSpare(const std::string& uuid, ListInfo& info) {
    if (info.section || spare.empty()) return;
    info.section = std::move(spare.back());
    spare.pop_back();
    info.section->list = uuid;
    for (Part* part : {&info.section->open, &info.section->done})
      for (const Value& value : part->container->array()) part->leaving.push_back(&itemOf(value));
  }

  void noteList(const std::string& uuid, const Entity& entity) {
    ListInfo& info = lists[uuid];
    adoptSpare(uuid, info);
    std::string name = entity.string("name");
    double order = entity.real("order");
    if (!info.section || info.name != name || info.order != order) sectionsChanged = true;
    info.name = std::move(name);
    info.order = order;
  }

  void noteTask(const std::string& uuid, const Entity& entity) {
    auto& slot = tasks[uuid];
    if (!slot) {
      slot = make<TaskItem>();
      slot->uuid = uuid;
    }
    TaskItem& item = *slot;
    const std::string title = entity.string("title");
    const std::optional<int64_t> due = entity.integer("due");
    const bool done = entity.flag("done");
    std::string list = entity.string("list");
    const bool titleChanged = title != item.title, dueChanged = due != item.due;
    const bool visibleChange = titleChanged || dueChanged || done != item.done || list != item.list;
    const std::string oldTitle = std::exchange(item.title, title);
    item.due = due;
    if (titleChanged || dueChanged || item.sortKey.isNull()) item.updateSortKey();
    item.done = done;
    item.list = std::move(list);
    Part* target = partFor(item);
    if (target == item.part) {
      if (target && (titleChanged || dueChanged)) {
        target->rekeyed.push_back(&item);
        // Only a change of the search's verdict needs the filter.
        if (titleChanged && !queryBlank && (scorer->score(oldTitle) > 0) != (scorer->score(item.title) > 0))
          target->retitle = true;
      }
      if (target && visibleChange) touched.insert(&item);
      return;
    }
    if (item.part) item.part->leaving.push_back(&item);
    if (target) target->arriving.push_back(&item);
    item.part = target;
  }

  void forgetTask(const std::string& uuid) {
    auto it = tasks.find(uuid);
    if (it == tasks.end()) return;
    TaskItem* item = it->second.get();
    if (item->part) {
      item->part->leaving.push_back(item);
      // The container still holds a reference until the part lets it go.
    }
    touched.erase(item);
    tasks.erase(it);
  }

  // Whether the tasks with new sort keys still sit between their neighbours
  // in the part's sorted order, which is then sorted as a whole: every
  // neighbouring pair that involves a changed task is compared with both
  // current keys. Read before the container changes.
  static bool stillSorted(Part& part) {
    const Array& array = part.container->array();
    std::unordered_map<const Object*, size_t> at;
    if (part.rekeyed.size() > 1)
      for (size_t i = 0; i < array.size(); ++i) at.emplace(array[i].tryObject(), i);
    const int64_t count = part.sorting->itemCount();
    auto keyAt = [&](int64_t index) -> const std::string* {
      auto object = part.sorting->representedObjectAtIndex(index);
      return object && object->isObject() ? &itemOf(*object).keyText : nullptr;
    };
    for (TaskItem* item : part.rekeyed) {
      size_t index = array.size();
      if (part.rekeyed.size() > 1) {
        if (auto it = at.find(item); it != at.end()) index = it->second;
      } else {
        auto found = std::find_if(array.begin(), array.end(), [&](const Value& v) { return v.tryObject() == item; });
        index = static_cast<size_t>(found - array.begin());
      }
      if (index >= array.size()) return false;
      const int64_t sorted =
          part.list->transformIndexToAncestorSegment(static_cast<int64_t>(index), part.sorting.get());
      if (sorted == NotFound) continue;  // filtered out: not in the sorted order
      if (sorted > 0) {
        const std::string* before = keyAt(sorted - 1);
        if (!before || !(*before < item->keyText)) return false;
      }
      if (sorted + 1 < count) {
        const std::string* after = keyAt(sorted + 1);
        if (!after || !(item->keyText < *after)) return false;
      }
    }
    return true;
  }

  // The container's changes as one transform: deletions at old indexes, then
  // the arrivals appended at the end.
  static void settleContainer(Part& part) {
    if (!part.rekeyed.empty()) {
      part.resort |= !part.leaving.empty() || !stillSorted(part);
      part.rekeyed.clear();
    }
    if (part.leaving.empty() && part.arriving.empty()) return;
    auto change = UGMutableListTransform::transform();
    Array& array = part.container->mutableArray();
    if (!part.leaving.empty()) {
      std::unordered_set<const Object*> leaving(part.leaving.begin(), part.leaving.end());
      size_t kept = 0;
      for (size_t i = 0; i < array.size(); ++i) {
        if (leaving.count(array[i].tryObject())) {
          change->recordDeletedObjectFromIndex(std::nullopt, static_cast<int64_t>(i));
          continue;
        }
        if (kept != i) array[kept] = std::move(array[i]);
        ++kept;
      }
      array.resize(kept);
    }
    for (TaskItem* item : part.arriving) {
      change->recordInsertedObjectAtIndex(std::nullopt, static_cast<int64_t>(array.size()));
      array.emplace_back(item->ref<TaskItem>());
    }
    part.leaving.clear();
    part.arriving.clear();
    part.change = change;
  }

  void apply(const ModelChange& change) {
    std::vector<Part*> parts;
    auto collect = [&] {
      for (auto& section : shown) parts.insert(parts.end(), {&section->open, &section->done});
    };
    for (const auto& [uuid, old] : change.deleted) {
      if (old.kind == kListKind) {
        auto it = lists.find(uuid);
        if (it == lists.end()) continue;
        dropSection(it->second);
        lists.erase(it);
        sectionsChanged = true;
      }
    }
    auto current = [&](const std::string& uuid, auto&& onList, auto&& onTask) {
      const Entity* entity = model.find(uuid);
      if (!entity) return;
      if (entity->kind == kListKind) onList(uuid, *entity);
      if (entity->kind == kTaskKind) onTask(uuid, *entity);
    };
    auto listOnly = [&](const std::string& uuid, const Entity& entity) { noteList(uuid, entity); };
    auto skip = [](const std::string&, const Entity&) {};
    auto taskOnly = [&](const std::string& uuid, const Entity& entity) { noteTask(uuid, entity); };
    // Lists first, so tasks find the lists of the same transaction.
    for (const auto& uuid : change.inserted) current(uuid, listOnly, skip);
    for (const auto& [uuid, old] : change.updated) current(uuid, listOnly, skip);
    for (auto& section : spare) dropped.push_back(std::move(section));
    spare.clear();
    for (const auto& [uuid, old] : change.deleted)
      if (old.kind == kTaskKind) forgetTask(uuid);
    for (const auto& uuid : change.inserted) current(uuid, skip, taskOnly);
    for (const auto& [uuid, old] : change.updated) current(uuid, skip, taskOnly);
    collect();
    for (Part* part : parts) settleContainer(*part);
    runPass();
  }

  void onModelChange(const ModelChange& change) {
    if (inPass) {
      // A model change made from a rows observer: follow it after this pass.
      queued.push_back(change);
      return;
    }
    apply(change);
  }

  // MARK: Passes

  void runPass() {
    auto notification = NPWNotification::notification();
    if (sectionsChanged) root->onEnter = [this] { arrangeSections(); };
    sectionsChanged = false;
    inPass = true;
    NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(notification, root, false);
    auto transform =
        SGSegment::transformForRelationOfSegmentInNotification(SGSegmentItemsRelation, *root, *notification);
    for (auto& section : shown)
      for (Part* part : {&section->open, &section->done}) {
        part->resort = part->retitle = false;
        part->change = nullptr;
      }
    dropped.clear();
    follow(transform ? transform : UGListTransform::transform());
    inPass = false;
    while (!queued.empty()) {
      auto next = std::move(queued.front());
      queued.erase(queued.begin());
      apply(next);
    }
  }

  void report(const std::string& message) {
    ++errors;
    if (errorObserver) {
      errorObserver(message);
    } else {
      std::fprintf(stderr, "loomwork-tasks: rows: %s\n", message.c_str());
    }
  }

  void follow(const Ref<UGListTransform>& transform) {
    std::vector<size_t> inserted;
    std::string error;
    if (!replayTransform(rows, *transform, inserted, error)) report("the root's transform does not fit: " + error);
    if (inserted.size() > 64) {
      Array shownObjects;
      root->appendRepresentedObjectsToArray(shownObjects);
      for (size_t index : inserted)
        if (index < shownObjects.size() && shownObjects[index].isObject())
          rows[index] = itemOf(shownObjects[index]).row();
    } else {
      for (size_t index : inserted)
        if (auto object = root->representedObjectAtIndex(static_cast<int64_t>(index)); object && object->isObject())
          rows[index] = itemOf(*object).row();
    }
    refreshed.clear();
    if (!touched.empty()) {
      std::vector<bool> fresh(rows.size(), false);
      for (size_t index : inserted) fresh[index] = true;
      for (TaskItem* item : touched) {
        if (!item->part) continue;
        // Up from the task's place in its container to the root's rows.
        const Array& array = item->part->container->array();
        auto at = std::find_if(array.begin(), array.end(), [&](const Value& v) { return v.tryObject() == item; });
        if (at == array.end()) continue;
        const int64_t index = item->part->list->transformIndexToAncestorSegment(at - array.begin(), root.get());
        if (index == NotFound) continue;  // filtered out or hidden
        const auto row = static_cast<size_t>(index);
        if (row >= rows.size() || rows[row].task != item->uuid) {
          report("the rows do not hold task " + item->uuid + " where the segments show it");
          continue;
        }
        if (!fresh[row]) {
          rows[row] = item->row();
          refreshed.push_back(row);
        }
      }
      std::sort(refreshed.begin(), refreshed.end());
      touched.clear();
    }
#ifndef NDEBUG
    if (std::string why; !verifyRows(&why)) report("rows differ from the root's after the pass: " + why);
#endif
    if (!observer || (transform->isIdentity() && refreshed.empty())) return;
    if (!keepsRowsBefore) return observer(transform, previous, rows);
    observer(transform, previous, rows);
    // Bring the observer's copy along by the same steps.
    std::vector<size_t> again;
    if (!replayTransform(previous, *transform, again, error) || previous.size() != rows.size()) {
      previous = rows;
      return;
    }
    for (size_t index : again) previous[index] = rows[index];
    for (size_t index : refreshed) previous[index] = rows[index];
  }

  bool verifyRows(std::string* why) const {
    Array objects;
    root->appendRepresentedObjectsToArray(objects);
    if (objects.size() != rows.size()) {
      if (why) *why = std::to_string(rows.size()) + " rows, " + std::to_string(objects.size()) + " shown";
      return false;
    }
    for (size_t i = 0; i < rows.size(); ++i) {
      if (!objects[i].isObject() || rows[i] != itemOf(objects[i]).row()) {
        if (why)
          *why = "row " + std::to_string(i) + " is \"" + rows[i].title + "\", shown \"" +
                 (objects[i].isObject() ? itemOf(objects[i]).title : objects[i].description()) + "\"";
        return false;
      }
    }
    return true;
  }
};

TaskRows::TaskRows(TaskModel& model) : impl_(std::make_unique<Impl>(model)) {
  std::weak_ptr<Impl*> alive = impl_->alive;
  model.addObserver([alive](const UGTransaction&, const ModelChange& change) {
    if (auto impl = alive.lock(); impl && *impl) (*impl)->onModelChange(change);
  });
  // The current content arrives as one change that creates it all.
  ModelChange everything;
  for (const auto& [uuid, entity] : model.entities()) everything.inserted.push_back(uuid);
  impl_->sectionsChanged = true;
  impl_->onModelChange(everything);
}

TaskRows::~TaskRows() { *impl_->alive = nullptr; }

const std::vector<Row>& TaskRows::rows() const { return impl_->rows; }

std::vector<Section> TaskRows::sections() const {
  std::vector<Section> result;
  size_t first = 0;
  for (const auto& section : impl_->shown) {
    auto it = impl_->lists.find(section->list);
    const auto count = static_cast<size_t>(section->group->itemCount());
    result.push_back(Section{section->list, it == impl_->lists.end() ? std::string() : it->second.name, first, count});
    first += count;
  }
  return result;
}

void TaskRows::setShowDone(bool show) {
  if (show == impl_->showDone) return;
  impl_->showDone = show;
  impl_->runPass();
}

bool TaskRows::showsDone() const { return impl_->showDone; }

void TaskRows::setSearch(const std::string& query) {
  if (query == impl_->query) return;
  impl_->query = query;
  impl_->queryBlank = query.find_first_not_of(" \t") == std::string::npos;
  impl_->scorer.emplace(query);
  impl_->refilterAll = true;
  impl_->runPass();
  impl_->refilterAll = false;
}

const std::string& TaskRows::search() const { return impl_->query; }

void TaskRows::setTransformObserver(TransformObserver observer) {
  impl_->observer = std::move(observer);
  impl_->previous = impl_->keepsRowsBefore ? impl_->rows : std::vector<Row>();
}

void TaskRows::setKeepsRowsBefore(bool keeps) {
  impl_->keepsRowsBefore = keeps;
  impl_->previous = keeps ? impl_->rows : std::vector<Row>();
}

std::string TaskRows::describe() const {
  std::string text;
  const auto& rows = impl_->rows;
  for (const auto& section : sections()) {
    text += "== " + section.name + "\n";
    for (size_t i = section.firstRow; i < section.firstRow + section.rowCount && i < rows.size(); ++i) {
      const Row& row = rows[i];
      text += std::string("  [") + (row.done ? 'x' : ' ') + "] " + row.title +
              (row.dueDay ? "  (due " + dayText(*row.dueDay) + ")" : std::string()) + "\n";
    }
  }
  return text;
}

const std::vector<size_t>& TaskRows::refreshedRows() const { return impl_->refreshed; }

bool TaskRows::verify(std::string* why) const { return impl_->verifyRows(why); }

void TaskRows::setErrorObserver(std::function<void(const std::string&)> observer) {
  impl_->errorObserver = std::move(observer);
}

size_t TaskRows::transformErrors() const { return impl_->errors; }

}  // namespace loomwork::tasks
