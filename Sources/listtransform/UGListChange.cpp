#include "loomwork/listtransform/UGListChange.h"

namespace loomwork {

Ref<UGListChange> UGListChange::insertionAtIndexObject(int64_t index, std::optional<Value> object) {
  return make<UGListChange>(UGListChangeTypeInsertion, NotFound, index, std::move(object));
}

Ref<UGListChange> UGListChange::deletionFromIndexObject(int64_t index, std::optional<Value> object) {
  return make<UGListChange>(UGListChangeTypeDeletion, index, NotFound, std::move(object));
}

Ref<UGListChange> UGListChange::moveFromIndexToIndexObject(int64_t fromIndex, int64_t toIndex,
                                                           std::optional<Value> object) {
  return make<UGListChange>(UGListChangeTypeMove, fromIndex, toIndex, std::move(object));
}

bool UGListChange::isEqual(const Object& other) const {
  if (this == &other) return true;
  auto* change = dynamic_cast<const UGListChange*>(&other);
  if (change == nullptr) return false;
  if (type_ != change->type_ || fromIndex_ != change->fromIndex_ || toIndex_ != change->toIndex_) return false;
  if (object_.has_value() != change->object_.has_value()) return false;
  return !object_ || *object_ == *change->object_;
}

size_t UGListChange::hash() const {
  return static_cast<size_t>(type_ & static_cast<uint64_t>(fromIndex_) & static_cast<uint64_t>(toIndex_));
}

std::string UGListChange::description() const {
  switch (type_) {
    case UGListChangeTypeInsertion:
      return "Insertion " + std::to_string(toIndex_) + " (" + describe(object_) + ")";
    case UGListChangeTypeMove:
      return "Move " + std::to_string(fromIndex_) + " -> " + std::to_string(toIndex_) + " (" + describe(object_) + ")";
    default:
      return "Deletion " + std::to_string(fromIndex_) + " (" + describe(object_) + ")";
  }
}

}  // namespace loomwork
