#include "loomwork/listtransform/UGListTransform.h"

#include <algorithm>
#include <iterator>
#include <unordered_map>

#include "listtransform/FenwickTree.h"
#include "loomwork/listtransform/TWArrayOperationLinearizer.h"
#include "loomwork/listtransform/UGListChange.h"

namespace loomwork {

namespace {

using ItemArray = UGListTransformItemArray;

// Position of the first item whose index is not below `index`.
size_t lowerBound(const ItemArray& items, int64_t index) {
  auto it = std::lower_bound(items.begin(), items.end(), index,
                             [](const Ref<UGListTransformItem>& item, int64_t i) { return item->index() < i; });
  return static_cast<size_t>(it - items.begin());
}

// Position of `item` in a canonical array, found by its index; falls back to a
// scan when the array is not canonical.
size_t positionOf(const ItemArray& items, const UGListTransformItem* item) {
  size_t p = lowerBound(items, item->index());
  if (p < items.size() && items[p].get() == item) return p;
  for (size_t i = 0; i < items.size(); ++i) {
    if (items[i].get() == item) return i;
  }
  return items.size();
}

bool addItem(ItemArray& items, const Ref<UGListTransformItem>& item) {
  size_t p = lowerBound(items, item->index());
  if (p < items.size() && items[p]->index() == item->index()) return false;
  items.insert(items.begin() + static_cast<std::ptrdiff_t>(p), item);
  return true;
}

void cutLinks(ItemArray& items) {
  for (auto& item : items) item->cutMoveLink();
}

// Keeps the items for which keep() is true, in order.
template <class Keep>
void filterItems(ItemArray& items, Keep keep) {
  items.erase(std::remove_if(items.begin(), items.end(),
                             [&](const Ref<UGListTransformItem>& item) {
                               bool kept = keep(*item);
                               if (!kept) item->cutMoveLink();
                               return !kept;
                             }),
              items.end());
}

}  // namespace

UGListTransform::~UGListTransform() {
  // Cutting from the deletion side clears both halves of every canonical move;
  // the pass over the insertions catches links a caller made by hand.
  cutLinks(deletions_);
  cutLinks(insertions_);
}

Ref<UGListTransform> UGListTransform::copy() const {
  if (auto self = std::const_pointer_cast<UGListTransform>(ref<UGListTransform>())) return self;
  return mutableCopy();
}

Ref<UGMutableListTransform> UGListTransform::mutableCopy() const {
  auto copy = UGMutableListTransform::transform();
  copy->replaceWithTransform(*this);
  return copy;
}

int64_t UGListTransform::cardinalityChange() const {
  return static_cast<int64_t>(insertions_.size()) - static_cast<int64_t>(deletions_.size());
}

bool UGListTransform::isIdentity() const { return insertions_.empty() && deletions_.empty(); }

Ref<UGMutableListTransform> UGListTransform::transformByAppendingTransform(const UGListTransform& later) const {
  auto result = mutableCopy();
  result->appendTransform(later);
  return result;
}

Ref<UGMutableListTransform> UGListTransform::inverseTransform() const {
  auto result = mutableCopy();
  std::swap(result->insertions_, result->deletions_);
  return result;
}

Ref<UGListTransform> UGListTransform::transformByApplyingOffsetToDeletionAndMoveFromIndexes(int64_t offset) const {
  if (offset == 0) return copyByPreservingMutability();
  auto result = mutableCopy();
  for (auto& item : result->deletions_) item->setIndex(item->index() + offset);
  return result;
}

Ref<UGListTransform> UGListTransform::transformByApplyingOffsetToInsertionAndMoveToIndexes(int64_t offset) const {
  if (offset == 0) return copyByPreservingMutability();
  auto result = mutableCopy();
  for (auto& item : result->insertions_) item->setIndex(item->index() + offset);
  return result;
}

Ref<UGListTransform> UGListTransform::transformByApplyingOffsetToIndexes(int64_t offset) const {
  return transformByApplyingOffsetToDeletionAndMoveFromIndexes(offset)
      ->transformByApplyingOffsetToInsertionAndMoveToIndexes(offset);
}

Ref<UGMutableListTransform> UGListTransform::deletionsTransformIncludingDecomposedMoves(bool includeMoves) const {
  auto result = mutableCopy();
  cutLinks(result->insertions_);
  result->insertions_.clear();
  if (!includeMoves) {
    // The partners are gone, so the former move halves are told apart by the
    // source's links.
    std::vector<bool> wasMove;
    for (const auto& item : deletions_) wasMove.push_back(item->hasMoveLink());
    size_t i = 0;
    filterItems(result->deletions_, [&](const UGListTransformItem&) { return !wasMove[i++]; });
  }
  return result;
}

Ref<UGMutableListTransform> UGListTransform::insertionsTransformIncludingDecomposedMoves(bool includeMoves) const {
  auto result = mutableCopy();
  cutLinks(result->deletions_);
  result->deletions_.clear();
  if (!includeMoves) {
    std::vector<bool> wasMove;
    for (const auto& item : insertions_) wasMove.push_back(item->hasMoveLink());
    size_t i = 0;
    filterItems(result->insertions_, [&](const UGListTransformItem&) { return !wasMove[i++]; });
  }
  return result;
}

Ref<UGMutableListTransform> UGListTransform::movesTransform() const {
  auto result = mutableCopy();
  filterItems(result->deletions_, [](const UGListTransformItem& item) { return item.hasMoveLink(); });
  filterItems(result->insertions_, [](const UGListTransformItem& item) { return item.hasMoveLink(); });
  return result;
}

Ref<UGMutableListTransform> UGListTransform::transformByDecomposingMoves() const {
  auto result = mutableCopy();
  result->decomposeMoves();
  return result;
}

Ref<UGMutableListTransform> UGListTransform::transformByDetectingMoves() const {
  auto result = mutableCopy();
  result->detectMoves();
  return result;
}

Ref<UGMutableListTransform> UGListTransform::transformByLimitingToRange(IndexRange range) const {
  auto result = mutableCopy();
  auto inRange = [range](const UGListTransformItem& item) {
    return item.index() >= range.location && item.index() - range.location < range.length;
  };
  filterItems(result->deletions_, inRange);
  filterItems(result->insertions_, inRange);
  return result;
}

int64_t UGListTransform::transformIndexDeletedObject(int64_t index, std::optional<Value>* deletedObject) const {
  if (deletedObject != nullptr) deletedObject->reset();
  if (index == NotFound) return NotFound;
  // Deletions: the walk from the highest deletion down lowers the index once
  // for every deletion below it, unless it meets the index itself first.
  size_t below = lowerBound(deletions_, index);
  if (below < deletions_.size() && deletions_[below]->index() == index) {
    const UGListTransformItem& deletion = *deletions_[below];
    if (deletion.hasMoveLink()) return deletion.moveLinkItem()->index();
    if (deletedObject != nullptr) *deletedObject = deletion.object();
    return NotFound;
  }
  const int64_t current = index - static_cast<int64_t>(below);
  // Insertions: the ascending walk raises the index for insertion k exactly
  // when insertion k's index minus k is not above the original; that
  // difference never decreases along a canonical array.
  size_t lo = 0, hi = insertions_.size();
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    if (insertions_[mid]->index() - static_cast<int64_t>(mid) <= current) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return current + static_cast<int64_t>(lo);
}

IndexSet UGListTransform::insertionIndexesIncludingDecomposedMoveIndexes(bool includeMoves) const {
  IndexSet set;
  for (const auto& item : insertions_) {
    if (includeMoves || !item->hasMoveLink()) set.addIndex(item->index());
  }
  return set;
}

IndexSet UGListTransform::deletionIndexesIncludingDecomposedMoveIndexes(bool includeMoves) const {
  IndexSet set;
  for (const auto& item : deletions_) {
    if (includeMoves || !item->hasMoveLink()) set.addIndex(item->index());
  }
  return set;
}

void UGListTransform::enumerateTransformAsGroupedDeletionsMovesInsertions(const IndexObjectBlock& deletions,
                                                                          const MoveObjectBlock& moves,
                                                                          const IndexObjectBlock& insertions) const {
  if (deletions) {
    for (auto it = deletions_.rbegin(); it != deletions_.rend(); ++it) {
      if (!(*it)->hasMoveLink()) deletions((*it)->index(), (*it)->object());
    }
  }
  if (moves) {
    for (auto it = deletions_.rbegin(); it != deletions_.rend(); ++it) {
      if ((*it)->hasMoveLink()) moves((*it)->index(), (*it)->moveLinkItem()->index(), (*it)->object());
    }
  }
  if (insertions) {
    for (const auto& item : insertions_) {
      if (!item->hasMoveLink()) insertions(item->index(), item->object());
    }
  }
}

void UGListTransform::enumerateTransformAsGroupedDeletionsInsertions(const IndexObjectBlock& deletions,
                                                                     const IndexObjectBlock& insertions) const {
  if (deletions) {
    for (auto it = deletions_.rbegin(); it != deletions_.rend(); ++it) deletions((*it)->index(), (*it)->object());
  }
  if (insertions) {
    for (const auto& item : insertions_) insertions(item->index(), item->object());
  }
}

void UGListTransform::enumerateTransformAsLinearizedDeletionsInsertions(const IndexBlock& deletions,
                                                                        const IndexBlock& insertions) const {
  TWArrayOperationLinearizer linearizer;
  linearizer.beginUpdates();
  enumerateTransformAsGroupedDeletionsInsertions(
      [&](int64_t index, const std::optional<Value>&) { linearizer.removeObjectAtIndex(index); },
      [&](int64_t index, const std::optional<Value>&) { linearizer.insertObjectAtIndex(index); });
  linearizer.endUpdatesWithInsertBlockRemoveBlockMoveBlock(insertions, deletions, nullptr);
}

void UGListTransform::enumerateTransformAsLinearizedDeletionsMovesInsertions(const IndexBlock& deletions,
                                                                             const MoveBlock& moves,
                                                                             const IndexBlock& insertions) const {
  TWArrayOperationLinearizer linearizer;
  linearizer.beginUpdates();
  enumerateTransformAsGroupedDeletionsMovesInsertions(
      [&](int64_t index, const std::optional<Value>&) { linearizer.removeObjectAtIndex(index); },
      [&](int64_t from, int64_t to, const std::optional<Value>&) { linearizer.moveObjectAtIndexToIndex(from, to); },
      [&](int64_t index, const std::optional<Value>&) { linearizer.insertObjectAtIndex(index); });
  linearizer.endUpdatesWithInsertBlockRemoveBlockMoveBlock(insertions, deletions, moves);
}

Set UGListTransform::testChanges() const {
  Set changes;
  enumerateTransformAsGroupedDeletionsMovesInsertions(
      [&](int64_t index, const std::optional<Value>& object) {
        changes.insert(Value(UGListChange::deletionFromIndexObject(index, object)));
      },
      [&](int64_t from, int64_t to, const std::optional<Value>& object) {
        changes.insert(Value(UGListChange::moveFromIndexToIndexObject(from, to, object)));
      },
      [&](int64_t index, const std::optional<Value>& object) {
        changes.insert(Value(UGListChange::insertionAtIndexObject(index, object)));
      });
  return changes;
}

Set UGListTransform::testChangesWithDecomposedMovesAndNoObjects() const {
  Set changes;
  enumerateTransformAsGroupedDeletionsInsertions(
      [&](int64_t index, const std::optional<Value>&) {
        changes.insert(Value(UGListChange::deletionFromIndexObject(index, std::nullopt)));
      },
      [&](int64_t index, const std::optional<Value>&) {
        changes.insert(Value(UGListChange::insertionAtIndexObject(index, std::nullopt)));
      });
  return changes;
}

bool UGListTransform::isEqualToTestChanges(const Set& changes) const { return Value(testChanges()) == Value(changes); }

namespace {
template <class Collection>
Ref<UGMutableListTransform> transformFromChanges(const Collection& changes) {
  auto result = UGMutableListTransform::transform();
  for (const Value& value : changes) {
    auto change = value.objectAs<UGListChange>();
    if (!change) continue;
    switch (change->type()) {
      case UGListChangeTypeDeletion:
        result->recordDeletedObjectFromIndex(change->object(), change->fromIndex());
        break;
      case UGListChangeTypeMove:
        result->recordMovedObjectFromIndexToIndex(change->object(), change->fromIndex(), change->toIndex());
        break;
      case UGListChangeTypeInsertion:
        result->recordInsertedObjectAtIndex(change->object(), change->toIndex());
        break;
      default:
        break;
    }
  }
  return result;
}
}  // namespace

Ref<UGMutableListTransform> UGListTransform::transformWithTestChanges(const Set& changes) {
  return transformFromChanges(changes);
}
Ref<UGMutableListTransform> UGListTransform::transformWithTestChanges(const Array& changes) {
  return transformFromChanges(changes);
}

std::string UGListTransform::description() const {
  std::string text = className() + " with {\n    deletions:\n";
  for (auto it = deletions_.rbegin(); it != deletions_.rend(); ++it) {
    if (!(*it)->hasMoveLink())
      text += "        " + std::to_string((*it)->index()) + "   (" + describe((*it)->object()) + ")\n";
  }
  text += "    moves:\n";
  for (auto it = deletions_.rbegin(); it != deletions_.rend(); ++it) {
    if ((*it)->hasMoveLink()) {
      text += "        " + std::to_string((*it)->index()) + " -> " + std::to_string((*it)->moveLinkItem()->index()) +
              "   (" + describe((*it)->object()) + ")\n";
    }
  }
  text += "    insertions:\n";
  for (const auto& item : insertions_) {
    if (!item->hasMoveLink())
      text += "        " + std::to_string(item->index()) + "   (" + describe(item->object()) + ")\n";
  }
  return text + "}\n";
}

// ---------------------------------------------------------------------------
// UGMutableListTransform

void UGMutableListTransform::replaceWithTransform(const UGListTransform& transform) {
  if (&transform == this) return;
  cutLinks(deletions_);
  cutLinks(insertions_);
  ItemArray deletions, insertions;
  deletions.reserve(transform.deletions().size());
  insertions.reserve(transform.insertions().size());
  for (const auto& item : transform.deletions()) deletions.push_back(item->copy());
  for (const auto& item : transform.insertions()) insertions.push_back(item->copy());
  // Relink the moves between the copies: the partner's copy sits at the
  // partner's position in the source's insertions. The linked deletions are
  // ordered by their partners' indexes and matched in one pass over the
  // insertions, which reads each partner once instead of searching for it.
  const ItemArray& sourceDeletions = transform.deletions();
  const ItemArray& sourceInsertions = transform.insertions();
  std::vector<std::pair<int64_t, size_t>> links;  // (partner's index, deletion position)
  for (size_t i = 0; i < sourceDeletions.size(); ++i) {
    if (const UGListTransformItem* partner = sourceDeletions[i]->moveLinkItem()) {
      links.emplace_back(partner->index(), i);
    }
  }
  if (!std::is_sorted(links.begin(), links.end())) std::sort(links.begin(), links.end());
  size_t p = 0;
  for (const auto& [partnerIndex, i] : links) {
    const UGListTransformItem* partner = sourceDeletions[i]->moveLinkItem();
    while (p < sourceInsertions.size() && sourceInsertions[p]->index() < partnerIndex) ++p;
    size_t position = p < sourceInsertions.size() && sourceInsertions[p].get() == partner
                          ? p
                          : positionOf(sourceInsertions, partner);  // not canonical: search
    if (position < insertions.size()) deletions[i]->establishMoveLinkToItem(insertions[position].get());
  }
  deletions_ = std::move(deletions);
  insertions_ = std::move(insertions);
}

bool UGMutableListTransform::recordInsertedObjectAtIndex(std::optional<Value> object, int64_t index) {
  return addItem(insertions_, UGListTransformItem::itemWithIndexObject(index, std::move(object)));
}

bool UGMutableListTransform::recordDeletedObjectFromIndex(std::optional<Value> object, int64_t index) {
  return addItem(deletions_, UGListTransformItem::itemWithIndexObject(index, std::move(object)));
}

bool UGMutableListTransform::recordMovedObjectFromIndexToIndex(std::optional<Value> object, int64_t fromIndex,
                                                               int64_t toIndex) {
  auto deletion = UGListTransformItem::itemWithIndexObject(fromIndex, object);
  auto insertion = UGListTransformItem::itemWithIndexObject(toIndex, std::move(object));
  if (!addItem(deletions_, deletion)) return false;
  if (!addItem(insertions_, insertion)) {
    deletions_.erase(deletions_.begin() + static_cast<std::ptrdiff_t>(positionOf(deletions_, deletion.get())));
    return false;
  }
  deletion->establishMoveLinkToItem(insertion.get());
  return true;
}

void UGMutableListTransform::recordChangesFromTransform(const UGListTransform& transform) {
  if (&transform == this) return;
  // The same as recording the argument's changes one by one in grouped order:
  // the argument's indexes are distinct within each of its arrays, so a change
  // is refused exactly when the receiver already held its index (a move when
  // either half's index was held). Merging the accepted items in keeps this
  // linear where recording one by one shifts the arrays for every item.
  auto held = [](const ItemArray& items, int64_t index) {
    size_t p = lowerBound(items, index);
    return p < items.size() && items[p]->index() == index;
  };
  ItemArray deletions, insertions;
  std::unordered_map<const UGListTransformItem*, Ref<UGListTransformItem>> movedTo;
  for (const auto& item : transform.deletions()) {
    if (held(deletions_, item->index())) continue;
    const UGListTransformItem* partner = item->moveLinkItem();
    if (partner != nullptr && held(insertions_, partner->index())) continue;
    deletions.push_back(UGListTransformItem::itemWithIndexObject(item->index(), item->object()));
    if (partner != nullptr) {
      auto insertion = UGListTransformItem::itemWithIndexObject(partner->index(), item->object());
      deletions.back()->establishMoveLinkToItem(insertion.get());
      movedTo.emplace(partner, std::move(insertion));
    }
  }
  for (const auto& item : transform.insertions()) {
    if (item->hasMoveLink()) {
      auto moved = movedTo.find(item.get());
      if (moved != movedTo.end()) insertions.push_back(std::move(moved->second));
    } else if (!held(insertions_, item->index())) {
      insertions.push_back(UGListTransformItem::itemWithIndexObject(item->index(), item->object()));
    }
  }
  auto mergeInto = [](ItemArray& items, ItemArray& added) {
    if (added.empty()) return;
    ItemArray merged;
    merged.reserve(items.size() + added.size());
    std::merge(std::make_move_iterator(items.begin()), std::make_move_iterator(items.end()),
               std::make_move_iterator(added.begin()), std::make_move_iterator(added.end()), std::back_inserter(merged),
               [](const Ref<UGListTransformItem>& a, const Ref<UGListTransformItem>& b) { return a->index() < b->index(); });
    items = std::move(merged);
  };
  mergeInto(deletions_, deletions);
  mergeInto(insertions_, insertions);
}

void UGMutableListTransform::appendTransform(const UGListTransform& later) {
  // The later transform is copied and its copy consumed.
  auto consumed = later.mutableCopy();
  swapCanonicalInsertionsWithCanonicalDeletions(insertions_, consumed->deletions_);
  combineCanonicalDeletionsWithCanonicalDeletions(deletions_, consumed->deletions_);
  combineCanonicalInsertionsWithCanonicalInsertions(insertions_, consumed->insertions_);
}

void UGMutableListTransform::prependTransform(const UGListTransform& earlier) {
  auto result = earlier.mutableCopy();
  result->appendTransform(*this);
  // The result's items are new, so taking them over replaces the receiver's.
  std::swap(deletions_, result->deletions_);
  std::swap(insertions_, result->insertions_);
}

void UGMutableListTransform::swapCanonicalInsertionsWithCanonicalDeletions(ItemArray& insertions,
                                                                           ItemArray& deletions) {
  std::vector<bool> cancelledInsertion(insertions.size(), false);
  std::vector<bool> cancelledDeletion(deletions.size(), false);
  bool anyCancelled = false;
  size_t ii = 0, di = 0;
  int64_t passedInsertions = 0, passedDeletions = 0;
  while (di < deletions.size()) {
    UGListTransformItem& deletion = *deletions[di];
    const int64_t deletionIndex = deletion.index();
    while (ii < insertions.size() && insertions[ii]->index() < deletionIndex) {
      insertions[ii]->setIndex(insertions[ii]->index() - passedDeletions);
      ++ii;
      ++passedInsertions;
    }
    if (ii == insertions.size() || insertions[ii]->index() != deletionIndex) {
      deletion.setIndex(deletionIndex - passedInsertions);
      ++di;
      ++passedDeletions;
      continue;
    }
    // The later transform deletes the element the earlier one inserted.
    UGListTransformItem& insertion = *insertions[ii];
    UGListTransformItem* earlierDeletion = insertion.moveLinkItem();
    UGListTransformItem* laterInsertion = deletion.moveLinkItem();
    insertion.cutMoveLink();
    deletion.cutMoveLink();
    if (earlierDeletion != nullptr && laterInsertion != nullptr) {
      earlierDeletion->establishMoveLinkToItem(laterInsertion);
    }
    cancelledInsertion[ii] = true;
    cancelledDeletion[di] = true;
    anyCancelled = true;
    ++ii;
    ++di;
    ++passedInsertions;
    ++passedDeletions;
  }
  for (; ii < insertions.size(); ++ii) insertions[ii]->setIndex(insertions[ii]->index() - passedDeletions);
  if (!anyCancelled) return;
  size_t i = 0;
  insertions.erase(std::remove_if(insertions.begin(), insertions.end(),
                                  [&](const Ref<UGListTransformItem>&) { return cancelledInsertion[i++]; }),
                   insertions.end());
  i = 0;
  deletions.erase(std::remove_if(deletions.begin(), deletions.end(),
                                 [&](const Ref<UGListTransformItem>&) { return cancelledDeletion[i++]; }),
                  deletions.end());
}

void UGMutableListTransform::combineCanonicalOperationsWithCanonicalOperations(ItemArray& shifted, ItemArray& leading) {
  ItemArray result;
  result.reserve(shifted.size() + leading.size());
  size_t si = 0;
  int64_t taken = 0;
  for (auto& l : leading) {
    while (si < shifted.size() && shifted[si]->index() + taken < l->index()) {
      shifted[si]->setIndex(shifted[si]->index() + taken);
      result.push_back(std::move(shifted[si++]));
    }
    result.push_back(std::move(l));
    ++taken;
  }
  for (; si < shifted.size(); ++si) {
    shifted[si]->setIndex(shifted[si]->index() + taken);
    result.push_back(std::move(shifted[si]));
  }
  shifted = std::move(result);
  leading.clear();
}

void UGMutableListTransform::combineCanonicalDeletionsWithCanonicalDeletions(ItemArray& deletions,
                                                                             ItemArray& laterDeletions) {
  // The later deletions are shifted to old-list positions around the earlier ones.
  combineCanonicalOperationsWithCanonicalOperations(laterDeletions, deletions);
  deletions.swap(laterDeletions);
  laterDeletions.clear();
}

void UGMutableListTransform::combineCanonicalInsertionsWithCanonicalInsertions(ItemArray& insertions,
                                                                               ItemArray& laterInsertions) {
  combineCanonicalOperationsWithCanonicalOperations(insertions, laterInsertions);
}

void UGMutableListTransform::normalizeMoves() {
  // Working on the insertions with some removed, an item's position q is its
  // position in the full array minus the removed items before it.
  const size_t insertionCount = insertions_.size();
  FenwickTree removedInsertions(insertionCount);
  std::vector<bool> insertionRemoved(insertionCount, false);
  std::vector<bool> deletionRemoved(deletions_.size(), false);
  bool anyRemoved = false;
  for (size_t p = deletions_.size(); p-- > 0;) {
    UGListTransformItem& deletion = *deletions_[p];
    UGListTransformItem* partner = deletion.moveLinkItem();
    if (partner == nullptr) continue;
    size_t fullPosition = positionOf(insertions_, partner);
    if (fullPosition == insertionCount) continue;
    const int64_t q = static_cast<int64_t>(fullPosition) - removedInsertions.prefix(fullPosition);
    if (deletion.index() - static_cast<int64_t>(p) == partner->index() - q) {
      deletionRemoved[p] = true;
      insertionRemoved[fullPosition] = true;
      removedInsertions.add(fullPosition, 1);
      deletion.cutMoveLink();
      anyRemoved = true;
    }
  }
  if (!anyRemoved) return;
  size_t i = 0;
  deletions_.erase(std::remove_if(deletions_.begin(), deletions_.end(),
                                  [&](const Ref<UGListTransformItem>&) { return deletionRemoved[i++]; }),
                   deletions_.end());
  i = 0;
  insertions_.erase(std::remove_if(insertions_.begin(), insertions_.end(),
                                   [&](const Ref<UGListTransformItem>&) { return insertionRemoved[i++]; }),
                    insertions_.end());
}

void UGMutableListTransform::detectMoves() {
  // For each object, its unlinked deletions, consumed from the lowest up.
  struct Candidates {
    size_t next = 0;
    std::vector<UGListTransformItem*> deletions;
  };
  std::unordered_map<Value, Candidates, ValueHash> candidates;
  for (const auto& deletion : deletions_) {
    if (!deletion->hasMoveLink() && deletion->object()) {
      candidates[*deletion->object()].deletions.push_back(deletion.get());
    }
  }
  if (candidates.empty()) return;
  for (const auto& insertion : insertions_) {
    if (insertion->hasMoveLink() || !insertion->object()) continue;
    auto it = candidates.find(*insertion->object());
    if (it == candidates.end() || it->second.next == it->second.deletions.size()) continue;
    insertion->establishMoveLinkToItem(it->second.deletions[it->second.next++]);
  }
}

void UGMutableListTransform::decomposeMoves() {
  cutLinks(deletions_);
  cutLinks(insertions_);
}

}  // namespace loomwork
