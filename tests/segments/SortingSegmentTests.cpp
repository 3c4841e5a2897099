// The sorting segment: the kept sort keys against the documented full sort
// on random edits, and the segment's mappings and re-sort decisions.
#include <gtest/gtest.h>

#include <numeric>
#include <string>

#include "SegmentTestSupport.h"
#include "loomwork/listtransform.h"
#include "segments/SGMappingAlgorithms.h"

namespace loomwork::testing {
namespace {

constexpr uint64_t kSeed = 20261124;
// A record with two sort keys that the host changes in place.
class Entry : public Object {
 public:
  Entry(int64_t id, int64_t rank, std::string name) : id(id), rank(rank), name(std::move(name)) {}
  std::optional<Value> valueForKey(std::string_view key) const override {
    if (key == "rank") return Value(rank);
    if (key == "name") return Value(name);
    return std::nullopt;
  }
  int64_t id, rank;
  std::string name;
};

Value entry(Rng& rng, int64_t id) {
  return Value(make<Entry>(id, uniform(rng, 0, 4), std::string(1, static_cast<char>('a' + uniform(rng, 0, 3)))));
}

std::vector<SortDescriptor> randomDescriptors(Rng& rng) {
  std::vector<SortDescriptor> descriptors;
  switch (uniform(rng, 0, 4)) {
    case 0:
      break;
    case 1:
      descriptors.emplace_back("rank", uniform(rng, 0, 1) == 1);
      break;
    case 2:
      descriptors.emplace_back("rank", true);
      descriptors.emplace_back("name", false);
      break;
    case 3:  // a comparator that orders names backwards, then the rank
      descriptors.emplace_back("name", true, [](const Value& a, const Value& b) { return b.compare(a); });
      descriptors.emplace_back("rank", false);
      break;
    default:  // a missing key compares as null
      descriptors.emplace_back("missing", true);
      descriptors.emplace_back("name", true);
  }
  return descriptors;
}

TEST(SortingKeyCache, KeptKeysSortLikeTheDocumentedFullSort) {
  Rng rng(kSeed);
  for (int c = 0; c < 400; ++c) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + " case " + std::to_string(c));
    const auto descriptors = randomDescriptors(rng);
    sgdetail::SortKeyCache cache;
    cache.setDescriptors(&descriptors);
    Array objects;
    int64_t nextId = 0;
    for (int64_t k = uniform(rng, 0, 12); k > 0; --k) objects.push_back(entry(rng, nextId++));
    std::vector<int64_t> mapping = cache.sortedMapping({}, objects);
    ASSERT_EQ(mapping, sgdetail::sortedMappingLiterally(objects, descriptors));
    for (int step = 0; step < 12; ++step) {
      switch (uniform(rng, 0, 3)) {
        case 0: {  // keys change in place
          for (int64_t k = uniform(rng, 0, 3); k > 0 && !objects.empty(); --k) {
            auto changed = objects[static_cast<size_t>(uniform(rng, 0, static_cast<int64_t>(objects.size()) - 1))]
                               .objectAs<Entry>();
            changed->rank = uniform(rng, 0, 4);
          }
          break;
        }
        case 1: {  // the inner list changes: deletions, moves and insertions
          Array before = objects;
          std::shuffle(objects.begin(), objects.end(), rng);
          objects.resize(static_cast<size_t>(uniform(rng, 0, static_cast<int64_t>(objects.size()))));
          for (int64_t k = uniform(rng, 0, 3); k > 0; --k) {
            objects.insert(objects.begin() + uniform(rng, 0, static_cast<int64_t>(objects.size())),
                           entry(rng, nextId++));
          }
          auto inner = transformForTransitioningFromArrayToArrayObjectComparison(
              before, objects, UGListTransformObjectComparisonIdentity);
          bool inserted = false;
          std::vector<int64_t> surviving;
          sgdetail::sortingFollowInnerTransform(mapping, *inner, inserted, surviving);
          cache.keepPositions(surviving, mapping.size() - surviving.size());
          break;
        }
        case 2:  // equal keys keep their inner order, whatever the old order was
          std::shuffle(mapping.begin(), mapping.end(), rng);
          break;
        default:
          break;
      }
      if (mapping.size() != objects.size()) continue;  // the segment sorts after every insertion
      mapping = cache.sortedMapping(mapping, objects);
      ASSERT_EQ(mapping, sgdetail::sortedMappingLiterally(objects, descriptors)) << "step " << step;
    }
  }
}

// A sorting segment over a list of entries under a root that keeps the
// notification of the last pass.
struct SortingFixture {
  explicit SortingFixture(std::vector<int64_t> ranks) {
    Array entries;
    for (size_t i = 0; i < ranks.size(); ++i)
      entries.push_back(Value(make<Entry>(static_cast<int64_t>(i), ranks[i], "")));
    list = make<LWArrayContainer>(entries);
    leaf = make<SGListSegment>(list);
    leaf->setTransformFromNotificationBlock([this](NPWNotification&) { return std::exchange(pending, nullptr); });
    sorting = make<SGSortingSegment>();
    sorting->setInnerSegment(leaf);
    root = make<CapturingRoot>();
    root->setInnerSegment(sorting);
  }
  Entry& at(int64_t inner) { return *list->array()[static_cast<size_t>(inner)].objectAs<Entry>(); }
  void pass(Ref<UGMutableListTransform> change = nullptr) {
    if (change) applyTransform(list->mutableArray(), *change);
    pending = std::move(change);
    NPWProcessingCenter::sharedCenter()->initiateNotificationAtNodeComposable(NPWNotification::notification(), leaf,
                                                                              false);
  }
  std::vector<int64_t> ids() {
    Array rows;
    sorting->appendRepresentedObjectsToArray(rows);
    std::vector<int64_t> ids;
    for (const Value& row : rows) ids.push_back(row.objectAs<Entry>()->id);
    return ids;
  }
  Ref<LWArrayContainer> list;
  Ref<SGListSegment> leaf;
  Ref<SGSortingSegment> sorting;
  Ref<CapturingRoot> root;
  Ref<UGListTransform> pending;
};

TEST(SortingSegment, MapsIndexesAndRefusesDrops) {
  SortingFixture f({3, 1, 2, 1});
  f.sorting->setSortDescriptors(std::vector<SortDescriptor>{SortDescriptor("rank")});
  ASSERT_EQ(f.sorting->mappingToInnerIndexes(), (std::vector<int64_t>{1, 3, 2, 0}));
  EXPECT_EQ(f.sorting->transformIndexFromChildSegment(9, f.leaf.get()), NotFound);
  Ref<SGSegment> child = f.root;
  EXPECT_EQ(f.sorting->transformDropIndexToChildSegment(1, &child), NotFound);
  EXPECT_EQ(child, f.root);
  EXPECT_THROW(f.sorting->transformIndexToChildSegment(4, &child), Exception);
  EXPECT_EQ(f.sorting->transformDropIndexFromChildSegment(1, f.leaf.get()), NotFound);
  EXPECT_EQ(f.sorting->indexSetByTransformingInnerSegmentIndexSet(IndexSet{0, 1}), (IndexSet{0, 3}));

  // Equal but separate descriptors change nothing and publish nothing.
  const int64_t passes = f.root->passes;
  f.sorting->setSortDescriptors(std::vector<SortDescriptor>{SortDescriptor("rank")});
  EXPECT_EQ(f.root->passes, passes);
  f.sorting->setSortDescriptors(std::vector<SortDescriptor>{SortDescriptor("rank", false)});
  EXPECT_EQ(f.ids(), (std::vector<int64_t>{0, 2, 1, 3}));
  EXPECT_EQ(f.root->passes, passes + 1);
  f.sorting->setSortDescriptors(std::nullopt);
  EXPECT_EQ(f.ids(), (std::vector<int64_t>{0, 1, 2, 3}));
}

TEST(SortingSegment, ResortsAfterInsertionsAndWhenTheBlockAsks) {
  SortingFixture f({5, 1, 3});
  f.sorting->setSortDescriptors(std::vector<SortDescriptor>{SortDescriptor("rank")});
  ASSERT_EQ(f.ids(), (std::vector<int64_t>{1, 2, 0}));

  // Without a shouldSortBlock any pass sorts again.
  f.at(0).rank = 0;
  f.pass();
  EXPECT_EQ(f.ids(), (std::vector<int64_t>{0, 1, 2}));

  // With a block that declines and no insertions the order stays.
  bool sortAsked = false;
  f.sorting->setShouldSortBlock([&sortAsked](NPWNotification&) { return sortAsked; });
  f.at(0).rank = 9;
  f.pass();
  EXPECT_EQ(f.ids(), (std::vector<int64_t>{0, 1, 2}));

  // An insertion is appended, then sorted into place with everything else.
  auto insert = UGMutableListTransform::transform();
  insert->recordInsertedObjectAtIndex(Value(make<Entry>(3, 2, "")), 1);
  f.pass(insert);
  EXPECT_EQ(f.ids(), (std::vector<int64_t>{1, 3, 2, 0}));

  f.at(1).rank = 7;
  sortAsked = true;
  f.pass();
  EXPECT_EQ(f.ids(), (std::vector<int64_t>{1, 2, 3, 0}));
}

}  // namespace
}  // namespace loomwork::testing
