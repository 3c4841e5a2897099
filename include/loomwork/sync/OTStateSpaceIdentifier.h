// OTStateSpaceIdentifier: the name of the state space of one server paired
// with one client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Names the state space of one pairing: the server's device identifier and the
// client's, joined by a single "-" into the full identifier. Device
// identifiers therefore contain no "-" (randomDeviceIdentifier() makes such
// ones). The full identifier may be absent. Where a `type` is asked for, 0 is
// the server's side and 1 the client's.
//
// Components share one identifier object by reference. Equality is that of
// the full identifiers (two absent ones are equal) and hash() is the full
// identifier's, so identifiers work as keys. Used by one thread at a time.
class OTStateSpaceIdentifier : public Object {
 public:
  // init: no full identifier.
  OTStateSpaceIdentifier() = default;
  // initWithFullIdentifier:
  explicit OTStateSpaceIdentifier(std::optional<std::string> fullIdentifier)
      : fullIdentifier_(std::move(fullIdentifier)) {}

  // A fresh random UUID in upper-case hexadecimal with the "-" removed: 32
  // characters. Safe to call from any thread.
  static std::string randomDeviceIdentifier();

  static Ref<OTStateSpaceIdentifier> stateSpaceIdentifierWithFullIdentifier(std::optional<std::string> fullIdentifier) {
    return make<OTStateSpaceIdentifier>(std::move(fullIdentifier));
  }
  // server + "-" + client; an absent part counts as the empty string (and reads
  // back as absent). Both absent give an absent full identifier.
  static Ref<OTStateSpaceIdentifier> stateSpaceIdentifierWithServerIdentifierClientIdentifier(
      const std::optional<std::string>& serverIdentifier, const std::optional<std::string>& clientIdentifier);
  // Type 0 (server): server = local, client = remote. Type 1 (client): server =
  // remote, client = local. Any other type is taken as the client's.
  static Ref<OTStateSpaceIdentifier> stateSpaceIdentifierWithLocalIdentifierRemoteIdentifierType(
      const std::optional<std::string>& localIdentifier, const std::optional<std::string>& remoteIdentifier,
      uint64_t type);

  const std::optional<std::string>& fullIdentifier() const { return fullIdentifier_; }
  void setFullIdentifier(std::optional<std::string> fullIdentifier) { fullIdentifier_ = std::move(fullIdentifier); }

  // The full identifier split at every "-": with exactly two parts, the first
  // (server) or the second (client) when it is not empty; otherwise absent.
  std::optional<std::string> serverIdentifier() const;
  std::optional<std::string> clientIdentifier() const;
  // Type 0: serverIdentifier() (local) and clientIdentifier() (remote); type 1
  // the other way round. Any other type is taken as the client's.
  std::optional<std::string> localDeviceIdentifierForType(uint64_t type) const;
  std::optional<std::string> remoteDeviceIdentifierForType(uint64_t type) const;

  // LWIsEqual of the full identifiers; false for an object of another class.
  bool isEqual(const Object& other) const override;
  // The full identifier's string hash (0 when absent).
  size_t hash() const override;
  // The full identifier itself; "nil" when it is absent.
  std::string description() const override;

 private:
  std::optional<std::string> fullIdentifier_;
};

}  // namespace loomwork
#pragma GCC visibility pop
