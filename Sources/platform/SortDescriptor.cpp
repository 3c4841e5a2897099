#include "loomwork/platform/SortDescriptor.h"

#include <algorithm>

namespace loomwork {

SortDescriptor::SortDescriptor(std::string keyPath, bool ascending, Comparator comparator)
    : keyPath_(std::move(keyPath)), ascending_(ascending), comparator_(std::move(comparator)) {}

SortDescriptor SortDescriptor::reversedSortDescriptor() const {
  return SortDescriptor(keyPath_, !ascending_, comparator_);
}

int SortDescriptor::compareObjectToObject(const Value& a, const Value& b) const {
  auto read = [this](const Value& v) -> Value {
    if (keyPath_.empty() || keyPath_ == "self") return v;
    return valueForKeyPath(v, keyPath_).value_or(Value::null());
  };
  Value x = read(a), y = read(b);
  int result = comparator_ ? comparator_(x, y) : x.compare(y);
  result = result < 0 ? -1 : (result > 0 ? 1 : 0);
  return ascending_ ? result : -result;
}

int compareWithSortDescriptors(const Value& a, const Value& b, const std::vector<SortDescriptor>& descriptors) {
  for (const auto& descriptor : descriptors) {
    int c = descriptor.compareObjectToObject(a, b);
    if (c != 0) return c;
  }
  return 0;
}

void sortUsingDescriptors(std::vector<Value>& values, const std::vector<SortDescriptor>& descriptors) {
  if (descriptors.empty()) return;
  std::stable_sort(values.begin(), values.end(), [&descriptors](const Value& a, const Value& b) {
    return compareWithSortDescriptors(a, b, descriptors) < 0;
  });
}

}  // namespace loomwork
