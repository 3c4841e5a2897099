#include "loomwork/graph/UGTransaction.h"

#include "graph/UGOperationTable.h"

#include <fmt/format.h>

#include <utility>

namespace loomwork {

namespace {

// The held operation as a mutable one. A transaction with
// containsMutableOperations only ever stores mutable operations; should one
// not be, it is replaced by its mutable copy so that in-place changes stay in
// the transaction.
UGMutableEntityOperation& mutableHeld(Ref<UGEntityOperation>& held) {
  if (auto* mutableOperation = dynamic_cast<UGMutableEntityOperation*>(held.get())) return *mutableOperation;
  auto copy = held->mutableCopy();
  held = copy;
  return *copy;
}

bool isIdentityOperation(const Ref<UGEntityOperation>& operation) {
  return operation->type() == UGEntityOperationTypeIdentity;
}

void readPropertyList(UGOperationTable& operations, const Dictionary& plist) {
  operations.reserve(plist.size());
  for (const auto& [key, value] : plist) {
    auto uuid = key.tryString();
    if (!uuid) continue;
    if (auto operation = UGMutableEntityOperation::initWithExtendedPropertyList(value)) {
      operations.assign(*uuid, std::move(operation));
    }
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// UGTransaction

Ref<UGTransaction> UGTransaction::transactionWithOperationForUUID(const Ref<UGEntityOperation>& operation,
                                                                  std::string_view uuid) {
  return UGMutableTransaction::transactionWithOperationForUUID(operation, uuid)->copy();
}

Ref<UGTransaction> UGTransaction::initWithExtendedPropertyListContainingMutableOperations(const Value& plist, bool) {
  const Dictionary* entries = plist.tryDictionary();
  if (entries == nullptr) return nullptr;
  auto transaction = make<UGTransaction>();
  readPropertyList(*transaction->operations_, *entries);
  return transaction;
}

UGTransaction::UGTransaction() : operations_(std::make_unique<UGOperationTable>()) {}
UGTransaction::~UGTransaction() = default;

size_t UGTransaction::count() const { return operations_->size(); }

UGTransaction::UUIDIterator UGTransaction::begin() const {
  return UUIDIterator(operations_.get(), operations_->skipHolesFrom(0));
}
UGTransaction::UUIDIterator UGTransaction::end() const {
  return UUIDIterator(operations_.get(), operations_->positionsEnd());
}
const std::string& UGTransaction::UUIDIterator::operator*() const { return table_->entryAt(position_).uuid; }
UGTransaction::UUIDIterator& UGTransaction::UUIDIterator::operator++() {
  position_ = table_->skipHolesFrom(position_ + 1);
  return *this;
}

Ref<UGTransaction> UGTransaction::copy() const {
  if (auto self = std::const_pointer_cast<UGTransaction>(ref<UGTransaction>())) return self;
  return plainCopy();
}

Ref<UGTransaction> UGTransaction::plainCopy() const {
  auto copy = make<UGTransaction>();
  *copy->operations_ = *operations_;
  return copy;
}

Ref<UGMutableTransaction> UGTransaction::mutableCopy() const {
  auto copy = make<UGMutableTransaction>();
  copy->containsMutableOperations_ = containsMutableOperations_;
  copy->operations_->reserve(operations_->size());
  for (const auto& entry : *operations_) {
    copy->operations_->assign(entry.uuid, containsMutableOperations_ ? entry.operation->mutableCopy() : entry.operation);
  }
  return copy;
}

Ref<UGEntityOperation> UGTransaction::operationForUUID(std::string_view uuid) const {
  const Ref<UGEntityOperation>* held = operations_->find(uuid);
  return held ? *held : nullptr;
}

UGStringSet UGTransaction::allUUIDs() const {
  UGStringSet uuids;
  uuids.reserve(operations_->size());
  for (const auto& entry : *operations_) uuids.insert(entry.uuid);
  return uuids;
}

std::vector<std::string> UGTransaction::allUUIDsArray() const {
  std::vector<std::string> uuids;
  uuids.reserve(operations_->size());
  for (const auto& entry : *operations_) uuids.push_back(entry.uuid);
  return uuids;
}

void UGTransaction::enumerateEntityOperations(const EnumerationBlock& block) const {
  if (!block) return;
  bool stop = false;
  for (const auto& entry : *operations_) {
    block(entry.uuid, entry.operation, stop);
    if (stop) break;
  }
}

bool UGTransaction::isIdentity() const {
  for (const auto& entry : *operations_) {
    if (!isIdentityOperation(entry.operation)) return false;
  }
  return true;
}

std::optional<Value> UGTransaction::valueForKey(std::string_view key) const {
  if (auto operation = operationForUUID(key)) return Value(std::move(operation));
  return std::nullopt;
}

std::optional<Value> UGTransaction::valueForKeyPath(std::string_view keyPath) const {
  const size_t dot = keyPath.find('.');
  auto operation = operationForUUID(keyPath.substr(0, dot));
  if (!operation) return std::nullopt;
  if (dot == std::string_view::npos) return Value(std::move(operation));
  return operation->valueForKeyPath(keyPath.substr(dot + 1));
}

Ref<UGMutableTransaction> UGTransaction::transactionByAppendingTransaction(const UGTransaction& later) const {
  auto result = mutableCopy();
  result->appendTransaction(later);
  return result;
}

Ref<UGMutableTransaction> UGTransaction::transactionByInvertingOperations() const {
  auto result = mutableCopy();
  result->invertOperations();
  return result;
}

Ref<UGMutableTransaction> UGTransaction::transactionByInvertingOperationsAcceptingLossyUpdateAndDeleteInversion()
    const {
  auto result = mutableCopy();
  result->invertOperationsAcceptingLossyUpdateAndDeleteInversion();
  return result;
}

Value UGTransaction::extendedPropertyListRepresentation() const {
  Dictionary plist;
  plist.reserve(operations_->size());
  for (const auto& entry : *operations_) {
    plist.emplace(Value(entry.uuid), entry.operation->extendedPropertyListRepresentation());
  }
  return Value(std::move(plist));
}

std::string UGTransaction::description() const {
  std::string text = fmt::format("{} with {} operations: {{\n", className(), count());
  for (const auto& entry : *operations_) {
    const UGEntityOperation& operation = *entry.operation;
    text += fmt::format("\n    {} {} \"{}\" ({} properties, {} relations) ({})\n\n",
                        UGEntityOperationTypeDescription(operation.type()),
                        operation.entityName() ? std::string_view(*operation.entityName()) : "nil", entry.uuid,
                        operation.properties().size(), operation.relationTransforms().size(), operation.className());
    text += operation.description();
    text += "\n\n";
  }
  text += "\n}\n";
  return text;
}

// ---------------------------------------------------------------------------
// UGMutableTransaction

Ref<UGMutableTransaction> UGMutableTransaction::transactionWithOperationForUUID(const Ref<UGEntityOperation>& operation,
                                                                                std::string_view uuid) {
  auto transaction = UGMutableTransaction::transaction();
  transaction->setOperationForUUID(operation, uuid);
  return transaction;
}

Ref<UGMutableTransaction> UGMutableTransaction::transactionContainingMutableOperations() {
  auto transaction = UGMutableTransaction::transaction();
  transaction->containsMutableOperations_ = true;
  return transaction;
}

Ref<UGMutableTransaction> UGMutableTransaction::transactionContainingMutableOperationForUUID(
    const Ref<UGEntityOperation>& operation, std::string_view uuid) {
  auto transaction = transactionContainingMutableOperations();
  transaction->setOperationForUUID(operation, uuid);
  return transaction;
}

Ref<UGMutableTransaction> UGMutableTransaction::initWithExtendedPropertyListContainingMutableOperations(
    const Value& plist, bool containsMutableOperations) {
  const Dictionary* entries = plist.tryDictionary();
  if (entries == nullptr) return nullptr;
  auto transaction = UGMutableTransaction::transaction();
  transaction->containsMutableOperations_ = containsMutableOperations;
  readPropertyList(*transaction->operations_, *entries);
  return transaction;
}

Ref<UGTransaction> UGMutableTransaction::copy() const {
  // copy() of an entity operation is the operation itself, so with or without
  // mutable operations the copy holds the same operation objects.
  return plainCopy();
}

void UGMutableTransaction::setContainsMutableOperations(bool containsMutableOperations) {
  if (containsMutableOperations == containsMutableOperations_) return;
  containsMutableOperations_ = containsMutableOperations;
  if (containsMutableOperations) {
    operations_->forEachMutable(
        [](const std::string&, Ref<UGEntityOperation>& operation) { operation = operation->mutableCopy(); });
  }
}

void UGMutableTransaction::setOperationForUUID(const Ref<UGEntityOperation>& operation, std::string_view uuid) {
  if (!operation) {
    operations_->erase(uuid);
    return;
  }
  // copy() of an operation held by a shared pointer is the operation itself.
  operations_->assign(uuid, containsMutableOperations_ ? operation->mutableCopy() : operation);
}

void UGMutableTransaction::removeOperationForUUID(std::string_view uuid) { operations_->erase(uuid); }

void UGMutableTransaction::removeOperationsForUUIDs(std::span<const std::string> uuids) {
  for (const std::string& uuid : uuids) operations_->erase(uuid);
}

void UGMutableTransaction::removeAllOperations() { operations_->clear(); }

void UGMutableTransaction::appendOperationForUUIDConsume(const Ref<UGEntityOperation>& operation, std::string_view uuid,
                                                         bool consume) {
  if (operation) appendReturningSlot(operation, uuid, UGOperationTable::hashOf(uuid), consume);
}

void UGMutableTransaction::prependOperationForUUID(const Ref<UGEntityOperation>& operation, std::string_view uuid) {
  if (operation) prependReturningSlot(operation, uuid, UGOperationTable::hashOf(uuid));
}

Ref<UGEntityOperation>& UGMutableTransaction::appendReturningSlot(const Ref<UGEntityOperation>& operation,
                                                                  std::string_view uuid, size_t hash, bool consume) {
  Ref<UGEntityOperation>* held = operations_->find(uuid, hash);
  if (containsMutableOperations_) {
    Ref<UGEntityOperation> later = operation;
    if (consume && dynamic_cast<UGMutableEntityOperation*>(operation.get()) == nullptr) {
      later = operation->mutableCopy();
    }
    if (held) {
      mutableHeld(*held).appendOperation(*later);
      return *held;
    }
    return operations_->assign(uuid, hash, consume ? std::move(later) : operation->mutableCopy());
  }
  if (held) {
    *held = (*held)->operationByAppendingOperation(*operation);
    return *held;
  }
  // copy() of an operation held by a shared pointer is the operation itself.
  return operations_->assign(uuid, hash, operation);
}

Ref<UGEntityOperation>& UGMutableTransaction::prependReturningSlot(const Ref<UGEntityOperation>& operation,
                                                                   std::string_view uuid, size_t hash) {
  Ref<UGEntityOperation>* held = operations_->find(uuid, hash);
  if (containsMutableOperations_) {
    if (held) {
      mutableHeld(*held).prependOperation(*operation);
      return *held;
    }
    return operations_->assign(uuid, hash, operation->mutableCopy());
  }
  if (held) {
    *held = (*held)->operationByPrependingOperation(*operation);
    return *held;
  }
  return operations_->assign(uuid, hash, operation);  // its copy()
}

template <class Function>
void UGMutableTransaction::forEachEntryPrefetching(const UGOperationTable& source, Function&& f) {
  // A few entries ahead, ask for the receiver's index slot, so that the
  // lookups of a large transaction overlap their cache misses.
  constexpr int kDistance = 8;
  auto ahead = source.begin();
  for (int i = 0; i < kDistance && ahead != source.end(); ++i, ++ahead) operations_->prefetch(ahead->hash);
  for (const auto& entry : source) {
    if (ahead != source.end()) operations_->prefetch((ahead++)->hash);
    f(entry);
  }
}

void UGMutableTransaction::appendTransaction(const UGTransaction& later) {
  if (&later == this) {
    // Walk a snapshot: appending to the held operations changes the table being read.
    const std::vector<std::string> uuids = allUUIDsArray();
    for (const std::string& uuid : uuids) appendOperationForUUIDConsume(operationForUUID(uuid), uuid, false);
    normalizeForUUIDs(uuids);
    return;
  }
  // Each UUID occurs once in `later`, so normalising it right after its append
  // is the same as normalising all of them at the end, and saves a lookup.
  forEachEntryPrefetching(*later.operations_, [this](const UGOperationTable::Entry& entry) {
    if (isIdentityOperation(appendReturningSlot(entry.operation, entry.uuid, entry.hash, false))) {
      operations_->erase(entry.uuid);
    }
  });
}

void UGMutableTransaction::appendTransactionConsume(UGTransaction& later, bool consume) {
  auto* consumed = consume ? dynamic_cast<UGMutableTransaction*>(&later) : nullptr;
  if (consumed == nullptr) {
    appendTransaction(later);
    return;
  }
  if (consumed == this) {
    // Each operation is appended to itself and then removed from the argument,
    // which is the receiver: the receiver ends up empty.
    const std::vector<std::string> uuids = allUUIDsArray();
    for (const std::string& uuid : uuids) {
      appendOperationForUUIDConsume(operationForUUID(uuid), uuid, true);
      removeOperationForUUID(uuid);
    }
    normalizeForUUIDs(uuids);
    return;
  }
  consumed->setContainsMutableOperations(containsMutableOperations_);
  forEachEntryPrefetching(*consumed->operations_, [this](const UGOperationTable::Entry& entry) {
    if (isIdentityOperation(appendReturningSlot(entry.operation, entry.uuid, entry.hash, true))) {
      operations_->erase(entry.uuid);
    }
  });
  // Removing the UUIDs one by one as they are appended would leave the same
  // empty argument; nothing observes the states in between.
  consumed->operations_->clear();
}

void UGMutableTransaction::prependTransaction(const UGTransaction& earlier) {
  if (&earlier == this) {
    const std::vector<std::string> uuids = allUUIDsArray();
    for (const std::string& uuid : uuids) prependOperationForUUID(operationForUUID(uuid), uuid);
    normalizeForUUIDs(uuids);
    return;
  }
  forEachEntryPrefetching(*earlier.operations_, [this](const UGOperationTable::Entry& entry) {
    if (isIdentityOperation(prependReturningSlot(entry.operation, entry.uuid, entry.hash))) {
      operations_->erase(entry.uuid);
    }
  });
}

void UGMutableTransaction::simpleMergeWithTransactionOperationMergeBlock(const UGTransaction& other,
                                                                         const OperationMergeBlock& block) {
  if (!containsMutableOperations_) return;
  // The block may change the held operations; walk a snapshot of the other's
  // entries so that merging a transaction into itself reads a stable table.
  std::vector<std::pair<std::string, Ref<UGEntityOperation>>> entries;
  entries.reserve(other.count());
  for (const auto& entry : *other.operations_) entries.emplace_back(entry.uuid, entry.operation);
  for (const auto& [uuid, theirs] : entries) {
    Ref<UGEntityOperation>* held = operations_->find(uuid);
    if (held == nullptr) {
      setOperationForUUID(theirs, uuid);
    } else if (block) {
      UGMutableEntityOperation& target = mutableHeld(*held);
      const Ref<UGEntityOperation> keepAlive = *held;  // in case the block removes the entry
      block(target, *theirs);
    }
  }
}

bool UGMutableTransaction::reduceByTransaction(const UGTransaction* r) {
  if (r == nullptr) return true;
  if (r == this) {
    removeAllOperations();
    return true;
  }
  bool exact = true;
  forEachEntryPrefetching(*r->operations_, [&](const UGOperationTable::Entry& entry) {
    const std::string& uuid = entry.uuid;
    const UGEntityOperation& reducer = *entry.operation;
    Ref<UGMutableEntityOperation> t;
    if (const Ref<UGEntityOperation>* held = operations_->find(uuid, entry.hash)) {
      t = std::dynamic_pointer_cast<UGMutableEntityOperation>(*held);
      if (!t) t = (*held)->mutableCopy();
    }
    // Drops from t the values that r already set; t is kept only if any remain.
    auto removeValuesSetByReducer = [&] {
      // t may be r's own operation object; then read a snapshot.
      const UGPropertyDictionary snapshot = t.get() == &reducer ? reducer.properties() : UGPropertyDictionary();
      const UGPropertyDictionary& set = t.get() == &reducer ? snapshot : reducer.properties();
      for (const auto& [name, value] : set) {
        auto it = t->properties().find(name);
        if (it == t->properties().end()) {
          exact = false;
        } else if (it->second == value) {
          t->removeValueForProperty(name);
        }
      }
      if (t->properties().empty()) {
        operations_->erase(uuid);
      } else {
        operations_->assign(uuid, entry.hash, t);
      }
    };
    const UGEntityOperationType held = t ? t->type() : UGEntityOperationTypeIdentity;
    switch (reducer.type()) {
      case UGEntityOperationTypeCreate:
        if (!t || held == UGEntityOperationTypeIdentity || held == UGEntityOperationTypeDelete) {
          operations_->assign(uuid, entry.hash,
                             make<UGMutableEntityOperation>(UGEntityOperationTypeDelete, reducer.entityName()));
        } else if (held == UGEntityOperationTypeCreate) {
          t->changeOperationType(UGEntityOperationTypeUpdate);
          removeValuesSetByReducer();
        }
        break;
      case UGEntityOperationTypeUpdate:
        if (!t) {
          exact = false;
        } else if (held == UGEntityOperationTypeIdentity) {
          exact = exact && reducer.properties().empty();
        } else if (held == UGEntityOperationTypeUpdate) {
          removeValuesSetByReducer();
        } else if (held == UGEntityOperationTypeCreate) {
          t->changeOperationType(UGEntityOperationTypeUpdate);
          operations_->assign(uuid, entry.hash, t);
        }
        break;
      case UGEntityOperationTypeDelete:
        if (!t || held == UGEntityOperationTypeIdentity || held == UGEntityOperationTypeUpdate) {
          exact = false;
        } else if (held == UGEntityOperationTypeDelete) {
          operations_->erase(uuid);
        }
        break;
      default:
        break;
    }
  });
  normalize();
  return exact;
}

void UGMutableTransaction::storeInverse(bool lossy) {
  // Every inverse is a new operation that nothing else holds, so storing it
  // directly is what setOperationForUUID() would store, in either mode.
  operations_->forEachMutable([lossy](const std::string&, Ref<UGEntityOperation>& operation) {
    operation =
        lossy ? operation->invertedOperationAcceptingLossyUpdateAndDeleteInversion() : operation->invertedOperation();
  });
}

void UGMutableTransaction::invertOperations() { storeInverse(false); }

void UGMutableTransaction::invertOperationsAcceptingLossyUpdateAndDeleteInversion() { storeInverse(true); }

void UGMutableTransaction::normalize() {
  operations_->eraseIf(
      [](const std::string&, const Ref<UGEntityOperation>& operation) { return isIdentityOperation(operation); });
}

void UGMutableTransaction::normalizeForUUIDs(std::span<const std::string> uuids) {
  for (const std::string& uuid : uuids) {
    const Ref<UGEntityOperation>* held = operations_->find(uuid);
    if (held && isIdentityOperation(*held)) operations_->erase(uuid);
  }
}

}  // namespace loomwork
