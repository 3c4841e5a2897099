// UGEntityOperation and UGMutableEntityOperation: what happened to one entity
// of the object graph in one step.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tsl/ordered_map.h>
#include <tsl/ordered_set.h>

#include "loomwork/listtransform/UGListTransform.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

class UGMutableEntityOperation;

// The kind of change. Unscoped with a fixed underlying type so that any other
// number (read from a property list, or static_cast<UGEntityOperationType>(7))
// is carried as it is; composition and merging leave such operations alone.
enum UGEntityOperationType : uint64_t {
  UGEntityOperationTypeCreate = 1,
  UGEntityOperationTypeUpdate = 2,
  UGEntityOperationTypeDelete = 3,
  UGEntityOperationTypeIdentity = 4,
};

// True for the four named types.
constexpr bool UGEntityOperationTypeIsValid(UGEntityOperationType type) { return type >= 1 && type <= 4; }

// "CREATE", "UPDATE", "DELETE", "IDENTITY", or "<missing>" for any other type.
std::string_view UGEntityOperationTypeDescription(UGEntityOperationType type);

// The keys of the property-list form of an entity operation.
inline constexpr std::string_view kPlistType = "t";
inline constexpr std::string_view kPlistEntityName = "e";
inline constexpr std::string_view kPlistProperties = "p";

// Hash for string keys that also accepts std::string_view lookups. Not
// noexcept on purpose: libstdc++'s unordered containers then store each
// key's hash, so rehashing and bucket walks do not hash or compare the
// strings again.
struct UGStringHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
};

// Property name -> value, in insertion order. Keys are std::string (property
// names are always strings), which keeps lookups by std::string_view free of
// allocations; the Value-keyed form is built only for the property list and
// key-value reading. The entries live in a std::vector (tsl's default deque
// takes a 512-byte block for even one entry): removing a property is linear
// in the operation's property count, which stays small.
using UGPropertyDictionary =
    tsl::ordered_map<std::string, Value, UGStringHash, std::equal_to<>, std::allocator<std::pair<std::string, Value>>,
                     std::vector<std::pair<std::string, Value>>>;
// Relation name -> list transform of its member list, in insertion order.
using UGRelationTransformDictionary = tsl::ordered_map<std::string, Ref<UGListTransform>, UGStringHash, std::equal_to<>,
                                                       std::allocator<std::pair<std::string, Ref<UGListTransform>>>,
                                                       std::vector<std::pair<std::string, Ref<UGListTransform>>>>;
// A set of names or UUIDs, in insertion order.
using UGStringSet =
    tsl::ordered_set<std::string, UGStringHash, std::equal_to<>, std::allocator<std::string>, std::vector<std::string>>;

// One step of one entity: its type, the entity's kind name, the values of the
// properties the step set (an explicit null is Value::null(); a missing key
// means the property is untouched) and, per changed ordered to-many relation,
// the list transform from the old member list to the new one.
//
// UGEntityOperation is read-only by contract; UGMutableEntityOperation adds
// the mutators. `copy()` returns the receiver itself in both classes (the
// read-only copy of a mutable operation is the same live object); code that
// must freeze one takes `mutableCopy()` and stops mutating the result. Copies
// are shallow: new dictionaries holding the same values and transform objects.
//
// An operation owns its two dictionaries. It is used by one thread at a time;
// hand copies to other threads.
class UGEntityOperation : public Object {
 public:
  // An IDENTITY without entity name and with empty dictionaries.
  UGEntityOperation() = default;
  UGEntityOperation(UGEntityOperationType type, std::optional<std::string> entityName)
      : type_(type), entityName_(std::move(entityName)) {}
  // The dictionaries are copied (values and transforms are shared).
  UGEntityOperation(UGEntityOperationType type, std::optional<std::string> entityName, UGPropertyDictionary properties,
                    UGRelationTransformDictionary relationTransforms = {})
      : type_(type),
        entityName_(std::move(entityName)),
        properties_(std::move(properties)),
        relationTransforms_(std::move(relationTransforms)) {}

  static Ref<UGEntityOperation> operationWithTypeEntityName(UGEntityOperationType type,
                                                            std::optional<std::string> entityName) {
    return make<UGEntityOperation>(type, std::move(entityName));
  }
  // The argument's copy(), which is the argument itself.
  static Ref<UGEntityOperation> operationWithOperation(const UGEntityOperation& operation) { return operation.copy(); }
  // Reads the property-list form (see extendedPropertyListRepresentation()).
  // Empty unless `plist` is a dictionary holding "t" (a number, read as an
  // integer and not range-checked), "e" (a string) and "p" (a dictionary,
  // whose entries with string keys become the properties).
  static Ref<UGEntityOperation> initWithExtendedPropertyList(const Value& plist);

  UGEntityOperationType type() const { return type_; }
  const std::optional<std::string>& entityName() const { return entityName_; }
  const UGPropertyDictionary& properties() const { return properties_; }
  const UGRelationTransformDictionary& relationTransforms() const { return relationTransforms_; }

  // The receiver itself (a new mutable copy only for an operation that no
  // shared pointer owns).
  Ref<UGEntityOperation> copy() const;
  // Always a new UGMutableEntityOperation with the receiver's type, name and
  // copies of its dictionaries.
  Ref<UGMutableEntityOperation> mutableCopy() const;

  // The value stored for the name, or absent.
  std::optional<Value> valueForProperty(std::string_view name) const;
  UGStringSet allPropertyNames() const;
  std::vector<std::string> allPropertyNamesArray() const;
  UGStringSet allRelationNames() const;
  // The stored transform, or empty.
  Ref<UGListTransform> transformForRelation(std::string_view name) const;

  // True exactly for CREATE and IDENTITY, the types inversion loses nothing of.
  bool canInvert() const;
  // New mutable copies on which invert() (the same as
  // invertAcceptingLossyUpdateAndDeleteInversion()) ran; neither checks canInvert().
  Ref<UGMutableEntityOperation> invertedOperation() const;
  Ref<UGMutableEntityOperation> invertedOperationAcceptingLossyUpdateAndDeleteInversion() const;
  // New mutable copies of the receiver composed with `later` after it or
  // `earlier` before it.
  Ref<UGMutableEntityOperation> operationByAppendingOperation(const UGEntityOperation& later) const;
  Ref<UGMutableEntityOperation> operationByPrependingOperation(const UGEntityOperation& earlier) const;

  // {"t": type, "e": entity name, "p": properties} as a Value dictionary; the
  // properties are written as stored (nulls and sets included, for the
  // extended property-list translation). Relation transforms are not written.
  // Throws Exception (invalid argument) when the entity name is absent.
  Value extendedPropertyListRepresentation() const;

  // Key-value reading: "type" (integer), "entityName" (string; absent when
  // there is none), "properties" and "relationTransforms" (dictionaries),
  // "allPropertyNames" and "allRelationNames" (sets), "allPropertyNamesArray"
  // (array), "canInvert" (boolean). Other keys give absent.
  std::optional<Value> valueForKey(std::string_view key) const override;
  // Resolves a dotted path through valueForKey() and the values it yields;
  // "properties.<name>" and "relationTransforms.<name>" are looked up directly,
  // without building the dictionaries.
  std::optional<Value> valueForKeyPath(std::string_view keyPath) const;

  // One line "        <name> -> <value>\n" per property in dictionary order
  // (strings as @"..." with C escapes, sets as "{ a, b,  }" or "{}", other
  // values by their description), then one per relation with the transform's
  // description.
  std::string description() const override;

 protected:
  UGEntityOperationType type_ = UGEntityOperationTypeIdentity;
  std::optional<std::string> entityName_;
  UGPropertyDictionary properties_;
  UGRelationTransformDictionary relationTransforms_;
};

// The entity operation with its mutators.
class UGMutableEntityOperation : public UGEntityOperation {
 public:
  using UGEntityOperation::UGEntityOperation;

  static Ref<UGMutableEntityOperation> operationWithTypeEntityName(UGEntityOperationType type,
                                                                   std::optional<std::string> entityName) {
    return make<UGMutableEntityOperation>(type, std::move(entityName));
  }
  // The argument's mutableCopy().
  static Ref<UGMutableEntityOperation> operationWithOperation(const UGEntityOperation& operation) {
    return operation.mutableCopy();
  }
  static Ref<UGMutableEntityOperation> initWithExtendedPropertyList(const Value& plist);

  // Plain field assignment; keeps none of the invariants of the operations below.
  void setType(UGEntityOperationType type) { type_ = type; }
  void setEntityName(std::optional<std::string> entityName) { entityName_ = std::move(entityName); }
  void setProperties(UGPropertyDictionary properties) { properties_ = std::move(properties); }
  void setRelationTransforms(UGRelationTransformDictionary transforms) { relationTransforms_ = std::move(transforms); }

  // Makes the receiver equal to the argument: type, name, and copies of both
  // dictionaries.
  void replaceWithOperation(const UGEntityOperation& operation);

  // Stores the value under the name; an absent value removes the entry. Does
  // nothing on a DELETE or IDENTITY.
  void setValueForProperty(std::optional<Value> value, std::string_view name);
  // Removes entries whatever the type.
  void removeValueForProperty(std::string_view name);
  void removeAllValuesForProperties();
  // Stores the transform's copy() (for a list transform the same object, so
  // the caller stops changing it); an empty transform removes the entry. Does
  // nothing on a DELETE or IDENTITY.
  void setTransformForRelation(const Ref<UGListTransform>& transform, std::string_view name);
  void removeTransformForRelation(std::string_view name);
  void removeAllRelationTransforms();

  // Composition in place: append puts `later` after the receiver, prepend
  // puts `earlier` before it.
  void appendOperation(const UGEntityOperation& later);
  void prependOperation(const UGEntityOperation& earlier);

  // The composition of `earlier` and `later` into `target`, which may be
  // either input or a third operation. By type (rows earlier, columns later):
  //
  //              CREATE            UPDATE            DELETE     IDENTITY
  //   CREATE     CREATE, later's   CREATE, merged    IDENTITY   CREATE, earlier's
  //   UPDATE     UPDATE, merged    UPDATE, merged    DELETE     UPDATE, earlier's
  //   DELETE     UPDATE, later's   DELETE            DELETE     DELETE
  //   IDENTITY   CREATE, later's   UPDATE, later's   DELETE     IDENTITY
  //
  // (DELETE and IDENTITY results are emptied.) UPDATE then CREATE is an UPDATE
  // on purpose, and so is DELETE then CREATE, carrying only the CREATE's
  // content so that it overwrites what the CREATE sets on the record that
  // still exists. An input of another type, or all three arguments the same
  // object, changes nothing. The target keeps its entity name.
  static void concatenateOperationWithOperationTarget(const UGEntityOperation& earlier, const UGEntityOperation& later,
                                                      UGMutableEntityOperation& target);
  // The merged content: properties and relations by the two steps below.
  static void _concatenatePropertiesAndRelationsFromOperationWithOperationTarget(const UGEntityOperation& earlier,
                                                                                 const UGEntityOperation& later,
                                                                                 UGMutableEntityOperation& target);
  // The union of both dictionaries, later's values winning. A target that is
  // `earlier` gets later's entries written over; one that is `later` gets
  // earlier's entries only where it has none; a third is set to earlier's
  // entries, then later's are written over.
  static void _concatenateValueDictionaryWithValueDictionaryTarget(const UGPropertyDictionary& earlier,
                                                                   const UGPropertyDictionary& later,
                                                                   UGPropertyDictionary& target);
  // For every relation of either: the one transform, or earlier's composed
  // with later's when both have one, stored through setTransformForRelation().
  // A third target loses its own transforms first.
  static void _concatenateRelationsFromOperationWithRelationsFromOperationTarget(const UGEntityOperation& earlier,
                                                                                 const UGEntityOperation& later,
                                                                                 UGMutableEntityOperation& target);

  // Decides the value of a property that both operations set: (name, the
  // receiver's value, the other's value) -> the value to keep (absent removes
  // the property).
  using PropertyMergeBlock =
      std::function<std::optional<Value>(const std::string& name, const Value& mine, const Value& other)>;
  // Merges a concurrent operation into the receiver (rows receiver, columns other):
  //
  //              CREATE            UPDATE            DELETE                IDENTITY
  //   CREATE     CREATE, merge     CREATE, merge     DELETE, cleared       unchanged
  //   UPDATE     CREATE, merge     UPDATE, merge     DELETE, cleared       unchanged
  //   DELETE     DELETE, cleared   DELETE, cleared   DELETE, cleared       DELETE, cleared
  //   IDENTITY   CREATE, other's   UPDATE, other's   DELETE, not cleared   IDENTITY
  //
  // "merge": the block decides names both hold; the receiver takes the other's
  // values for the rest and keeps its own. Only properties change; relation
  // transforms are never touched. Another type on either side changes nothing.
  // An empty block keeps the receiver's values.
  void simpleMergeWithOperationPropertyMergeBlock(const UGEntityOperation& other, const PropertyMergeBlock& block);

  // The same as invertAcceptingLossyUpdateAndDeleteInversion(): no canInvert() check.
  void invert() { invertAcceptingLossyUpdateAndDeleteInversion(); }
  // CREATE becomes an empty DELETE, UPDATE an empty UPDATE (the old values are
  // not known), DELETE a CREATE with its dictionaries as they are; other types
  // stay.
  void invertAcceptingLossyUpdateAndDeleteInversion();
  // Sets the type; DELETE and IDENTITY empty both dictionaries.
  void changeOperationType(UGEntityOperationType type);
};

}  // namespace loomwork
#pragma GCC visibility pop
