#include "platform/PropertyListCodecs.h"

#include <cstring>

namespace loomwork {

const char* plist_detail::unwritableKindReason(Value::Kind kind) {
  switch (kind) {
    case Value::Kind::Null:
      return "Property list cannot hold a null value";
    case Value::Kind::Set:
      return "Property list cannot hold a set";
    case Value::Kind::Object:
      return "Property list cannot hold an object reference";
    default:
      return "Property list cannot hold a value of unknown kind";
  }
}

std::optional<Data> dataFromPropertyList(const Value& plist, PropertyListFormat format, std::string* errorDescription) {
  Data out;
  std::string error;
  bool written = false;
  switch (format) {
    case PropertyListFormat::Binary:
      written = plist_detail::writeBinary(plist, out, error);
      break;
    case PropertyListFormat::XML:
      written = plist_detail::writeXML(plist, out, error);
      break;
    default:
      error = "Property list format is not supported";
      break;
  }
  if (!written) {
    if (errorDescription != nullptr) *errorDescription = std::move(error);
    return std::nullopt;
  }
  return out;
}

namespace {

bool startsWithXML(std::span<const uint8_t> data) {
  size_t i = 0;
  // A byte-order mark: UTF-8, or UTF-16 in either order (expat decodes those).
  if (data.size() >= 2 && ((data[0] == 0xFE && data[1] == 0xFF) || (data[0] == 0xFF && data[1] == 0xFE))) return true;
  if (data.size() >= 3 && data[0] == 0xEF && data[1] == 0xBB && data[2] == 0xBF) i = 3;
  while (i < data.size() && (data[i] == ' ' || data[i] == '\t' || data[i] == '\n' || data[i] == '\r')) ++i;
  return i < data.size() && data[i] == '<';
}

}  // namespace

std::optional<Value> propertyListFromData(std::span<const uint8_t> data, PropertyListMutabilityOption,
                                          PropertyListFormat* format, std::string* errorDescription) {
  std::string error;
  std::optional<Value> result;
  PropertyListFormat found = PropertyListFormat::Binary;
  if (data.empty()) {
    error = "Property list data is empty";
  } else if (data.size() >= 6 && std::memcmp(data.data(), "bplist", 6) == 0) {
    result = plist_detail::readBinary(data, error);
  } else if (startsWithXML(data)) {
    found = PropertyListFormat::XML;
    result = plist_detail::readXML(data, error);
  } else {
    error = "Property list data is in an unknown format";
  }
  if (!result) {
    if (errorDescription != nullptr) *errorDescription = std::move(error);
    return std::nullopt;
  }
  if (format != nullptr) *format = found;
  return result;
}

}  // namespace loomwork
