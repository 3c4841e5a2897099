#include "loomwork/sync/OTPathComponent.h"

#include <fmt/format.h>

#include "loomwork/additions/PropertyListAdditions.h"
#include "loomwork/platform/Exception.h"
#include "loomwork/sync/LWIsEqual.h"

namespace loomwork {

namespace {

constexpr size_t kDescriptionIdentifierLength = 5;

// The longest prefix of `text` that is at most `units` UTF-16 code units long
// (a character outside the basic plane is two units and is not split), and the
// length of the whole text in units. A byte that does not start a well-formed
// UTF-8 sequence counts as one unit.
std::pair<std::string_view, size_t> utf16Prefix(std::string_view text, size_t units) {
  size_t counted = 0;
  size_t prefixBytes = 0;
  bool prefixDone = false;
  for (size_t i = 0; i < text.size();) {
    auto byte = static_cast<unsigned char>(text[i]);
    size_t length = byte < 0x80 ? 1 : byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    if (i + length > text.size()) length = 1;
    size_t width = length == 4 ? 2 : 1;
    if (!prefixDone) {
      if (counted + width <= units) {
        prefixBytes = i + length;
      } else {
        prefixDone = true;
      }
    }
    counted += width;
    i += length;
  }
  return {text.substr(0, prefixBytes), counted};
}

int64_t serverIndexOr0(const std::optional<OTState>& state) { return state ? state->serverIndex() : 0; }
int64_t clientIndexOr0(const std::optional<OTState>& state) { return state ? state->clientIndex() : 0; }

[[noreturn]] void throwAbsent(std::string_view key) {
  throw Exception(ExceptionKind::InvalidArgument,
                  fmt::format("OTPathComponent::extendedPropertyListRepresentation: attempt to insert an absent value "
                              "for key \"{}\"",
                              key));
}

}  // namespace

Ref<OTPathComponent> OTPathComponent::initWithExtendedPropertyList(const Value& plist) {
  if (!plist.isDictionary()) return nullptr;
  std::optional<Value> version = plist[kVersion];
  if (!version || !version->isNumber() || version->integerValue() != OTPathComponentPropertyListSerializationVersion)
    return nullptr;
  std::optional<Value> identifier = plist[kStateSpaceIdentifier];
  std::optional<Value> from = plist[kFromState];
  std::optional<Value> to = plist[kToState];
  std::optional<Value> operation = plist[kOperation];
  if (!identifier || !from || !to || !operation || !identifier->isString()) return nullptr;
  Ref<UGMutableTransaction> transaction =
      UGMutableTransaction::initWithExtendedPropertyListContainingMutableOperations(*operation, true);
  if (!transaction) return nullptr;
  return make<OTPathComponent>(
      OTStateSpaceIdentifier::stateSpaceIdentifierWithFullIdentifier(std::string(identifier->string())),
      std::move(transaction), OTState::initWithExtendedPropertyList(*from), OTState::initWithExtendedPropertyList(*to));
}

Ref<OTPathComponent> OTPathComponent::initWithData(std::span<const uint8_t> data) {
  std::optional<Value> plist = extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
      data, PropertyListMutabilityOption::Immutable, nullptr, nullptr);
  if (!plist) return nullptr;
  return initWithExtendedPropertyList(*plist);
}

bool OTPathComponent::isSeed() const { return fromState_ && fromState_->isEqual(OTState(0, 0)); }

std::string OTPathComponent::uniqueIdentifier() const {
  std::string_view identifier = "nil";
  if (stateSpaceIdentifier_ && stateSpaceIdentifier_->fullIdentifier())
    identifier = *stateSpaceIdentifier_->fullIdentifier();
  return fmt::format("{}-{}", identifier, pathDescription());
}

std::string OTPathComponent::pathDescription() const {
  return fmt::format("({},{})->({},{})", serverIndexOr0(fromState_), clientIndexOr0(fromState_),
                     serverIndexOr0(toState_), clientIndexOr0(toState_));
}

std::string OTPathComponent::description() const {
  std::string_view identifier = "nil";
  if (stateSpaceIdentifier_ && stateSpaceIdentifier_->fullIdentifier()) {
    auto [prefix, length] = utf16Prefix(*stateSpaceIdentifier_->fullIdentifier(), kDescriptionIdentifierLength);
    if (length < kDescriptionIdentifierLength)
      throw Exception(ExceptionKind::OutOfRange,
                      fmt::format("OTPathComponent::description: index {} beyond the end of the state-space "
                                  "identifier of length {}",
                                  kDescriptionIdentifierLength, length));
    identifier = prefix;
  }
  return fmt::format("<OTPathComponent: stateSpaceId:{} fromState:{} toState:{} operation:{}>", identifier,
                     fromState_ ? fromState_->description() : "nil", toState_ ? toState_->description() : "nil",
                     operation_ ? operation_->description() : "nil");
}

Ref<OTPathComponent> OTPathComponent::copy() const {
  return make<OTPathComponent>(stateSpaceIdentifier_, operation_ ? operation_->mutableCopy() : nullptr, fromState_,
                               toState_);
}

bool OTPathComponent::hasEqualMetadata(const OTPathComponent& other) const {
  return LWIsEqual(fromState_, other.fromState_) && LWIsEqual(toState_, other.toState_) &&
         LWIsEqual(stateSpaceIdentifier_, other.stateSpaceIdentifier_);
}

void OTPathComponent::appendPathComponent(const OTPathComponent& next) {
  // An absent identifier or state on this side never matches, as a message to
  // nothing would answer no.
  if (!stateSpaceIdentifier_ || !next.stateSpaceIdentifier_ ||
      !stateSpaceIdentifier_->isEqual(*next.stateSpaceIdentifier_))
    return;
  if (!toState_ || !toState_->isEqual(next.fromState_)) return;
  toState_ = next.toState_;
  if (operation_ && next.operation_) operation_->appendTransaction(*next.operation_);
}

bool OTPathComponent::reduceByPathComponent(const OTPathComponent& applied) {
  if (!stateSpaceIdentifier_ || !applied.stateSpaceIdentifier_ ||
      !stateSpaceIdentifier_->isEqual(*applied.stateSpaceIdentifier_))
    return false;
  if (!fromState_ || !fromState_->isEqual(applied.fromState_)) return false;
  // The start moves before the reduction is known to be exact, and stays moved
  // when it is not: callers take the component as leading on from `applied`
  // either way.
  fromState_ = applied.toState_;
  if (!operation_) return false;
  return operation_->reduceByTransaction(applied.operation_.get());
}

Value OTPathComponent::extendedPropertyListRepresentation() const {
  if (!stateSpaceIdentifier_ || !stateSpaceIdentifier_->fullIdentifier()) throwAbsent(kStateSpaceIdentifier);
  if (!fromState_) throwAbsent(kFromState);
  if (!toState_) throwAbsent(kToState);
  if (!operation_) throwAbsent(kOperation);
  return Value::dictionary({
      {Value(kVersion), Value(OTPathComponentPropertyListSerializationVersion)},
      {Value(kStateSpaceIdentifier), Value(*stateSpaceIdentifier_->fullIdentifier())},
      {Value(kFromState), fromState_->extendedPropertyListRepresentation()},
      {Value(kToState), toState_->extendedPropertyListRepresentation()},
      {Value(kOperation), operation_->extendedPropertyListRepresentation()},
  });
}

std::optional<Data> OTPathComponent::data() const {
  return dataFromExtendedPropertyListFormatErrorDescription(extendedPropertyListRepresentation(),
                                                            PropertyListFormat::Binary, nullptr);
}

}  // namespace loomwork
