#include "loomwork/graph/UGEntityOperation.h"

#include <array>
#include <utility>

#include "loomwork/additions/StringAdditions.h"
#include "loomwork/platform/Exception.h"

namespace loomwork {

namespace {

// What the target of a composition gets besides its new type.
enum class Content : uint8_t { Later, Earlier, Merged, Emptied };

struct CompositionRule {
  UGEntityOperationType type;
  Content content;
};

// Rows: the earlier operation's type; columns: the later one's (CREATE,
// UPDATE, DELETE, IDENTITY).
constexpr std::array<std::array<CompositionRule, 4>, 4> kComposition{{
    {{{UGEntityOperationTypeCreate, Content::Later},
      {UGEntityOperationTypeCreate, Content::Merged},
      {UGEntityOperationTypeIdentity, Content::Emptied},
      {UGEntityOperationTypeCreate, Content::Earlier}}},
    {{{UGEntityOperationTypeUpdate, Content::Merged},
      {UGEntityOperationTypeUpdate, Content::Merged},
      {UGEntityOperationTypeDelete, Content::Emptied},
      {UGEntityOperationTypeUpdate, Content::Earlier}}},
    {{{UGEntityOperationTypeUpdate, Content::Later},
      {UGEntityOperationTypeDelete, Content::Emptied},
      {UGEntityOperationTypeDelete, Content::Emptied},
      {UGEntityOperationTypeDelete, Content::Emptied}}},
    {{{UGEntityOperationTypeCreate, Content::Later},
      {UGEntityOperationTypeUpdate, Content::Later},
      {UGEntityOperationTypeDelete, Content::Emptied},
      {UGEntityOperationTypeIdentity, Content::Emptied}}},
}};

bool acceptsContent(UGEntityOperationType type) {
  return type != UGEntityOperationTypeDelete && type != UGEntityOperationTypeIdentity;
}

// A property value in a description: sets list every element followed by
// ", " (the last one too), strings are quoted with C escapes.
void appendRendering(std::string& out, const Value& value) {
  if (const Set* set = value.trySet()) {
    if (set->empty()) {
      out += "{}";
      return;
    }
    out += "{ ";
    for (const Value& member : *set) {
      out += member.description();
      out += ", ";
    }
    out += " }";
  } else if (auto string = value.tryString()) {
    out += "@\"";
    out += stringByAddingCStyleEscapes(*string);
    out += '"';
  } else {
    out += value.description();
  }
}

template <class Operation>
Ref<Operation> readOperation(const Value& plist) {
  const Dictionary* entries = plist.tryDictionary();
  if (entries == nullptr) return nullptr;
  // One pass over the entries instead of three lookups, each of which would
  // build a key Value.
  const Value *type = nullptr, *name = nullptr, *properties = nullptr;
  for (const auto& [key, value] : *entries) {
    auto k = key.tryString();
    if (!k || k->size() != 1) continue;
    if (*k == kPlistType) type = &value;
    if (*k == kPlistEntityName) name = &value;
    if (*k == kPlistProperties) properties = &value;
  }
  if (!type || !name || !properties) return nullptr;
  if (!type->isNumber() || !name->isString() || !properties->isDictionary()) return nullptr;
  UGPropertyDictionary values;
  values.reserve(properties->count());
  for (const auto& [key, value] : properties->dictionary()) {
    if (auto k = key.tryString()) values.insert_or_assign(std::string(*k), value);
  }
  return make<Operation>(static_cast<UGEntityOperationType>(static_cast<uint64_t>(type->integerValue())),
                         std::string(name->string()), std::move(values));
}

// The three keys of the property-list form, made once; Values are immutable
// and safe to share between threads.
const Value& plistKey(std::string_view key) {
  static const Value type(kPlistType), name(kPlistEntityName), properties(kPlistProperties);
  return key == kPlistType ? type : key == kPlistEntityName ? name : properties;
}

}  // namespace

std::string_view UGEntityOperationTypeDescription(UGEntityOperationType type) {
  switch (type) {
    case UGEntityOperationTypeCreate:
      return "CREATE";
    case UGEntityOperationTypeUpdate:
      return "UPDATE";
    case UGEntityOperationTypeDelete:
      return "DELETE";
    case UGEntityOperationTypeIdentity:
      return "IDENTITY";
    default:
      return "<missing>";
  }
}

// ---------------------------------------------------------------------------
// UGEntityOperation

Ref<UGEntityOperation> UGEntityOperation::initWithExtendedPropertyList(const Value& plist) {
  return readOperation<UGEntityOperation>(plist);
}

Ref<UGEntityOperation> UGEntityOperation::copy() const {
  if (auto self = std::const_pointer_cast<UGEntityOperation>(ref<UGEntityOperation>())) return self;
  return mutableCopy();
}

Ref<UGMutableEntityOperation> UGEntityOperation::mutableCopy() const {
  auto copy = make<UGMutableEntityOperation>(type_, entityName_);
  copy->replaceWithOperation(*this);
  return copy;
}

std::optional<Value> UGEntityOperation::valueForProperty(std::string_view name) const {
  auto it = properties_.find(name);
  if (it == properties_.end()) return std::nullopt;
  return it->second;
}

UGStringSet UGEntityOperation::allPropertyNames() const {
  UGStringSet names;
  names.reserve(properties_.size());
  for (const auto& entry : properties_) names.insert(entry.first);
  return names;
}

std::vector<std::string> UGEntityOperation::allPropertyNamesArray() const {
  std::vector<std::string> names;
  names.reserve(properties_.size());
  for (const auto& entry : properties_) names.push_back(entry.first);
  return names;
}

UGStringSet UGEntityOperation::allRelationNames() const {
  UGStringSet names;
  names.reserve(relationTransforms_.size());
  for (const auto& entry : relationTransforms_) names.insert(entry.first);
  return names;
}

Ref<UGListTransform> UGEntityOperation::transformForRelation(std::string_view name) const {
  auto it = relationTransforms_.find(name);
  return it == relationTransforms_.end() ? nullptr : it->second;
}

bool UGEntityOperation::canInvert() const {
  return type_ == UGEntityOperationTypeCreate || type_ == UGEntityOperationTypeIdentity;
}

Ref<UGMutableEntityOperation> UGEntityOperation::invertedOperation() const {
  auto result = mutableCopy();
  result->invert();
  return result;
}

Ref<UGMutableEntityOperation> UGEntityOperation::invertedOperationAcceptingLossyUpdateAndDeleteInversion() const {
  auto result = mutableCopy();
  result->invertAcceptingLossyUpdateAndDeleteInversion();
  return result;
}

Ref<UGMutableEntityOperation> UGEntityOperation::operationByAppendingOperation(const UGEntityOperation& later) const {
  auto result = mutableCopy();
  result->appendOperation(later);
  return result;
}

Ref<UGMutableEntityOperation> UGEntityOperation::operationByPrependingOperation(
    const UGEntityOperation& earlier) const {
  auto result = mutableCopy();
  result->prependOperation(earlier);
  return result;
}

Value UGEntityOperation::extendedPropertyListRepresentation() const {
  if (!entityName_) {
    throw Exception(ExceptionKind::InvalidArgument,
                    "UGEntityOperation::extendedPropertyListRepresentation: attempt to insert an absent entity name");
  }
  Dictionary properties;
  properties.reserve(properties_.size());
  for (const auto& [name, value] : properties_) properties.emplace(Value(name), value);
  Dictionary plist;
  plist.reserve(3);
  plist.emplace(plistKey(kPlistType), Value(static_cast<int64_t>(type_)));
  plist.emplace(plistKey(kPlistEntityName), Value(*entityName_));
  plist.emplace(plistKey(kPlistProperties), Value(std::move(properties)));
  return Value(std::move(plist));
}

std::optional<Value> UGEntityOperation::valueForKey(std::string_view key) const {
  if (key == "type") return Value(static_cast<int64_t>(type_));
  if (key == "entityName") return entityName_ ? std::optional<Value>(Value(*entityName_)) : std::nullopt;
  if (key == "properties") {
    Dictionary properties;
    properties.reserve(properties_.size());
    for (const auto& [name, value] : properties_) properties.emplace(Value(name), value);
    return Value(std::move(properties));
  }
  if (key == "relationTransforms") {
    Dictionary transforms;
    transforms.reserve(relationTransforms_.size());
    for (const auto& [name, transform] : relationTransforms_) transforms.emplace(Value(name), Value(transform));
    return Value(std::move(transforms));
  }
  if (key == "allPropertyNames" || key == "allRelationNames") {
    Set names;
    if (key == "allPropertyNames") {
      for (const auto& entry : properties_) names.insert(Value(entry.first));
    } else {
      for (const auto& entry : relationTransforms_) names.insert(Value(entry.first));
    }
    return Value(std::move(names));
  }
  if (key == "allPropertyNamesArray") {
    Array names;
    names.reserve(properties_.size());
    for (const auto& entry : properties_) names.emplace_back(entry.first);
    return Value(std::move(names));
  }
  if (key == "canInvert") return Value(canInvert());
  return std::nullopt;
}

std::optional<Value> UGEntityOperation::valueForKeyPath(std::string_view keyPath) const {
  const size_t dot = keyPath.find('.');
  const std::string_view first = keyPath.substr(0, dot);
  if (dot == std::string_view::npos || (first != "properties" && first != "relationTransforms")) {
    return Object::valueForKeyPath(keyPath);
  }
  const std::string_view rest = keyPath.substr(dot + 1);
  const size_t next = rest.find('.');
  const std::string_view name = rest.substr(0, next);
  std::optional<Value> value;
  if (first == "properties") {
    value = valueForProperty(name);
  } else if (auto transform = transformForRelation(name)) {
    value = Value(std::move(transform));
  }
  if (!value || next == std::string_view::npos) return value;
  return loomwork::valueForKeyPath(*value, rest.substr(next + 1));
}

std::string UGEntityOperation::description() const {
  std::string text;
  for (const auto& [name, value] : properties_) {
    text += "        ";
    text += name;
    text += " -> ";
    appendRendering(text, value);
    text += '\n';
  }
  for (const auto& [name, transform] : relationTransforms_) {
    text += "        ";
    text += name;
    text += " -> ";
    text += transform ? transform->description() : "nil";
    text += '\n';
  }
  return text;
}

// ---------------------------------------------------------------------------
// UGMutableEntityOperation

Ref<UGMutableEntityOperation> UGMutableEntityOperation::initWithExtendedPropertyList(const Value& plist) {
  return readOperation<UGMutableEntityOperation>(plist);
}

void UGMutableEntityOperation::replaceWithOperation(const UGEntityOperation& operation) {
  if (&operation == this) return;
  type_ = operation.type();
  entityName_ = operation.entityName();
  properties_ = operation.properties();
  relationTransforms_ = operation.relationTransforms();
}

void UGMutableEntityOperation::setValueForProperty(std::optional<Value> value, std::string_view name) {
  if (!acceptsContent(type_)) return;
  if (!value) {
    properties_.erase(name);
    return;
  }
  auto it = properties_.find(name);
  if (it != properties_.end()) {
    it.value() = std::move(*value);
  } else {
    properties_.emplace(std::string(name), std::move(*value));
  }
}

void UGMutableEntityOperation::removeValueForProperty(std::string_view name) { properties_.erase(name); }

void UGMutableEntityOperation::removeAllValuesForProperties() { properties_.clear(); }

void UGMutableEntityOperation::setTransformForRelation(const Ref<UGListTransform>& transform, std::string_view name) {
  if (!acceptsContent(type_)) return;
  if (!transform) {
    relationTransforms_.erase(name);
    return;
  }
  Ref<UGListTransform> stored = transform->copy();
  auto it = relationTransforms_.find(name);
  if (it != relationTransforms_.end()) {
    it.value() = std::move(stored);
  } else {
    relationTransforms_.emplace(std::string(name), std::move(stored));
  }
}

void UGMutableEntityOperation::removeTransformForRelation(std::string_view name) { relationTransforms_.erase(name); }

void UGMutableEntityOperation::removeAllRelationTransforms() { relationTransforms_.clear(); }

void UGMutableEntityOperation::appendOperation(const UGEntityOperation& later) {
  concatenateOperationWithOperationTarget(*this, later, *this);
}

void UGMutableEntityOperation::prependOperation(const UGEntityOperation& earlier) {
  concatenateOperationWithOperationTarget(earlier, *this, *this);
}

void UGMutableEntityOperation::concatenateOperationWithOperationTarget(const UGEntityOperation& earlier,
                                                                       const UGEntityOperation& later,
                                                                       UGMutableEntityOperation& target) {
  if (&earlier == &target && &later == &target) return;
  if (!UGEntityOperationTypeIsValid(earlier.type()) || !UGEntityOperationTypeIsValid(later.type())) return;
  const CompositionRule rule = kComposition[earlier.type() - 1][later.type() - 1];
  // The type goes first; none of the content steps below reads a type.
  target.type_ = rule.type;
  switch (rule.content) {
    case Content::Later:
      if (&later != &target) {
        target.properties_ = later.properties();
        target.relationTransforms_ = later.relationTransforms();
      }
      break;
    case Content::Earlier:
      if (&earlier != &target) {
        target.properties_ = earlier.properties();
        target.relationTransforms_ = earlier.relationTransforms();
      }
      break;
    case Content::Merged:
      _concatenatePropertiesAndRelationsFromOperationWithOperationTarget(earlier, later, target);
      break;
    case Content::Emptied:
      target.properties_.clear();
      target.relationTransforms_.clear();
      break;
  }
}

void UGMutableEntityOperation::_concatenatePropertiesAndRelationsFromOperationWithOperationTarget(
    const UGEntityOperation& earlier, const UGEntityOperation& later, UGMutableEntityOperation& target) {
  if (&earlier == &target && &later == &target) return;
  _concatenateValueDictionaryWithValueDictionaryTarget(earlier.properties(), later.properties(), target.properties_);
  _concatenateRelationsFromOperationWithRelationsFromOperationTarget(earlier, later, target);
}

void UGMutableEntityOperation::_concatenateValueDictionaryWithValueDictionaryTarget(const UGPropertyDictionary& earlier,
                                                                                    const UGPropertyDictionary& later,
                                                                                    UGPropertyDictionary& target) {
  if (&target == &earlier) {
    if (&later == &target) return;
    for (const auto& [name, value] : later) target.insert_or_assign(name, value);
  } else if (&target == &later) {
    for (const auto& [name, value] : earlier) target.try_emplace(name, value);
  } else {
    target = earlier;
    for (const auto& [name, value] : later) target.insert_or_assign(name, value);
  }
}

void UGMutableEntityOperation::_concatenateRelationsFromOperationWithRelationsFromOperationTarget(
    const UGEntityOperation& earlier, const UGEntityOperation& later, UGMutableEntityOperation& target) {
  // The target may be either input: resolve every pair before storing anything.
  struct Pair {
    std::string name;
    Ref<UGListTransform> earlier, later;
  };
  std::vector<Pair> pairs;
  pairs.reserve(earlier.relationTransforms().size() + later.relationTransforms().size());
  for (const auto& [name, transform] : earlier.relationTransforms()) {
    pairs.push_back({name, transform, later.transformForRelation(name)});
  }
  for (const auto& [name, transform] : later.relationTransforms()) {
    if (!earlier.relationTransforms().contains(name)) pairs.push_back({name, nullptr, transform});
  }
  if (&target != &earlier && &target != &later) target.removeAllRelationTransforms();
  for (const Pair& pair : pairs) {
    if (pair.earlier && pair.later) {
      target.setTransformForRelation(pair.earlier->transformByAppendingTransform(*pair.later), pair.name);
    } else {
      target.setTransformForRelation(pair.earlier ? pair.earlier : pair.later, pair.name);
    }
  }
}

void UGMutableEntityOperation::simpleMergeWithOperationPropertyMergeBlock(const UGEntityOperation& other,
                                                                          const PropertyMergeBlock& block) {
  if (!UGEntityOperationTypeIsValid(type_) || !UGEntityOperationTypeIsValid(other.type())) return;
  auto mergeValues = [&] {
    // Merging an operation into itself reads the dictionary it writes.
    const UGPropertyDictionary snapshot = &other == this ? other.properties() : UGPropertyDictionary();
    const UGPropertyDictionary& theirs = &other == this ? snapshot : other.properties();
    for (const auto& [name, value] : theirs) {
      auto mine = properties_.find(name);
      if (mine == properties_.end()) {
        properties_.emplace(name, value);
      } else if (block) {
        // The block gets copies, so it may touch the receiver without pulling values from under itself.
        const Value held = mine->second;
        std::optional<Value> kept = block(name, held, value);
        if (kept) {
          properties_.insert_or_assign(name, std::move(*kept));
        } else {
          properties_.erase(name);
        }
      }
    }
  };
  const UGEntityOperationType theirs = other.type();
  switch (type_) {
    case UGEntityOperationTypeCreate:
    case UGEntityOperationTypeUpdate:
      if (theirs == UGEntityOperationTypeDelete) {
        type_ = UGEntityOperationTypeDelete;
        properties_.clear();
      } else if (theirs != UGEntityOperationTypeIdentity) {
        if (theirs == UGEntityOperationTypeCreate) type_ = UGEntityOperationTypeCreate;
        mergeValues();
      }
      break;
    case UGEntityOperationTypeDelete:
      properties_.clear();
      break;
    default:  // IDENTITY
      if (theirs == UGEntityOperationTypeCreate || theirs == UGEntityOperationTypeUpdate) {
        if (&other != this) properties_ = other.properties();
      }
      type_ = theirs;
      break;
  }
}

void UGMutableEntityOperation::invertAcceptingLossyUpdateAndDeleteInversion() {
  switch (type_) {
    case UGEntityOperationTypeCreate:
      type_ = UGEntityOperationTypeDelete;
      properties_.clear();
      relationTransforms_.clear();
      break;
    case UGEntityOperationTypeUpdate:
      properties_.clear();
      relationTransforms_.clear();
      break;
    case UGEntityOperationTypeDelete:
      type_ = UGEntityOperationTypeCreate;
      break;
    default:
      break;
  }
}

void UGMutableEntityOperation::changeOperationType(UGEntityOperationType type) {
  type_ = type;
  if (!acceptsContent(type)) {
    properties_.clear();
    relationTransforms_.clear();
  }
}

}  // namespace loomwork
