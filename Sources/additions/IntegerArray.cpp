#include "loomwork/additions/IntegerArray.h"

#include <algorithm>

#include "loomwork/platform/Exception.h"
#include "loomwork/platform/Value.h"

namespace loomwork {

Ref<LWIntegerArray> LWIntegerArray::array() { return make<LWIntegerArray>(); }

Ref<LWMutableIntegerArray> LWMutableIntegerArray::array() { return make<LWMutableIntegerArray>(); }

Ref<LWIntegerArray> LWIntegerArray::copy() const {
  if (auto self = ref<const LWIntegerArray>()) return std::const_pointer_cast<LWIntegerArray>(self);
  return make<LWIntegerArray>(vector_);
}

Ref<LWIntegerArray> LWMutableIntegerArray::copy() const { return make<LWIntegerArray>(vector_); }

Ref<LWMutableIntegerArray> LWIntegerArray::mutableCopy() const { return make<LWMutableIntegerArray>(vector_); }

Ref<LWIntegerArray> LWIntegerArray::sortedArray() {
  Ref<LWIntegerArray> sorted = copy();
  std::sort(sorted->vector_.begin(), sorted->vector_.end());
  return sorted;
}

void LWIntegerArray::checkIndex(int64_t index) const {
  if (index >= 0 && index < count()) return;
  if (vector_.empty()) {
    throw Exception(ExceptionKind::OutOfRange,
                    "index " + std::to_string(index) + " beyond bounds for empty integer array");
  }
  throw Exception(ExceptionKind::OutOfRange,
                  "index " + std::to_string(index) + " beyond bounds [0 .. " + std::to_string(count() - 1) + "]");
}

int64_t LWIntegerArray::lastInteger() const {
  if (vector_.empty()) throw Exception(ExceptionKind::OutOfRange, "lastInteger of an empty integer array");
  return vector_.back();
}

int64_t LWIntegerArray::integerAtIndex(int64_t index) const {
  checkIndex(index);
  return vector_[static_cast<size_t>(index)];
}

int64_t LWIntegerArray::indexOfInteger(int64_t integer) const {
  auto it = std::find(vector_.begin(), vector_.end(), integer);
  return it == vector_.end() ? NotFound : static_cast<int64_t>(it - vector_.begin());
}

int64_t LWIntegerArray::indexOfIntegerInSortedArray(int64_t integer) const {
  return static_cast<int64_t>(std::lower_bound(vector_.begin(), vector_.end(), integer) - vector_.begin());
}

void LWIntegerArray::enumerateIntegersUsingBlock(
    const std::function<void(int64_t integer, int64_t index, bool& stop)>& block) const {
  bool stop = false;
  for (size_t i = 0; i < vector_.size() && !stop; ++i) block(vector_[i], static_cast<int64_t>(i), stop);
}

bool LWIntegerArray::isEqual(const Object& other) const {
  return isEqualToArray(dynamic_cast<const LWIntegerArray*>(&other));
}

bool LWIntegerArray::isEqualToArray(const LWIntegerArray* other) const {
  return other != nullptr && (other == this || other->vector_ == vector_);
}

size_t LWIntegerArray::hash() const {
  uint64_t h = 0xcbf29ce484222325ULL ^ vector_.size();
  for (int64_t integer : vector_) {
    h ^= static_cast<uint64_t>(integer) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
  }
  return static_cast<size_t>(h);
}

std::string LWIntegerArray::description() const {
  Array items;
  items.reserve(vector_.size());
  for (int64_t integer : vector_) items.emplace_back(integer);
  return "<" + className() + ": " + addressString(this) + "; items = " + Value(std::move(items)).description();
}

void LWMutableIntegerArray::setIntegerAtIndex(int64_t integer, int64_t index) {
  checkIndex(index);
  vector_[static_cast<size_t>(index)] = integer;
}

void LWMutableIntegerArray::removeIntegerAtIndex(int64_t index) {
  checkIndex(index);
  vector_.erase(vector_.begin() + index);
}

}  // namespace loomwork
