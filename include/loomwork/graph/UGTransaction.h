// UGTransaction and UGMutableTransaction: the unit of change of the object
// graph, at most one entity operation per entity UUID.
#pragma once

#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "loomwork/graph/UGEntityOperation.h"
#include "loomwork/graph/UniversalGraphObjects.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

class UGMutableTransaction;
class UGOperationTable;

// A set of entity operations keyed by entity UUID, in insertion order (the
// order of every enumeration, description and property list).
//
// UGTransaction is read-only by contract; UGMutableTransaction adds the
// mutators. `copy()` of a UGTransaction is the receiver itself; of a
// UGMutableTransaction a new UGTransaction holding the same operation objects.
// `mutableCopy()` is always a new UGMutableTransaction (see there).
//
// A transaction owns its table; the operations in it may be shared with other
// transactions (see containsMutableOperations). Used by one thread at a time;
// hand copies to other threads.
class UGTransaction : public Object {
 public:
  using EnumerationBlock =
      std::function<void(const std::string& uuid, const Ref<UGEntityOperation>& operation, bool& stop)>;

  UGTransaction();
  ~UGTransaction() override;
  UGTransaction(const UGTransaction&) = delete;
  UGTransaction& operator=(const UGTransaction&) = delete;

  static Ref<UGTransaction> transaction() { return make<UGTransaction>(); }
  // The argument's copy().
  static Ref<UGTransaction> transactionWithTransaction(const UGTransaction& transaction) { return transaction.copy(); }
  // The copy() of a UGMutableTransaction holding the operation.
  static Ref<UGTransaction> transactionWithOperationForUUID(const Ref<UGEntityOperation>& operation,
                                                            std::string_view uuid);
  // Reads the property-list form (see extendedPropertyListRepresentation()):
  // each entry whose key is a string and whose value reads as an entity
  // operation is stored as a new UGMutableEntityOperation; other entries are
  // skipped without report. Empty when `plist` is not a dictionary. The flag
  // applies to UGMutableTransaction (see there); relation transforms are not
  // kept by the form.
  static Ref<UGTransaction> initWithExtendedPropertyListContainingMutableOperations(const Value& plist,
                                                                                    bool containsMutableOperations);

  // The receiver itself for a UGTransaction (a new one only when no shared
  // pointer owns it); a new UGTransaction for a UGMutableTransaction.
  virtual Ref<UGTransaction> copy() const;
  // A new UGMutableTransaction with the receiver's containsMutableOperations
  // (false for a UGTransaction): mutable copies of the operations when it is
  // true, the same operation objects when it is false.
  Ref<UGMutableTransaction> mutableCopy() const;

  // The operation for the UUID, or empty.
  Ref<UGEntityOperation> operationForUUID(std::string_view uuid) const;
  Ref<UGEntityOperation> objectForKeyedSubscript(std::string_view uuid) const { return operationForUUID(uuid); }
  Ref<UGEntityOperation> operator[](std::string_view uuid) const { return operationForUUID(uuid); }
  UGStringSet allUUIDs() const;
  std::vector<std::string> allUUIDsArray() const;
  size_t count() const;

  // Iteration yields the UUIDs in order.
  class UUIDIterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::string;
    using difference_type = std::ptrdiff_t;
    using pointer = const std::string*;
    using reference = const std::string&;
    UUIDIterator() = default;
    UUIDIterator(const UGOperationTable* table, size_t position) : table_(table), position_(position) {}
    const std::string& operator*() const;
    const std::string* operator->() const { return &**this; }
    UUIDIterator& operator++();
    UUIDIterator operator++(int) {
      UUIDIterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const UUIDIterator& a, const UUIDIterator& b) { return a.position_ == b.position_; }

   private:
    const UGOperationTable* table_ = nullptr;
    size_t position_ = 0;
  };
  UUIDIterator begin() const;
  UUIDIterator end() const;

  // Calls the block for each entry in order until it sets `stop`. The block
  // must not change the transaction.
  void enumerateEntityOperations(const EnumerationBlock& block) const;

  // True when every operation is an IDENTITY (so for an empty transaction).
  bool isIdentity() const;

  // The operation for a UUID as an Object value; absent for an unknown UUID.
  std::optional<Value> valueForKey(std::string_view key) const override;
  // "<uuid>" gives the operation; "<uuid>.<rest>" resolves <rest> on it
  // (UGEntityOperation::valueForKeyPath), for example "<uuid>.properties.title".
  std::optional<Value> valueForKeyPath(std::string_view keyPath) const;

  // mutableCopy() with appendTransaction() / invertOperations() /
  // invertOperationsAcceptingLossyUpdateAndDeleteInversion() applied.
  Ref<UGMutableTransaction> transactionByAppendingTransaction(const UGTransaction& later) const;
  Ref<UGMutableTransaction> transactionByInvertingOperations() const;
  Ref<UGMutableTransaction> transactionByInvertingOperationsAcceptingLossyUpdateAndDeleteInversion() const;

  // Graph-object queries (UniversalGraphObjects.cpp).
  // True when the operation for the UUID is a DELETE; false when there is none.
  bool containsDeletedEntityWithUUID(std::string_view uuid) const;
  // The same for universalGraphUUID(*object); false for a null object.
  bool containsDeletedObject(const Object* object) const;
  // The operation's value for the property when the operation for the UUID is
  // an UPDATE (a CREATE is deliberately not consulted); absent otherwise.
  std::optional<Value> valueForPropertyOfUpdatedEntityWithUUID(std::string_view property, std::string_view uuid) const;
  std::optional<Value> valueForPropertyOfUpdatedObject(std::string_view property, const Object* object) const;
  // The operation's transform for the relation when it is an UPDATE; empty otherwise.
  Ref<UGListTransform> transformForRelationOfUpdatedEntityWithUUID(std::string_view relation,
                                                                   std::string_view uuid) const;
  Ref<UGListTransform> transformForRelationOfUpdatedObject(std::string_view relation, const Object* object) const;

  // {uuid: operation's property list, ...} as a Value dictionary, without
  // version or other keys; relation transforms are not written. Throws
  // Exception (invalid argument) when an operation has no entity name.
  Value extendedPropertyListRepresentation() const;

  // "<ClassName> with <n> operations: {\n", then per UUID
  // "\n    <TYPE> <entity name> \"<uuid>\" (<p> properties, <r> relations) (<operation class>)\n\n",
  // the operation's description and "\n\n"; then "\n}\n". An absent entity
  // name prints as "nil".
  std::string description() const override;

 protected:
  friend class UGMutableTransaction;

  // A new UGTransaction holding the same operation objects.
  Ref<UGTransaction> plainCopy() const;

  // Never null; held by pointer so that the table stays an internal type.
  std::unique_ptr<UGOperationTable> operations_;
  // Meaningful for UGMutableTransaction only; always false for a UGTransaction.
  bool containsMutableOperations_ = false;
};

// The transaction with its mutators.
//
// containsMutableOperations decides how operations are held. When true, the
// transaction keeps UGMutableEntityOperation objects of its own and composes
// into them in place; when false, it stores the operations it is handed
// (copy() of an entity operation is the operation itself, so a mutable one
// handed in stays live) and replaces them by new objects when they change.
// Single-operation calls do not normalise; the transaction-level ones remove
// the IDENTITY operations of the UUIDs they touched.
class UGMutableTransaction : public UGTransaction {
 public:
  // Called by simpleMergeWithTransactionOperationMergeBlock() with the held
  // operation and the other transaction's operation for the same UUID.
  using OperationMergeBlock = std::function<void(UGMutableEntityOperation& held, const UGEntityOperation& other)>;

  UGMutableTransaction() = default;

  static Ref<UGMutableTransaction> transaction() { return make<UGMutableTransaction>(); }
  // The argument's mutableCopy().
  static Ref<UGMutableTransaction> transactionWithTransaction(const UGTransaction& transaction) {
    return transaction.mutableCopy();
  }
  static Ref<UGMutableTransaction> transactionWithOperationForUUID(const Ref<UGEntityOperation>& operation,
                                                                   std::string_view uuid);
  // Empty, with containsMutableOperations true (and the operation set).
  static Ref<UGMutableTransaction> transactionContainingMutableOperations();
  static Ref<UGMutableTransaction> transactionContainingMutableOperationForUUID(const Ref<UGEntityOperation>& operation,
                                                                                std::string_view uuid);
  // See UGTransaction; the operations read are UGMutableEntityOperation
  // objects whatever the flag.
  static Ref<UGMutableTransaction> initWithExtendedPropertyListContainingMutableOperations(
      const Value& plist, bool containsMutableOperations);

  Ref<UGTransaction> copy() const override;

  bool containsMutableOperations() const { return containsMutableOperations_; }
  // Switching converts every held operation: to its mutableCopy() when the flag
  // becomes true, to its copy() (the same object) when it becomes false.
  void setContainsMutableOperations(bool containsMutableOperations);

  // Stores the operation's mutableCopy() when containsMutableOperations, else
  // its copy(); replaces what the UUID held. An empty operation removes the UUID.
  void setOperationForUUID(const Ref<UGEntityOperation>& operation, std::string_view uuid);
  void setObjectForKeyedSubscript(const Ref<UGEntityOperation>& operation, std::string_view uuid) {
    setOperationForUUID(operation, uuid);
  }
  // The stored operation as it is, or empty.
  Ref<UGEntityOperation> mutableOperationForUUID(std::string_view uuid) const { return operationForUUID(uuid); }
  void removeOperationForUUID(std::string_view uuid);
  void removeOperationsForUUIDs(std::span<const std::string> uuids);
  void removeAllOperations();

  // Composes the operation after the one held for the UUID. With
  // containsMutableOperations the held operation changes in place, or the
  // operation (consume: itself, made mutable if need be; else its mutableCopy)
  // is stored. Without, the held operation is replaced by
  // operationByAppendingOperation(), or the operation (consume: itself; else
  // its copy()) is stored. An empty operation changes nothing. No normalisation.
  void appendOperationForUUID(const Ref<UGEntityOperation>& operation, std::string_view uuid) {
    appendOperationForUUIDConsume(operation, uuid, false);
  }
  void appendAndConsumeOperationForUUID(const Ref<UGEntityOperation>& operation, std::string_view uuid) {
    appendOperationForUUIDConsume(operation, uuid, true);
  }
  void appendOperationForUUIDConsume(const Ref<UGEntityOperation>& operation, std::string_view uuid, bool consume);
  // Composes the operation before the one held (in place, or by
  // operationByPrependingOperation()), or stores its mutableCopy() / copy().
  void prependOperationForUUID(const Ref<UGEntityOperation>& operation, std::string_view uuid);

  // Appends every operation of `later` in its order, then normalises the
  // UUIDs it holds. Linear in the size of `later`.
  void appendTransaction(const UGTransaction& later);
  // The same taking the argument's operations: when `later` is a
  // UGMutableTransaction it is first switched to the receiver's
  // containsMutableOperations and is left empty. A plain UGTransaction is not
  // consumed (handing one in is the caller's error).
  void appendAndConsumeTransaction(UGTransaction& later) { appendTransactionConsume(later, true); }
  void appendTransactionConsume(UGTransaction& later, bool consume);
  // Prepends every operation of `earlier`, then normalises its UUIDs.
  void prependTransaction(const UGTransaction& earlier);

  // Only when containsMutableOperations (the block changes held operations in
  // place; otherwise nothing at all happens): for each entry of `other` in
  // order, calls the block with (held, other's) when the UUID is held, else
  // stores other's operation through setOperationForUUID().
  void simpleMergeWithTransactionOperationMergeBlock(const UGTransaction& other, const OperationMergeBlock& block);

  // Turns the receiver T, a change from some base state, into the change from
  // the state after `r` to the state after T, and returns whether that was
  // done without loss. Relation transforms take no part. Per UUID of `r`, by
  // (r's type, T's operation t):
  //   CREATE: t absent, IDENTITY or DELETE -> a DELETE with r's entity name;
  //           t CREATE -> t as an UPDATE without the values equal to r's (a
  //           property of r that t lacks: not exact), dropped when empty;
  //           t UPDATE -> unchanged.
  //   UPDATE: t absent -> not exact; t IDENTITY -> not exact if r sets a
  //           property; t UPDATE -> as CREATE/CREATE; t CREATE -> an UPDATE
  //           with all its values; t DELETE -> unchanged.
  //   DELETE: t absent, IDENTITY or UPDATE -> not exact; t DELETE -> dropped;
  //           t CREATE -> unchanged.
  // Then the whole receiver is normalised. A null `r` changes nothing; `r` the
  // receiver itself empties it; both return true. Operations that are not
  // mutable are replaced by changed mutable copies; mutable ones change in
  // place, also where other transactions share them.
  bool reduceByTransaction(const UGTransaction* r);
  bool reduceByTransaction(const UGTransaction& r) { return reduceByTransaction(&r); }

  // Replaces every operation by its inverse (the two forms are equally lossy:
  // entity-operation inversion never refuses).
  void invertOperations();
  void invertOperationsAcceptingLossyUpdateAndDeleteInversion();

  // Removes the IDENTITY operations (of the given UUIDs); UUIDs not held are
  // skipped. O(number of UUIDs) (normalize: O(count)).
  void normalize();
  void normalizeForUUIDs(std::span<const std::string> uuids);

 private:
  // The single-operation steps for a present operation; they return the slot
  // that holds the result, valid until the table next changes.
  Ref<UGEntityOperation>& appendReturningSlot(const Ref<UGEntityOperation>& operation, std::string_view uuid,
                                              size_t hash, bool consume);
  Ref<UGEntityOperation>& prependReturningSlot(const Ref<UGEntityOperation>& operation, std::string_view uuid,
                                               size_t hash);
  // Calls f(entry) for each entry of another transaction's table.
  template <class Function>
  void forEachEntryPrefetching(const UGOperationTable& source, Function&& f);
  void storeInverse(bool lossy);
};

}  // namespace loomwork
#pragma GCC visibility pop
