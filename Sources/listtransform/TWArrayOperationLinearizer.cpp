#include "loomwork/listtransform/TWArrayOperationLinearizer.h"

#include <algorithm>
#include <numeric>

#include "listtransform/FenwickTree.h"
#include "loomwork/platform/Exception.h"

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

// Sorts pairs that usually arrive as a few sorted runs (a list transform
// feeds its deletions, then its moves, then its insertions, each in order):
// the sorted tail is kept, the rest sorted if need be, and the two merged.
void sortRuns(std::vector<std::pair<int64_t, size_t>>& entries) {
  size_t tail = entries.size();
  while (tail > 1 && !(entries[tail - 1] < entries[tail - 2])) --tail;
  if (tail <= 1) return;
  --tail;
  if (!std::is_sorted(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(tail))) {
    std::sort(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(tail));
  }
  std::inplace_merge(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(tail), entries.end());
}

Orders makeOrders(const std::vector<TWArrayOperationLinearizer::Change>& changes) {
  // Sorting (key, position) pairs keeps equal keys in the order given and
  // stays within contiguous memory.
  std::vector<std::pair<int64_t, size_t>> removals, insertions;
  for (size_t i = 0; i < changes.size(); ++i) {
    const auto& c = changes[i];
    const bool move = TWArrayOperation::isMove(c.fromIndex, c.toIndex);
    if (move || TWArrayOperation::isRemove(c.fromIndex, c.toIndex)) removals.emplace_back(-c.fromIndex, i);
    if (move || TWArrayOperation::isInsert(c.fromIndex, c.toIndex)) insertions.emplace_back(c.toIndex, i);
  }
  sortRuns(removals);
  sortRuns(insertions);
  Orders orders;
  orders.removalsAndMoves.reserve(removals.size());
  orders.insertionsAndMoves.reserve(insertions.size());
  for (const auto& entry : removals) orders.removalsAndMoves.push_back(entry.second);
  for (const auto& entry : insertions) orders.insertionsAndMoves.push_back(entry.second);
  return orders;
}

// The pending sources of a linearization, lowest first: each has a given
// index (key) and a raise, kept as counts in a Fenwick tree so that a source's
// current index is its key plus a prefix sum of the counts. The key of a node
// sits beside its tree entry, so that a search down the tree touches one
// cache line per level.
class RaisedSources {
 public:
  explicit RaisedSources(const std::vector<int64_t>& keys) : nodes_(keys.size() + 1) {
    for (size_t k = 0; k < keys.size(); ++k) nodes_[k + 1].key = keys[k];
    top_ = 1;
    while (top_ * 2 < nodes_.size()) top_ *= 2;
  }
  int64_t current(size_t position) const {
    int64_t sum = 0;
    for (size_t i = position + 1; i > 0; i -= i & (~i + 1)) sum += nodes_[i].count;
    return nodes_[position + 1].key + sum;
  }
  // Raises the sources from `position` up by one.
  void raiseFrom(size_t position) {
    for (size_t i = position + 1; i < nodes_.size(); i += i & (~i + 1)) ++nodes_[i].count;
  }
  // How many of the lowest sources k satisfy current(k) - k <= limit; the
  // difference never decreases with k, so they are a prefix.
  size_t countAtMost(int64_t limit) const {
    size_t position = 0;
    int64_t sum = 0;
    for (size_t step = top_; step > 0; step /= 2) {
      size_t next = position + step;
      if (next < nodes_.size()) {
        const Node& node = nodes_[next];
        if (node.key + sum + node.count - static_cast<int64_t>(next - 1) <= limit) {
          position = next;
          sum += node.count;
        }
      }
    }
    return position;
  }

 private:
  struct Node {
    int64_t count = 0;
    int64_t key = 0;
  };
  std::vector<Node> nodes_;
  size_t top_;
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
  // A move raises every pending source above its target by one. The pending
  // sources are always the positions below the one being processed, so a
  // raise of [k, a) may as well be a raise of [k, n): it is kept as one count
  // at k, and a source's current index is its given index plus a prefix sum.
  std::vector<int64_t> base(n);
  for (size_t a = 0; a < n; ++a) base[a] = changes[R[n - 1 - a]].fromIndex;
  for (size_t a = 1; a < n; ++a) {
    if (base[a] == base[a - 1]) return linearizeLiterally(changes);
  }
  RaisedSources sources(base);

  // Position of each move in I, and which entries of I are still pending.
  std::vector<size_t> positionInI(changes.size(), 0);
  for (size_t p = 0; p < I.size(); ++p) positionInI[I[p]] = p;
  FenwickTree pendingInI(I.size());
  for (size_t p = 0; p < I.size(); ++p) pendingInI.add(p, 1);
  std::vector<bool> removedFromI(I.size(), false);

  std::vector<Step> steps;
  steps.reserve(changes.size());
  for (size_t r = 0; r < n; ++r) {
    const Change& op = changes[R[r]];
    const size_t a = n - 1 - r;  // the op itself; pending sources are [0, a)
    const int64_t from = sources.current(a);
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
    // current(k) <= t0 + k. current(k) - k never decreases along all
    // positions, pending or not, so the sources passed are a prefix.
    const size_t k = std::min(a, sources.countAtMost(t0));
    if (k < a) sources.raiseFrom(k);
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
  for (const auto& c : changes_)
    operations.push_back(TWArrayOperation::arrayOperationWithFromIndexToIndex(c.fromIndex, c.toIndex));
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
