// The rows a device shows: one section per list (a group segment, sections in
// list order), each list's tasks sorted by due day (a sorting segment), done
// tasks hidden or shown (toggle segments), and a search that keeps the tasks
// whose title scores against it as an abbreviation (a filter segment). Every
// change of the rows arrives as the root segment's transform, and the rows
// kept here are moved only by replaying it step by step.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TaskModel.h"
#include "loomwork/listtransform.h"

namespace loomwork::tasks {

struct Row {
  std::string task;  // the task's UUID
  std::string list;  // the UUID of the list (section) it is shown in
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
  // Whether the observer gets the rows before each pass (the default). An
  // observer that keeps its own copy turns it off: `before` is then empty,
  // and the rows are not followed twice on every pass.
  void setKeepsRowsBefore(bool keeps);

  // The rows as text, one line each, under "== <list name>" section lines.
  std::string describe() const;

  // A due day (days since 1970-01-01 GMT) as "YYYY-MM-DD".
  static std::string dayText(int64_t day);

  // The rows whose task changed in place (title, due day, done) in the last
  // pass without the transform moving them, as indexes of rows().
  const std::vector<size_t>& refreshedRows() const;
  // Whether rows() equals what the root segment shows now; on a difference
  // `why` says where. Debug builds check it after every pass.
  bool verify(std::string* why = nullptr) const;
  // Called with a message when a published transform does not fit the rows
  // (an index outside them, or rows that differ from the root's afterwards).
  // The rows are left as the transform made them. Without an observer the
  // message goes to stderr.
  void setErrorObserver(std::function<void(const std::string&)> observer);
  size_t transformErrors() const;

  // Replays a transform onto any list of rows, one linearized step at a time:
  // deletions and moves from the highest index down, then insertions at their
  // final indexes, which get default-made elements and are returned in
  // ascending order. Runs of consecutive deletions and the insertions are each
  // applied in one sweep. False, with `error` set and the list as far as the
  // steps went, when a step's index lies outside the list.
  template <class T>
  static bool replayTransform(std::vector<T>& rows, const UGListTransform& transform, std::vector<size_t>& inserted,
                              std::string& error);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

template <class T>
bool TaskRows::replayTransform(std::vector<T>& rows, const UGListTransform& transform, std::vector<size_t>& inserted,
                               std::string& error) {
  inserted.clear();
  bool failed = false;
  std::vector<size_t> deletions;  // a descending run not applied yet
  auto flushDeletions = [&] {
    if (deletions.empty()) return;
    // Indexes are descending and each valid after the previous ones, so in
    // the list as it stood they are distinct and descending too.
    if (deletions.size() < 8) {
      for (size_t index : deletions) rows.erase(rows.begin() + static_cast<ptrdiff_t>(index));
      deletions.clear();
      return;
    }
    std::vector<bool> gone(rows.size(), false);
    for (size_t index : deletions) gone[index] = true;
    size_t kept = 0;
    for (size_t i = 0; i < rows.size(); ++i)
      if (!gone[i]) {
        if (kept != i) rows[kept] = std::move(rows[i]);
        ++kept;
      }
    rows.resize(kept);
    deletions.clear();
  };
  auto fail = [&](std::string text) {
    if (!failed) error = std::move(text);
    failed = true;
  };
  size_t pendingCount = rows.size();  // the list's count with the pending deletions applied
  transform.enumerateTransformAsLinearizedDeletionsMovesInsertions(
      [&](int64_t index) {
        if (failed) return;
        if (index < 0 || static_cast<size_t>(index) >= pendingCount ||
            (!deletions.empty() && static_cast<size_t>(index) >= deletions.back())) {
          flushDeletions();
          if (index < 0 || static_cast<size_t>(index) >= rows.size())
            return fail("deletion at " + std::to_string(index) + " of " + std::to_string(rows.size()) + " rows");
          rows.erase(rows.begin() + index);
          pendingCount = rows.size();
          return;
        }
        deletions.push_back(static_cast<size_t>(index));
        --pendingCount;
      },
      [&](int64_t from, int64_t to) {
        if (failed) return;
        flushDeletions();
        const auto count = static_cast<int64_t>(rows.size());
        if (from < 0 || to < 0 || from >= count || to >= count)
          return fail("move " + std::to_string(from) + " -> " + std::to_string(to) + " of " + std::to_string(count) +
                      " rows");
        if (from < to) std::rotate(rows.begin() + from, rows.begin() + from + 1, rows.begin() + to + 1);
        if (to < from) std::rotate(rows.begin() + to, rows.begin() + from, rows.begin() + from + 1);
        pendingCount = rows.size();
      },
      [&](int64_t index) {
        if (failed) return;
        flushDeletions();
        // Ascending final indexes: each one at most the count so far.
        const size_t count = rows.size() + inserted.size();
        if (index < 0 || static_cast<size_t>(index) > count ||
            (!inserted.empty() && static_cast<size_t>(index) <= inserted.back()))
          return fail("insertion at " + std::to_string(index) + " of " + std::to_string(count) + " rows");
        inserted.push_back(static_cast<size_t>(index));
      });
  flushDeletions();
  if (!inserted.empty()) {
    // Spread the old rows around the new slots from the back.
    const size_t oldCount = rows.size();
    rows.resize(oldCount + inserted.size());
    size_t source = oldCount, slot = inserted.size();
    for (size_t target = rows.size(); target-- > 0;) {
      if (slot > 0 && inserted[slot - 1] == target) {
        --slot;
        rows[target] = T{};
      } else if (--source != target) {
        rows[target] = std::move(rows[source]);
      }
    }
  }
  return !failed;
}

}  // namespace loomwork::tasks
