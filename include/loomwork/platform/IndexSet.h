// IndexSet: an ordered set of non-negative integer indexes kept as ranges.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "loomwork/platform/Types.h"

#pragma GCC visibility push(default)
namespace loomwork {

// A range of indexes [location, location + length).
struct IndexRange {
  int64_t location = 0;
  int64_t length = 0;
  int64_t end() const { return location + length; }
  friend bool operator==(IndexRange a, IndexRange b) = default;
};

// An ordered set of non-negative indexes, stored as sorted, disjoint,
// non-adjacent ranges. A value type: copies are independent. Membership tests
// and single changes cost O(log r + shifted ranges) for r ranges; iteration
// yields the indexes in ascending order. Negative indexes and NotFound are
// never members: adding them does nothing.
class IndexSet {
 public:
  IndexSet() = default;
  explicit IndexSet(int64_t index) { addIndex(index); }
  explicit IndexSet(IndexRange range) { addIndexesInRange(range); }
  IndexSet(std::initializer_list<int64_t> indexes);
  static IndexSet fromIndexes(const std::vector<int64_t>& indexes);

  size_t count() const { return count_; }
  bool empty() const { return count_ == 0; }
  bool containsIndex(int64_t index) const;
  bool containsIndexesInRange(IndexRange range) const;
  bool containsIndexes(const IndexSet& other) const;
  bool intersectsIndexesInRange(IndexRange range) const;

  // NotFound when the set is empty.
  int64_t firstIndex() const;
  int64_t lastIndex() const;
  // The closest member above/below the index, or NotFound.
  int64_t indexGreaterThanIndex(int64_t index) const;
  int64_t indexGreaterThanOrEqualToIndex(int64_t index) const;
  int64_t indexLessThanIndex(int64_t index) const;
  int64_t indexLessThanOrEqualToIndex(int64_t index) const;
  // How many members lie in the range.
  size_t countOfIndexesInRange(IndexRange range) const;

  void addIndex(int64_t index) { addIndexesInRange({index, 1}); }
  void addIndexesInRange(IndexRange range);
  void addIndexes(const IndexSet& other);
  void removeIndex(int64_t index) { removeIndexesInRange({index, 1}); }
  void removeIndexesInRange(IndexRange range);
  void removeIndexes(const IndexSet& other);
  void removeAllIndexes();
  // Moves every member at or above `index` by `delta`. With a negative delta
  // the members in [index + delta, index) are removed first, as when the
  // elements in front of `index` are deleted.
  void shiftIndexesStartingAtIndex(int64_t index, int64_t delta);

  // The members in ascending order.
  std::vector<int64_t> indexes() const;
  const std::vector<IndexRange>& ranges() const { return ranges_; }
  // Calls the block for each member in ascending (or descending) order until
  // the block sets stop.
  void enumerateIndexes(const std::function<void(int64_t index, bool& stop)>& block, bool reverse = false) const;

  // "[]" for an empty set, else the members as "[1-3, 5, 8]".
  std::string description() const;

  friend bool operator==(const IndexSet& a, const IndexSet& b) { return a.ranges_ == b.ranges_; }

  class const_iterator {
   public:
    using value_type = int64_t;
    using difference_type = std::ptrdiff_t;
    using iterator_category = std::forward_iterator_tag;
    const_iterator() = default;
    const_iterator(const std::vector<IndexRange>* ranges, size_t range, int64_t offset)
        : ranges_(ranges), range_(range), offset_(offset) {}
    int64_t operator*() const { return (*ranges_)[range_].location + offset_; }
    const_iterator& operator++() {
      if (++offset_ == (*ranges_)[range_].length) {
        ++range_;
        offset_ = 0;
      }
      return *this;
    }
    const_iterator operator++(int) {
      auto copy = *this;
      ++*this;
      return copy;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) {
      return a.range_ == b.range_ && a.offset_ == b.offset_;
    }

   private:
    const std::vector<IndexRange>* ranges_ = nullptr;
    size_t range_ = 0;
    int64_t offset_ = 0;
  };
  const_iterator begin() const { return const_iterator(&ranges_, 0, 0); }
  const_iterator end() const { return const_iterator(&ranges_, ranges_.size(), 0); }

 private:
  // Position of the first range whose end is above index.
  size_t rangeIndexFor(int64_t index) const;
  std::vector<IndexRange> ranges_;
  size_t count_ = 0;
};

}  // namespace loomwork
#pragma GCC visibility pop
