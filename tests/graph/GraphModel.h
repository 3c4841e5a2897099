// A small entity store that transactions are applied to, and a generator of
// random transactions over a few UUIDs, properties and relations.
//
// The store follows the composition table, deliberate entries included: a
// DELETE only marks a record dead and keeps its values, and a CREATE on a dead
// record revives it, overwriting what it sets and keeping the rest (so DELETE
// then CREATE acts as the UPDATE it composes to). Only live records are seen.
//
// Histories are valid for the store (UPDATE and DELETE on live records, CREATE
// on others) and avoid the sequences on which composition is not associative:
// per UUID at most one CREATE, and none after an UPDATE. (UPDATE x, DELETE,
// CREATE y composes to UPDATE y grouped left and to UPDATE x+y grouped right;
// CREATE x, DELETE, CREATE y to CREATE y and CREATE x+y.)
#pragma once

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "loomwork/graph.h"

namespace loomwork::graphtest {

using Rng = std::mt19937_64;
constexpr auto C = UGEntityOperationTypeCreate, U = UGEntityOperationTypeUpdate, D = UGEntityOperationTypeDelete,
               I = UGEntityOperationTypeIdentity;

inline int uniform(Rng& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

struct Record {
  bool live = false;
  std::map<std::string, Value> properties;
  std::map<std::string, Array> lists;
};
using Store = std::map<std::string, Record>;  // a missing UUID never existed

inline const std::vector<std::string> kUUIDs = {"U0", "U1", "U2", "U3", "U4", "U5"};
inline const std::vector<std::string> kProperties = {"a", "b", "c", "d"};
inline const std::vector<std::string> kRelations = {"r", "s"};

template <class T>
const T& pick(Rng& rng, const std::vector<T>& v) {
  return v[static_cast<size_t>(uniform(rng, 0, static_cast<int>(v.size()) - 1))];
}

inline Value randomValue(Rng& rng) {
  const int kind = uniform(rng, 0, 4);
  if (kind == 0) return Value::null();
  if (kind == 1) return Value(std::string(1, static_cast<char>('x' + uniform(rng, 0, 2))));
  if (kind == 2) return Value::set({Value(uniform(rng, 0, 2)), Value("m")});
  return Value(uniform(rng, 0, 3));
}

inline void applyOperation(Record& record, const UGEntityOperation& operation) {
  const auto type = operation.type();
  if (type == C || type == D) record.live = type == C;
  if ((type != C && type != U) || !record.live) return;
  for (const auto& [name, value] : operation.properties()) record.properties[name] = value;
  for (const auto& [name, transform] : operation.relationTransforms()) applyTransform(record.lists[name], *transform);
}

inline void applyTransaction(Store& store, const UGTransaction& transaction) {
  for (const std::string& uuid : transaction) applyOperation(store[uuid], *transaction.operationForUUID(uuid));
}

// What can be seen of a store: its live records, with empty lists dropped.
inline std::string observable(const Store& store) {
  std::string text;
  for (const auto& [uuid, record] : store) {
    if (!record.live) continue;
    text += uuid + " {";
    for (const auto& [name, value] : record.properties) text += " " + name + "=" + value.description();
    for (const auto& [name, list] : record.lists)
      if (!list.empty()) text += " " + name + "=" + Value(list).description();
    text += " }\n";
  }
  return text;
}

// Fresh list elements, distinct across a whole test so transforms are unambiguous.
inline int64_t nextElement = 1000;

inline Array editedList(Rng& rng, Array list) {
  for (int n = uniform(rng, 0, 2); n > 0 && !list.empty(); --n)
    list.erase(list.begin() + uniform(rng, 0, static_cast<int>(list.size()) - 1));
  if (list.size() > 1 && uniform(rng, 0, 1) == 0) {
    Value moved = list.front();
    list.erase(list.begin());
    list.insert(list.begin() + uniform(rng, 0, static_cast<int>(list.size())), moved);
  }
  for (int n = uniform(rng, 0, 2); n > 0; --n)
    list.insert(list.begin() + uniform(rng, 0, static_cast<int>(list.size())), Value(nextElement++));
  return list;
}

inline Store randomStore(Rng& rng) {
  Store store;
  for (const auto& uuid : kUUIDs) {
    if (uniform(rng, 0, 1) == 0) continue;
    Record& record = store[uuid];
    record.live = true;
    for (const auto& name : kProperties)
      if (uniform(rng, 0, 1) == 0) record.properties[name] = randomValue(rng);
    for (const auto& name : kRelations) record.lists[name] = editedList(rng, {});
  }
  return store;
}

// A random sequence of `count` transactions valid from `start` (see above).
inline std::vector<Ref<UGMutableTransaction>> randomSequence(Rng& rng, const Store& start, int count,
                                                             bool relations = true) {
  Store scratch = start;
  std::set<std::string> settled;  // UUIDs that have had a CREATE or an UPDATE
  std::vector<Ref<UGMutableTransaction>> sequence;
  for (int step = 0; step < count; ++step) {
    auto transaction = UGMutableTransaction::transaction();
    transaction->setContainsMutableOperations(uniform(rng, 0, 1) == 1);
    for (int n = uniform(rng, 0, 4); n > 0; --n) {
      const std::string& uuid = pick(rng, kUUIDs);
      if (transaction->operationForUUID(uuid)) continue;
      Record& record = scratch[uuid];
      std::vector<UGEntityOperationType> allowed = {I};
      if (record.live) allowed.insert(allowed.end(), {U, D});
      if (!record.live && !settled.contains(uuid)) allowed.push_back(C);
      const auto type = pick(rng, allowed);
      auto operation = make<UGMutableEntityOperation>(type, "Kind" + uuid);
      for (const auto& name : kProperties)
        if (uniform(rng, 0, 2) == 0) operation->setValueForProperty(randomValue(rng), name);
      for (const auto& name : kRelations) {
        if (!relations || uniform(rng, 0, 2) != 0) continue;
        const Array& old = record.lists[name];
        operation->setTransformForRelation(
            transformForTransitioningFromArrayToArrayObjectComparison(old, editedList(rng, old), UGListTransformObjectComparisonEquality), name);
      }
      if (type == C || type == U) settled.insert(uuid);
      applyOperation(record, *operation);
      transaction->setOperationForUUID(operation, uuid);
    }
    sequence.push_back(transaction);
  }
  return sequence;
}

// A transaction's content as a Value, which compares dictionaries and sets
// regardless of order: the property-list form (types, entity names and
// values) and the changes of each relation transform.
inline Value contentOf(const UGTransaction& transaction) {
  Dictionary relations;
  for (const std::string& uuid : transaction)
    for (const auto& [name, transform] : transaction.operationForUUID(uuid)->relationTransforms())
      relations.insert_or_assign(Value(uuid + "." + name), Value(transform->testChanges()));
  return Value::array({transaction.extendedPropertyListRepresentation(), Value(std::move(relations))});
}

}  // namespace loomwork::graphtest
