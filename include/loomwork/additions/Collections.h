// Free operations on the library's containers (Array, Set and Dictionary of
// Value) that derive new containers without changing the receiver, and the
// in-place forms for arrays.
//
// "Equal" is Value equality (operator==); "identical" is Value::isIdenticalTo
// (the same container, string or object). Callbacks are called synchronously,
// in order, on the caller's thread. A callback that "gives nothing" returns
// std::nullopt.
//
// Map tables: mapTableWithObjectsGroupedByPredicate returns a Dictionary
// (insertion-ordered, strong keys and values, keys compared by equality) whose
// values are Array values, so that the result is an ordinary Value container.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

using ValueTransform = std::function<std::optional<Value>(const Value& element)>;
using ValuePredicate = std::function<bool(const Value& element)>;

// --- Arrays: each returns a new array and leaves the receiver alone.

// The elements in reverse order.
Array reversedArray(const Array& array);
// Without every element equal to `object`.
Array arrayByRemovingObject(const Array& array, const Value& object);
// Without every element identical to `object`.
Array arrayByRemovingObjectIdenticalTo(const Array& array, const Value& object);
// Without every element equal to a member of `objects`.
Array arrayByRemovingObjectsInArray(const Array& array, const Array& objects);
// The transform of each element in order; where it gives nothing the null
// value takes the place, so the result has the receiver's count.
Array arrayByPerformingBlock(const Array& array, const ValueTransform& transform);
// arrayByPerformingBlock with the named parameterless operation of each
// element, read through the reflection hook (Object::valueForKey for objects,
// the entry for dictionaries); the null value where the element has none.
Array arrayByPerformingSelector(const Array& array, std::string_view operationName);
// The elements for which the predicate is true, in order.
Array filteredArrayUsingPredicateBlock(const Array& array, const ValuePredicate& predicate);
// Without the null values.
Array filteredArrayByRemovingNullValues(const Array& array);
// True when `prefix` is no longer than the array and equal to its front
// elements one by one; an empty `prefix` is a prefix of everything.
bool hasPrefix(const Array& array, const Array& prefix);
// Groups the elements by key(element) (the null value where the key function
// gives nothing): each group key maps to an Array value of its elements in the
// receiver's order; groups appear in the order of their first element.
Dictionary mapTableWithObjectsGroupedByPredicate(const Array& array, const ValueTransform& key);

// --- Arrays in place.

// Swaps the ends pairwise towards the middle.
void reverse(Array& array);
// Keeps the elements for which the predicate is true.
void filterUsingPredicateBlock(Array& array, const ValuePredicate& predicate);
// Replaces each element, index 0 upward, by the transform's result (the null
// value where it gives nothing). The count is read again before each step.
void transformUsingBlock(Array& array, const ValueTransform& transform);

// --- Sets: each returns a new set.

Set setByRemovingObject(const Set& set, const Value& object);
Set setByRemovingObjectsFromSet(const Set& set, const Set& objects);
Set setByRemovingObjectsFromArray(const Set& set, const Array& objects);
// The transform's results; where it gives nothing the member is left out, so
// the result may be smaller.
Set setByPerformingBlock(const Set& set, const ValueTransform& transform);
Set filteredSetUsingPredicateBlock(const Set& set, const ValuePredicate& predicate);

// --- Dictionaries.

// The entry's boolean, integer or floating value when the entry is a number
// (boolean, integer or real); `defaultValue` for a missing entry or any other
// kind of value.
bool boolValueForKeyDefaultValue(const Dictionary& dictionary, const Value& key, bool defaultValue);
int64_t integerValueForKeyDefaultValue(const Dictionary& dictionary, const Value& key, int64_t defaultValue);
double doubleValueForKeyDefaultValue(const Dictionary& dictionary, const Value& key, double defaultValue);
// Maps each value to its key; where several keys share a value, the key met
// last in the dictionary's order wins.
Dictionary dictionaryByReversingObjectsAndKeys(const Dictionary& dictionary);

}  // namespace loomwork
#pragma GCC visibility pop
