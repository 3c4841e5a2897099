// OTPathComponent: an edge of the state space, a transaction that leads from
// one state to another, and its property-list and byte forms.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "loomwork/graph/UGTransaction.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"
#include "loomwork/sync/OTState.h"
#include "loomwork/sync/OTStateSpaceIdentifier.h"

#pragma GCC visibility push(default)
namespace loomwork {

// The keys of a path component's property-list form, and its version.
inline constexpr std::string_view kVersion = "v";
inline constexpr std::string_view kStateSpaceIdentifier = "id";
inline constexpr std::string_view kFromState = "f";
inline constexpr std::string_view kToState = "t";
inline constexpr std::string_view kOperation = "op";
// The only version written and accepted.
inline constexpr int64_t OTPathComponentPropertyListSerializationVersion = 1;

// One edge of a state space: `operation` leads from `fromState` to `toState`.
//
// The component shares its state-space identifier with others and owns its
// operation, which appendPathComponent() and reduceByPathComponent() change in
// place; copy() gives a component with an operation of its own. Any field may
// be absent: a component read from another device may lack a state (see
// initWithExtendedPropertyList()), and code that takes components from
// outside checks the fields it needs. Used by one thread at a time.
class OTPathComponent : public Object {
 public:
  OTPathComponent() = default;
  // initWithStateSpaceIdentifier:operation:fromState:toState: the component
  // takes the operation object as it is (not a copy).
  OTPathComponent(Ref<OTStateSpaceIdentifier> stateSpaceIdentifier, Ref<UGMutableTransaction> operation,
                  std::optional<OTState> fromState, std::optional<OTState> toState)
      : stateSpaceIdentifier_(std::move(stateSpaceIdentifier)),
        operation_(std::move(operation)),
        fromState_(fromState),
        toState_(toState) {}

  // Reads the five-entry dictionary of extendedPropertyListRepresentation().
  // Absent unless "v" is a number whose integer value is 1, "id" is a string,
  // "f" and "t" are present, and "op" reads as a transaction (its entity
  // operations made mutable). A state that does not read (not a dictionary
  // with integer "s" and "c") leaves that state absent; the component is still
  // made. Extra entries are ignored.
  static Ref<OTPathComponent> initWithExtendedPropertyList(const Value& plist);
  // Parses the bytes as an extended property list and reads it as above.
  // Absent when the bytes do not parse; never reads outside them.
  static Ref<OTPathComponent> initWithData(std::span<const uint8_t> data);

  const Ref<OTStateSpaceIdentifier>& stateSpaceIdentifier() const { return stateSpaceIdentifier_; }
  const Ref<UGMutableTransaction>& operation() const { return operation_; }
  const std::optional<OTState>& fromState() const { return fromState_; }
  const std::optional<OTState>& toState() const { return toState_; }
  void setStateSpaceIdentifier(Ref<OTStateSpaceIdentifier> identifier) {
    stateSpaceIdentifier_ = std::move(identifier);
  }
  void setOperation(Ref<UGMutableTransaction> operation) { operation_ = std::move(operation); }
  void setFromState(std::optional<OTState> state) { fromState_ = state; }
  void setToState(std::optional<OTState> state) { toState_ = state; }

  // True exactly when fromState is (0,0): the component carries the whole
  // content from the empty origin. False when fromState is absent.
  bool isSeed() const;
  // "<full identifier>-(fs,fc)->(ts,tc)", for example "A-B-(1,2)->(1,3)". An
  // absent full identifier prints as "nil", an absent state's indexes as 0.
  std::string uniqueIdentifier() const;
  // "(fs,fc)->(ts,tc)", absent states' indexes as 0.
  std::string pathDescription() const;
  // "<OTPathComponent: stateSpaceId:<first five characters of the full
  // identifier> fromState:<state> toState:<state> operation:<transaction>>";
  // absent parts print as "nil". Throws Exception (out of range) when the full
  // identifier is shorter than five characters (UTF-16 code units).
  std::string description() const override;

  // A new component with the same identifier object and states and the
  // operation's mutableCopy(), so the copy's operation changes independently
  // (entity operations are copied too when the operation holds mutable ones,
  // as every operation read from a property list does).
  Ref<OTPathComponent> copy() const;

  // LWIsEqual of the fromStates, the toStates and the state-space identifiers;
  // the operations are not compared.
  bool hasEqualMetadata(const OTPathComponent& other) const;

  // Joins `next`, the edge that starts where this one ends, onto this one: the
  // toState becomes next's and next's operation is appended to this
  // operation. Does nothing when the identifiers differ or the states do not
  // meet. `next` is not changed.
  void appendPathComponent(const OTPathComponent& next);
  // Turns this component, which starts where `applied` starts, into the edge
  // that leads on from applied's toState: fromState becomes applied's toState,
  // then the operation is reduced by applied's operation and the reduction's
  // result is returned (true: nothing was lost). The fromState moves even when
  // the reduction reports a loss. When the identifiers differ or the
  // fromStates are not equal, returns false and changes nothing.
  bool reduceByPathComponent(const OTPathComponent& applied);

  // {"v": 1, "id": full identifier, "f": fromState, "t": toState, "op": the
  // operation's extended property list}. Throws Exception (invalid argument)
  // when the identifier, its full identifier, a state or the operation is
  // absent, or (from the operation) when an entity operation has no name.
  Value extendedPropertyListRepresentation() const;
  // The dictionary above as a binary property list, with nulls and sets kept
  // through the extended property-list markers. Throws as above; absent when
  // the writer refuses a value (an Object among the properties, nesting
  // deeper than kPropertyListMaximumDepth).
  std::optional<Data> data() const;

 private:
  Ref<OTStateSpaceIdentifier> stateSpaceIdentifier_;
  Ref<UGMutableTransaction> operation_;
  std::optional<OTState> fromState_;
  std::optional<OTState> toState_;
};

}  // namespace loomwork
#pragma GCC visibility pop
