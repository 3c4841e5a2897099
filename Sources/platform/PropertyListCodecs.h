// The two property-list codecs behind dataFromPropertyList and
// propertyListFromData; internal to the library.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "loomwork/platform/PropertyList.h"

namespace loomwork {

// The two codecs, one per format. They report a
// failure by returning false or absent with `error` set.
namespace plist_detail {
bool writeBinary(const Value& plist, Data& out, std::string& error);
bool writeXML(const Value& plist, Data& out, std::string& error);
std::optional<Value> readBinary(std::span<const uint8_t> data, std::string& error);
std::optional<Value> readXML(std::span<const uint8_t> data, std::string& error);
// Why a value of `kind` (null, set, object) cannot be written in either format.
const char* unwritableKindReason(Value::Kind kind);
}  // namespace plist_detail

}  // namespace loomwork
