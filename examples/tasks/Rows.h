// The rows a device shows: one section per list (a group segment, sections in
// list order), each list's tasks sorted by due day (a sorting segment), done
// tasks hidden or shown (toggle segments), and a search that keeps the tasks
// whose title scores against it as an abbreviation (a filter segment). Every
// change of the rows arrives as the root segment's transform, and the rows
// kept here are moved only by replaying it step by step.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TaskModel.h"
#include "loomwork/listtransform.h"

namespace loomwork::tasks {

struct Row {
  std::string task;      // the task's UUID
  std::string list;      // the UUID of the list (section) it is shown in
  std::string title;
  std::optional<int64_t> dueDay;  // days since 1970-01-01 GMT
  bool done = false;
  friend bool operator==(const Row&, const Row&) = default;
};

struct Section {
  std::string list;  // the list's UUID
  std::string name;
  size_t firstRow = 0;  // index of its first row in rows()
  size_t rowCount = 0;
};

class TaskRows {
 public:
  // Observes the model from now on; the rows start from its current content.
  explicit TaskRows(TaskModel& model);
  ~TaskRows();
  TaskRows(const TaskRows&) = delete;
  TaskRows& operator=(const TaskRows&) = delete;

  const std::vector<Row>& rows() const;
  std::vector<Section> sections() const;

  void setShowDone(bool show);
  bool showsDone() const;
  void setSearch(const std::string& query);
  const std::string& search() const;

  // Called after each pass that changed the rows, with the root's transform
  // and the rows before and after it.
  using TransformObserver =
      std::function<void(const Ref<UGListTransform>&, const std::vector<Row>& before, const std::vector<Row>& after)>;
  void setTransformObserver(TransformObserver observer);

  // The rows as text, one line each, under "== <list name>" section lines.
  std::string describe() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace loomwork::tasks
