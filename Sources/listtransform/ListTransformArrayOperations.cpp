#include "loomwork/listtransform/ListTransformArrayOperations.h"

#include <algorithm>
#include <bit>
#include <unordered_map>

#include "loomwork/platform/Exception.h"

namespace loomwork {

namespace {

[[noreturn]] void outOfRange(int64_t index, size_t count) {
  throw Exception(ExceptionKind::OutOfRange,
                  "index " + std::to_string(index) + " beyond bounds [0 .. " + std::to_string(count) + "]");
}

// For each distinct element of an array, its positions in ascending order,
// handed out lowest first. Open addressing keyed by the array's own elements,
// so building it copies no values. Positions are of type P; None marks "none".
template <class Hash, class Equal, class P>
class PositionTable {
 public:
  static constexpr P None = static_cast<P>(-1);

  explicit PositionTable(const Array& array) : array_(array), next_(array.size(), None) {
    size_t capacity = std::bit_ceil(std::max<size_t>(16, array.size() * 2));
    slots_.assign(capacity, Slot{});
    mask_ = capacity - 1;
    for (size_t j = array.size(); j-- > 0;) {
      const auto h = static_cast<uint32_t>(Hash()(array[j]));
      Slot& slot = find(array[j], h);
      if (slot.key == None) {
        slot.key = static_cast<P>(j);
        slot.hash = h;
      } else {
        next_[j] = slot.head;
      }
      slot.head = static_cast<P>(j);
    }
  }

  // The lowest position of an element matching `value` not yet taken, or None.
  P take(const Value& value) {
    Slot& slot = find(value, static_cast<uint32_t>(Hash()(value)));
    if (slot.key == None || slot.head == None) return None;
    P position = slot.head;
    slot.head = next_[position];
    return position;
  }

 private:
  struct Slot {
    uint32_t hash = 0;
    P key = None;   // a position of the element this slot stands for
    P head = None;  // its lowest position not yet taken
  };

  Slot& find(const Value& value, uint32_t h) {
    for (size_t i = h & mask_;; i = (i + 1) & mask_) {
      Slot& slot = slots_[i];
      if (slot.key == None) return slot;
      if (slot.hash == h && Equal()(array_[slot.key], value)) return slot;
    }
  }

  const Array& array_;
  std::vector<P> next_;
  std::vector<Slot> slots_;
  size_t mask_ = 0;
};

struct EqualValues {
  bool operator()(const Value& a, const Value& b) const { return a == b; }
};

// Which of the matched elements stay where they are instead of moving.
enum class Staying {
  // The ones normalizeMoves() proves stayed in place.
  NormalizedMoves,
  // One longest run of them whose targets increase, so the fewest move.
  LongestIncreasingRun,
};

// Marks as Dropped one longest subsequence of the matched targets (those not
// None) that increases with the source position, and their slots. Patience
// sorting: tails[k] is the source position ending the increasing runs of
// length k + 1 with the lowest last target found so far. O(n log n).
template <class P>
void dropLongestIncreasingRun(std::vector<P>& target, std::vector<P>& slot, P None, P Dropped) {
  const size_t n = target.size();
  std::vector<P> tails;
  std::vector<P> previous(n, None);
  for (size_t i = 0; i < n; ++i) {
    const P t = target[i];
    if (t == None) continue;
    auto at = std::lower_bound(tails.begin(), tails.end(), t, [&](P tail, P value) { return target[tail] < value; });
    if (at != tails.begin()) previous[i] = *(at - 1);
    if (at == tails.end()) {
      tails.push_back(static_cast<P>(i));
    } else {
      *at = static_cast<P>(i);
    }
  }
  if (tails.empty()) return;
  for (P i = tails.back(); i != None; i = previous[i]) {
    slot[target[i]] = Dropped;
    target[i] = Dropped;
  }
}

template <class Hash, class Equal, class P>
Ref<UGListTransform> transition(const Array& from, const Array& to, Staying staying) {
  constexpr P None = PositionTable<Hash, Equal, P>::None;
  constexpr P Dropped = None - 1;
  const size_t n = from.size(), m = to.size();
  // target[i]: the position in `to` that from[i] moves to, or None.
  std::vector<P> target(n, None);
  {
    PositionTable<Hash, Equal, P> table(to);
    for (size_t i = 0; i < n; ++i) target[i] = table.take(from[i]);
  }

  // slot[j] says what becomes of position j of `to`: None, a plain insertion;
  // Dropped, nothing; otherwise the position of its move's deletion item.
  std::vector<P> slot(m, None);
  if (staying == Staying::LongestIncreasingRun) {
    dropLongestIncreasingRun(target, slot, None, Dropped);
  } else {
    // Dropping needless moves: every old element has a deletion item and
    // every new position an insertion item, so the walk from the last
    // deletion down drops a move exactly when no move dropped before it had
    // a lower target.
    size_t lowestDropped = m;
    for (size_t i = n; i-- > 0;) {
      if (target[i] == None || target[i] >= lowestDropped) continue;
      lowestDropped = target[i];
      slot[target[i]] = Dropped;
      target[i] = Dropped;
    }
  }

  auto result = UGMutableListTransform::transform();
  UGListTransformItemArray& deletions = result->mutableDeletions();
  UGListTransformItemArray& insertions = result->mutableInsertions();
  for (size_t i = 0; i < n; ++i) {
    if (target[i] == Dropped) continue;
    if (target[i] != None) slot[target[i]] = static_cast<P>(deletions.size());
    deletions.push_back(UGListTransformItem::itemWithIndexObject(static_cast<int64_t>(i), from[i]));
  }
  insertions.reserve(m - (n - deletions.size()));
  for (size_t j = 0; j < m; ++j) {
    if (slot[j] == Dropped) continue;
    if (slot[j] == None) {
      insertions.push_back(UGListTransformItem::itemWithIndexObject(static_cast<int64_t>(j), to[j]));
      continue;
    }
    UGListTransformItem* partner = deletions[slot[j]].get();
    insertions.push_back(UGListTransformItem::itemWithIndexObject(static_cast<int64_t>(j), partner->object()));
    insertions.back()->establishMoveLinkToItem(partner);
  }
  return result;
}

template <class Hash, class Equal>
Ref<UGListTransform> transition(const Array& from, const Array& to, Staying staying) {
  // 32-bit positions halve the tables for every array of realistic size.
  if (std::max(from.size(), to.size()) < UINT32_MAX - 2) return transition<Hash, Equal, uint32_t>(from, to, staying);
  return transition<Hash, Equal, uint64_t>(from, to, staying);
}

Ref<UGListTransform> transition(const Array& from, const Array& to, UGListTransformObjectComparison objectComparison,
                                Staying staying) {
  if (objectComparison == UGListTransformObjectComparisonIdentity) {
    bool same = from.size() == to.size();
    for (size_t i = 0; same && i < from.size(); ++i) same = from[i].isIdenticalTo(to[i]);
    if (same) return UGListTransform::transform();
    return transition<ValueIdentityHash, ValueIdentityEqual>(from, to, staying);
  }
  if (from == to) return UGListTransform::transform();
  return transition<ValueHash, EqualValues>(from, to, staying);
}

}  // namespace

void applyTransform(Array& array, const UGListTransform& transform) {
  applyTransformIgnoringObjectsInTransform(array, transform, false);
}

void applyTransformIgnoringObjectsInTransform(Array& array, const UGListTransform& transform, bool ignoringObjects) {
  const auto& deletions = transform.deletions();
  const auto& insertions = transform.insertions();
  if (deletions.empty() && insertions.empty()) return;
  std::vector<bool> deleted(array.size(), false);
  size_t deletedCount = 0;
  for (const auto& deletion : deletions) {
    if (deletion->index() < 0 || static_cast<size_t>(deletion->index()) >= array.size()) {
      outOfRange(deletion->index(), array.size());
    }
    auto position = static_cast<size_t>(deletion->index());
    if (!deleted[position]) ++deletedCount;
    deleted[position] = true;
  }
  // Each insertion, made in ascending order, may land at most at the end of
  // the array as it stands then.
  const size_t survivorCount = array.size() - deletedCount;
  for (size_t k = 0; k < insertions.size(); ++k) {
    const int64_t index = insertions[k]->index();
    if (index < 0 || static_cast<size_t>(index) > survivorCount + k) outOfRange(index, survivorCount + k);
  }
  // Elements picked up by the deletion halves of moves, for their insertions.
  std::unordered_map<const UGListTransformItem*, Value> carried;
  if (ignoringObjects) {
    for (const auto& deletion : deletions) {
      if (const UGListTransformItem* partner = deletion->moveLinkItem()) {
        carried.emplace(partner, array[static_cast<size_t>(deletion->index())]);
      }
    }
  }
  Array survivors;
  survivors.reserve(survivorCount);
  for (size_t i = 0; i < array.size(); ++i) {
    if (!deleted[i]) survivors.push_back(std::move(array[i]));
  }
  Array result;
  result.reserve(survivors.size() + insertions.size());
  size_t si = 0;
  for (const auto& insertion : insertions) {
    const int64_t index = insertion->index();
    while (static_cast<int64_t>(result.size()) < index && si < survivors.size()) {
      result.push_back(std::move(survivors[si++]));
    }
    if (ignoringObjects) {
      auto it = insertion->hasMoveLink() ? carried.find(insertion.get()) : carried.end();
      result.push_back(it != carried.end() ? it->second : Value::null());
    } else {
      result.push_back(insertion->object().value_or(Value::null()));
    }
  }
  for (; si < survivors.size(); ++si) result.push_back(std::move(survivors[si]));
  array = std::move(result);
}

Array arrayByApplyingTransform(const Array& array, const UGListTransform& transform) {
  Array copy = array;
  applyTransform(copy, transform);
  return copy;
}

Array arrayByApplyingTransformIgnoringObjectsInTransform(const Array& array, const UGListTransform& transform,
                                                         bool ignoringObjects) {
  Array copy = array;
  applyTransformIgnoringObjectsInTransform(copy, transform, ignoringObjects);
  return copy;
}

void applyTransform(IndexSet& indexes, const UGListTransform& transform) {
  if (transform.isIdentity()) return;
  std::vector<int64_t> mapped;
  mapped.reserve(indexes.count());
  for (int64_t index : indexes) {
    int64_t to = transform.transformIndex(index);
    if (to != NotFound) mapped.push_back(to);
  }
  indexes = IndexSet::fromIndexes(mapped);
}

IndexSet indexSetByApplyingTransform(const IndexSet& indexes, const UGListTransform& transform) {
  IndexSet copy = indexes;
  applyTransform(copy, transform);
  return copy;
}

void sortUsingDescriptorsResultingTransform(Array& array, const std::vector<SortDescriptor>& descriptors,
                                            Ref<UGMutableListTransform>* resultingTransform) {
  Array unsorted = array;
  sortUsingDescriptors(array, descriptors);
  if (resultingTransform == nullptr) return;
  auto transform = transformForTransitioningFromArrayToArrayObjectComparison(unsorted, array,
                                                                             UGListTransformObjectComparisonIdentity);
  auto mutableTransform = std::dynamic_pointer_cast<UGMutableListTransform>(transform);
  *resultingTransform = mutableTransform ? mutableTransform : transform->mutableCopy();
}

Ref<UGListTransform> transformForTransitioningFromArrayToArrayObjectComparison(
    const Array& from, const Array& to, UGListTransformObjectComparison objectComparison) {
  return transition(from, to, objectComparison, Staying::NormalizedMoves);
}

Ref<UGListTransform> transformWithFewestMovesForTransitioningFromArrayToArrayObjectComparison(
    const Array& from, const Array& to, UGListTransformObjectComparison objectComparison) {
  return transition(from, to, objectComparison, Staying::LongestIncreasingRun);
}

}  // namespace loomwork
