// LWIntegerArray and LWMutableIntegerArray: compact arrays of signed 64-bit
// integers, in an immutable and a mutable kind.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"

#pragma GCC visibility push(default)
namespace loomwork {

class LWMutableIntegerArray;

// An array of signed 64-bit integers in one contiguous vector that the array
// owns. The immutable kind offers only reading operations (and `sortedArray`,
// see there); LWMutableIntegerArray adds the changing ones. Indexes are
// signed 64-bit; NotFound means "no such index". Used by one thread at a time.
//
// Indexes are checked: reading or changing outside [0, count) throws
// Exception (out of range) rather than touching memory that is not there.
class LWIntegerArray : public Object {
 public:
  LWIntegerArray() = default;
  explicit LWIntegerArray(std::vector<int64_t> integers) : vector_(std::move(integers)) {}
  LWIntegerArray(std::initializer_list<int64_t> integers) : vector_(integers) {}

  // A new empty array of this kind.
  static Ref<LWIntegerArray> array();

  // The immutable kind returns the receiver itself; the mutable kind returns a
  // new immutable array with the same integers. (An array not owned by a
  // shared pointer cannot hand out itself and returns a new immutable array.)
  virtual Ref<LWIntegerArray> copy() const;
  // Always a new mutable array with the same integers.
  Ref<LWMutableIntegerArray> mutableCopy() const;
  // `copy`, sorted ascending in place and returned. For the immutable kind the
  // copy is the receiver, so the receiver itself ends up sorted; callers rely
  // on that.
  Ref<LWIntegerArray> sortedArray();

  int64_t count() const { return static_cast<int64_t>(vector_.size()); }
  // The last integer; throws (out of range) for an empty array.
  int64_t lastInteger() const;
  // The integer at `index`; throws (out of range) outside [0, count).
  int64_t integerAtIndex(int64_t index) const;
  // The first index holding `integer` (linear search), or NotFound.
  int64_t indexOfInteger(int64_t integer) const;
  // For an ascending array: the first index whose integer is not less than
  // `integer` (binary search); `count` when all are less. Never NotFound.
  int64_t indexOfIntegerInSortedArray(int64_t integer) const;

  // Calls `block` with (integer, index, stop) from index 0 upward until it sets
  // stop or the end is reached. The count is read again before every call, so
  // a block that changes the array sees its current length.
  void enumerateIntegersUsingBlock(const std::function<void(int64_t integer, int64_t index, bool& stop)>& block) const;

  // isEqualToArray for integer arrays of either kind; false for other objects.
  bool isEqual(const Object& other) const override;
  // True when `other` has the same integers in the same order; false for none.
  bool isEqualToArray(const LWIntegerArray* other) const;
  bool isEqualToArray(const Ref<const LWIntegerArray>& other) const { return isEqualToArray(other.get()); }
  size_t hash() const override;
  // "<ClassName: 0x...; items = (1, 2, 3)", with no closing ">" on purpose.
  std::string description() const override;

  // The storage.
  const std::vector<int64_t>& vector() const { return vector_; }
  void setVector(std::vector<int64_t> integers) { vector_ = std::move(integers); }

 protected:
  void checkIndex(int64_t index) const;

  std::vector<int64_t> vector_;
};

// The mutable kind: adds appending, replacing and removing.
class LWMutableIntegerArray : public LWIntegerArray {
 public:
  using LWIntegerArray::LWIntegerArray;

  static Ref<LWMutableIntegerArray> array();

  // A new immutable array with the same integers; later changes to the
  // receiver do not reach it.
  Ref<LWIntegerArray> copy() const override;

  void addInteger(int64_t integer) { vector_.push_back(integer); }
  // Replaces the integer at `index`; throws (out of range) outside [0, count).
  void setIntegerAtIndex(int64_t integer, int64_t index);
  // Removes the integer at `index` and closes the gap; throws (out of range)
  // outside [0, count).
  void removeIntegerAtIndex(int64_t index);
};

}  // namespace loomwork
#pragma GCC visibility pop
