#include "loomwork/platform/IndexSet.h"

#include <algorithm>

namespace loomwork {

namespace {
// The largest index a set may hold: NotFound itself is never a member.
constexpr int64_t kIndexLimit = NotFound;

IndexRange clampRange(IndexRange range) {
  if (range.length <= 0) return {0, 0};
  int64_t start = std::max<int64_t>(range.location, 0);
  int64_t end = range.location > kIndexLimit - range.length ? kIndexLimit : range.location + range.length;
  if (end <= start) return {0, 0};
  return {start, end - start};
}
}  // namespace

IndexSet::IndexSet(std::initializer_list<int64_t> indexes) {
  for (int64_t i : indexes) addIndex(i);
}

IndexSet IndexSet::fromIndexes(const std::vector<int64_t>& indexes) {
  std::vector<int64_t> sorted = indexes;
  std::sort(sorted.begin(), sorted.end());
  IndexSet set;
  for (int64_t i : sorted) {
    if (i < 0 || i == NotFound) continue;
    if (!set.ranges_.empty() && set.ranges_.back().end() >= i) {
      if (set.ranges_.back().end() == i) {
        ++set.ranges_.back().length;
        ++set.count_;
      }
    } else {
      set.ranges_.push_back({i, 1});
      ++set.count_;
    }
  }
  return set;
}

size_t IndexSet::rangeIndexFor(int64_t index) const {
  auto it = std::upper_bound(ranges_.begin(), ranges_.end(), index,
                             [](int64_t i, const IndexRange& r) { return i < r.end(); });
  return static_cast<size_t>(it - ranges_.begin());
}

bool IndexSet::containsIndex(int64_t index) const {
  size_t r = rangeIndexFor(index);
  return r < ranges_.size() && ranges_[r].location <= index;
}

bool IndexSet::containsIndexesInRange(IndexRange range) const {
  if (range.length <= 0) return false;
  size_t r = rangeIndexFor(range.location);
  return r < ranges_.size() && ranges_[r].location <= range.location && ranges_[r].end() >= range.end();
}

bool IndexSet::containsIndexes(const IndexSet& other) const {
  for (const auto& range : other.ranges_) {
    if (!containsIndexesInRange(range)) return false;
  }
  return true;
}

bool IndexSet::intersectsIndexesInRange(IndexRange range) const { return countOfIndexesInRange(range) > 0; }

int64_t IndexSet::firstIndex() const { return ranges_.empty() ? NotFound : ranges_.front().location; }
int64_t IndexSet::lastIndex() const { return ranges_.empty() ? NotFound : ranges_.back().end() - 1; }

int64_t IndexSet::indexGreaterThanOrEqualToIndex(int64_t index) const {
  size_t r = rangeIndexFor(index);
  if (r == ranges_.size()) return NotFound;
  return std::max(index, ranges_[r].location);
}

int64_t IndexSet::indexGreaterThanIndex(int64_t index) const {
  if (index == NotFound) return NotFound;
  return indexGreaterThanOrEqualToIndex(index + 1);
}

int64_t IndexSet::indexLessThanOrEqualToIndex(int64_t index) const {
  size_t r = rangeIndexFor(index);
  if (r < ranges_.size() && ranges_[r].location <= index) return index;
  if (r == 0) return NotFound;
  return ranges_[r - 1].end() - 1;
}

int64_t IndexSet::indexLessThanIndex(int64_t index) const {
  if (index <= 0) return NotFound;
  return indexLessThanOrEqualToIndex(index - 1);
}

size_t IndexSet::countOfIndexesInRange(IndexRange range) const {
  range = clampRange(range);
  if (range.length == 0) return 0;
  size_t total = 0;
  for (size_t r = rangeIndexFor(range.location); r < ranges_.size() && ranges_[r].location < range.end(); ++r) {
    int64_t start = std::max(ranges_[r].location, range.location);
    int64_t end = std::min(ranges_[r].end(), range.end());
    total += static_cast<size_t>(end - start);
  }
  return total;
}

void IndexSet::addIndexesInRange(IndexRange range) {
  range = clampRange(range);
  if (range.length == 0) return;
  int64_t start = range.location, end = range.end();
  // First range that touches or follows [start, end): its end is not below start.
  auto first = std::lower_bound(ranges_.begin(), ranges_.end(), start,
                                [](const IndexRange& r, int64_t i) { return r.end() < i; });
  auto last = first;
  while (last != ranges_.end() && last->location <= end) {
    start = std::min(start, last->location);
    end = std::max(end, last->end());
    count_ -= static_cast<size_t>(last->length);
    ++last;
  }
  IndexRange merged{start, end - start};
  count_ += static_cast<size_t>(merged.length);
  if (first == last) {
    ranges_.insert(first, merged);
  } else {
    *first = merged;
    ranges_.erase(first + 1, last);
  }
}

void IndexSet::addIndexes(const IndexSet& other) {
  if (empty()) {
    *this = other;
    return;
  }
  for (const auto& range : other.ranges_) addIndexesInRange(range);
}

void IndexSet::removeIndexesInRange(IndexRange range) {
  range = clampRange(range);
  if (range.length == 0) return;
  int64_t start = range.location, end = range.end();
  size_t r = rangeIndexFor(start);
  std::vector<IndexRange> replacement;
  size_t firstTouched = r;
  while (r < ranges_.size() && ranges_[r].location < end) {
    const IndexRange current = ranges_[r];
    count_ -= static_cast<size_t>(current.length);
    if (current.location < start) replacement.push_back({current.location, start - current.location});
    if (current.end() > end) replacement.push_back({end, current.end() - end});
    ++r;
  }
  for (const auto& piece : replacement) count_ += static_cast<size_t>(piece.length);
  ranges_.erase(ranges_.begin() + static_cast<std::ptrdiff_t>(firstTouched),
                ranges_.begin() + static_cast<std::ptrdiff_t>(r));
  ranges_.insert(ranges_.begin() + static_cast<std::ptrdiff_t>(firstTouched), replacement.begin(), replacement.end());
}

void IndexSet::removeIndexes(const IndexSet& other) {
  for (const auto& range : other.ranges_) removeIndexesInRange(range);
}

void IndexSet::removeAllIndexes() {
  ranges_.clear();
  count_ = 0;
}

void IndexSet::shiftIndexesStartingAtIndex(int64_t index, int64_t delta) {
  if (delta == 0 || ranges_.empty()) return;
  if (delta < 0)
    removeIndexesInRange({std::max<int64_t>(index + delta, 0), index - std::max<int64_t>(index + delta, 0)});
  std::vector<IndexRange> shifted;
  shifted.reserve(ranges_.size() + 1);
  for (const auto& range : ranges_) {
    if (range.end() <= index) {
      shifted.push_back(range);
    } else if (range.location >= index) {
      shifted.push_back({range.location + delta, range.length});
    } else {
      shifted.push_back({range.location, index - range.location});
      shifted.push_back({index + delta, range.end() - index});
    }
  }
  removeAllIndexes();
  for (const auto& range : shifted) addIndexesInRange(range);
}

std::vector<int64_t> IndexSet::indexes() const {
  std::vector<int64_t> out;
  out.reserve(count_);
  for (const auto& range : ranges_) {
    for (int64_t i = range.location; i < range.end(); ++i) out.push_back(i);
  }
  return out;
}

void IndexSet::enumerateIndexes(const std::function<void(int64_t, bool&)>& block, bool reverse) const {
  bool stop = false;
  if (!reverse) {
    for (const auto& range : ranges_) {
      for (int64_t i = range.location; i < range.end(); ++i) {
        block(i, stop);
        if (stop) return;
      }
    }
  } else {
    for (auto it = ranges_.rbegin(); it != ranges_.rend(); ++it) {
      for (int64_t i = it->end() - 1; i >= it->location; --i) {
        block(i, stop);
        if (stop) return;
      }
    }
  }
}

std::string IndexSet::description() const {
  std::string out = "[";
  bool first = true;
  for (const auto& range : ranges_) {
    if (!first) out += ", ";
    first = false;
    out += std::to_string(range.location);
    if (range.length > 1) out += "-" + std::to_string(range.end() - 1);
  }
  return out + "]";
}

}  // namespace loomwork
