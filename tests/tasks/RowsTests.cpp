// The task rows against a plain recomputation from the model, over seeded
// random transactions, toggles and searches.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "Rows.h"
#include "loomwork/additions/StringScoring.h"

namespace loomwork::tasks {
namespace {

// Lists by order, name, UUID; in each, the open tasks and then (when shown)
// the done ones, each kept by the search and ordered by due day (none last),
// title, UUID.
std::vector<Row> recompute(const TaskModel& model, bool showDone, const std::string& query,
                           std::vector<Section>* sections) {
  std::vector<std::pair<std::string, const Entity*>> lists;
  for (const auto& [uuid, entity] : model.entities())
    if (entity.kind == kListKind) lists.emplace_back(uuid, &entity);
  std::sort(lists.begin(), lists.end(), [](const auto& a, const auto& b) {
    auto key = [](const auto& l) {
      return std::make_tuple(l.second->real("order"), l.second->string("name"), l.first);
    };
    return key(a) < key(b);
  });
  const bool blank = query.find_first_not_of(" \t") == std::string::npos;
  std::vector<Row> rows;
  for (const auto& [list, entity] : lists) {
    const size_t first = rows.size();
    for (bool done : {false, true}) {
      if (done && !showDone) continue;
      std::vector<Row> part;
      for (const auto& [uuid, task] : model.entities()) {
        if (task.kind != kTaskKind || task.string("list") != list || task.flag("done") != done) continue;
        if (!blank && !(scoreWithSearchString(task.string("title"), query) > 0)) continue;
        part.push_back(Row{uuid, list, task.string("title"), task.integer("due"), done});
      }
      std::sort(part.begin(), part.end(), [](const Row& a, const Row& b) {
        auto key = [](const Row& r) { return std::make_tuple(r.dueDay.value_or(INT64_MAX), r.title, r.task); };
        return key(a) < key(b);
      });
      rows.insert(rows.end(), part.begin(), part.end());
    }
    sections->push_back(Section{list, entity->string("name"), first, rows.size() - first});
  }
  return rows;
}

std::vector<std::string> uuidsOfKind(const TaskModel& model, const char* kind) {
  std::vector<std::string> result;
  for (const auto& [uuid, entity] : model.entities())
    if (entity.kind == kind) result.push_back(uuid);
  return result;
}

TEST(TaskRows, FollowRandomTransactionsTogglesAndSearches) {
  const char* words[] = {"buy", "milk", "call", "bob", "alpha", "beta", "tax", "Bake"};
  const char* queries[] = {"", "b", "bm", "al", "x", "ta", " "};
  for (unsigned seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
    TaskModel model;
    std::vector<std::string> gone;  // deleted list UUIDs: tasks may still name them
    auto seedList = TaskModel::createList("first", 1);
    model.apply(*seedList.second);
    TaskRows rows(model);
    // The observer's view, kept by replaying what it is handed.
    std::vector<Row> mirror = rows.rows();
    size_t passes = 0;
    rows.setTransformObserver(
        [&](const Ref<UGListTransform>& transform, const std::vector<Row>& before, const std::vector<Row>& after) {
          ++passes;
          ASSERT_EQ(before, mirror);
          std::vector<size_t> inserted;
          std::string error;
          ASSERT_TRUE(TaskRows::replayTransform(mirror, *transform, inserted, error)) << error;
          for (size_t index : inserted) mirror[index] = after[index];
          for (size_t index : rows.refreshedRows()) mirror[index] = after[index];
          ASSERT_EQ(mirror, after);
        });
    auto title = [&] { return std::string(words[pick(8)]) + (pick(2) ? std::string(" ") + words[pick(8)] : ""); };
    auto anyList = [&]() -> std::string {
      auto lists = uuidsOfKind(model, kListKind);
      if (!gone.empty() && pick(8) == 0) return gone[pick(gone.size())];
      return lists.empty() ? std::string("nowhere") : lists[pick(lists.size())];
    };
    auto oneChange = [&]() -> Ref<UGMutableTransaction> {
      auto tasks = uuidsOfKind(model, kTaskKind);
      auto lists = uuidsOfKind(model, kListKind);
      switch (pick(10)) {
        case 0:
          return TaskModel::createList(words[pick(8)], static_cast<double>(pick(4))).second;
        case 1:
          if (lists.empty()) break;
          if (pick(2))
            return TaskModel::update(lists[pick(lists.size())], kListKind, {{"order", Value(double(pick(4)))}});
          return TaskModel::update(lists[pick(lists.size())], kListKind, {{"name", Value(words[pick(8)])}});
        case 2:
          if (lists.empty() || pick(3)) break;
          gone.push_back(lists[pick(lists.size())]);
          return TaskModel::remove(gone.back(), kListKind);
        case 3:
          if (tasks.empty()) break;
          return TaskModel::remove(tasks[pick(tasks.size())], kTaskKind);
        case 4:
        case 5:
          if (tasks.empty()) break;
          {
            std::map<std::string, Value> values;
            if (pick(2)) values["title"] = Value(title());
            if (pick(2)) values["due"] = pick(3) ? Value(int64_t(19000 + pick(5))) : Value::null();
            if (pick(2)) values["done"] = Value(pick(2) == 0);
            if (pick(4) == 0) values["list"] = Value(anyList());
            return TaskModel::update(tasks[pick(tasks.size())], kTaskKind, values);
          }
        default:
          break;
      }
      std::optional<int64_t> due;
      if (pick(3)) due = 19000 + static_cast<int64_t>(pick(5));
      return TaskModel::createTask(anyList(), title(), due).second;
    };
    for (int step = 0; step < 250; ++step) {
      const size_t what = pick(20);
      if (what == 0) {
        rows.setShowDone(!rows.showsDone());
      } else if (what == 1) {
        rows.setSearch(queries[pick(7)]);
      } else if (what == 2) {
        model.replace(*model.contentTransaction());
      } else if (what == 3) {
        // Lists swapped for new ones in one change, as a replacement from
        // another device does: some tasks follow, others stay behind.
        auto lists = uuidsOfKind(model, kListKind);
        auto swap = UGMutableTransaction::transaction();
        std::vector<std::string> created;
        for (size_t n = 1 + pick(2); n > 0 && !lists.empty(); --n) {
          auto old = lists[pick(lists.size())];
          swap->appendTransaction(*TaskModel::remove(old, kListKind));
          auto [list, create] = TaskModel::createList(words[pick(8)], static_cast<double>(pick(4)));
          swap->appendTransaction(*create);
          created.push_back(list);
          for (const auto& [uuid, task] : model.entities())
            if (task.kind == kTaskKind && task.string("list") == old && pick(3))
              swap->appendTransaction(*TaskModel::update(uuid, kTaskKind, {{"list", Value(list)}}));
        }
        for (const auto& list : created) swap->appendTransaction(*TaskModel::createTask(list, title()).second);
        model.apply(*swap);
      } else {
        auto transaction = oneChange();
        for (size_t more = pick(4); more > 0; --more)
          transaction = transaction->transactionByAppendingTransaction(*oneChange());
        model.apply(*transaction);
      }
      std::vector<Section> expectedSections;
      auto expected = recompute(model, rows.showsDone(), rows.search(), &expectedSections);
      std::string why;
      ASSERT_TRUE(rows.verify(&why)) << "step " << step << ": " << why;
      ASSERT_EQ(rows.transformErrors(), 0u);
      ASSERT_EQ(rows.rows(), expected) << "step " << step << "\n" << rows.describe();
      auto sections = rows.sections();
      ASSERT_EQ(sections.size(), expectedSections.size());
      for (size_t i = 0; i < sections.size(); ++i) {
        EXPECT_EQ(sections[i].list, expectedSections[i].list);
        EXPECT_EQ(sections[i].name, expectedSections[i].name);
        EXPECT_EQ(sections[i].firstRow, expectedSections[i].firstRow);
        EXPECT_EQ(sections[i].rowCount, expectedSections[i].rowCount);
      }
      ASSERT_EQ(mirror, rows.rows());
    }
    EXPECT_GT(passes, 50u);
  }
}

// A transform that does not fit the rows is reported, and the replay stops
// where it failed instead of making the rows up.
TEST(TaskRows, ReplayReportsTransformsThatDoNotFit) {
  std::vector<int> rows{0, 1, 2, 3, 4};
  auto transform = UGMutableListTransform::transform();
  transform->recordDeletedObjectFromIndex(std::nullopt, 1);
  transform->recordDeletedObjectFromIndex(std::nullopt, 3);
  transform->recordMovedObjectFromIndexToIndex(std::nullopt, 4, 0);
  transform->recordInsertedObjectAtIndex(std::nullopt, 2);
  std::vector<size_t> inserted;
  std::string error;
  ASSERT_TRUE(TaskRows::replayTransform(rows, *transform, inserted, error));
  EXPECT_EQ(rows, (std::vector<int>{4, 0, 0, 2}));
  EXPECT_EQ(inserted, std::vector<size_t>{2});

  std::vector<int> shorter{7, 8};
  EXPECT_FALSE(TaskRows::replayTransform(shorter, *transform, inserted, error));
  EXPECT_NE(error.find("of 2 rows"), std::string::npos) << error;
}

}  // namespace
}  // namespace loomwork::tasks
