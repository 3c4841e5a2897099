// The task list's model as both halves of loomwork-tasks see it: lists and
// tasks keyed by UUID, changed only by graph transactions (local edits and
// integrated remote ones alike), with observers told of each applied
// transaction and of what it did to the model.
//
// Entities are stored as the transactions carry them:
//   "List": "name" (string), "order" (real)
//   "Task": "title" (string), "notes" (string), "due" (integer day number,
//           days since 1970-01-01 GMT, or absent/null for none), "done"
//           (bool), "list" (the list's UUID), "modified" (date)
// Every local edit sets "modified" to the time of the edit; the merge reads
// it to let the later edit win.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "loomwork/graph.h"
#include "loomwork/platform/UUID.h"

namespace loomwork::tasks {

inline constexpr const char* kListKind = "List";
inline constexpr const char* kTaskKind = "Task";

struct Entity {
  std::string kind;
  std::map<std::string, Value> properties;
  friend bool operator==(const Entity&, const Entity&) = default;

  std::optional<Value> get(const std::string& name) const {
    auto it = properties.find(name);
    if (it == properties.end() || it->second.isNull()) return std::nullopt;
    return it->second;
  }
  std::string string(const std::string& name) const {
    auto value = get(name);
    return value && value->isString() ? std::string(value->string()) : std::string();
  }
  double real(const std::string& name, double fallback = 0) const {
    auto value = get(name);
    if (!value) return fallback;
    if (value->isDate()) return value->dateValue();
    if (value->isNumber()) return value->doubleValue();
    return fallback;
  }
  bool flag(const std::string& name) const {
    auto value = get(name);
    return value && (value->isNumber() || value->isBoolean()) && value->boolValue();
  }
  std::optional<int64_t> integer(const std::string& name) const {
    auto value = get(name);
    if (!value || !value->isNumber()) return std::nullopt;
    return value->integerValue();
  }
};

// What one applied transaction did: the entities it created, changed (with
// their values from before) and deleted (with their last values).
struct ModelChange {
  std::vector<std::string> inserted;
  std::vector<std::pair<std::string, Entity>> updated;
  std::vector<std::pair<std::string, Entity>> deleted;
  bool empty() const { return inserted.empty() && updated.empty() && deleted.empty(); }
};

class TaskModel {
 public:
  using Observer = std::function<void(const UGTransaction&, const ModelChange&)>;

  const std::map<std::string, Entity>& entities() const { return entities_; }
  const Entity* find(const std::string& uuid) const {
    auto it = entities_.find(uuid);
    return it == entities_.end() ? nullptr : &it->second;
  }

  void addObserver(Observer observer) { observers_.push_back(std::move(observer)); }

  // Applies a transaction: CREATE makes the entity (over an existing one, its
  // values win), UPDATE changes a present entity and is ignored for an absent
  // one, DELETE removes it; other types are ignored. Observers hear of it
  // afterwards, even when it changed nothing.
  ModelChange apply(const UGTransaction& transaction) {
    ModelChange change;
    transaction.enumerateEntityOperations([&](const std::string& uuid, const Ref<UGEntityOperation>& operation, bool&) {
      switch (operation->type()) {
        case UGEntityOperationTypeCreate:
        case UGEntityOperationTypeUpdate: {
          auto it = entities_.find(uuid);
          if (it == entities_.end()) {
            if (operation->type() == UGEntityOperationTypeUpdate) return;
            it = entities_.emplace(uuid, Entity{operation->entityName().value_or(""), {}}).first;
            change.inserted.push_back(uuid);
          } else {
            change.updated.emplace_back(uuid, it->second);
          }
          for (const auto& [name, value] : operation->properties()) it->second.properties.insert_or_assign(name, value);
          break;
        }
        case UGEntityOperationTypeDelete: {
          auto it = entities_.find(uuid);
          if (it == entities_.end()) return;
          change.deleted.emplace_back(uuid, std::move(it->second));
          entities_.erase(it);
          break;
        }
        default:
          break;
      }
    });
    for (const auto& observer : observers_) observer(transaction, change);
    return change;
  }

  // Replaces the whole model (a replacement seed, or loading from a file):
  // observers hear of it as one change that deletes what was there and
  // creates what the transaction holds.
  ModelChange replace(const UGTransaction& content) {
    auto removal = UGMutableTransaction::transaction();
    for (const auto& [uuid, entity] : entities_)
      removal->setOperationForUUID(make<UGMutableEntityOperation>(UGEntityOperationTypeDelete, entity.kind), uuid);
    auto whole = removal->transactionByAppendingTransaction(content);
    return apply(*whole);
  }

  // The transaction that creates the whole model from nothing.
  Ref<UGMutableTransaction> contentTransaction() const {
    auto transaction = UGMutableTransaction::transaction();
    for (const auto& [uuid, entity] : entities_) {
      auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeCreate, entity.kind);
      for (const auto& [name, value] : entity.properties) operation->setValueForProperty(value, name);
      transaction->setOperationForUUID(operation, uuid);
    }
    return transaction;
  }

  // MARK: Building local edits (not applied; the device applies and stages them)

  static Value now() {
    using namespace std::chrono;
    return Value::date(duration<double>(system_clock::now().time_since_epoch()).count());
  }

  static std::pair<std::string, Ref<UGMutableTransaction>> createList(const std::string& name, double order) {
    std::string uuid = newUUIDString();
    auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeCreate, kListKind);
    operation->setValueForProperty(Value(name), "name");
    operation->setValueForProperty(Value(order), "order");
    return {uuid, UGMutableTransaction::transactionWithOperationForUUID(operation, uuid)};
  }

  static std::pair<std::string, Ref<UGMutableTransaction>> createTask(const std::string& list, const std::string& title,
                                                                     std::optional<int64_t> dueDay = std::nullopt,
                                                                     const std::string& notes = {}) {
    std::string uuid = newUUIDString();
    auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeCreate, kTaskKind);
    operation->setValueForProperty(Value(title), "title");
    operation->setValueForProperty(Value(notes), "notes");
    operation->setValueForProperty(dueDay ? Value(*dueDay) : Value::null(), "due");
    operation->setValueForProperty(Value(false), "done");
    operation->setValueForProperty(Value(list), "list");
    operation->setValueForProperty(now(), "modified");
    return {uuid, UGMutableTransaction::transactionWithOperationForUUID(operation, uuid)};
  }

  // Sets the given properties of a task (or list) and, for a task, its
  // modification date.
  static Ref<UGMutableTransaction> update(const std::string& uuid, const std::string& kind,
                                          const std::map<std::string, Value>& values) {
    auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeUpdate, kind);
    for (const auto& [name, value] : values) operation->setValueForProperty(value, name);
    if (kind == kTaskKind) operation->setValueForProperty(now(), "modified");
    return UGMutableTransaction::transactionWithOperationForUUID(operation, uuid);
  }

  static Ref<UGMutableTransaction> remove(const std::string& uuid, const std::string& kind) {
    auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeDelete, kind);
    return UGMutableTransaction::transactionWithOperationForUUID(operation, uuid);
  }

 private:
  std::map<std::string, Entity> entities_;
  std::vector<Observer> observers_;
};

}  // namespace loomwork::tasks
