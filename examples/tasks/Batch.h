// The line-command mode of loomwork-tasks: one command per line on stdin,
// each answered on stdout by any number of lines and then one line that
// starts with "ok" or "error". Lines that start with "~ " come between
// answers when transforms are switched on: each change of the rows as the
// rows' transform describes it. Commands:
//   list NAME                         a new list
//   add LIST TITLE... [YYYY-MM-DD]    a new task in the list named LIST
//   edit TASK FIELD=VALUE...          title, notes, due (date or none), done
//                                     (yes/no), list (a list's name)
//   done TASK | undone TASK | move TASK LIST | delete TASK
//   bulk N LIST                       N tasks in one edit
//   offline | online | status | rows | count | tasks | transforms on|off
//   wait-quiet [SECONDS]              until both devices hold one state
//   quit
// TASK is a task's UUID or title; a word may be "quoted with spaces".
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <asio.hpp>

#include "Device.h"
#include "Rows.h"

namespace loomwork::tasks {

// Splits a command line into words; "double quotes" keep spaces.
std::vector<std::string> splitCommandLine(const std::string& line);
// YYYY-MM-DD as days since 1970-01-01; absent for anything else.
std::optional<int64_t> parseDay(const std::string& text);
std::string formatDay(int64_t day);
// Every task, one line each in UUID order: uuid, title, notes, due, done and
// the list's name; what two converged devices agree on.
std::string describeTasks(const TaskModel& model);

// One line for a change of the rows: "delete 3 "title", move 4->1 "title",
// insert 2 "title", update 0 "title"" (indexes before the change for
// deletions and moves, after it for insertions and rows changed in place).
std::string describeTransform(const UGListTransform& transform, const std::vector<Row>& before,
                              const std::vector<Row>& after, const std::vector<size_t>& refreshed = {});

class BatchSession {
 public:
  // Writes through `output` (each call one or more whole lines). `finished`
  // is called once, after "quit" or the end of the input.
  BatchSession(asio::io_context& context, Device& device, TaskRows& rows, std::function<void(const std::string&)> output,
               std::function<void()> finished);
  // Queues one input line; commands run one after the other.
  void enqueue(std::string line);
  void endOfInput();

 private:
  void next();
  void run(const std::vector<std::string>& words);
  void answer(const std::string& text);
  void waitQuiet(std::chrono::steady_clock::time_point deadline, int quietChecks);
  const Entity* findTask(const std::string& key, std::string& uuid) const;
  std::optional<std::string> findList(const std::string& name) const;

  Device& device_;
  TaskRows& rows_;
  std::function<void(const std::string&)> output_;
  std::function<void()> finished_;
  std::deque<std::string> queue_;
  bool busy_ = false;
  bool ended_ = false;
  bool transforms_ = false;
  asio::steady_timer timer_;
};

}  // namespace loomwork::tasks
