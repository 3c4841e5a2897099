#include "loomwork/graph/UniversalGraphObjects.h"

#include <fmt/format.h>

#include <cstdint>

#include "loomwork/graph/UGTransaction.h"
#include "graph/UGOperationTable.h"

namespace loomwork {

std::string universalGraphUUID(const Object& object) {
  if (std::optional<Value> uuid = object.valueForKey("globalObjectUUID")) {
    if (auto text = uuid->tryString()) return std::string(*text);
  }
  // Only the low 32 bits of the address, as a signed number.
  const auto address = static_cast<int32_t>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&object)));
  return fmt::format("MemoryBasedUUID-{}", address);
}

bool UGTransaction::containsDeletedEntityWithUUID(std::string_view uuid) const {
  const Ref<UGEntityOperation>* held = operations_->find(uuid);
  return held && (*held)->type() == UGEntityOperationTypeDelete;
}

bool UGTransaction::containsDeletedObject(const Object* object) const {
  return object != nullptr && containsDeletedEntityWithUUID(universalGraphUUID(*object));
}

std::optional<Value> UGTransaction::valueForPropertyOfUpdatedEntityWithUUID(std::string_view property,
                                                                            std::string_view uuid) const {
  const Ref<UGEntityOperation>* held = operations_->find(uuid);
  if (!held || (*held)->type() != UGEntityOperationTypeUpdate) return std::nullopt;
  return (*held)->valueForProperty(property);
}

std::optional<Value> UGTransaction::valueForPropertyOfUpdatedObject(std::string_view property,
                                                                    const Object* object) const {
  if (object == nullptr) return std::nullopt;
  return valueForPropertyOfUpdatedEntityWithUUID(property, universalGraphUUID(*object));
}

Ref<UGListTransform> UGTransaction::transformForRelationOfUpdatedEntityWithUUID(std::string_view relation,
                                                                                std::string_view uuid) const {
  const Ref<UGEntityOperation>* held = operations_->find(uuid);
  if (!held || (*held)->type() != UGEntityOperationTypeUpdate) return nullptr;
  return (*held)->transformForRelation(relation);
}

Ref<UGListTransform> UGTransaction::transformForRelationOfUpdatedObject(std::string_view relation,
                                                                        const Object* object) const {
  if (object == nullptr) return nullptr;
  return transformForRelationOfUpdatedEntityWithUUID(relation, universalGraphUUID(*object));
}

}  // namespace loomwork
