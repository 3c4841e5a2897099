// The property-list reader, the front door for bytes from another device:
// whatever the input (binary or XML), it returns a value or nothing, and a
// value it returns can be written in the binary form and read back.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "loomwork/additions/PropertyListAdditions.h"
#include "loomwork/platform/PropertyList.h"

using namespace loomwork;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  PropertyListFormat format = PropertyListFormat::XML;
  std::string error;
  std::optional<Value> plist = propertyListFromData(bytes, PropertyListMutabilityOption::Immutable, &format, &error);
  if (!plist) {
    if (error.empty()) __builtin_trap();
    return 0;
  }
  (void)plist->description();
  (void)extendedPropertyListFromPropertyList(*plist);
  std::optional<Data> written = dataFromPropertyList(*plist, PropertyListFormat::Binary, &error);
  if (!written) __builtin_trap();
  std::optional<Value> again = propertyListFromData(*written);
  if (!again || again->count() != plist->count() || again->kind() != plist->kind()) __builtin_trap();
  return 0;
}
