#include "loomwork/additions/PropertyListAdditions.h"

#include <utility>

namespace loomwork {

namespace {

const Value& nullMarker() {
  static const Value marker(kExtendedPropertyListNullMarker);
  return marker;
}

const Value& setMarker() {
  static const Value marker(kExtendedPropertyListSetMarker);
  return marker;
}

bool isNullMarker(const Value& v) {
  auto s = v.tryString();
  return s && *s == kExtendedPropertyListNullMarker;
}

Value translateDictionary(const Value& v, const Dictionary& d, bool forward) {
  if (!forward) {
    static const size_t markerHash = setMarker().hash();
    auto marked = d.find(setMarker(), markerHash);
    if (marked != d.end() && marked->second.isArray()) {
      Set members;
      const Array& array = marked->second.array();
      members.reserve(array.size());
      for (const Value& member : array) members.insert(_translatePropertyListForward(member, false));
      return Value(std::move(members));
    }
  }
  // Copy only once an entry actually changes; most stored dictionaries hold
  // neither nulls nor sets and are handed back untouched.
  std::optional<Dictionary> out;
  for (auto it = d.begin(); it != d.end(); ++it) {
    Value translated = _translatePropertyListForward(it->second, forward);
    if (!out) {
      if (translated.isIdenticalTo(it->second)) continue;
      out.emplace();
      out->reserve(d.size());
      for (auto earlier = d.begin(); earlier != it; ++earlier) out->insert(*earlier);
    }
    out->insert_or_assign(it->first, std::move(translated));
  }
  return out ? Value(std::move(*out)) : v;
}

Value translateArray(const Value& v, const Array& a, bool forward) {
  std::optional<Array> out;
  for (size_t i = 0; i < a.size(); ++i) {
    Value translated = _translatePropertyListForward(a[i], forward);
    if (!out) {
      if (translated.isIdenticalTo(a[i])) continue;
      out.emplace();
      out->reserve(a.size());
      out->assign(a.begin(), a.begin() + static_cast<std::ptrdiff_t>(i));
    }
    out->push_back(std::move(translated));
  }
  return out ? Value(std::move(*out)) : v;
}

}  // namespace

Value _translatePropertyListForward(const Value& propertyList, bool forward) {
  switch (propertyList.kind()) {
    case Value::Kind::Dictionary:
      return translateDictionary(propertyList, propertyList.dictionary(), forward);
    case Value::Kind::Set:
      if (forward) {
        Array members;
        members.reserve(propertyList.set().size());
        for (const Value& member : propertyList.set()) members.push_back(_translatePropertyListForward(member, true));
        Dictionary marker;
        marker.insert_or_assign(setMarker(), Value(std::move(members)));
        return Value(std::move(marker));
      }
      return propertyList;
    case Value::Kind::Array:
      return translateArray(propertyList, propertyList.array(), forward);
    case Value::Kind::Null:
      return forward ? nullMarker() : propertyList;
    case Value::Kind::String:
      return !forward && isNullMarker(propertyList) ? Value::null() : propertyList;
    default:
      return propertyList;
  }
}

Value propertyListFromExtendedPropertyList(const Value& extendedPropertyList) {
  return _translatePropertyListForward(extendedPropertyList, true);
}

Value extendedPropertyListFromPropertyList(const Value& propertyList) {
  return _translatePropertyListForward(propertyList, false);
}

std::optional<Data> dataFromExtendedPropertyListFormatErrorDescription(const Value& extendedPropertyList,
                                                                       PropertyListFormat format,
                                                                       std::string* errorDescription) {
  std::optional<Data> data;
  {
    // The translated copy lives only as long as the writing takes.
    Value propertyList = _translatePropertyListForward(extendedPropertyList, true);
    data = dataFromPropertyList(propertyList, format, errorDescription);
  }
  return data;
}

std::optional<Value> extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(
    std::span<const uint8_t> data, PropertyListMutabilityOption mutabilityOption, PropertyListFormat* format,
    std::string* errorDescription) {
  std::optional<Value> propertyList = propertyListFromData(data, mutabilityOption, format, errorDescription);
  if (!propertyList) return std::nullopt;
  return _translatePropertyListForward(*propertyList, false);
}

}  // namespace loomwork
