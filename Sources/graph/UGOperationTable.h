// UGOperationTable: the UUID -> entity operation dictionary of a transaction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "loomwork/graph/UGEntityOperation.h"

namespace loomwork {

// A hash-indexed dictionary from UUID to entity operation that keeps
// insertion order: a new UUID goes to the end, replacing the operation of a
// held UUID keeps its place, and a UUID removed and added again goes to the
// end. Lookup, insertion and removal are O(1) (amortised).
//
// The entries sit in one vector in order. A removal leaves a hole there,
// which iteration skips, and the holes are compacted away once they
// outnumber the entries; so removing keeps the order without shifting the
// entries each time (which would make normalisation quadratic). The index is
// a flat open-addressing table of entry positions, rebuilt from the stored
// hashes when it grows or the entries are compacted; tables of up to eight
// entries do without one.
//
// Iterators and the pointers find() returns are invalidated by adding or
// removing entries, not by replacing an operation. At most 2^32 - 2 entries.
// Used by one thread at a time.
class UGOperationTable {
 public:
  // One position of the order; a hole (removed entry) has no operation, and
  // iteration never shows it. `hash` is the UUID's hash.
  struct Entry {
    std::string uuid;
    Ref<UGEntityOperation> operation;
    size_t hash = 0;
  };

  // Walks the entries in order, skipping holes.
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = const Entry*;
    using reference = const Entry&;

    const_iterator() = default;
    const_iterator(const Entry* position, const Entry* end) : position_(position), end_(end) { skipHoles(); }
    const Entry& operator*() const { return *position_; }
    const Entry* operator->() const { return position_; }
    const_iterator& operator++() {
      ++position_;
      skipHoles();
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.position_ == b.position_; }

   private:
    void skipHoles() {
      while (position_ != end_ && !position_->operation) ++position_;
    }
    const Entry* position_ = nullptr;
    const Entry* end_ = nullptr;
  };
  using iterator = const_iterator;

  UGOperationTable() = default;
  UGOperationTable(const UGOperationTable& other);
  UGOperationTable& operator=(const UGOperationTable& other);
  UGOperationTable(UGOperationTable&& other) noexcept;
  UGOperationTable& operator=(UGOperationTable&& other) noexcept;
  ~UGOperationTable() = default;

  size_t size() const noexcept { return entries_.size() - holes_; }
  bool empty() const noexcept { return size() == 0; }
  void reserve(size_t count);

  // The hash every table uses for a UUID (Entry::hash).
  static size_t hashOf(std::string_view uuid) { return std::hash<std::string_view>()(uuid); }

  // The operation held for the UUID, or null. The forms with a hash take
  // hashOf(uuid), known for example from another table's entry.
  const Ref<UGEntityOperation>* find(std::string_view uuid) const { return find(uuid, hashOf(uuid)); }
  Ref<UGEntityOperation>* find(std::string_view uuid) { return find(uuid, hashOf(uuid)); }
  const Ref<UGEntityOperation>* find(std::string_view uuid, size_t hash) const;
  Ref<UGEntityOperation>* find(std::string_view uuid, size_t hash);
  // Replaces the operation held for the UUID in place, or adds the UUID at the
  // end; returns the slot that holds it. The operation must not be empty.
  Ref<UGEntityOperation>& assign(std::string_view uuid, Ref<UGEntityOperation> operation) {
    return assign(uuid, hashOf(uuid), std::move(operation));
  }
  Ref<UGEntityOperation>& assign(std::string_view uuid, size_t hash, Ref<UGEntityOperation> operation);
  // A hint that the UUID with this hash is looked up soon: fetches its index
  // slot into the cache, so that walking another large table's entries does
  // not wait for each lookup in turn.
  void prefetch(size_t hash) const {
    if (!index_.empty()) __builtin_prefetch(&index_[hash & (index_.size() - 1)]);
  }
  // Removes the UUID; false when it was not held.
  bool erase(std::string_view uuid);
  // Removes every entry for which predicate(uuid, operation) holds, in one pass.
  template <class Predicate>
  void eraseIf(Predicate&& predicate) {
    for (size_t position = 0; position < entries_.size(); ++position) {
      const Entry& entry = entries_[position];
      if (!entry.operation || !predicate(entry.uuid, entry.operation)) continue;
      remove({position, index_.empty() ? kNotFound : locate(entry.uuid, entry.hash).slot});
    }
    compactIfSparse();
  }
  void clear() noexcept;
  // Calls f(uuid, operation) for every entry in order; f may replace the
  // operation (with a present one) through the reference, but must not add
  // or remove entries.
  template <class Function>
  void forEachMutable(Function&& f) {
    for (Entry& entry : entries_) {
      if (entry.operation) f(std::as_const(entry.uuid), entry.operation);
    }
  }

  const_iterator begin() const { return const_iterator(entries_.data(), entries_.data() + entries_.size()); }
  const_iterator end() const {
    return const_iterator(entries_.data() + entries_.size(), entries_.data() + entries_.size());
  }

  // Positions in the order, for iterators that cannot hold a const_iterator:
  // the first position at or after `position` that is not a hole (or
  // positionsEnd()), and the entry there.
  size_t skipHolesFrom(size_t position) const noexcept {
    while (position < entries_.size() && !entries_[position].operation) ++position;
    return position;
  }
  size_t positionsEnd() const noexcept { return entries_.size(); }
  const Entry& entryAt(size_t position) const noexcept { return entries_[position]; }

 private:
  static constexpr uint32_t kEmpty = UINT32_MAX;
  static constexpr uint32_t kRemoved = UINT32_MAX - 1;
  static constexpr size_t kNotFound = SIZE_MAX;
  // Up to this many entries (holes included) a table has no index and finds
  // a UUID by comparing hashes along the entries: most transactions hold a
  // handful of operations, and one allocation fewer matters more to them.
  static constexpr size_t kLinearLimit = 8;

  // Where an entry is: its position in entries_ and, when there is an index,
  // its slot there (kNotFound for both when the UUID is not held).
  struct Location {
    size_t position = kNotFound;
    size_t slot = kNotFound;
  };
  Location locate(std::string_view uuid, size_t hash) const;
  void remove(Location location);
  void compactIfSparse();
  // Makes the index hold every entry again, with room for `count` of them.
  void rebuildIndex(size_t count);

  // A position in entries_ (or kEmpty / kRemoved) with the high half of the
  // UUID's hash, so that probing passes other UUIDs without reading entries.
  struct Slot {
    uint32_t position = kEmpty;
    uint32_t tag = 0;
  };
  static uint32_t tagOf(size_t hash) { return static_cast<uint32_t>(static_cast<uint64_t>(hash) >> 32); }

  std::vector<Entry> entries_;
  // Empty, or probed linearly from hash & (size - 1). The size is a power of
  // two; at most 70% of the slots are used (entries or removed marks), and a
  // rebuild brings that down to at most 50%.
  std::vector<Slot> index_;
  size_t holes_ = 0;    // removed entries still in entries_
  size_t removed_ = 0;  // kRemoved slots in index_
};

}  // namespace loomwork
