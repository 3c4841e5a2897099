// Property lists: the writer and reader of the binary ("bplist00") and XML
// property-list formats, for Value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// The two serialised forms of a property list.
enum class PropertyListFormat : uint8_t {
  XML = 1,     // XML 1.0 with the standard plist DOCTYPE, UTF-8
  Binary = 2,  // "bplist00"
};

// How mutable the containers of a read property list should be. Values never
// change once built, so every option yields the same immutable Value; the
// option is accepted so that callers can state what they asked for, and has
// no other effect.
enum class PropertyListMutabilityOption : uint8_t {
  Immutable = 0,
  MutableContainers = 1,
  MutableContainersAndLeaves = 2,
};

// The deepest nesting of arrays and dictionaries that the writer produces and
// the readers accept. A scalar at the top is depth 0, a top-level container
// depth 1.
inline constexpr size_t kPropertyListMaximumDepth = 512;

// Serialises `plist` in `format`. A property list holds strings, integers,
// reals, booleans, dates, data, arrays and dictionaries with string keys.
// Anything else (null, a set, an Object, a non-string key, invalid UTF-8,
// nesting deeper than kPropertyListMaximumDepth, and in XML the control
// characters XML cannot carry) makes it return absent and, when
// `errorDescription` is not null, store the reason there.
std::optional<Data> dataFromPropertyList(const Value& plist, PropertyListFormat format,
                                         std::string* errorDescription = nullptr);

// Parses a property list in either format; the format is detected from the
// bytes. On success `*format` (when not null) receives the format found. Any
// malformed, truncated, hostile or unsupported input yields absent and, when
// `errorDescription` is not null, the reason; `*format` is then left alone.
// The reader is linear in the input, never reads outside `data` and recurses
// at most kPropertyListMaximumDepth levels. Safe to call from several threads.
std::optional<Value> propertyListFromData(
    std::span<const uint8_t> data,
    PropertyListMutabilityOption mutabilityOption = PropertyListMutabilityOption::Immutable,
    PropertyListFormat* format = nullptr, std::string* errorDescription = nullptr);

}  // namespace loomwork
#pragma GCC visibility pop
