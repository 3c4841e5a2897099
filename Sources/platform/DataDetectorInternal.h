// Helpers shared by the data detector's finders.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace loomwork::detail {

// True when `text` is well-formed UTF-8 (no overlong forms, surrogates or
// code points above U+10FFFF).
bool isWellFormedUTF8(std::string_view text) noexcept;
// `text` with each maximal ill-formed subsequence replaced by U+FFFD.
std::string wellFormedUTF8(std::string_view text);

// Counts UTF-16 code units of well-formed UTF-8, moving forward only: each call
// continues from where the last one stopped, so offsets must not decrease.
class UTF16Counter {
 public:
  explicit UTF16Counter(std::string_view text) : text_(text) {}
  int64_t offsetOfByte(size_t byte) noexcept {
    byte = std::min(byte, text_.size());
    // eight ASCII bytes at a time are eight units
    while (byte_ + 8 <= byte) {
      uint64_t word;
      std::memcpy(&word, text_.data() + byte_, 8);
      if ((word & 0x8080808080808080ULL) != 0) break;
      byte_ += 8;
      units_ += 8;
    }
    for (; byte_ < byte; ++byte_) {
      const auto b = static_cast<unsigned char>(text_[byte_]);
      if ((b & 0xC0) != 0x80) units_ += b >= 0xF0 ? 2 : 1;
    }
    return units_;
  }

 private:
  std::string_view text_;
  size_t byte_ = 0;
  int64_t units_ = 0;
};

// Percent-encodes every byte of `text` that is not in `allowed` (ASCII only;
// bytes of 0x80 and above are always encoded), appending to `out`.
void appendPercentEncoded(std::string& out, std::string_view text, std::string_view allowed);

}  // namespace loomwork::detail
