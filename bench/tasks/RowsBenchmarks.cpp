// The task rows over large models: building them, replacing the whole model,
// and following single edits (a title that keeps its place, a new task).
#include <benchmark/benchmark.h>

#include <random>

#include "Rows.h"

namespace loomwork::tasks {
namespace {

// `lists` lists of `perList` tasks each, with titles and due days spread so
// the sorting has work to do.
Ref<UGMutableTransaction> content(size_t lists, size_t perList, std::vector<std::string>* listIds,
                                  std::vector<std::string>* taskIds) {
  std::mt19937 random(7);
  auto whole = UGMutableTransaction::transaction();
  for (size_t l = 0; l < lists; ++l) {
    auto [list, create] = TaskModel::createList("list " + std::to_string(l), static_cast<double>(l));
    whole->appendTransaction(*create);
    if (listIds) listIds->push_back(list);
    for (size_t t = 0; t < perList; ++t) {
      auto [task, add] = TaskModel::createTask(list, "task " + std::to_string(random() % 100000),
                                               static_cast<int64_t>(20000 + random() % 400));
      whole->setOperationForUUID(add->operationForUUID(task), task);
      if (taskIds) taskIds->push_back(task);
    }
  }
  return whole;
}

void BM_RowsBuild(benchmark::State& state) {
  TaskModel model;
  model.apply(*content(10, 10000, nullptr, nullptr));
  for (auto _ : state) {
    TaskRows rows(model);
    benchmark::DoNotOptimize(rows.rows().data());
  }
}
BENCHMARK(BM_RowsBuild)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_RowsReplaceWhole(benchmark::State& state) {
  TaskModel model;
  model.apply(*content(10, 10000, nullptr, nullptr));
  TaskRows rows(model);
  for (auto _ : state) {
    state.PauseTiming();
    auto next = content(10, 10000, nullptr, nullptr);
    state.ResumeTiming();
    model.replace(*next);
    benchmark::DoNotOptimize(rows.rows().data());
  }
}
BENCHMARK(BM_RowsReplaceWhole)->Unit(benchmark::kMillisecond)->Iterations(3);

// range(0) lists of 100,000 / range(0) tasks; range(1): 0 a title edit that
// keeps the task's place, 1 a new task.
void BM_RowsSingleEdit(benchmark::State& state) {
  const auto lists = static_cast<size_t>(state.range(0));
  std::vector<std::string> listIds, taskIds;
  TaskModel model;
  model.apply(*content(lists, 100000 / lists, &listIds, &taskIds));
  TaskRows rows(model);
  std::mt19937 random(11);
  for (auto _ : state) {
    state.PauseTiming();
    Ref<UGMutableTransaction> edit;
    if (state.range(1) == 0) {
      // Appending a character after the title keeps it among the same
      // neighbours unless one of them extends it; close enough for timing.
      const auto& uuid = taskIds[random() % taskIds.size()];
      const Entity* task = model.find(uuid);
      edit = TaskModel::update(uuid, kTaskKind, {{"title", Value(task->string("title") + "~")}});
    } else {
      edit = TaskModel::createTask(listIds[random() % listIds.size()], "new task", int64_t{20100}).second;
    }
    state.ResumeTiming();
    model.apply(*edit);
    benchmark::DoNotOptimize(rows.rows().data());
  }
}
BENCHMARK(BM_RowsSingleEdit)
    ->Args({10, 0})
    ->Args({10, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(30);

}  // namespace
}  // namespace loomwork::tasks

BENCHMARK_MAIN();
