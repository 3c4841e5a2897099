// TWArrayOperation: one change of a batch given to the linearizer.
#pragma once

#include <cstdint>
#include <string>

#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

// An insert (from -1 to an index), a remove (from an index to -1) or a move
// (between two indexes); -1 means "none". Anything else is invalid. Operations
// compare by identity.
class TWArrayOperation : public Object {
 public:
  TWArrayOperation(int64_t fromIndex, int64_t toIndex) : fromIndex_(fromIndex), toIndex_(toIndex) {}
  static Ref<TWArrayOperation> arrayOperationWithFromIndexToIndex(int64_t fromIndex, int64_t toIndex) {
    return make<TWArrayOperation>(fromIndex, toIndex);
  }

  int64_t fromIndex() const { return fromIndex_; }
  int64_t toIndex() const { return toIndex_; }
  void setFromIndex(int64_t index) { fromIndex_ = index; }
  void setToIndex(int64_t index) { toIndex_ = index; }

  static bool isInsert(int64_t from, int64_t to) { return from == -1 && to >= 0; }
  static bool isRemove(int64_t from, int64_t to) { return from >= 0 && to == -1; }
  static bool isMove(int64_t from, int64_t to) { return from >= 0 && to >= 0; }
  bool isInsert() const { return isInsert(fromIndex_, toIndex_); }
  bool isRemove() const { return isRemove(fromIndex_, toIndex_); }
  bool isMove() const { return isMove(fromIndex_, toIndex_); }
  bool isValid() const { return isInsert() || isRemove() || isMove(); }

  // "<TWArrayOperation> INSERT to index: 3" and the like.
  std::string description() const override;

 private:
  int64_t fromIndex_;
  int64_t toIndex_;
};

}  // namespace loomwork
#pragma GCC visibility pop
