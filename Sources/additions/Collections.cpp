#include "loomwork/additions/Collections.h"

#include <algorithm>
#include <utility>

namespace loomwork {

namespace {

Value orNull(std::optional<Value> value) { return value ? std::move(*value) : Value::null(); }

std::optional<Value> numberForKey(const Dictionary& dictionary, const Value& key) {
  auto it = dictionary.find(key);
  if (it == dictionary.end() || !it->second.isNumber()) return std::nullopt;
  return it->second;
}

}  // namespace

Array reversedArray(const Array& array) { return Array(array.rbegin(), array.rend()); }

Array arrayByRemovingObject(const Array& array, const Value& object) {
  return filteredArrayUsingPredicateBlock(array, [&](const Value& element) { return !(element == object); });
}

Array arrayByRemovingObjectIdenticalTo(const Array& array, const Value& object) {
  return filteredArrayUsingPredicateBlock(array, [&](const Value& element) { return !element.isIdenticalTo(object); });
}

Array arrayByRemovingObjectsInArray(const Array& array, const Array& objects) {
  const Set members(objects.begin(), objects.end());
  return filteredArrayUsingPredicateBlock(array, [&](const Value& element) { return members.count(element) == 0; });
}

Array arrayByPerformingBlock(const Array& array, const ValueTransform& transform) {
  Array result;
  result.reserve(array.size());
  for (const Value& element : array) result.push_back(orNull(transform(element)));
  return result;
}

Array arrayByPerformingSelector(const Array& array, std::string_view operationName) {
  return arrayByPerformingBlock(array, [&](const Value& element) { return valueForKey(element, operationName); });
}

Array filteredArrayUsingPredicateBlock(const Array& array, const ValuePredicate& predicate) {
  Array result;
  for (const Value& element : array)
    if (predicate(element)) result.push_back(element);
  return result;
}

Array filteredArrayByRemovingNullValues(const Array& array) {
  return filteredArrayUsingPredicateBlock(array, [](const Value& element) { return !element.isNull(); });
}

bool hasPrefix(const Array& array, const Array& prefix) {
  return prefix.size() <= array.size() && std::equal(prefix.begin(), prefix.end(), array.begin());
}

Dictionary mapTableWithObjectsGroupedByPredicate(const Array& array, const ValueTransform& key) {
  tsl::ordered_map<Value, Array, ValueHash> groups;
  for (const Value& element : array) groups[orNull(key(element))].push_back(element);
  Dictionary result;
  result.reserve(groups.size());
  for (auto& [groupKey, elements] : groups) result.emplace(groupKey, Value(std::move(elements)));
  return result;
}

void reverse(Array& array) {
  if (array.empty()) return;
  for (size_t front = 0, back = array.size() - 1; front < back; ++front, --back) std::swap(array[front], array[back]);
}

void filterUsingPredicateBlock(Array& array, const ValuePredicate& predicate) {
  Array kept;
  kept.reserve(array.size());
  for (Value& element : array)
    if (predicate(element)) kept.push_back(std::move(element));
  array = std::move(kept);
}

void transformUsingBlock(Array& array, const ValueTransform& transform) {
  for (size_t i = 0; i < array.size(); ++i) {
    const Value element = array[i];  // the transform may change the array
    Value replacement = orNull(transform(element));
    if (i < array.size()) array[i] = std::move(replacement);
  }
}

Set setByRemovingObject(const Set& set, const Value& object) {
  Set result = set;
  result.erase(object);
  return result;
}

Set setByRemovingObjectsFromSet(const Set& set, const Set& objects) {
  return filteredSetUsingPredicateBlock(set, [&](const Value& member) { return objects.count(member) == 0; });
}

Set setByRemovingObjectsFromArray(const Set& set, const Array& objects) {
  Set result = set;
  for (const Value& object : objects) result.erase(object);
  return result;
}

Set setByPerformingBlock(const Set& set, const ValueTransform& transform) {
  Set result;
  for (const Value& member : set)
    if (std::optional<Value> mapped = transform(member)) result.insert(std::move(*mapped));
  return result;
}

Set filteredSetUsingPredicateBlock(const Set& set, const ValuePredicate& predicate) {
  Set result;
  for (const Value& member : set)
    if (predicate(member)) result.insert(member);
  return result;
}

bool boolValueForKeyDefaultValue(const Dictionary& dictionary, const Value& key, bool defaultValue) {
  auto number = numberForKey(dictionary, key);
  return number ? number->boolValue() : defaultValue;
}

int64_t integerValueForKeyDefaultValue(const Dictionary& dictionary, const Value& key, int64_t defaultValue) {
  auto number = numberForKey(dictionary, key);
  return number ? number->integerValue() : defaultValue;
}

double doubleValueForKeyDefaultValue(const Dictionary& dictionary, const Value& key, double defaultValue) {
  auto number = numberForKey(dictionary, key);
  return number ? number->doubleValue() : defaultValue;
}

Dictionary dictionaryByReversingObjectsAndKeys(const Dictionary& dictionary) {
  Dictionary result;
  result.reserve(dictionary.size());
  for (const auto& [key, value] : dictionary) result.insert_or_assign(value, key);
  return result;
}

}  // namespace loomwork
