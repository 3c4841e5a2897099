#include "Wire.h"

#include <algorithm>

namespace loomwork::tasks {

std::vector<uint8_t> encodeFrame(FrameKind kind, std::span<const uint8_t> payload) {
  const uint64_t length = payload.size() + 1;
  std::vector<uint8_t> bytes;
  bytes.reserve(payload.size() + 5);
  for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(length >> shift));
  bytes.push_back(static_cast<uint8_t>(kind));
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

std::vector<uint8_t> encodeFrame(FrameKind kind, const std::string& payload) {
  return encodeFrame(kind, std::span(reinterpret_cast<const uint8_t*>(payload.data()), payload.size()));
}

std::vector<uint8_t> encodeComponent(const std::string& uniqueIdentifier, std::span<const uint8_t> data) {
  std::vector<uint8_t> payload;
  payload.reserve(2 + uniqueIdentifier.size() + data.size());
  payload.push_back(static_cast<uint8_t>(uniqueIdentifier.size() >> 8));
  payload.push_back(static_cast<uint8_t>(uniqueIdentifier.size()));
  payload.insert(payload.end(), uniqueIdentifier.begin(), uniqueIdentifier.end());
  payload.insert(payload.end(), data.begin(), data.end());
  return encodeFrame(FrameKind::Component, payload);
}

std::vector<uint8_t> encodeClaim(const OTState& state) {
  std::vector<uint8_t> payload;
  for (int64_t index : {state.serverIndex(), state.clientIndex()})
    for (int shift = 56; shift >= 0; shift -= 8) payload.push_back(static_cast<uint8_t>(static_cast<uint64_t>(index) >> shift));
  return encodeFrame(FrameKind::Claim, payload);
}

std::optional<ComponentPayload> decodeComponent(std::span<const uint8_t> payload) {
  if (payload.size() < 2) return std::nullopt;
  const size_t length = (size_t{payload[0]} << 8) | payload[1];
  if (length == 0 || payload.size() < 2 + length + 1) return std::nullopt;
  return ComponentPayload{std::string(payload.begin() + 2, payload.begin() + 2 + static_cast<ptrdiff_t>(length)),
                          payload.subspan(2 + length)};
}

std::optional<OTState> decodeClaim(std::span<const uint8_t> payload) {
  if (payload.size() != 16) return std::nullopt;
  int64_t indexes[2];
  for (int i = 0; i < 2; ++i) {
    uint64_t value = 0;
    for (int b = 0; b < 8; ++b) value = (value << 8) | payload[static_cast<size_t>(i * 8 + b)];
    indexes[i] = static_cast<int64_t>(value);
    if (indexes[i] < 0) return std::nullopt;
  }
  return OTState(indexes[0], indexes[1]);
}

bool FrameReader::feed(std::span<const uint8_t> bytes, std::vector<Frame>& frames) {
  if (!error_.empty()) return false;
  while (!bytes.empty()) {
    if (headerBytes_ < 5) {
      const size_t take = std::min(bytes.size(), 5 - headerBytes_);
      std::copy_n(bytes.begin(), take, header_ + headerBytes_);
      headerBytes_ += take;
      bytes = bytes.subspan(take);
      if (headerBytes_ < 5) break;
      const uint64_t length = (uint64_t{header_[0]} << 24) | (uint64_t{header_[1]} << 16) |
                              (uint64_t{header_[2]} << 8) | header_[3];
      if (length == 0 || length > kMaxFrameLength) {
        error_ = "bad message length " + std::to_string(length);
        return false;
      }
      if (header_[4] < static_cast<uint8_t>(FrameKind::Hello) || header_[4] > static_cast<uint8_t>(FrameKind::Seed)) {
        error_ = "unknown message kind " + std::to_string(header_[4]);
        return false;
      }
      expected_ = static_cast<size_t>(length - 1);
      received_ = 0;
      payload_.clear();
    }
    const size_t take = std::min(bytes.size(), expected_ - received_);
    payload_.insert(payload_.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(take));
    received_ += take;
    bytes = bytes.subspan(take);
    if (received_ == expected_) {
      frames.push_back({static_cast<FrameKind>(header_[4]), std::move(payload_)});
      payload_ = {};
      headerBytes_ = 0;
      expected_ = received_ = 0;
    }
  }
  return true;
}

}  // namespace loomwork::tasks
