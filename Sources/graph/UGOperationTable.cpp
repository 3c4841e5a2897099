#include "graph/UGOperationTable.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace loomwork {

UGOperationTable::UGOperationTable(const UGOperationTable& other) { *this = other; }

UGOperationTable& UGOperationTable::operator=(const UGOperationTable& other) {
  if (&other == this) return *this;
  // Copies only the entries, so the copy starts without holes.
  clear();
  entries_.reserve(other.size());
  for (const Entry& entry : other) entries_.push_back(entry);
  if (size() > kLinearLimit) rebuildIndex(size());
  return *this;
}

UGOperationTable::UGOperationTable(UGOperationTable&& other) noexcept
    : entries_(std::move(other.entries_)),
      index_(std::move(other.index_)),
      holes_(other.holes_),
      removed_(other.removed_) {
  other.clear();
}

UGOperationTable& UGOperationTable::operator=(UGOperationTable&& other) noexcept {
  if (&other == this) return *this;
  entries_ = std::move(other.entries_);
  index_ = std::move(other.index_);
  holes_ = other.holes_;
  removed_ = other.removed_;
  other.clear();
  return *this;
}

void UGOperationTable::reserve(size_t count) {
  entries_.reserve(count);
  if (count > kLinearLimit && 10 * (count + removed_) > 7 * index_.size()) rebuildIndex(count);
}

UGOperationTable::Location UGOperationTable::locate(std::string_view uuid, size_t hash) const {
  if (index_.empty()) {
    for (size_t position = 0; position < entries_.size(); ++position) {
      const Entry& entry = entries_[position];
      if (entry.operation && entry.hash == hash && entry.uuid == uuid) return {position, kNotFound};
    }
    return {};
  }
  const size_t mask = index_.size() - 1;
  const uint32_t tag = tagOf(hash);
  for (size_t slot = hash & mask;; slot = (slot + 1) & mask) {
    const Slot& probe = index_[slot];
    if (probe.position == kEmpty) return {};
    if (probe.position != kRemoved && probe.tag == tag && entries_[probe.position].uuid == uuid) {
      return {probe.position, slot};
    }
  }
}

const Ref<UGEntityOperation>* UGOperationTable::find(std::string_view uuid, size_t hash) const {
  const Location found = locate(uuid, hash);
  return found.position == kNotFound ? nullptr : &entries_[found.position].operation;
}

Ref<UGEntityOperation>* UGOperationTable::find(std::string_view uuid, size_t hash) {
  const Location found = locate(uuid, hash);
  return found.position == kNotFound ? nullptr : &entries_[found.position].operation;
}

Ref<UGEntityOperation>& UGOperationTable::assign(std::string_view uuid, size_t hash, Ref<UGEntityOperation> operation) {
  const Location found = locate(uuid, hash);
  if (found.position != kNotFound) return entries_[found.position].operation = std::move(operation);
  const size_t position = entries_.size();
  entries_.push_back({std::string(uuid), std::move(operation), hash});
  if (index_.empty()) {
    if (entries_.size() > kLinearLimit) rebuildIndex(size());
  } else if (10 * (size() + removed_) > 7 * index_.size()) {
    rebuildIndex(size());
  } else {
    const size_t mask = index_.size() - 1;
    size_t slot = hash & mask;
    while (index_[slot].position != kEmpty && index_[slot].position != kRemoved) slot = (slot + 1) & mask;
    if (index_[slot].position == kRemoved) --removed_;
    index_[slot] = {static_cast<uint32_t>(position), tagOf(hash)};
  }
  return entries_[position].operation;
}

bool UGOperationTable::erase(std::string_view uuid) {
  const Location found = locate(uuid, hashOf(uuid));
  if (found.position == kNotFound) return false;
  remove(found);
  compactIfSparse();
  return true;
}

void UGOperationTable::remove(Location found) {
  Entry& entry = entries_[found.position];
  entry.operation.reset();
  std::string().swap(entry.uuid);
  if (found.slot != kNotFound) {
    index_[found.slot].position = kRemoved;
    ++removed_;
  }
  ++holes_;
}

void UGOperationTable::clear() noexcept {
  entries_.clear();
  index_.clear();
  holes_ = 0;
  removed_ = 0;
}

void UGOperationTable::compactIfSparse() {
  // Holes at the end cost nothing to drop (their index slots stay marked as
  // removed); the rest wait until they outnumber the entries, so every
  // compaction is paid for by the removals before it.
  while (!entries_.empty() && !entries_.back().operation) {
    entries_.pop_back();
    --holes_;
  }
  if (holes_ <= 16 || holes_ <= size()) return;
  size_t kept = 0;
  for (Entry& entry : entries_) {
    if (!entry.operation) continue;
    if (&entries_[kept] != &entry) entries_[kept] = std::move(entry);
    ++kept;
  }
  entries_.resize(kept);
  holes_ = 0;
  if (kept > kLinearLimit) {
    rebuildIndex(kept);
  } else {
    index_.clear();
    removed_ = 0;
  }
}

void UGOperationTable::rebuildIndex(size_t count) {
  const size_t slots = std::bit_ceil(std::max<size_t>({16, 2 * count, 2 * size()}));
  index_.assign(slots, Slot());
  removed_ = 0;
  const size_t mask = slots - 1;
  for (size_t position = 0; position < entries_.size(); ++position) {
    const Entry& entry = entries_[position];
    if (!entry.operation) continue;
    size_t slot = entry.hash & mask;
    while (index_[slot].position != kEmpty) slot = (slot + 1) & mask;
    index_[slot] = {static_cast<uint32_t>(position), tagOf(entry.hash)};
  }
}

}  // namespace loomwork
