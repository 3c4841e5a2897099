// Speed of the notification walk against a plain recursive depth-first walk
// of the same graph, and of a sectioned, filtered and sorted tree of rows
// against the same rows and changes in GTK 4's list models (a flatten model
// over sort models over filter models over list stores, without a display).
//
// The tree: a group of 10 sections, each a sorting segment (two keys) over a
// filter segment (keeping about half) over a list segment of n records, built
// as an application builds it, with a shouldSortBlock that asks for a sort
// only when a sort key of one of the section's records changed. Measured: the build, and one insertion, one
// deletion, one sort-key change, hiding and showing one section, each as one
// pass (one round of signals on the GTK side). Changes are timed alone; what
// undoes them between iterations is not.
#include <benchmark/benchmark.h>

#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "loomwork/graph/UniversalGraphObjects.h"
#include "loomwork/segments.h"

#ifdef LOOMWORK_BENCH_GTK
#include <gtk/gtk.h>
#endif

using namespace loomwork;

namespace {

// The timed changes are measured in CPU time of the running thread, which on a
// loaded machine stays close to what the change costs where wall time does not.
struct Clock {
  using time_point = double;
  static double now() {
    timespec cpu{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
    return static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) * 1e-9;
  }
};

double secondsSince(Clock::time_point start) { return Clock::now() - start; }

// ---------------------------------------------------------------------------
// The notification walk over 10,000 nodes.

class WalkNode : public Object, public NPWNode {
 public:
  uint32_t npwImplementedHooks() const override {
    return NPWNodeHookNextNodes | NPWNodeHookDidEnter | NPWNodeHookWillExit;
  }
  NPWSuccessors nextNodesForNotification(NPWNotification&) override {
    NPWSuccessors successors;
    successors.reserve(next.size());
    for (WalkNode* node : next) successors.emplace_back(node->ref());
    return successors;
  }
  void didEnterNodeWithNotification(NPWNotification&) override { ++entered; }
  void willExitNodeWithNotification(NPWNotification&) override { ++exited; }

  std::vector<WalkNode*> next;
  int64_t entered = 0, exited = 0;
};

// A tree of fan-out 3 with one extra edge from every node to a random node, so
// that the walk meets nodes it has already processed.
struct WalkGraph {
  std::vector<Ref<WalkNode>> nodes;
  explicit WalkGraph(size_t count) {
    std::mt19937_64 rng(7);
    for (size_t i = 0; i < count; ++i) nodes.push_back(make<WalkNode>());
    for (size_t i = 0; i < count; ++i) {
      for (size_t c = 3 * i + 1; c <= 3 * i + 3 && c < count; ++c) nodes[i]->next.push_back(nodes[c].get());
      nodes[i]->next.push_back(nodes[rng() % count].get());
    }
  }
};

const WalkGraph& walkGraph() {
  static WalkGraph graph(10000);
  return graph;
}

void plainWalk(WalkNode* node, std::unordered_set<WalkNode*>& visited, NPWNotification& notification) {
  if (!visited.insert(node).second) return;
  node->didEnterNodeWithNotification(notification);
  for (WalkNode* next : node->next) plainWalk(next, visited, notification);
  node->willExitNodeWithNotification(notification);
}

void BM_NotificationWalk(benchmark::State& state) {
  const auto& graph = walkGraph();
  for (auto _ : state) {
    NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(NPWNotification::notification(),
                                                                              graph.nodes[0], false);
  }
  state.counters["nodes"] = static_cast<double>(graph.nodes.size());
}
BENCHMARK(BM_NotificationWalk)->Unit(benchmark::kMicrosecond);

void BM_PlainRecursiveWalk(benchmark::State& state) {
  const auto& graph = walkGraph();
  auto notification = NPWNotification::notification();
  for (auto _ : state) {
    std::unordered_set<WalkNode*> visited;
    plainWalk(graph.nodes[0].get(), visited, *notification);
    benchmark::DoNotOptimize(visited.size());
  }
}
BENCHMARK(BM_PlainRecursiveWalk)->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// The records, shared by both sides.

constexpr int kSections = 10;

struct RecordData {
  int64_t id, a, b;
  bool keep;
};

RecordData randomRecord(std::mt19937_64& rng, int64_t id) {
  return {id, static_cast<int64_t>(rng() % 100), static_cast<int64_t>(rng() % 1000000), rng() % 2 == 0};
}

class BenchRecord : public Object {
 public:
  explicit BenchRecord(const RecordData& data) : data(data) {}
  std::optional<Value> valueForKey(std::string_view key) const override {
    if (key == "a") return Value(data.a);
    if (key == "b") return Value(data.b);
    if (key == "keep") return Value(data.keep);
    return std::nullopt;
  }
  RecordData data;
};

BenchRecord& recordOf(const Value& value) { return *static_cast<BenchRecord*>(value.tryObject()); }

// ---------------------------------------------------------------------------
// Loomwork's tree.

// Whether the notification changes a sort key of a record that `owners` places
// in `section`: the application knows which section shows which record, and
// re-sorts only the section whose record changed.
bool updatesSortKeyIn(NPWNotification& notification, const std::unordered_map<std::string, int>& owners, int section) {
  auto transaction = notification.graphTransaction();
  for (const std::string& uuid : *transaction) {
    auto owner = owners.find(uuid);
    if (owner == owners.end() || owner->second != section) continue;
    auto operation = transaction->operationForUUID(uuid);
    if (operation->valueForProperty("a") || operation->valueForProperty("b")) return true;
  }
  return false;
}

struct Section {
  Ref<LWArrayContainer> list;
  Ref<SGListSegment> leaf;
  Ref<SGFilterSegment> filter;
  Ref<SGSortingSegment> sorting;
  Ref<UGListTransform> pending;
};

struct LoomworkTree {
  Ref<SGGroupSegment> group;
  std::vector<std::unique_ptr<Section>> sections;
  // The section of each record whose sort key the application changes.
  std::unordered_map<std::string, int> owners;

  LoomworkTree(int64_t perSection, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<Ref<SGSegment>> children;
    for (int s = 0; s < kSections; ++s) {
      auto section = std::make_unique<Section>();
      Array records;
      records.reserve(static_cast<size_t>(perSection));
      for (int64_t i = 0; i < perSection; ++i) records.emplace_back(make<BenchRecord>(randomRecord(rng, i)));
      section->list = make<LWArrayContainer>(std::move(records));
      section->leaf = make<SGListSegment>(section->list);
      Section* raw = section.get();
      section->leaf->setTransformFromNotificationBlock(
          [raw](NPWNotification&) { return std::exchange(raw->pending, nullptr); });
      section->filter = make<SGFilterSegment>();
      section->filter->setFilterBlock(
          [](SGSegment& inner, int64_t index) { return recordOf(*inner.representedObjectAtIndex(index)).data.keep; });
      section->filter->setInnerSegment(section->leaf);
      section->sorting = make<SGSortingSegment>();
      section->sorting->setSortDescriptors(std::vector<SortDescriptor>{SortDescriptor("a"), SortDescriptor("b")});
      section->sorting->setShouldSortBlock(
          [this, s](NPWNotification& notification) { return updatesSortKeyIn(notification, owners, s); });
      section->sorting->setInnerSegment(section->filter);
      children.push_back(section->sorting);
      sections.push_back(std::move(section));
    }
    group = SGGroupSegment::groupSegmentWithSegments(children);
  }

  // One pass for a change of the section's list.
  void announce(Section& section, Ref<UGListTransform> transform) {
    section.pending = std::move(transform);
    NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(NPWNotification::notification(),
                                                                              section.leaf, false);
  }
  void insert(Section& section, int64_t index, const Value& record) {
    auto& array = section.list->mutableArray();
    array.insert(array.begin() + index, record);
    auto transform = UGMutableListTransform::transform();
    transform->recordInsertedObjectAtIndex(record, index);
    announce(section, transform);
  }
  Value remove(Section& section, int64_t index) {
    auto& array = section.list->mutableArray();
    Value record = array[static_cast<size_t>(index)];
    array.erase(array.begin() + index);
    auto transform = UGMutableListTransform::transform();
    transform->recordDeletedObjectFromIndex(record, index);
    announce(section, transform);
    return record;
  }
  // Done before a sort key of the record changes.
  void noteOwner(int s, int64_t index) {
    const Value& record = sections[static_cast<size_t>(s)]->list->array()[static_cast<size_t>(index)];
    owners.emplace(universalGraphUUID(*record.object()), s);
  }
  void changeSortKey(Section& section, int64_t index, int64_t a) {
    const Value& record = section.list->array()[static_cast<size_t>(index)];
    recordOf(record).data.a = a;
    didUpdatePropertyInitiateNotificationFromComposable(*record.object(), "a", section.leaf.get(), false);
  }
  int64_t rowCount() const { return group->itemCount(); }
};

// ---------------------------------------------------------------------------
// GTK's models.

#ifdef LOOMWORK_BENCH_GTK

struct GtkBenchItem {
  GObject parent;
  RecordData data;
};
struct GtkBenchItemClass {
  GObjectClass parentClass;
};

GType gtkBenchItemType() {
  static GType type = [] {
    GTypeInfo info{};
    info.class_size = sizeof(GtkBenchItemClass);
    info.instance_size = sizeof(GtkBenchItem);
    return g_type_register_static(G_TYPE_OBJECT, "LoomworkBenchItem", &info, GTypeFlags(0));
  }();
  return type;
}

GtkBenchItem* newGtkItem(const RecordData& data) {
  auto* item = static_cast<GtkBenchItem*>(g_object_new(gtkBenchItemType(), nullptr));
  item->data = data;
  return item;
}

gboolean gtkKeep(gpointer item, gpointer) { return static_cast<GtkBenchItem*>(item)->data.keep; }

int gtkCompare(gconstpointer x, gconstpointer y, gpointer) {
  const auto& a = static_cast<const GtkBenchItem*>(x)->data;
  const auto& b = static_cast<const GtkBenchItem*>(y)->data;
  if (a.a != b.a) return a.a < b.a ? -1 : 1;
  if (a.b != b.b) return a.b < b.b ? -1 : 1;
  return 0;
}

struct GtkTree {
  std::vector<GListStore*> stores;
  std::vector<GListModel*> sorted;  // one reference held here
  GListStore* sections = nullptr;
  GtkFlattenListModel* flat = nullptr;

  GtkTree(int64_t perSection, uint64_t seed) {
    std::mt19937_64 rng(seed);
    sections = g_list_store_new(G_TYPE_LIST_MODEL);
    for (int s = 0; s < kSections; ++s) {
      GListStore* store = g_list_store_new(gtkBenchItemType());
      std::vector<gpointer> items;
      items.reserve(static_cast<size_t>(perSection));
      for (int64_t i = 0; i < perSection; ++i) items.push_back(newGtkItem(randomRecord(rng, i)));
      g_list_store_splice(store, 0, 0, items.data(), static_cast<guint>(items.size()));
      for (gpointer item : items) g_object_unref(item);
      auto* filter = gtk_filter_list_model_new(G_LIST_MODEL(g_object_ref(store)),
                                               GTK_FILTER(gtk_custom_filter_new(gtkKeep, nullptr, nullptr)));
      auto* sort = gtk_sort_list_model_new(G_LIST_MODEL(filter),
                                           GTK_SORTER(gtk_custom_sorter_new(gtkCompare, nullptr, nullptr)));
      stores.push_back(store);
      sorted.push_back(G_LIST_MODEL(sort));
      g_list_store_append(sections, sort);
    }
    flat = gtk_flatten_list_model_new(G_LIST_MODEL(g_object_ref(sections)));
  }
  ~GtkTree() {
    g_object_unref(flat);
    g_object_unref(sections);
    for (auto* model : sorted) g_object_unref(model);
    for (auto* store : stores) g_object_unref(store);
  }
  GtkTree(const GtkTree&) = delete;
  GtkTree& operator=(const GtkTree&) = delete;

  int64_t rowCount() const { return g_list_model_get_n_items(G_LIST_MODEL(flat)); }
};

#endif

// ---------------------------------------------------------------------------
// The benchmarks, per side and size (records per section).

LoomworkTree& loomworkTree(int64_t perSection) {
  static std::map<int64_t, std::unique_ptr<LoomworkTree>> trees;
  auto& tree = trees[perSection];
  if (!tree) tree = std::make_unique<LoomworkTree>(perSection, 1);
  return *tree;
}

void BM_LoomworkBuild(benchmark::State& state) {
  for (auto _ : state) {
    auto start = Clock::now();
    auto tree = std::make_unique<LoomworkTree>(state.range(0), 1);
    benchmark::DoNotOptimize(tree->rowCount());
    state.SetIterationTime(secondsSince(start));
  }
  state.counters["rows"] = static_cast<double>(loomworkTree(state.range(0)).rowCount());
}

void BM_LoomworkInsert(benchmark::State& state) {
  auto& tree = loomworkTree(state.range(0));
  std::mt19937_64 rng(2);
  int64_t id = 1 << 30;
  for (auto _ : state) {
    Section& section = *tree.sections[rng() % kSections];
    const auto at = static_cast<int64_t>(rng() % (section.list->array().size() + 1));
    RecordData data = randomRecord(rng, id++);
    data.keep = true;
    Value record(make<BenchRecord>(data));
    auto start = Clock::now();
    tree.insert(section, at, record);
    state.SetIterationTime(secondsSince(start));
    tree.remove(section, at);
  }
}

void BM_LoomworkDelete(benchmark::State& state) {
  auto& tree = loomworkTree(state.range(0));
  std::mt19937_64 rng(3);
  for (auto _ : state) {
    Section& section = *tree.sections[rng() % kSections];
    const auto at = static_cast<int64_t>(rng() % section.list->array().size());
    auto start = Clock::now();
    Value record = tree.remove(section, at);
    state.SetIterationTime(secondsSince(start));
    tree.insert(section, at, record);
  }
}

void BM_LoomworkSortKeyChange(benchmark::State& state) {
  auto& tree = loomworkTree(state.range(0));
  std::mt19937_64 rng(4);
  for (auto _ : state) {
    const auto s = static_cast<int>(rng() % kSections);
    Section& section = *tree.sections[static_cast<size_t>(s)];
    const auto at = static_cast<int64_t>(rng() % section.list->array().size());
    const auto a = static_cast<int64_t>(rng() % 100);
    tree.noteOwner(s, at);
    auto start = Clock::now();
    tree.changeSortKey(section, at, a);
    state.SetIterationTime(secondsSince(start));
  }
}

void BM_LoomworkHideSection(benchmark::State& state) {
  auto& tree = loomworkTree(state.range(0));
  std::mt19937_64 rng(5);
  for (auto _ : state) {
    const auto s = static_cast<int64_t>(rng() % kSections);
    Ref<SGSegment> section = tree.group->segments()[static_cast<size_t>(s)];
    auto start = Clock::now();
    tree.group->removeSegmentAtIndex(s);
    state.SetIterationTime(secondsSince(start));
    tree.group->insertSegmentAtIndex(section, s);
  }
}

void BM_LoomworkShowSection(benchmark::State& state) {
  auto& tree = loomworkTree(state.range(0));
  std::mt19937_64 rng(6);
  for (auto _ : state) {
    const auto s = static_cast<int64_t>(rng() % kSections);
    Ref<SGSegment> section = tree.group->segments()[static_cast<size_t>(s)];
    tree.group->removeSegmentAtIndex(s);
    auto start = Clock::now();
    tree.group->insertSegmentAtIndex(section, s);
    state.SetIterationTime(secondsSince(start));
  }
}

// The floors: building (and dropping) only the transforms that a change must
// publish. After an inner insertion or deletion the filter publishes a move of
// every shown row, also of those that stay where they were; hiding or showing
// a section publishes a deletion or insertion of each of its rows. No
// structure behind the segments makes these transforms smaller.
void BM_FloorShownRowsMoved(benchmark::State& state) {
  auto& tree = loomworkTree(state.range(0));
  Array shown;
  tree.sections[0]->filter->appendRepresentedObjectsToArray(shown);
  for (auto _ : state) {
    auto start = Clock::now();
    auto transform = UGMutableListTransform::transform();
    auto& deletions = transform->mutableDeletions();
    auto& insertions = transform->mutableInsertions();
    deletions.reserve(shown.size());
    insertions.reserve(shown.size() + 1);
    for (size_t k = 0; k < shown.size(); ++k) {
      deletions.push_back(UGListTransformItem::itemWithIndexObject(static_cast<int64_t>(k), shown[k]));
      insertions.push_back(UGListTransformItem::itemWithIndexObject(static_cast<int64_t>(k), shown[k]));
      insertions.back()->establishMoveLinkToItem(deletions.back().get());
    }
    benchmark::DoNotOptimize(transform->cardinalityChange());
    transform = nullptr;
    state.SetIterationTime(secondsSince(start));
  }
  state.counters["rows"] = static_cast<double>(shown.size());
}

void BM_FloorSectionRowsDeleted(benchmark::State& state) {
  auto& tree = loomworkTree(state.range(0));
  const int64_t rows = tree.sections[0]->sorting->itemCount();
  for (auto _ : state) {
    auto start = Clock::now();
    auto transform = UGMutableListTransform::transform();
    auto& deletions = transform->mutableDeletions();
    deletions.reserve(static_cast<size_t>(rows));
    for (int64_t k = 0; k < rows; ++k) deletions.push_back(UGListTransformItem::itemWithIndexObject(k, std::nullopt));
    benchmark::DoNotOptimize(transform->cardinalityChange());
    transform = nullptr;
    state.SetIterationTime(secondsSince(start));
  }
  state.counters["rows"] = static_cast<double>(rows);
}

#ifdef LOOMWORK_BENCH_GTK

GtkTree& gtkTree(int64_t perSection) {
  static std::map<int64_t, std::unique_ptr<GtkTree>> trees;
  auto& tree = trees[perSection];
  if (!tree) tree = std::make_unique<GtkTree>(perSection, 1);
  return *tree;
}

void BM_GtkBuild(benchmark::State& state) {
  for (auto _ : state) {
    auto start = Clock::now();
    auto tree = std::make_unique<GtkTree>(state.range(0), 1);
    benchmark::DoNotOptimize(tree->rowCount());
    state.SetIterationTime(secondsSince(start));
  }
  state.counters["rows"] = static_cast<double>(gtkTree(state.range(0)).rowCount());
}

void BM_GtkInsert(benchmark::State& state) {
  auto& tree = gtkTree(state.range(0));
  std::mt19937_64 rng(2);
  int64_t id = 1 << 30;
  for (auto _ : state) {
    GListStore* store = tree.stores[rng() % kSections];
    const auto at = static_cast<guint>(rng() % (g_list_model_get_n_items(G_LIST_MODEL(store)) + 1));
    RecordData data = randomRecord(rng, id++);
    data.keep = true;
    GtkBenchItem* item = newGtkItem(data);
    auto start = Clock::now();
    g_list_store_insert(store, at, item);
    state.SetIterationTime(secondsSince(start));
    g_object_unref(item);
    g_list_store_remove(store, at);
  }
}

void BM_GtkDelete(benchmark::State& state) {
  auto& tree = gtkTree(state.range(0));
  std::mt19937_64 rng(3);
  for (auto _ : state) {
    GListStore* store = tree.stores[rng() % kSections];
    const auto at = static_cast<guint>(rng() % g_list_model_get_n_items(G_LIST_MODEL(store)));
    gpointer item = g_list_model_get_item(G_LIST_MODEL(store), at);
    auto start = Clock::now();
    g_list_store_remove(store, at);
    state.SetIterationTime(secondsSince(start));
    g_list_store_insert(store, at, item);
    g_object_unref(item);
  }
}

// GTK learns of a changed item through items-changed at its position (the
// store replaces the item by itself).
void BM_GtkSortKeyChange(benchmark::State& state) {
  auto& tree = gtkTree(state.range(0));
  std::mt19937_64 rng(4);
  for (auto _ : state) {
    GListStore* store = tree.stores[rng() % kSections];
    const auto at = static_cast<guint>(rng() % g_list_model_get_n_items(G_LIST_MODEL(store)));
    const auto a = static_cast<int64_t>(rng() % 100);
    gpointer item = g_list_model_get_item(G_LIST_MODEL(store), at);
    auto start = Clock::now();
    static_cast<GtkBenchItem*>(item)->data.a = a;
    g_list_store_splice(store, at, 1, &item, 1);
    state.SetIterationTime(secondsSince(start));
    g_object_unref(item);
  }
}

void BM_GtkHideSection(benchmark::State& state) {
  auto& tree = gtkTree(state.range(0));
  std::mt19937_64 rng(5);
  for (auto _ : state) {
    const auto s = static_cast<guint>(rng() % kSections);
    gpointer section = g_list_model_get_item(G_LIST_MODEL(tree.sections), s);
    auto start = Clock::now();
    g_list_store_remove(tree.sections, s);
    state.SetIterationTime(secondsSince(start));
    g_list_store_insert(tree.sections, s, section);
    g_object_unref(section);
  }
}

void BM_GtkShowSection(benchmark::State& state) {
  auto& tree = gtkTree(state.range(0));
  std::mt19937_64 rng(6);
  for (auto _ : state) {
    const auto s = static_cast<guint>(rng() % kSections);
    gpointer section = g_list_model_get_item(G_LIST_MODEL(tree.sections), s);
    g_list_store_remove(tree.sections, s);
    auto start = Clock::now();
    g_list_store_insert(tree.sections, s, section);
    state.SetIterationTime(secondsSince(start));
    g_object_unref(section);
  }
}

#endif

// Records per section: 10,000 (100,000 records in all) and 100,000 (1M).
void sizes(benchmark::internal::Benchmark* b) {
  b->Arg(10000)->Arg(100000)->UseManualTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(BM_LoomworkBuild)->Apply(sizes)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoomworkInsert)->Apply(sizes);
BENCHMARK(BM_LoomworkDelete)->Apply(sizes);
BENCHMARK(BM_LoomworkSortKeyChange)->Apply(sizes);
BENCHMARK(BM_LoomworkHideSection)->Apply(sizes);
BENCHMARK(BM_LoomworkShowSection)->Apply(sizes);
BENCHMARK(BM_FloorShownRowsMoved)->Apply(sizes);
BENCHMARK(BM_FloorSectionRowsDeleted)->Apply(sizes);
#ifdef LOOMWORK_BENCH_GTK
BENCHMARK(BM_GtkBuild)->Apply(sizes)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GtkInsert)->Apply(sizes);
BENCHMARK(BM_GtkDelete)->Apply(sizes);
BENCHMARK(BM_GtkSortKeyChange)->Apply(sizes);
BENCHMARK(BM_GtkHideSection)->Apply(sizes);
BENCHMARK(BM_GtkShowSection)->Apply(sizes);
#endif

}  // namespace

BENCHMARK_MAIN();
