// LWRandomAccessContainer: the random-access list a list segment shows, and a
// ready adapter over an array of values.
#pragma once

#include <cstdint>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// A list the host owns and a list segment shows: a count, the element at an
// index and the index of an element.
class LWRandomAccessContainer : public Object {
 public:
  virtual int64_t count() const = 0;
  // The element at the index; an index outside the list throws Exception
  // (out of range).
  virtual Value objectAtIndex(int64_t index) const = 0;
  // The first index holding an equal element, or NotFound.
  virtual int64_t indexOfObject(const Value& object) const = 0;
};

// An LWRandomAccessContainer over an Array that the host changes in place
// (mutableArray()); the host tells the list segment what changed.
class LWArrayContainer : public LWRandomAccessContainer {
 public:
  LWArrayContainer() = default;
  explicit LWArrayContainer(Array array) : array_(std::move(array)) {}

  const Array& array() const { return array_; }
  Array& mutableArray() { return array_; }

  int64_t count() const override { return static_cast<int64_t>(array_.size()); }
  Value objectAtIndex(int64_t index) const override;
  int64_t indexOfObject(const Value& object) const override;

 private:
  Array array_;
};

}  // namespace loomwork
#pragma GCC visibility pop
