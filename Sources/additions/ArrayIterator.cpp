#include "loomwork/additions/ArrayIterator.h"

#include <string>

#include "loomwork/platform/Exception.h"

namespace loomwork {

TWArrayIterator::TWArrayIterator(Value array, int64_t index) : array_(std::move(array)), index_(index) {
  if (!array_.isArray()) throw Exception(ExceptionKind::InvalidArgument, "TWArrayIterator needs an array");
}

Value TWArrayIterator::object() const {
  const Array& elements = array_.array();
  if (index_ < 0 || index_ >= static_cast<int64_t>(elements.size())) {
    if (elements.empty()) {
      throw Exception(ExceptionKind::OutOfRange, "index " + std::to_string(index_) + " beyond bounds for empty array");
    }
    throw Exception(ExceptionKind::OutOfRange, "index " + std::to_string(index_) + " beyond bounds [0 .. " +
                                                   std::to_string(elements.size() - 1) + "]");
  }
  return elements[static_cast<size_t>(index_)];
}

Ref<TWArrayIterator> iterator(const Value& array) { return make<TWArrayIterator>(array, 0); }

Ref<TWArrayIterator> iterator(Array array) { return iterator(Value(std::move(array))); }

Ref<TWReverseArrayIterator> reverseIterator(const Value& array) {
  return make<TWReverseArrayIterator>(array, static_cast<int64_t>(array.count()) - 1);
}

Ref<TWReverseArrayIterator> reverseIterator(Array array) { return reverseIterator(Value(std::move(array))); }

}  // namespace loomwork
