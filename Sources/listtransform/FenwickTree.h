// A Fenwick tree of counts, used inside the list transforms to find an item's
// position in an array from which earlier items are being removed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace loomwork {

// n counters, all 0 at first: add to one counter and sum a prefix, both in
// O(log n).
class FenwickTree {
 public:
  explicit FenwickTree(size_t n) : tree_(n + 1, 0) {}
  void add(size_t position, int64_t delta) {
    for (size_t i = position + 1; i < tree_.size(); i += i & (~i + 1)) tree_[i] += delta;
  }
  // Sum of the counters [0, end).
  int64_t prefix(size_t end) const {
    int64_t sum = 0;
    for (size_t i = end; i > 0; i -= i & (~i + 1)) sum += tree_[i];
    return sum;
  }

 private:
  std::vector<int64_t> tree_;
};

}  // namespace loomwork
