// UGListChange: a flat description of one change of a list, used to build
// and compare transforms in tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

enum UGListChangeType : uint64_t {
  UGListChangeTypeInsertion = 0,
  UGListChangeTypeMove = 1,
  UGListChangeTypeDeletion = 2,
};

// One insertion (at toIndex), move (fromIndex to toIndex) or deletion (from
// fromIndex); the index a change does not use is NotFound. Two changes are
// equal when type, indexes and objects are; the hash is the bitwise AND of the
// three numbers, a weak hash that sets of changes put up with since they rely
// on equality alone.
class UGListChange : public Object {
 public:
  UGListChange(UGListChangeType type, int64_t fromIndex, int64_t toIndex, std::optional<Value> object)
      : type_(type), fromIndex_(fromIndex), toIndex_(toIndex), object_(std::move(object)) {}

  static Ref<UGListChange> insertionAtIndexObject(int64_t index, std::optional<Value> object);
  static Ref<UGListChange> deletionFromIndexObject(int64_t index, std::optional<Value> object);
  static Ref<UGListChange> moveFromIndexToIndexObject(int64_t fromIndex, int64_t toIndex, std::optional<Value> object);

  UGListChangeType type() const { return type_; }
  int64_t fromIndex() const { return fromIndex_; }
  int64_t toIndex() const { return toIndex_; }
  const std::optional<Value>& object() const { return object_; }

  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  // "Insertion 3 (x)", "Move 1 -> 4 (x)" or "Deletion 2 (x)".
  std::string description() const override;

 private:
  UGListChangeType type_;
  int64_t fromIndex_;
  int64_t toIndex_;
  std::optional<Value> object_;
};

}  // namespace loomwork
#pragma GCC visibility pop
