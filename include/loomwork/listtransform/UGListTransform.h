// UGListTransform and UGMutableListTransform: the change record of an ordered
// list as deletions, moves and insertions.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "loomwork/listtransform/UGListTransformItem.h"
#include "loomwork/platform/IndexSet.h"
#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

class UGMutableListTransform;

// The index mapping's "deleted" constant kept for clients that compare with
// it. Index mapping never returns it: a deleted index maps to NotFound.
inline constexpr int64_t UGOrderedSetTransformIndexDeleted = 2147483647;

// How an ordered list changed. Two arrays of items, both sorted by index,
// strictly ascending: the deletions, at positions of the old list, happen first
// and together; then the insertions, at positions of the new list, in
// ascending order, each at its element's final position. A deletion and an
// insertion that link to each other form a move of one element; both carry
// the moved object.
//
// UGListTransform is read-only by contract; UGMutableListTransform adds
// recording and composition. `copy` returns the receiver itself in both
// classes, and `mutableCopy` always makes a new transform with new items.
// Derived transforms come back as new mutable transforms. A transform owns its
// items; releasing it cuts its move links. A transform is used by one thread at
// a time; hand copies to other threads.
class UGListTransform : public Object {
 public:
  UGListTransform() = default;
  ~UGListTransform() override;

  static Ref<UGListTransform> transform() { return make<UGListTransform>(); }
  // The argument's copy(), which is the argument itself.
  static Ref<UGListTransform> transformWithTransform(const UGListTransform& transform) { return transform.copy(); }

  const UGListTransformItemArray& insertions() const { return insertions_; }
  const UGListTransformItemArray& deletions() const { return deletions_; }

  // The receiver itself (a new mutable copy only for a transform that is not
  // held by a shared pointer).
  Ref<UGListTransform> copy() const;
  Ref<UGMutableListTransform> mutableCopy() const;
  Ref<UGListTransform> copyByPreservingMutability() const { return copy(); }

  // Number of insertions minus number of deletions.
  int64_t cardinalityChange() const;
  // True when both arrays are empty.
  bool isIdentity() const;

  // Derived transforms; the receiver is not changed.
  Ref<UGMutableListTransform> transformByAppendingTransform(const UGListTransform& later) const;
  // Deletions become insertions and back; moves reverse.
  Ref<UGMutableListTransform> inverseTransform() const;
  // An offset of 0 gives the receiver itself; otherwise a mutable copy with the
  // offset added to every deletion (or insertion, or both) index.
  Ref<UGListTransform> transformByApplyingOffsetToDeletionAndMoveFromIndexes(int64_t offset) const;
  Ref<UGListTransform> transformByApplyingOffsetToInsertionAndMoveToIndexes(int64_t offset) const;
  Ref<UGListTransform> transformByApplyingOffsetToIndexes(int64_t offset) const;
  // Only the deletions (insertions); the halves of moves are kept as plain
  // changes when the flag is true and dropped when it is false.
  Ref<UGMutableListTransform> deletionsTransformIncludingDecomposedMoves(bool includeMoves) const;
  Ref<UGMutableListTransform> insertionsTransformIncludingDecomposedMoves(bool includeMoves) const;
  // Only the moves.
  Ref<UGMutableListTransform> movesTransform() const;
  // Every move split into a plain deletion and a plain insertion.
  Ref<UGMutableListTransform> transformByDecomposingMoves() const;
  // A copy on which detectMoves() ran.
  Ref<UGMutableListTransform> transformByDetectingMoves() const;
  // The items whose index lies in [location, location + length), in both
  // arrays alike; a move half whose partner falls outside becomes plain.
  Ref<UGMutableListTransform> transformByLimitingToRange(IndexRange range) const;

  // Where the element at `index` of the old list stands in the new list:
  // NotFound when it was deleted (the deleted object, when known, goes to
  // `deletedObject`), the partner's index when it moved. NotFound maps to
  // itself. O(log n) on the canonical arrays.
  int64_t transformIndex(int64_t index) const { return transformIndexDeletedObject(index, nullptr); }
  int64_t transformIndexDeletedObject(int64_t index, std::optional<Value>* deletedObject) const;

  // The insertion (deletion) indexes; the halves of moves only when the flag
  // is true.
  IndexSet insertionIndexesIncludingDecomposedMoveIndexes(bool includeMoves) const;
  IndexSet deletionIndexesIncludingDecomposedMoveIndexes(bool includeMoves) const;

  using IndexObjectBlock = std::function<void(int64_t index, const std::optional<Value>& object)>;
  using MoveObjectBlock = std::function<void(int64_t fromIndex, int64_t toIndex, const std::optional<Value>& object)>;
  using IndexBlock = std::function<void(int64_t index)>;
  using MoveBlock = std::function<void(int64_t fromIndex, int64_t toIndex)>;

  // Plain deletions from the highest index down, then moves by descending
  // source index, then plain insertions from the lowest index up. Any callback
  // may be empty.
  void enumerateTransformAsGroupedDeletionsMovesInsertions(const IndexObjectBlock& deletions,
                                                           const MoveObjectBlock& moves,
                                                           const IndexObjectBlock& insertions) const;
  // The same with every move reported as a deletion and an insertion.
  void enumerateTransformAsGroupedDeletionsInsertions(const IndexObjectBlock& deletions,
                                                      const IndexObjectBlock& insertions) const;
  // The changes as single steps, each index valid when its step is made
  // (see TWArrayOperationLinearizer). The first form decomposes moves.
  void enumerateTransformAsLinearizedDeletionsInsertions(const IndexBlock& deletions,
                                                         const IndexBlock& insertions) const;
  void enumerateTransformAsLinearizedDeletionsMovesInsertions(const IndexBlock& deletions, const MoveBlock& moves,
                                                              const IndexBlock& insertions) const;

  // Test support: the set of UGListChange objects (as Values) of the grouped
  // enumeration with moves and objects, or with decomposed moves and no
  // objects; and its comparison with a given set.
  Set testChanges() const;
  Set testChangesWithDecomposedMovesAndNoObjects() const;
  bool isEqualToTestChanges(const Set& changes) const;
  // A transform that records each change of the collection: type 2 a
  // deletion, 1 a move, 0 an insertion; other types and other values are skipped.
  static Ref<UGMutableListTransform> transformWithTestChanges(const Set& changes);
  static Ref<UGMutableListTransform> transformWithTestChanges(const Array& changes);

  // "UGListTransform with {\n    deletions:\n ... }\n".
  std::string description() const override;

 protected:
  UGListTransformItemArray insertions_;
  UGListTransformItemArray deletions_;
};

// The transform with its recording and composition operations.
class UGMutableListTransform : public UGListTransform {
 public:
  UGMutableListTransform() = default;

  static Ref<UGMutableListTransform> transform() { return make<UGMutableListTransform>(); }
  // The argument's mutableCopy().
  static Ref<UGMutableListTransform> transformWithTransform(const UGListTransform& transform) {
    return transform.mutableCopy();
  }

  // The arrays themselves. Whoever changes them directly keeps them canonical.
  UGListTransformItemArray& mutableInsertions() { return insertions_; }
  UGListTransformItemArray& mutableDeletions() { return deletions_; }

  // The receiver's items become new copies of the argument's items, with every
  // move of the argument linked again between the copies.
  void replaceWithTransform(const UGListTransform& transform);

  // Recording. An item is added at its sorted place; when an item with the same
  // index is already there, nothing is recorded and false is returned. A move
  // whose deletion or insertion collides records neither half.
  bool recordInsertedObjectAtIndex(std::optional<Value> object, int64_t index);
  bool recordDeletedObjectFromIndex(std::optional<Value> object, int64_t index);
  bool recordMovedObjectFromIndexToIndex(std::optional<Value> object, int64_t fromIndex, int64_t toIndex);
  // Records every deletion, move and insertion of the argument, in grouped order.
  void recordChangesFromTransform(const UGListTransform& transform);

  // Composition in place: appendTransform puts the argument after the
  // receiver, prependTransform before it. Linear in the number of items.
  void appendTransform(const UGListTransform& later);
  void prependTransform(const UGListTransform& earlier);

  // Drops moves whose element keeps its place among the surviving elements.
  void normalizeMoves();
  // Links unlinked insertions to unlinked deletions of an equal object.
  void detectMoves();
  // Cuts every move link.
  void decomposeMoves();

  // The steps of composition, on canonical arrays. swap: turns A's insertions
  // followed by B's deletions into B's deletions (old-list positions after A's
  // deletions) followed by A's insertions, cancelling an insertion that the
  // deletion removes again. combine: merges two sorted arrays, the second
  // leading; the result replaces the first array and the second is emptied.
  static void swapCanonicalInsertionsWithCanonicalDeletions(UGListTransformItemArray& insertions,
                                                            UGListTransformItemArray& deletions);
  static void combineCanonicalDeletionsWithCanonicalDeletions(UGListTransformItemArray& deletions,
                                                              UGListTransformItemArray& laterDeletions);
  static void combineCanonicalInsertionsWithCanonicalInsertions(UGListTransformItemArray& insertions,
                                                                UGListTransformItemArray& laterInsertions);
  static void combineCanonicalOperationsWithCanonicalOperations(UGListTransformItemArray& shifted,
                                                                UGListTransformItemArray& leading);
};

}  // namespace loomwork
#pragma GCC visibility pop
