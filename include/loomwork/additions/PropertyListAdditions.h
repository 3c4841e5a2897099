// Extended property lists: Values that may also hold nulls and sets at any
// depth, translated to and from plain property lists so that the binary and
// XML writers can store them.
//
// A null is stored as the string kExtendedPropertyListNullMarker; a set as a
// one-entry dictionary whose key is kExtendedPropertyListSetMarker and whose
// value is the array of the set's members. Both literals are part of every
// stored file and never change. A stored string equal to the null marker
// reads back as null; that collision is accepted.
//
// Every function here is pure and may be called from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "loomwork/platform/PropertyList.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

inline constexpr std::string_view kExtendedPropertyListNullMarker = "com.tarnwick.NSPropertyListSerialization.NSNull";
inline constexpr std::string_view kExtendedPropertyListSetMarker = "com.tarnwick.NSPropertyListSerialization.NSSet";

// The storable form of an extended value: _translatePropertyListForward with
// forward = true.
Value propertyListFromExtendedPropertyList(const Value& extendedPropertyList);

// The extended value of a stored one: _translatePropertyListForward with
// forward = false.
Value extendedPropertyListFromPropertyList(const Value& propertyList);

// Translates recursively. Forward: null becomes the null marker, a set
// becomes {set marker: [members in the set's order]}. Backward: the null
// marker becomes null, a dictionary holding the set-marker key becomes the set
// of that entry's members (its other entries are dropped). Arrays and
// dictionary values are translated in the same direction; dictionary keys
// never are. Everything else passes through. A container in which nothing
// changes is returned as it is rather than copied. A set-marker entry whose
// value is not an array is not a set: that dictionary is translated as an
// ordinary one.
Value _translatePropertyListForward(const Value& propertyList, bool forward);

// Translates forward and writes the result in `format`. On failure (a value
// the format cannot hold, such as an Object, a non-string dictionary key or
// nesting deeper than kPropertyListMaximumDepth) returns absent and, when
// `errorDescription` is not null, stores the writer's error text there.
std::optional<Data> dataFromExtendedPropertyListFormatErrorDescription(const Value& extendedPropertyList,
                                                                       PropertyListFormat format,
                                                                       std::string* errorDescription);

// Reads either format (detected from the bytes) and translates backward.
// `*format`, when not null, receives the format found. Unreadable bytes give
// absent and, when `errorDescription` is not null, the reader's error text.
// `mutabilityOption` is accepted and has no effect (Values are immutable).
std::optional<Value> extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
    std::span<const uint8_t> data, PropertyListMutabilityOption mutabilityOption, PropertyListFormat* format,
    std::string* errorDescription);

}  // namespace loomwork
#pragma GCC visibility pop
