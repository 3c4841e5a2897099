#include "loomwork/additions/IndexPath.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace loomwork {

uint64_t IndexPath::indexAtPosition(size_t position) const {
  return position < indexes_.size() ? indexes_[position] : static_cast<uint64_t>(NotFound);
}

Ref<IndexPath> IndexPath::indexPathByAddingIndex(uint64_t index) const {
  std::vector<uint64_t> indexes = indexes_;
  indexes.push_back(index);
  return makePathWithIndexes(std::move(indexes));
}

Ref<IndexPath> IndexPath::makePathWithIndexes(std::vector<uint64_t> indexes) const {
  return make<IndexPath>(std::move(indexes));
}

Ref<IndexPath> TWIndexPath::makePathWithIndexes(std::vector<uint64_t> indexes) const {
  return make<TWIndexPath>(std::move(indexes));
}

bool IndexPath::isEqual(const Object& other) const {
  const auto* path = dynamic_cast<const IndexPath*>(&other);
  return path != nullptr && path->indexes_ == indexes_;
}

size_t IndexPath::hash() const {
  uint64_t h = 0x84222325cbf29ce4ULL ^ indexes_.size();
  for (uint64_t index : indexes_) h = (h ^ index) * 0x100000001b3ULL;
  return static_cast<size_t>(h);
}

ComparisonResult TWIndexPath::compare(const IndexPath& other) const {
  const std::vector<uint64_t>& theirs = other.indexes();
  const size_t common = std::min(indexes_.size(), theirs.size());
  for (size_t i = 0; i < common; ++i) {
    if (indexes_[i] < theirs[i]) return OrderedAscending;
    if (indexes_[i] > theirs[i]) return OrderedDescending;
  }
  if (indexes_.size() < theirs.size()) return OrderedAscending;
  if (indexes_.size() > theirs.size()) return OrderedDescending;
  return OrderedSame;
}

Ref<TWIndexPath> TWIndexPath::indexPathByAddingIndex(uint64_t index) const {
  Ref<IndexPath> path = IndexPath::indexPathByAddingIndex(index);
  if (auto typed = std::dynamic_pointer_cast<TWIndexPath>(path)) return typed;
  return make<TWIndexPath>(path->indexes());
}

std::string TWIndexPath::description() const {
  char head[64];
  std::snprintf(head, sizeof head, " %" PRIxPTR "> %zu ", reinterpret_cast<uintptr_t>(this), indexes_.size());
  std::string text = "<" + className() + head + (indexes_.size() == 1 ? "index" : "indexes");
  if (!indexes_.empty()) {
    text += " [";
    for (size_t i = 0; i < indexes_.size(); ++i) {
      if (i > 0) text += ", ";
      // Printed as signed, as the "%ld" form does.
      text += std::to_string(static_cast<int64_t>(indexes_[i]));
    }
    text += ']';
  }
  return text;
}

}  // namespace loomwork
