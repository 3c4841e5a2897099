#include "loomwork/runtime/RuntimeHelpers.h"

namespace loomwork {

namespace {

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string hexadecimalStringFromData(const Data& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text(bytes.size() * 2, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 0x0F];
  }
  return text;
}

std::optional<Data> dataFromHexadecimalString(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  Data bytes(text.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    const int high = hexDigitValue(text[2 * i]);
    const int low = hexDigitValue(text[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return bytes;
}

bool isBOOL(const Value& value) { return value.isBoolean(); }
bool isInteger(const Value& value) { return value.isInteger(); }
bool isDouble(const Value& value) { return value.isReal(); }

RunLoop::TaskID performBlockAfterDelay(std::function<void()> block, double delay) {
  return RunLoop::current()->performAfterDelay(delay, std::move(block));
}

}  // namespace loomwork
