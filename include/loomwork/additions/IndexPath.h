// IndexPath and TWIndexPath: paths of unsigned indexes into nested lists.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"

#pragma GCC visibility push(default)
namespace loomwork {

// An immutable sequence of unsigned indexes (length 0 or more) that leads
// through nested lists. Two paths are equal when they hold the same indexes,
// whatever their class. May be shared between threads once built.
class IndexPath : public Object {
 public:
  IndexPath() = default;
  explicit IndexPath(std::vector<uint64_t> indexes) : indexes_(std::move(indexes)) {}
  IndexPath(std::initializer_list<uint64_t> indexes) : indexes_(indexes) {}

  size_t length() const { return indexes_.size(); }
  // The index at `position`, or NotFound (as unsigned) beyond the length.
  uint64_t indexAtPosition(size_t position) const;
  const std::vector<uint64_t>& indexes() const { return indexes_; }
  // A new path with `index` appended, of the receiver's own class (a
  // TWIndexPath gives a TWIndexPath also when called through this base).
  Ref<IndexPath> indexPathByAddingIndex(uint64_t index) const;

  bool isEqual(const Object& other) const override;
  size_t hash() const override;

 protected:
  // A new path of the receiver's class holding `indexes`; subclasses override it.
  virtual Ref<IndexPath> makePathWithIndexes(std::vector<uint64_t> indexes) const;

  std::vector<uint64_t> indexes_;
};

// An index path with a total order, appending that keeps the type, and a
// readable text form.
class TWIndexPath : public IndexPath {
 public:
  using IndexPath::IndexPath;

  // Orders paths index by index from position 0; the first difference decides,
  // and a path that is a prefix of the other comes first (so the empty path
  // comes before every other). Equal paths are the same.
  ComparisonResult compare(const IndexPath& other) const;
  // A new TWIndexPath with `index` appended.
  Ref<TWIndexPath> indexPathByAddingIndex(uint64_t index) const;
  // "<TWIndexPath 7f12...> 2 indexes [1, 2]": class name, address in
  // hexadecimal, the length and "index" or "indexes", then the indexes in
  // brackets unless the path is empty.
  std::string description() const override;

 protected:
  Ref<IndexPath> makePathWithIndexes(std::vector<uint64_t> indexes) const override;
};

}  // namespace loomwork
#pragma GCC visibility pop
