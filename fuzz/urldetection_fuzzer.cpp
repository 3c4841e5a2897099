// Link detection on arbitrary bytes: the operation reports once, with two
// lists of equal length, ranges inside the text that do not overlap, and URLs
// of printable ASCII. The fuzzer's time limit catches any stall.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "loomwork/additions/LWURLDetectionOperation.h"
#include "loomwork/platform/TextServices.h"

using namespace loomwork;

namespace {
struct Checker : LWURLDetectionOperationDelegate {
  int64_t length = 0;
  int calls = 0;
  void urlDetectionOperationDidFinishWithURLsCharacterRanges(LWURLDetectionOperation&,
                                                             const std::vector<std::string>& urls,
                                                             const std::vector<IndexRange>& ranges) override {
    ++calls;
    if (urls.size() != ranges.size()) __builtin_trap();
    for (size_t i = 0; i < ranges.size(); ++i) {
      const IndexRange r = ranges[i];
      if (r.location < 0 || r.length <= 0 || r.end() > length) __builtin_trap();
      for (size_t j = 0; j < i; ++j)
        if (ranges[j].location < r.end() && r.location < ranges[j].end()) __builtin_trap();
      for (char c : urls[i])
        if (c <= 0x20 || c >= 0x7F) __builtin_trap();
    }
  }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  // The first byte picks the kinds, so that links alone are fuzzed as often as all of them.
  const uint64_t types = size > 0 && (data[0] & 1)
                             ? TextCheckingTypeLink
                             : TextCheckingTypeLink | TextCheckingTypeAddress | TextCheckingTypePhoneNumber;
  auto operation = make<LWURLDetectionOperation>(text, types);
  operation->setRegion(size > 1 && (data[1] & 1) ? "DE" : "US");
  auto checker = std::make_shared<Checker>();
  checker->length = static_cast<int64_t>(utf16FromUTF8(text).size());
  operation->setDelegate(checker);
  operation->main();
  if (checker->calls != 1) __builtin_trap();
  return 0;
}
