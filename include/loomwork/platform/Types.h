// Basic types shared by every subsystem: the not-found index, comparison
// results and the shared-pointer alias for reference objects.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>

#pragma GCC visibility push(default)
namespace loomwork {

// The index that means "there is no such index" (the largest signed 64-bit
// integer). Index mappings and searches return it.
inline constexpr int64_t NotFound = std::numeric_limits<int64_t>::max();

// Result of an ordering comparison: -1 when the receiver comes first, 0 when
// both are the same, 1 when the receiver comes after the argument.
enum ComparisonResult : int {
  OrderedAscending = -1,
  OrderedSame = 0,
  OrderedDescending = 1,
};

// Reference objects live in shared pointers; a weak reference is a weak_ptr.
template <class T>
using Ref = std::shared_ptr<T>;

// Makes a new reference object.
template <class T, class... Args>
Ref<T> make(Args&&... args) {
  return std::make_shared<T>(std::forward<Args>(args)...);
}

}  // namespace loomwork
#pragma GCC visibility pop
