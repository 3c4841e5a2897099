#include "listtransform/TWArrayOperationLinearizer.h"

#include <algorithm>
#include <numeric>

#include "platform/Exception.h"

namespace loomwork {

namespace {

[[noreturn]] void inconsistency(const char* reason) { throw Exception(ExceptionKind::InternalInconsistency, reason); }

// The two orders every linearization starts from: R holds the removals and
// moves by source index, highest first; I the insertions and moves by target
// index, lowest first. Ties keep the order in which the changes were given.
struct Orders {
  std::vector<size_t> removalsAndMoves;
  std::vector<size_t> insertionsAndMoves;
};

Orders makeOrders(const std::vector<TWArrayOperationLinearizer::Change>& changes) {
  Orders orders;
  for (size_t i = 0; i < changes.size(); ++i) {
    const auto& c = changes[i];
    if (TWArrayOperation::isRemove(c.fromIndex, c.toIndex) || TWArrayOperation::isMove(c.fromIndex, c.toIndex)) {
      orders.removalsAndMoves.push_back(i);
    }
    if (TWArrayOperation::isInsert(c.fromIndex, c.toIndex) || TWArrayOperation::isMove(c.fromIndex, c.toIndex)) {
      orders.insertionsAndMoves.push_back(i);
    }
  }
  std::stable_sort(orders.removalsAndMoves.begin(), orders.removalsAndMoves.end(),
                   [&](size_t a, size_t b) { return changes[a].fromIndex > changes[b].fromIndex; });
  std::stable_sort(orders.insertionsAndMoves.begin(), orders.insertionsAndMoves.end(),
                   [&](size_t a, size_t b) { return changes[a].toIndex < changes[b].toIndex; });
  return orders;
}

// Fenwick tree over n counters: add to one counter, sum of a prefix.
class Fenwick {
 public:
  explicit Fenwick(size_t n) : tree_(n + 1, 0) {}
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

}  // namespace

std::vector<TWArrayOperationLinearizer::Step> TWArrayOperationLinearizer::linearizeLiterally(
    const std::vector<Change>& changes) {
  std::vector<Change> ops = changes;
  Orders orders = makeOrders(ops);
  std::vector<size_t>& R = orders.removalsAndMoves;
  std::vector<size_t>& I = orders.insertionsAndMoves;
  std::vector<Step> steps;
  for (size_t r = 0; r < R.size(); ++r) {
    Change& op = ops[R[r]];
    if (op.toIndex == -1) {
      steps.push_back({op.fromIndex, -1});
      continue;
    }
    auto position = std::find(I.begin(), I.end(), R[r]);
    auto q = static_cast<int64_t>(position - I.begin());
    I.erase(position);
    int64_t t = op.toIndex - q;
    size_t j = R.size() - 1;
    while (j > r && ops[R[j]].fromIndex <= t) {
      ++t;
      --j;
    }
    for (size_t k = j; k > r; --k) ++ops[R[k]].fromIndex;
    op.toIndex = t;
    steps.push_back({op.fromIndex, t});
  }
  for (size_t i : I) steps.push_back({-1, ops[i].toIndex});
  return steps;
}

std::vector<TWArrayOperationLinearizer::Step> TWArrayOperationLinearizer::linearize(
    const std::vector<Change>& changes) {
  Orders orders = makeOrders(changes);
  const std::vector<size_t>& R = orders.removalsAndMoves;
  const std::vector<size_t>& I = orders.insertionsAndMoves;
  const size_t n = R.size();

  // Pending sources in ascending order: ascending position a holds R[n - 1 - a].
  // Every move raises the sources above its target by one; those raises are
  // kept in a Fenwick tree of differences, so a source's current index is its
  // given index plus a prefix sum.
  std::vector<int64_t> base(n);
  for (size_t a = 0; a < n; ++a) base[a] = changes[R[n - 1 - a]].fromIndex;
  for (size_t a = 1; a < n; ++a) {
    if (base[a] == base[a - 1]) return linearizeLiterally(changes);
  }
  Fenwick raised(n + 1);
  auto current = [&](size_t a) { return base[a] + raised.prefix(a + 1); };

  // Position of each move in I, and which entries of I are still pending.
  std::vector<size_t> positionInI(changes.size(), 0);
  for (size_t p = 0; p < I.size(); ++p) positionInI[I[p]] = p;
  Fenwick pendingInI(I.size());
  for (size_t p = 0; p < I.size(); ++p) pendingInI.add(p, 1);
  std::vector<bool> removedFromI(I.size(), false);

  std::vector<Step> steps;
  steps.reserve(changes.size());
  for (size_t r = 0; r < n; ++r) {
    const Change& op = changes[R[r]];
    const size_t a = n - 1 - r;  // the op itself; pending sources are [0, a)
    const int64_t from = current(a);
    if (op.toIndex == -1) {
      steps.push_back({from, -1});
      continue;
    }
    const size_t p = positionInI[R[r]];
    const int64_t q = pendingInI.prefix(p);
    pendingInI.add(p, -1);
    removedFromI[p] = true;
    const int64_t t0 = op.toIndex - q;
    // The walk from the lowest pending source passes source k exactly when
    // current(k) <= t0 + k; current(k) - k never decreases, so the first
    // source it stops at is found by binary search.
    size_t lo = 0, hi = a;
    while (lo < hi) {
      size_t mid = lo + (hi - lo) / 2;
      if (current(mid) - static_cast<int64_t>(mid) > t0) {
        hi = mid;
      } else {
        lo = mid + 1;
      }
    }
    const size_t k = lo;
    if (k < a) {
      raised.add(k, 1);
      raised.add(a, -1);
    }
    steps.push_back({from, t0 + static_cast<int64_t>(k)});
  }
  for (size_t p = 0; p < I.size(); ++p) {
    if (!removedFromI[p]) steps.push_back({-1, changes[I[p]].toIndex});
  }
  return steps;
}

std::optional<std::vector<Ref<TWArrayOperation>>> TWArrayOperationLinearizer::arrayOperations() const {
  if (!inBatch_) return std::nullopt;
  std::vector<Ref<TWArrayOperation>> operations;
  operations.reserve(changes_.size());
  for (const auto& c : changes_) operations.push_back(TWArrayOperation::arrayOperationWithFromIndexToIndex(c.fromIndex, c.toIndex));
  return operations;
}

void TWArrayOperationLinearizer::beginUpdates() {
  if (inBatch_) inconsistency("Called beginUpdates for the second time without previously calling endUpdates");
  inBatch_ = true;
  changes_.clear();
}

void TWArrayOperationLinearizer::insertObjectAtIndex(int64_t index) {
  if (!inBatch_) inconsistency("Can't insert, beginUpdates wasn't called");
  changes_.push_back({-1, index});
}

void TWArrayOperationLinearizer::insertObjectsAtIndexes(const IndexSet& indexes) {
  if (!inBatch_) inconsistency("Can't insert, beginUpdates wasn't called");
  for (int64_t index : indexes) changes_.push_back({-1, index});
}

void TWArrayOperationLinearizer::removeObjectAtIndex(int64_t index) {
  if (!inBatch_) inconsistency("Can't remove, beginUpdates wasn't called");
  changes_.push_back({index, -1});
}

void TWArrayOperationLinearizer::removeObjectsAtIndexes(const IndexSet& indexes) {
  if (!inBatch_) inconsistency("Can't remove, beginUpdates wasn't called");
  for (int64_t index : indexes) changes_.push_back({index, -1});
}

void TWArrayOperationLinearizer::moveObjectAtIndexToIndex(int64_t fromIndex, int64_t toIndex) {
  if (!inBatch_) inconsistency("Can't move, beginUpdates wasn't called");
  changes_.push_back({fromIndex, toIndex});
}

void TWArrayOperationLinearizer::moveObjectsAtIndexesToIndexes(const IndexSet& fromIndexes, const IndexSet& toIndexes) {
  if (fromIndexes.count() != toIndexes.count()) {
    throw Exception(ExceptionKind::InvalidArgument,
                    "[TWArrayOperationLinearizer moveObjectsAtIndexesToIndexes] Argument `atIndexes` and "
                    "`toIndexes` must contain the same count of indexes but don't");
  }
  if (!inBatch_) inconsistency("Can't move, beginUpdates wasn't called");
  auto to = toIndexes.begin();
  for (int64_t from : fromIndexes) changes_.push_back({from, *to++});
}

void TWArrayOperationLinearizer::endUpdates() {
  if (!inBatch_) inconsistency("Called endUpdates without previously calling beginUpdates");
  arrayOperationLinearizerWillBeginUpdates(*this);
  endUpdatesWithInsertBlockRemoveBlockMoveBlock(
      [this](int64_t index) { arrayOperationLinearizerInsertObjectAtIndex(*this, index); },
      [this](int64_t index) { arrayOperationLinearizerRemoveObjectAtIndex(*this, index); },
      [this](int64_t from, int64_t to) { arrayOperationLinearizerMoveObjectAtIndexToIndex(*this, from, to); });
  arrayOperationLinearizerDidEndUpdates(*this);
}

void TWArrayOperationLinearizer::endUpdatesWithInsertBlockRemoveBlockMoveBlock(const IndexBlock& insertBlock,
                                                                               const IndexBlock& removeBlock,
                                                                               const MoveBlock& moveBlock) {
  if (!inBatch_) inconsistency("Called endUpdates without previously calling beginUpdates");
  std::vector<Change> changes;
  changes.swap(changes_);
  inBatch_ = false;
  for (const Step& step : linearize(changes)) {
    if (step.fromIndex == -1) {
      if (insertBlock) insertBlock(step.toIndex);
    } else if (step.toIndex == -1) {
      if (removeBlock) removeBlock(step.fromIndex);
    } else if (moveBlock) {
      moveBlock(step.fromIndex, step.toIndex);
    }
  }
}

void TWArrayOperationLinearizer::arrayOperationLinearizerWillBeginUpdates(TWArrayOperationLinearizer& linearizer) {
  if (auto d = delegate()) d->arrayOperationLinearizerWillBeginUpdates(linearizer);
}
void TWArrayOperationLinearizer::arrayOperationLinearizerRemoveObjectAtIndex(TWArrayOperationLinearizer& linearizer,
                                                                             int64_t index) {
  if (auto d = delegate()) d->arrayOperationLinearizerRemoveObjectAtIndex(linearizer, index);
}
void TWArrayOperationLinearizer::arrayOperationLinearizerMoveObjectAtIndexToIndex(
    TWArrayOperationLinearizer& linearizer, int64_t fromIndex, int64_t toIndex) {
  if (auto d = delegate()) d->arrayOperationLinearizerMoveObjectAtIndexToIndex(linearizer, fromIndex, toIndex);
}
void TWArrayOperationLinearizer::arrayOperationLinearizerInsertObjectAtIndex(TWArrayOperationLinearizer& linearizer,
                                                                             int64_t index) {
  if (auto d = delegate()) d->arrayOperationLinearizerInsertObjectAtIndex(linearizer, index);
}
void TWArrayOperationLinearizer::arrayOperationLinearizerDidEndUpdates(TWArrayOperationLinearizer& linearizer) {
  if (auto d = delegate()) d->arrayOperationLinearizerDidEndUpdates(linearizer);
}

}  // namespace loomwork
