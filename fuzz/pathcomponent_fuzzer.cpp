// Path components from another device: whatever the bytes, reading gives a
// component or nothing, and a component that reads is written and read again
// to the same property list.
#include <cstddef>
#include <cstdint>
#include <span>

#include "loomwork/platform/Exception.h"
#include "loomwork/sync.h"

using namespace loomwork;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Ref<OTPathComponent> component = OTPathComponent::initWithData(std::span<const uint8_t>(data, size));
  if (!component) return 0;
  (void)component->uniqueIdentifier();
  (void)component->isSeed();
  Ref<OTPathComponent> copy = component->copy();
  if (!copy->hasEqualMetadata(*component)) __builtin_trap();
  try {
    (void)component->description();
  } catch (const Exception& e) {
    // Only a full identifier shorter than five characters may refuse.
    if (e.kind() != ExceptionKind::OutOfRange) __builtin_trap();
  }
  try {
    (void)component->extendedPropertyListRepresentation();
  } catch (const Exception& e) {
    // A state that did not read is absent, and an absent state cannot be written.
    if (e.kind() != ExceptionKind::InvalidArgument || (component->fromState() && component->toState()))
      __builtin_trap();
    return 0;
  }
  std::optional<Data> bytes = component->data();
  if (!bytes) __builtin_trap();
  Ref<OTPathComponent> again = OTPathComponent::initWithData(*bytes);
  if (!again || !again->hasEqualMetadata(*component)) __builtin_trap();
  return 0;
}
