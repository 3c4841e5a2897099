// SortDescriptor: one criterion of a sort (a key path, a direction and an
// optional comparator).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Sorts values by the value found at a key path (read through dictionaries and
// Object::valueForKey; an empty path or "self" means the value itself). Values
// are compared with the comparator when one is given, else with
// Value::compare; a missing value compares as null, that is first. A value
// type: copies are independent and may be used on any thread.
class SortDescriptor {
 public:
  // Returns -1, 0 or 1 like Value::compare.
  using Comparator = std::function<int(const Value& a, const Value& b)>;

  SortDescriptor(std::string keyPath, bool ascending = true, Comparator comparator = {});
  static SortDescriptor sortDescriptorWithKeyAscending(std::string keyPath, bool ascending) {
    return SortDescriptor(std::move(keyPath), ascending);
  }

  const std::string& key() const { return keyPath_; }
  bool ascending() const { return ascending_; }
  const Comparator& comparator() const { return comparator_; }
  SortDescriptor reversedSortDescriptor() const;

  // The order of two values under this criterion, direction applied.
  int compareObjectToObject(const Value& a, const Value& b) const;

 private:
  std::string keyPath_;
  bool ascending_;
  Comparator comparator_;
};

// The order of two values under a list of criteria: the first that does not
// find them the same decides. No criteria: the same.
int compareWithSortDescriptors(const Value& a, const Value& b, const std::vector<SortDescriptor>& descriptors);

// A stable sort of the values by the criteria.
void sortUsingDescriptors(std::vector<Value>& values, const std::vector<SortDescriptor>& descriptors);

}  // namespace loomwork
#pragma GCC visibility pop
