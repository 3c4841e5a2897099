// TWArrayIterator and TWReverseArrayIterator: a position in an array that
// steps forward or back.
#pragma once

#include <cstdint>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Walks an array value from index 0 up to the end position `count`. The
// iterator holds the array (a shared, immutable Value) strongly and never
// checks its index when stepping; reading `object` outside the array throws.
// Used by one thread at a time.
class TWArrayIterator : public Object {
 public:
  // Throws Exception (invalid argument) when `array` is not an array value.
  TWArrayIterator(Value array, int64_t index);

  const Value& array() const { return array_; }
  int64_t index() const { return index_; }
  void setIndex(int64_t index) { index_ = index; }

  // One step in the iterator's direction (forward: index + 1) or back.
  virtual void stepForward() { ++index_; }
  virtual void stepBack() { --index_; }
  // The element at the current index; throws Exception (out of range) at the
  // end position or anywhere else outside the array.
  Value object() const;
  // At index 0 (reverse: count - 1).
  virtual bool atBeginning() const { return index_ == 0; }
  // At index count (reverse: -1).
  virtual bool atEnd() const { return index_ == count(); }

 protected:
  int64_t count() const { return static_cast<int64_t>(array_.count()); }

 private:
  Value array_;
  int64_t index_;
};

// Walks an array from its last element (index count - 1) down to the end
// position -1.
class TWReverseArrayIterator : public TWArrayIterator {
 public:
  using TWArrayIterator::TWArrayIterator;

  void stepForward() override { setIndex(index() - 1); }
  void stepBack() override { setIndex(index() + 1); }
  bool atBeginning() const override { return index() == count() - 1; }
  bool atEnd() const override { return index() == -1; }
};

// A forward iterator at index 0 of the array; throws (invalid argument) for a
// value that is not an array.
Ref<TWArrayIterator> iterator(const Value& array);
Ref<TWArrayIterator> iterator(Array array);
// A reverse iterator at the array's last index (-1 for an empty array, which is
// then at its end at once).
Ref<TWReverseArrayIterator> reverseIterator(const Value& array);
Ref<TWReverseArrayIterator> reverseIterator(Array array);

}  // namespace loomwork
#pragma GCC visibility pop
