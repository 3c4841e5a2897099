#include "loomwork/sync/OTStateSpaceIdentifier.h"

#include <algorithm>
#include <functional>
#include <string_view>

#include "loomwork/platform/UUID.h"
#include "loomwork/sync/LWIsEqual.h"

namespace loomwork {

namespace {

// The part of a full identifier made of exactly one server and one client
// identifier: index 0 or 1, absent when the text has another shape or the
// part is empty.
std::optional<std::string> part(const std::optional<std::string>& fullIdentifier, int index) {
  if (!fullIdentifier) return std::nullopt;
  std::string_view text = *fullIdentifier;
  size_t dash = text.find('-');
  if (dash == std::string_view::npos || text.find('-', dash + 1) != std::string_view::npos) return std::nullopt;
  std::string_view chosen = index == 0 ? text.substr(0, dash) : text.substr(dash + 1);
  if (chosen.empty()) return std::nullopt;
  return std::string(chosen);
}

}  // namespace

std::string OTStateSpaceIdentifier::randomDeviceIdentifier() {
  std::string identifier = newUUIDString();
  identifier.erase(std::remove(identifier.begin(), identifier.end(), '-'), identifier.end());
  return identifier;
}

Ref<OTStateSpaceIdentifier> OTStateSpaceIdentifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier(
    const std::optional<std::string>& serverIdentifier, const std::optional<std::string>& clientIdentifier) {
  if (!serverIdentifier && !clientIdentifier) return make<OTStateSpaceIdentifier>();
  return make<OTStateSpaceIdentifier>(serverIdentifier.value_or("") + "-" + clientIdentifier.value_or(""));
}

Ref<OTStateSpaceIdentifier> OTStateSpaceIdentifier::stateSpaceIdentifierWithLocalIdentifierRemoteIdentifierType(
    const std::optional<std::string>& localIdentifier, const std::optional<std::string>& remoteIdentifier,
    uint64_t type) {
  if (type == 0) return stateSpaceIdentifierWithServerIdentifierClientIdentifier(localIdentifier, remoteIdentifier);
  return stateSpaceIdentifierWithServerIdentifierClientIdentifier(remoteIdentifier, localIdentifier);
}

std::optional<std::string> OTStateSpaceIdentifier::serverIdentifier() const { return part(fullIdentifier_, 0); }

std::optional<std::string> OTStateSpaceIdentifier::clientIdentifier() const { return part(fullIdentifier_, 1); }

std::optional<std::string> OTStateSpaceIdentifier::localDeviceIdentifierForType(uint64_t type) const {
  return type == 0 ? serverIdentifier() : clientIdentifier();
}

std::optional<std::string> OTStateSpaceIdentifier::remoteDeviceIdentifierForType(uint64_t type) const {
  return type == 0 ? clientIdentifier() : serverIdentifier();
}

bool OTStateSpaceIdentifier::isEqual(const Object& other) const {
  const auto* identifier = dynamic_cast<const OTStateSpaceIdentifier*>(&other);
  return identifier && LWIsEqual(fullIdentifier_, identifier->fullIdentifier_);
}

size_t OTStateSpaceIdentifier::hash() const {
  return fullIdentifier_ ? std::hash<std::string_view>()(*fullIdentifier_) : 0;
}

std::string OTStateSpaceIdentifier::description() const { return fullIdentifier_.value_or("nil"); }

}  // namespace loomwork
