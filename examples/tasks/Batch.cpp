#include "Batch.h"

#include <chrono>
#include <sstream>

namespace loomwork::tasks {

std::vector<std::string> splitCommandLine(const std::string& line) {
  std::vector<std::string> words;
  std::string word;
  bool quoted = false, inWord = false;
  for (char c : line) {
    if (c == '"') {
      quoted = !quoted;
      inWord = true;
    } else if (!quoted && (c == ' ' || c == '\t' || c == '\r')) {
      if (inWord) words.push_back(std::move(word));
      word.clear();
      inWord = false;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (inWord) words.push_back(std::move(word));
  return words;
}

std::optional<int64_t> parseDay(const std::string& text) {
  int y = 0;
  unsigned m = 0, d = 0;
  char tail = 0;
  if (text.size() != 10 || std::sscanf(text.c_str(), "%4d-%2u-%2u%c", &y, &m, &d, &tail) != 3) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(y), std::chrono::month(m), std::chrono::day(d)};
  if (!date.ok()) return std::nullopt;
  return std::chrono::sys_days(date).time_since_epoch().count();
}

std::string formatDay(int64_t day) {
  const std::chrono::year_month_day date{std::chrono::sys_days(std::chrono::days(day))};
  char text[16];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()));
  return text;
}

std::string describeTasks(const TaskModel& model) {
  std::string text;
  for (const auto& [uuid, entity] : model.entities()) {
    if (entity.kind != kTaskKind) continue;
    const Entity* list = model.find(entity.string("list"));
    const auto due = entity.integer("due");
    text += uuid + " | " + entity.string("title") + " | " + entity.string("notes") + " | " +
            (due ? formatDay(*due) : "-") + " | " + (entity.flag("done") ? "done" : "open") + " | " +
            (list ? list->string("name") : "?") + "\n";
  }
  return text;
}

std::string describeTransform(const UGListTransform& transform, const std::vector<Row>& before,
                              const std::vector<Row>& after, const std::vector<size_t>& refreshed) {
  auto title = [](const std::vector<Row>& rows, int64_t index) {
    return index >= 0 && static_cast<size_t>(index) < rows.size() ? " \"" + rows[static_cast<size_t>(index)].title + "\""
                                                                  : std::string();
  };
  std::string text;
  auto add = [&](const std::string& step) { text += (text.empty() ? "" : ", ") + step; };
  for (const auto& item : transform.deletions()) {
    if (auto link = item->moveLinkItem())
      add("move " + std::to_string(item->index()) + "->" + std::to_string(link->index()) + title(before, item->index()));
    else
      add("delete " + std::to_string(item->index()) + title(before, item->index()));
  }
  for (const auto& item : transform.insertions())
    if (!item->hasMoveLink()) add("insert " + std::to_string(item->index()) + title(after, item->index()));
  for (size_t index : refreshed)
    add("update " + std::to_string(index) + title(after, static_cast<int64_t>(index)));
  return text.empty() ? "no change" : text;
}

BatchSession::BatchSession(asio::io_context& context, Device& device, TaskRows& rows,
                           std::function<void(const std::string&)> output, std::function<void()> finished)
    : device_(device), rows_(rows), output_(std::move(output)), finished_(std::move(finished)),
      timer_(context) {
  rows_.setTransformObserver([this](const Ref<UGListTransform>& transform, const std::vector<Row>& before,
                                    const std::vector<Row>& after) {
    if (transforms_) output_("~ " + describeTransform(*transform, before, after, rows_.refreshedRows()) + "\n");
  });
}

void BatchSession::enqueue(std::string line) {
  queue_.push_back(std::move(line));
  if (!busy_) next();
}

void BatchSession::endOfInput() {
  ended_ = true;
  if (!busy_) next();
}

void BatchSession::next() {
  while (!queue_.empty() && !busy_) {
    const std::string line = std::move(queue_.front());
    queue_.pop_front();
    const auto words = splitCommandLine(line);
    if (words.empty() || words[0].starts_with("#")) continue;
    busy_ = true;
    try {
      run(words);
    } catch (const std::exception& error) {
      answer(std::string("error ") + error.what());
    }
  }
  if (!busy_ && ended_ && queue_.empty() && finished_) {
    auto finished = std::move(finished_);
    finished_ = nullptr;
    finished();
  }
}

void BatchSession::answer(const std::string& text) {
  output_(text + "\n");
  busy_ = false;
}

const Entity* BatchSession::findTask(const std::string& key, std::string& uuid) const {
  const auto& entities = device_.model().entities();
  if (auto it = entities.find(key); it != entities.end() && it->second.kind == kTaskKind) {
    uuid = key;
    return &it->second;
  }
  for (const auto& [candidate, entity] : entities)
    if (entity.kind == kTaskKind && entity.string("title") == key) {
      uuid = candidate;
      return &entity;
    }
  return nullptr;
}

std::optional<std::string> BatchSession::findList(const std::string& name) const {
  for (const auto& [uuid, entity] : device_.model().entities())
    if (entity.kind == kListKind && (entity.string("name") == name || uuid == name)) return uuid;
  return std::nullopt;
}

void BatchSession::run(const std::vector<std::string>& words) {
  const std::string& command = words[0];
  const size_t count = words.size();
  auto needs = [&](size_t minimum, const char* usage) {
    if (count < minimum) throw std::runtime_error(std::string("usage: ") + usage);
  };
  auto task = [&](const std::string& key) {
    std::string uuid;
    const Entity* entity = findTask(key, uuid);
    if (!entity) throw std::runtime_error("no task " + key);
    return uuid;
  };
  auto list = [&](const std::string& name) {
    auto uuid = findList(name);
    if (!uuid) throw std::runtime_error("no list " + name);
    return *uuid;
  };
  auto commitUpdate = [&](const std::string& uuid, std::map<std::string, Value> values) {
    device_.commit(TaskModel::update(uuid, kTaskKind, values));
    answer("ok " + uuid);
  };

  if (command == "list") {
    needs(2, "list NAME");
    size_t lists = 0;
    for (const auto& [uuid, entity] : device_.model().entities()) lists += entity.kind == kListKind;
    auto [uuid, transaction] = TaskModel::createList(words[1], static_cast<double>(lists));
    device_.commit(transaction);
    answer("ok " + uuid);
  } else if (command == "add") {
    needs(3, "add LIST TITLE... [YYYY-MM-DD]");
    const std::string listUUID = list(words[1]);
    size_t end = count;
    std::optional<int64_t> due;
    if (count > 3 && (due = parseDay(words[count - 1]))) --end;
    std::string title;
    for (size_t i = 2; i < end; ++i) title += (i > 2 ? " " : "") + words[i];
    auto [uuid, transaction] = TaskModel::createTask(listUUID, title, due);
    device_.commit(transaction);
    answer("ok " + uuid);
  } else if (command == "edit") {
    needs(3, "edit TASK FIELD=VALUE...");
    const std::string uuid = task(words[1]);
    std::map<std::string, Value> values;
    std::string field;
    for (size_t i = 2; i < count; ++i) {
      const auto equals = words[i].find('=');
      std::string name = equals == std::string::npos ? "" : words[i].substr(0, equals);
      if (name == "title" || name == "notes" || name == "due" || name == "done" || name == "list") {
        field = name;
        values[field] = Value(words[i].substr(equals + 1));
      } else if (!field.empty() && values[field].isString()) {
        values[field] = Value(std::string(values[field].string()) + " " + words[i]);
      } else {
        throw std::runtime_error("unknown field in " + words[i]);
      }
    }
    if (auto it = values.find("due"); it != values.end()) {
      const std::string text(it->second.string());
      auto day = parseDay(text);
      if (!day && text != "none") throw std::runtime_error("bad day " + text);
      it->second = day ? Value(*day) : Value::null();
    }
    if (auto it = values.find("done"); it != values.end()) {
      const std::string text(it->second.string());
      it->second = Value(text == "yes" || text == "true" || text == "1");
    }
    if (auto it = values.find("list"); it != values.end()) it->second = Value(list(std::string(it->second.string())));
    commitUpdate(uuid, values);
  } else if (command == "done" || command == "undone") {
    needs(2, "done TASK");
    commitUpdate(task(words[1]), {{"done", Value(command == "done")}});
  } else if (command == "move") {
    needs(3, "move TASK LIST");
    commitUpdate(task(words[1]), {{"list", Value(list(words[2]))}});
  } else if (command == "delete") {
    needs(2, "delete TASK");
    const std::string uuid = task(words[1]);
    device_.commit(TaskModel::remove(uuid, kTaskKind));
    answer("ok " + uuid);
  } else if (command == "bulk") {
    needs(3, "bulk N LIST");
    const std::string listUUID = list(words[2]);
    auto transaction = UGMutableTransaction::transaction();
    const long n = std::stol(words[1]);
    for (long i = 0; i < n; ++i) {
      auto [uuid, created] = TaskModel::createTask(listUUID, "Task " + std::to_string(i), 20000 + i % 400);
      transaction->setOperationForUUID(created->operationForUUID(uuid), uuid);
    }
    device_.commit(transaction);
    answer("ok " + std::to_string(n));
  } else if (command == "offline" || command == "online") {
    device_.setOnline(command == "online");
    answer("ok");
  } else if (command == "status") {
    const SyncStatus status = device_.status();
    std::ostringstream text;
    text << "ok state=" << (status.currentState ? status.currentState->description() : "-")
         << " claimed=" << (status.claimedRemoteState ? status.claimedRemoteState->description() : "-")
         << " waiting=" << status.componentsWaiting << " online=" << (status.online ? "yes" : "no")
         << " connected=" << (status.connected ? "yes" : "no") << " device=" << device_.deviceIdentifier()
         << " pairing=" << (device_.pairing().empty() ? "-" : device_.pairing());
    if (status.seedProgress) text << " progress=" << *status.seedProgress;
    answer(text.str());
  } else if (command == "rows") {
    output_(rows_.describe());
    answer("ok " + std::to_string(rows_.rows().size()));
  } else if (command == "count") {
    size_t tasks = 0;
    for (const auto& [uuid, entity] : device_.model().entities()) tasks += entity.kind == kTaskKind;
    answer("ok rows=" + std::to_string(rows_.rows().size()) + " tasks=" + std::to_string(tasks));
  } else if (command == "tasks") {
    output_(describeTasks(device_.model()));
    answer("ok");
  } else if (command == "transforms") {
    transforms_ = count > 1 && words[1] == "on";
    answer("ok");
  } else if (command == "wait-quiet") {
    const double seconds = count > 1 ? std::stod(words[1]) : 10;
    waitQuiet(std::chrono::steady_clock::now() + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000)), 0);
  } else if (command == "quit") {
    queue_.clear();
    ended_ = true;
    answer("ok");
  } else {
    throw std::runtime_error("unknown command " + command);
  }
}

// Quiet for five checks in a row (50 ms): a claim on its way would have
// arrived by then.
void BatchSession::waitQuiet(std::chrono::steady_clock::time_point deadline, int quietChecks) {
  quietChecks = device_.isQuiet() ? quietChecks + 1 : 0;
  if (quietChecks >= 5) {
    answer("ok " + (device_.status().currentState ? device_.status().currentState->description() : std::string("-")));
    next();
    return;
  }
  if (std::chrono::steady_clock::now() > deadline) {
    answer("error not quiet");
    next();
    return;
  }
  timer_.expires_after(std::chrono::milliseconds(10));
  timer_.async_wait([this, deadline, quietChecks](const asio::error_code& error) {
    if (!error) waitQuiet(deadline, quietChecks);
  });
}

}  // namespace loomwork::tasks
