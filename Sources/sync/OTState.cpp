#include "loomwork/sync/OTState.h"

#include <fmt/format.h>

#include "loomwork/sync/LWIsEqual.h"

namespace loomwork {

namespace {

// Only true integers count: a real would be truncated and a boolean read as
// 0 or 1, and neither is what a peer that wrote a state meant.
std::optional<int64_t> integerEntry(const Value& plist, std::string_view key) {
  std::optional<Value> entry = plist[key];
  if (!entry || !entry->isInteger()) return std::nullopt;
  return entry->integerValue();
}

}  // namespace

std::optional<OTState> OTState::initWithExtendedPropertyList(const Value& plist) {
  if (!plist.isDictionary()) return std::nullopt;
  std::optional<int64_t> server = integerEntry(plist, kServerIndex);
  std::optional<int64_t> client = integerEntry(plist, kClientIndex);
  if (!server || !client) return std::nullopt;
  return OTState(*server, *client);
}

std::string OTState::description() const { return fmt::format("<OTState: s:{} c:{} >", serverIndex_, clientIndex_); }

Value OTState::extendedPropertyListRepresentation() const {
  return Value::dictionary({{Value(kServerIndex), Value(serverIndex_)}, {Value(kClientIndex), Value(clientIndex_)}});
}

bool LWIsEqual(const std::optional<Value>& a, const std::optional<Value>& b) {
  if (!a && !b) return true;
  if (!a || !b) return false;
  if (a->isIdenticalTo(*b)) return true;
  if (a->isNull() || b->isNull()) return false;
  return *a == *b;
}

bool LWIsEqual(const Object* a, const Object* b) {
  if (a == b) return true;
  if (!a || !b) return false;
  return a->isEqual(*b);
}

bool LWIsEqual(const std::optional<OTState>& a, const std::optional<OTState>& b) {
  if (!a || !b) return !a && !b;
  return *a == *b;
}

bool LWIsEqual(const std::optional<std::string>& a, const std::optional<std::string>& b) {
  if (!a || !b) return !a && !b;
  return *a == *b;
}

}  // namespace loomwork
