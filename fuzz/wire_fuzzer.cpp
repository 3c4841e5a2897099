// Bytes from the other loomwork-tasks device: the first byte picks how the
// rest is cut into reads; whatever arrives, the frame reader yields frames no
// longer than announced and under the cap or fails and stays failed, and the
// payload decoders return a value or nothing.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Wire.h"
#include "loomwork/sync.h"

using namespace loomwork;
using namespace loomwork::tasks;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = 1 + data[0] % 64;
  std::span<const uint8_t> bytes(data + 1, size - 1);
  FrameReader reader;
  std::vector<Frame> frames;
  bool good = true;
  for (size_t at = 0; at < bytes.size() && good; at += piece) {
    good = reader.feed(bytes.subspan(at, std::min(piece, bytes.size() - at)), frames);
    if (reader.receivedLength() > reader.expectedLength()) __builtin_trap();
  }
  if (!good && (reader.error().empty() || reader.feed(bytes.first(0), frames))) __builtin_trap();
  for (const auto& frame : frames) {
    if (frame.payload.size() + 1 > kMaxFrameLength) __builtin_trap();
    switch (frame.kind) {
      case FrameKind::Component:
        if (auto component = decodeComponent(frame.payload)) {
          if (component->uniqueIdentifier.empty() || component->data.empty()) __builtin_trap();
          (void)OTPathComponent::initWithData(component->data);
        }
        break;
      case FrameKind::Claim:
        if (auto claim = decodeClaim(frame.payload); claim && (claim->serverIndex() < 0 || claim->clientIndex() < 0))
          __builtin_trap();
        break;
      case FrameKind::Seed:
        (void)OTPathComponent::initWithData(frame.payload);
        break;
      default:
        break;
    }
  }
  return 0;
}
