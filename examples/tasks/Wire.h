// The messages two loomwork-tasks devices exchange over TCP. Each is framed
// as a 4-byte big-endian length, then a kind byte, then length - 1 bytes of
// payload. The reader never trusts the length: one above kMaxFrameLength, a
// zero length or an unknown kind is an error, and payload bytes are only
// stored as they arrive (a huge announced length allocates nothing).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "loomwork/sync/OTState.h"

namespace loomwork::tasks {

enum class FrameKind : uint8_t {
  Hello = 1,           // client: "<device id> <pairing or ->"; server: "<pairing>"
  Component = 2,       // <u16 identifier length><identifier><component bytes>
  Acknowledgement = 3, // the component's unique identifier
  Claim = 4,           // two big-endian int64: server index, client index
  Seed = 5,            // a replacement seed's component bytes
};

// Large enough for a seed of a few hundred thousand tasks.
inline constexpr size_t kMaxFrameLength = size_t{256} << 20;

struct Frame {
  FrameKind kind;
  std::vector<uint8_t> payload;
};

std::vector<uint8_t> encodeFrame(FrameKind kind, std::span<const uint8_t> payload);
std::vector<uint8_t> encodeFrame(FrameKind kind, const std::string& payload);
std::vector<uint8_t> encodeComponent(const std::string& uniqueIdentifier, std::span<const uint8_t> data);
std::vector<uint8_t> encodeClaim(const OTState& state);

// Splits a component payload; absent when it is malformed.
struct ComponentPayload {
  std::string uniqueIdentifier;
  std::span<const uint8_t> data;
};
std::optional<ComponentPayload> decodeComponent(std::span<const uint8_t> payload);
// Absent unless exactly 16 bytes holding two non-negative indexes.
std::optional<OTState> decodeClaim(std::span<const uint8_t> payload);

// Reassembles frames from a byte stream.
class FrameReader {
 public:
  // Takes the next bytes and appends every frame they complete to `frames`.
  // Returns false (and sets error()) on a bad length or kind; the reader then
  // stays failed.
  bool feed(std::span<const uint8_t> bytes, std::vector<Frame>& frames);
  const std::string& error() const { return error_; }
  // Whether a frame has begun and not ended (a stream cut now is truncated).
  bool inFrame() const { return headerBytes_ > 0; }
  // Of the frame being read: its announced length and the bytes received.
  size_t expectedLength() const { return expected_; }
  size_t receivedLength() const { return received_; }

 private:
  uint8_t header_[5] = {};
  size_t headerBytes_ = 0;
  size_t expected_ = 0;
  size_t received_ = 0;
  std::vector<uint8_t> payload_;
  std::string error_;
};

}  // namespace loomwork::tasks
