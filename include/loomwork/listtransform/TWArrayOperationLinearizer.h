// TWArrayOperationLinearizer: replays a batch of array changes as single
// steps, each valid in the array as it stands when the step is made.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "loomwork/listtransform/TWArrayOperation.h"
#include "loomwork/platform/IndexSet.h"
#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

class TWArrayOperationLinearizer;

// Receives the steps of TWArrayOperationLinearizer::endUpdates(). The three
// step operations are required; the two bracketing ones default to nothing.
class TWArrayOperationLinearizerDelegate {
 public:
  virtual ~TWArrayOperationLinearizerDelegate() = default;
  virtual void arrayOperationLinearizerWillBeginUpdates(TWArrayOperationLinearizer& linearizer) { (void)linearizer; }
  virtual void arrayOperationLinearizerRemoveObjectAtIndex(TWArrayOperationLinearizer& linearizer, int64_t index) = 0;
  virtual void arrayOperationLinearizerMoveObjectAtIndexToIndex(TWArrayOperationLinearizer& linearizer,
                                                                int64_t fromIndex, int64_t toIndex) = 0;
  virtual void arrayOperationLinearizerInsertObjectAtIndex(TWArrayOperationLinearizer& linearizer, int64_t index) = 0;
  virtual void arrayOperationLinearizerDidEndUpdates(TWArrayOperationLinearizer& linearizer) { (void)linearizer; }
};

// Collects a batch of changes in the batch convention (removal indexes in the
// old array, insertion indexes in the new array, moves from old to new) between
// beginUpdates() and endUpdates(), and then emits them as single steps: all
// removals and moves from the highest source index down, then all insertions
// from the lowest index up. Each emitted index is valid at the moment of its
// step, so replaying the steps one after another on the old array gives the
// new one.
//
// Emitting costs O(n log² n) for n changes. The delegate is not owned. A
// linearizer is used by one thread at a time and can run any number of
// batches one after another. Calls made in the wrong state throw Exception
// (internal inconsistency).
class TWArrayOperationLinearizer : public Object, public TWArrayOperationLinearizerDelegate {
 public:
  using IndexBlock = std::function<void(int64_t index)>;
  using MoveBlock = std::function<void(int64_t fromIndex, int64_t toIndex)>;

  TWArrayOperationLinearizer() = default;
  static Ref<TWArrayOperationLinearizer> arrayOperationLinearizer() { return make<TWArrayOperationLinearizer>(); }

  std::shared_ptr<TWArrayOperationLinearizerDelegate> delegate() const { return delegate_.lock(); }
  void setDelegate(const std::shared_ptr<TWArrayOperationLinearizerDelegate>& delegate) { delegate_ = delegate; }

  // The operations of the running batch, in the order they were given; absent
  // outside a batch. Each call makes new operation objects.
  std::optional<std::vector<Ref<TWArrayOperation>>> arrayOperations() const;
  bool isInBatch() const { return inBatch_; }

  void beginUpdates();
  void insertObjectAtIndex(int64_t index);
  void insertObjectsAtIndexes(const IndexSet& indexes);
  void removeObjectAtIndex(int64_t index);
  void removeObjectsAtIndexes(const IndexSet& indexes);
  void moveObjectAtIndexToIndex(int64_t fromIndex, int64_t toIndex);
  // Pairs the two sets in ascending order, first with first. Throws Exception
  // (invalid argument) when their counts differ.
  void moveObjectsAtIndexesToIndexes(const IndexSet& fromIndexes, const IndexSet& toIndexes);

  // Tells the delegate that updates begin, forwards every step to it, tells it
  // that updates ended, and ends the batch.
  void endUpdates();
  // Emits the steps to the callbacks (any may be empty) and ends the batch.
  void endUpdatesWithInsertBlockRemoveBlockMoveBlock(const IndexBlock& insertBlock, const IndexBlock& removeBlock,
                                                     const MoveBlock& moveBlock);

  // The linearizer's own delegate operations forward to its delegate.
  void arrayOperationLinearizerWillBeginUpdates(TWArrayOperationLinearizer& linearizer) override;
  void arrayOperationLinearizerRemoveObjectAtIndex(TWArrayOperationLinearizer& linearizer, int64_t index) override;
  void arrayOperationLinearizerMoveObjectAtIndexToIndex(TWArrayOperationLinearizer& linearizer, int64_t fromIndex,
                                                        int64_t toIndex) override;
  void arrayOperationLinearizerInsertObjectAtIndex(TWArrayOperationLinearizer& linearizer, int64_t index) override;
  void arrayOperationLinearizerDidEndUpdates(TWArrayOperationLinearizer& linearizer) override;

  // One change of a batch: fromIndex and toIndex as in TWArrayOperation.
  struct Change {
    int64_t fromIndex;
    int64_t toIndex;
  };
  // A single step: a removal (toIndex -1), a move, or an insertion (fromIndex -1).
  using Step = Change;
  // The steps for a batch, computed with a Fenwick tree. Exactly the steps of
  // linearizeLiterally() whenever the source indexes of the removals and moves
  // are distinct (as in every list transform); otherwise it falls back to it.
  static std::vector<Step> linearize(const std::vector<Change>& changes);
  // The steps by the plain walk, which restarts from the lowest pending source
  // index for every move: O(n · moves). Kept as the reference of linearize().
  static std::vector<Step> linearizeLiterally(const std::vector<Change>& changes);

 private:
  std::weak_ptr<TWArrayOperationLinearizerDelegate> delegate_;
  std::vector<Change> changes_;
  bool inBatch_ = false;
};

}  // namespace loomwork
#pragma GCC visibility pop
