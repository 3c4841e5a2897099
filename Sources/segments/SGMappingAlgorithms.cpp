#include "segments/SGMappingAlgorithms.h"

#include <algorithm>

#include "loomwork/listtransform/ListTransformArrayOperations.h"

namespace loomwork::sgdetail {

namespace {

Ref<UGListTransformItem> item(int64_t index, std::optional<Value> object) {
  return UGListTransformItem::itemWithIndexObject(index, std::move(object));
}

Array valuesOf(const Mapping& mapping) {
  Array values;
  values.reserve(mapping.size());
  for (int64_t integer : mapping) values.emplace_back(integer);
  return values;
}

bool distinctWithin(const Mapping& mapping, int64_t bound) {
  std::vector<bool> seen(static_cast<size_t>(bound), false);
  for (int64_t integer : mapping) {
    if (seen[static_cast<size_t>(integer)]) return false;
    seen[static_cast<size_t>(integer)] = true;
  }
  return true;
}

}  // namespace

TransformIndexTable::TransformIndexTable(const UGListTransform& transform, int64_t count)
    : transform_(transform),
      target_(static_cast<size_t>(std::max<int64_t>(count, 0)), NotFound),
      deletion_(target_.size(), nullptr) {
  const auto& deletions = transform.deletions();
  const auto& insertions = transform.insertions();
  size_t d = 0, raised = 0;
  for (size_t index = 0; index < target_.size(); ++index) {
    while (d < deletions.size() && deletions[d]->index() < static_cast<int64_t>(index)) ++d;
    if (d < deletions.size() && deletions[d]->index() == static_cast<int64_t>(index)) {
      const UGListTransformItem* deletion = deletions[d].get();
      if (deletion->hasMoveLink()) {
        target_[index] = deletion->moveLinkItem()->index();
      } else {
        deletion_[index] = deletion;
      }
      continue;
    }
    // The same two walks as transformIndexDeletedObject(): lowered once per
    // deletion below, raised once per insertion k with index - k not above it.
    const int64_t current = static_cast<int64_t>(index) - static_cast<int64_t>(d);
    while (raised < insertions.size() && insertions[raised]->index() - static_cast<int64_t>(raised) <= current) {
      ++raised;
    }
    target_[index] = current + static_cast<int64_t>(raised);
  }
}

int64_t TransformIndexTable::map(int64_t index, std::optional<Value>* deletedObject) const {
  if (index < 0 || static_cast<size_t>(index) >= target_.size()) {
    return transform_.transformIndexDeletedObject(index, deletedObject);
  }
  if (deletedObject != nullptr) {
    deletedObject->reset();
    if (const UGListTransformItem* deletion = deletion_[static_cast<size_t>(index)])
      *deletedObject = deletion->object();
  }
  return target_[static_cast<size_t>(index)];
}

int64_t denseBound(const Mapping& mapping, size_t slack) {
  int64_t bound = 0;
  for (int64_t integer : mapping) {
    if (integer < 0) return -1;
    bound = std::max(bound, integer + 1);
  }
  if (static_cast<uint64_t>(bound) > 4 * (mapping.size() + slack) + 1024) return -1;
  return bound;
}

Ref<UGListTransform> transitionBetweenMappings(const Mapping& from, const Mapping& to) {
  if (from == to) return UGListTransform::transform();
  const int64_t fromBound = denseBound(from, to.size()), toBound = denseBound(to, from.size());
  const int64_t bound = std::max(fromBound, toBound);
  if (fromBound < 0 || toBound < 0) {
    return transformForTransitioningFromArrayToArrayObjectComparison(valuesOf(from), valuesOf(to),
                                                                     UGListTransformObjectComparisonEquality);
  }
  constexpr int64_t None = -1;
  constexpr int64_t Dropped = -2;
  // Positions of each integer in `to`, lowest first: head[v], then next[j].
  std::vector<int64_t> head(static_cast<size_t>(bound), None), next(to.size(), None);
  for (size_t j = to.size(); j-- > 0;) {
    auto& first = head[static_cast<size_t>(to[j])];
    next[j] = first;
    first = static_cast<int64_t>(j);
  }
  std::vector<int64_t> target(from.size(), None);
  for (size_t i = 0; i < from.size(); ++i) {
    auto& first = head[static_cast<size_t>(from[i])];
    if (first == None) continue;
    target[i] = first;
    first = next[static_cast<size_t>(first)];
  }
  // A move stays out when no move kept out after it (from the end) had a
  // lower target: what normalizeMoves() drops when every old element is a
  // deletion item and every new position an insertion item.
  std::vector<int64_t> slot(to.size(), None);
  int64_t lowestDropped = static_cast<int64_t>(to.size());
  for (size_t i = from.size(); i-- > 0;) {
    if (target[i] == None || target[i] >= lowestDropped) continue;
    lowestDropped = target[i];
    slot[static_cast<size_t>(target[i])] = Dropped;
    target[i] = Dropped;
  }
  auto result = UGMutableListTransform::transform();
  auto& deletions = result->mutableDeletions();
  auto& insertions = result->mutableInsertions();
  for (size_t i = 0; i < from.size(); ++i) {
    if (target[i] == Dropped) continue;
    if (target[i] != None) slot[static_cast<size_t>(target[i])] = static_cast<int64_t>(deletions.size());
    deletions.push_back(item(static_cast<int64_t>(i), Value(from[i])));
  }
  for (size_t j = 0; j < to.size(); ++j) {
    if (slot[j] == Dropped) continue;
    if (slot[j] == None) {
      insertions.push_back(item(static_cast<int64_t>(j), Value(to[j])));
      continue;
    }
    UGListTransformItem* partner = deletions[static_cast<size_t>(slot[j])].get();
    insertions.push_back(item(static_cast<int64_t>(j), partner->object()));
    insertions.back()->establishMoveLinkToItem(partner);
  }
  return result;
}

Ref<UGMutableListTransform> filterFollowInnerTransformLiterally(Mapping& mapping, const UGListTransform& inner,
                                                                const KeepBlock& keep,
                                                                const RepresentedBlock& represented) {
  auto deletions = UGMutableListTransform::transform();
  auto insertions = UGMutableListTransform::transform();
  auto moves = UGMutableListTransform::transform();
  for (size_t k = mapping.size(); k-- > 0;) {
    std::optional<Value> deleted;
    const int64_t y = inner.transformIndexDeletedObject(mapping[k], &deleted);
    if (y != NotFound) {
      mapping[k] = y;
    } else {
      mapping.erase(mapping.begin() + static_cast<ptrdiff_t>(k));
      deletions->recordDeletedObjectFromIndex(deleted, static_cast<int64_t>(k));
    }
  }
  inner.enumerateTransformAsGroupedDeletionsMovesInsertions({}, {}, [&](int64_t n, const std::optional<Value>& object) {
    if (keep && !keep(n)) return;
    insertions->recordInsertedObjectAtIndex(object, static_cast<int64_t>(mapping.size()));
    mapping.push_back(n);
  });
  Mapping sorted = mapping;
  std::sort(sorted.begin(), sorted.end());
  for (size_t k = 0; k < mapping.size(); ++k) {
    const auto to = std::lower_bound(sorted.begin(), sorted.end(), mapping[k]) - sorted.begin();
    moves->recordMovedObjectFromIndexToIndex(represented(mapping[k]), static_cast<int64_t>(k), to);
  }
  mapping = std::move(sorted);
  auto result = UGMutableListTransform::transform();
  result->appendTransform(*deletions);
  result->appendTransform(*insertions);
  result->appendTransform(*moves);
  return result;
}

Ref<UGMutableListTransform> filterFollowInnerTransform(Mapping& mapping, const UGListTransform& inner,
                                                       const KeepBlock& keep, const RepresentedBlock& represented) {
  const int64_t bound = denseBound(mapping, 0);
  if (bound < 0) return filterFollowInnerTransformLiterally(mapping, inner, keep, represented);
  TransformIndexTable table(inner, bound);

  // Survivors keep their order; deleted positions become plain deletions.
  auto result = UGMutableListTransform::transform();
  auto& deletions = result->mutableDeletions();
  auto& insertions = result->mutableInsertions();
  const size_t oldCount = mapping.size();
  Mapping moved;
  moved.reserve(oldCount);
  std::vector<int64_t> survivorPosition;  // old position of each survivor
  survivorPosition.reserve(oldCount);
  std::vector<std::optional<Value>> deletedObjects(oldCount);
  std::vector<bool> deleted(oldCount, false);
  for (size_t k = oldCount; k-- > 0;) {
    const int64_t y = table.map(mapping[k], &deletedObjects[k]);
    if (y == NotFound) deleted[k] = true;
  }
  for (size_t k = 0; k < oldCount; ++k) {
    if (deleted[k]) continue;
    moved.push_back(table.map(mapping[k]));
    survivorPosition.push_back(static_cast<int64_t>(k));
  }
  const size_t survivorCount = moved.size();
  for (const auto& insertion : inner.insertions()) {
    if (insertion->hasMoveLink()) continue;
    const int64_t n = insertion->index();
    if (keep && !keep(n)) continue;
    moved.push_back(n);
  }

  // Every position moves to its place in ascending order. Two equal inner
  // indexes would make two moves collide, which only the literal form
  // records faithfully.
  const int64_t movedBound = denseBound(moved, 0);
  if (movedBound < 0 || !distinctWithin(moved, movedBound)) {
    // Redo from the start with the literal steps (the mapping is untouched).
    return filterFollowInnerTransformLiterally(mapping, inner, keep, represented);
  }
  std::vector<int64_t> order(moved.size());  // order[rank] = position in `moved`
  {
    std::vector<int64_t> rankOf(static_cast<size_t>(movedBound), -1);
    for (size_t k = 0; k < moved.size(); ++k) rankOf[static_cast<size_t>(moved[k])] = static_cast<int64_t>(k);
    size_t rank = 0;
    for (int64_t value = 0; value < movedBound; ++value) {
      if (rankOf[static_cast<size_t>(value)] >= 0) order[rank++] = rankOf[static_cast<size_t>(value)];
    }
  }
  std::vector<std::optional<Value>> objects(moved.size());
  for (size_t k = 0; k < moved.size(); ++k) objects[k] = represented(moved[k]);

  std::vector<UGListTransformItem*> survivorDeletion(survivorCount, nullptr);
  deletions.reserve(oldCount);
  for (size_t k = 0, s = 0; k < oldCount; ++k) {
    if (deleted[k]) {
      deletions.push_back(item(static_cast<int64_t>(k), std::move(deletedObjects[k])));
    } else {
      deletions.push_back(item(static_cast<int64_t>(k), objects[s]));
      survivorDeletion[s++] = deletions.back().get();
    }
  }
  insertions.reserve(moved.size());
  for (size_t rank = 0; rank < order.size(); ++rank) {
    const auto k = static_cast<size_t>(order[rank]);
    insertions.push_back(item(static_cast<int64_t>(rank), objects[k]));
    if (k < survivorCount) insertions.back()->establishMoveLinkToItem(survivorDeletion[k]);
  }
  mapping.resize(moved.size());
  for (size_t rank = 0; rank < order.size(); ++rank) mapping[rank] = moved[static_cast<size_t>(order[rank])];
  return result;
}

bool appendShiftedChanges(const UGListTransform& items, int64_t deletionOffset, int64_t insertionOffset,
                          UGListTransformItemArray& deletions, UGListTransformItemArray& insertions) {
  const auto& sourceDeletions = items.deletions();
  const size_t firstDeletion = deletions.size();
  size_t links = 0;
  int64_t last = deletions.empty() ? -1 : deletions.back()->index();
  for (const auto& item : sourceDeletions) {
    const int64_t index = item->index() + deletionOffset;
    if (index <= last) return false;
    deletions.push_back(UGListTransformItem::itemWithIndexObject(index, item->object()));
    links += item->hasMoveLink() ? 1 : 0;
    last = index;
  }
  auto byIndex = [](const Ref<UGListTransformItem>& item, int64_t index) { return item->index() < index; };
  last = insertions.empty() ? -1 : insertions.back()->index();
  for (const auto& item : items.insertions()) {
    const int64_t index = item->index() + insertionOffset;
    if (index <= last) return false;
    last = index;
    const UGListTransformItem* partner = item->moveLinkItem();
    if (partner == nullptr) {
      insertions.push_back(UGListTransformItem::itemWithIndexObject(index, item->object()));
      continue;
    }
    auto at = std::lower_bound(sourceDeletions.begin(), sourceDeletions.end(), partner->index(), byIndex);
    if (at == sourceDeletions.end() || at->get() != partner || links == 0) return false;
    --links;
    UGListTransformItem* deletion = deletions[firstDeletion + static_cast<size_t>(at - sourceDeletions.begin())].get();
    insertions.push_back(UGListTransformItem::itemWithIndexObject(index, deletion->object()));
    insertions.back()->establishMoveLinkToItem(deletion);
  }
  return links == 0;
}

Ref<UGMutableListTransform> filterDifference(const Mapping& from, const Mapping& to) {
  auto result = UGMutableListTransform::transform();
  auto& deletions = result->mutableDeletions();
  auto& insertions = result->mutableInsertions();
  size_t a = 0, b = 0;
  while (a < from.size() || b < to.size()) {
    if (a < from.size() && b < to.size() && from[a] == to[b]) {
      ++a, ++b;
    } else if (a < from.size() && (b == to.size() || from[a] < to[b])) {
      deletions.push_back(item(static_cast<int64_t>(a++), std::nullopt));
    } else {
      insertions.push_back(item(static_cast<int64_t>(b++), std::nullopt));
    }
  }
  return result;
}

Ref<UGMutableListTransform> sortingFollowInnerTransform(Mapping& mapping, const UGListTransform& inner, bool& inserted,
                                                        std::vector<int64_t>& survivingPositions) {
  survivingPositions.clear();
  auto result = UGMutableListTransform::transform();
  auto& deletions = result->mutableDeletions();
  auto& insertions = result->mutableInsertions();
  const int64_t bound = denseBound(mapping, 0);
  std::optional<TransformIndexTable> table;
  if (bound >= 0) table.emplace(inner, bound);
  size_t kept = 0;
  for (size_t k = 0; k < mapping.size(); ++k) {
    const int64_t y = table ? table->map(mapping[k]) : inner.transformIndex(mapping[k]);
    if (y == NotFound) {
      deletions.push_back(item(static_cast<int64_t>(k), std::nullopt));
    } else {
      survivingPositions.push_back(static_cast<int64_t>(k));
      mapping[kept++] = y;
    }
  }
  mapping.resize(kept);
  for (const auto& insertion : inner.insertions()) {
    if (insertion->hasMoveLink()) continue;
    insertions.push_back(item(static_cast<int64_t>(mapping.size()), std::nullopt));
    mapping.push_back(insertion->index());
    inserted = true;
  }
  return result;
}

void SortKeyCache::setDescriptors(const std::vector<SortDescriptor>* descriptors) {
  descriptors_ = descriptors;
  width_ = descriptors != nullptr ? descriptors->size() : 0;
  clear();
}

void SortKeyCache::clear() {
  keys_.clear();
  known_.clear();
}

void SortKeyCache::keepPositions(const std::vector<int64_t>& survivingPositions, size_t appended) {
  if (known_.empty()) return;
  size_t kept = 0;
  for (int64_t position : survivingPositions) {
    const auto p = static_cast<size_t>(position);
    if (p >= known_.size()) {
      clear();
      return;
    }
    known_[kept] = known_[p];
    for (size_t k = 0; k < width_; ++k) keys_[kept * width_ + k] = std::move(keys_[p * width_ + k]);
    ++kept;
  }
  known_.resize(kept + appended, 0);
  keys_.resize((kept + appended) * width_);
}

void SortKeyCache::readKeys(const Value& object, Value* out) const {
  Object* asObject = object.tryObject();
  for (size_t k = 0; k < width_; ++k) {
    const std::string& path = (*descriptors_)[k].key();
    if (path.empty() || path == "self") {
      out[k] = object;
    } else if (asObject != nullptr) {
      // What valueForKeyPath() does for an object, without copying the value.
      out[k] = asObject->valueForKeyPath(path).value_or(Value::null());
    } else {
      out[k] = valueForKeyPath(object, path).value_or(Value::null());
    }
  }
}

int SortKeyCache::compareKeys(const Value* a, int64_t ia, const Value* b, int64_t ib) const {
  for (size_t k = 0; k < width_; ++k) {
    const SortDescriptor& descriptor = (*descriptors_)[k];
    int c = descriptor.comparator() ? descriptor.comparator()(a[k], b[k]) : a[k].compare(b[k]);
    c = c < 0 ? -1 : (c > 0 ? 1 : 0);
    if (!descriptor.ascending()) c = -c;
    if (c != 0) return c;
  }
  return ia < ib ? -1 : (ia > ib ? 1 : 0);
}

namespace {

// Values that no comparator can tell apart: the same object or container, or
// scalars and strings of the same kind and content.
bool sameKey(const Value& a, const Value& b) {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case Value::Kind::Array:
    case Value::Kind::Dictionary:
    case Value::Kind::Set:
    case Value::Kind::Object:
    case Value::Kind::Data:
      return a.isIdenticalTo(b);
    default:
      return a == b;
  }
}

}  // namespace

Mapping SortKeyCache::sortedMapping(const Mapping& mapping, const Array& objects) {
  const size_t count = objects.size();
  // Fresh keys by inner index.
  std::vector<Value> fresh(count * width_);
  for (size_t i = 0; i < count && width_ > 0; ++i) readKeys(objects[i], &fresh[i * width_]);
  auto keysOf = [&](int64_t inner) { return fresh.data() + static_cast<size_t>(inner) * width_; };
  auto less = [&](int64_t a, int64_t b) { return compareKeys(keysOf(a), a, keysOf(b), b) < 0; };

  Mapping result;
  const bool permutation = mapping.size() == count && denseBound(mapping, 0) == static_cast<int64_t>(count) &&
                           distinctWithin(mapping, static_cast<int64_t>(count));
  bool placed = false;
  if (permutation && known_.size() == count && keys_.size() == count * width_) {
    // Items whose keys stayed and that are still in order keep their
    // relative places; the others are sorted and merged in.
    Mapping clean, dirty;
    clean.reserve(count);
    for (size_t p = 0; p < count; ++p) {
      const int64_t inner = mapping[p];
      bool same = known_[p] != 0;
      for (size_t k = 0; same && k < width_; ++k) same = sameKey(keys_[p * width_ + k], keysOf(inner)[k]);
      (same ? clean : dirty).push_back(inner);
    }
    bool inOrder = true;
    for (size_t p = 1; inOrder && p < clean.size(); ++p) inOrder = less(clean[p - 1], clean[p]);
    if (inOrder && dirty.size() * 4 <= count) {
      std::sort(dirty.begin(), dirty.end(), less);
      result.resize(count);
      std::merge(clean.begin(), clean.end(), dirty.begin(), dirty.end(), result.begin(), less);
      placed = true;
    }
  }
  if (!placed) {
    result.resize(count);
    for (size_t i = 0; i < count; ++i) result[i] = static_cast<int64_t>(i);
    if (width_ > 0) std::sort(result.begin(), result.end(), less);
  }

  known_.assign(count, 1);
  keys_.resize(count * width_);
  for (size_t p = 0; p < count; ++p) {
    for (size_t k = 0; k < width_; ++k)
      keys_[p * width_ + k] = std::move(fresh[static_cast<size_t>(result[p]) * width_ + k]);
  }
  return result;
}

Mapping sortedMappingLiterally(const Array& objects, const std::vector<SortDescriptor>& descriptors) {
  Array scratch = objects;
  Ref<UGMutableListTransform> applied;
  sortUsingDescriptorsResultingTransform(scratch, descriptors, &applied);
  Array mapping;
  for (size_t i = 0; i < objects.size(); ++i) mapping.emplace_back(static_cast<int64_t>(i));
  applyTransformIgnoringObjectsInTransform(mapping, *applied, true);
  Mapping result;
  for (const Value& value : mapping) result.push_back(value.isInteger() ? value.integerValue() : NotFound);
  return result;
}

}  // namespace loomwork::sgdetail
