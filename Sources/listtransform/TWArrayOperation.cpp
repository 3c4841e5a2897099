#include "loomwork/listtransform/TWArrayOperation.h"

namespace loomwork {

std::string TWArrayOperation::description() const {
  const std::string from = std::to_string(fromIndex_), to = std::to_string(toIndex_);
  if (isInsert()) return "<TWArrayOperation> INSERT to index: " + to;
  if (isRemove()) return "<TWArrayOperation> REMOVE from index: " + from;
  if (isMove()) return "<TWArrayOperation> MOVE from index: " + from + " to index: " + to;
  return "<TWArrayOperation> INVALID from index: " + from + ", to index: " + to;
}

}  // namespace loomwork
