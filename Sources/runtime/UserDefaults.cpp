#include "loomwork/runtime/UserDefaults.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <mutex>

namespace loomwork {

namespace {

std::mutex& storeMutex() {
  static std::mutex mutex;
  return mutex;
}

UserDefaultsStore& installedStore() {
  static UserDefaultsStore store;
  return store;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  return text;
}

bool stringIsTrue(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) text.remove_prefix(1);
  while (!text.empty() && text.front() == '0') text.remove_prefix(1);
  if (text.empty()) return false;
  const char c = text.front();
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

}  // namespace

void setUserDefaultsStore(UserDefaultsStore store) {
  std::lock_guard<std::mutex> lock(storeMutex());
  installedStore() = std::move(store);
}

std::optional<Value> userDefaultsObjectForKey(std::string_view key) {
  UserDefaultsStore store;
  {
    std::lock_guard<std::mutex> lock(storeMutex());
    store = installedStore();
  }
  if (!store) return std::nullopt;
  return store(key);
}

bool boolForKeyWithDefault(std::string_view key, bool defaultValue) {
  const std::optional<Value> value = userDefaultsObjectForKey(key);
  if (!value) return defaultValue;
  if (value->isNumber()) return value->boolValue();
  if (std::optional<std::string_view> text = value->tryString()) return stringIsTrue(*text);
  return defaultValue;
}

int64_t integerForKeyWithDefault(std::string_view key, int64_t defaultValue) {
  const std::optional<Value> value = userDefaultsObjectForKey(key);
  if (!value) return defaultValue;
  if (value->isReal()) {
    const double d = value->doubleValue();
    // Only reals whose truncation fits 64 bits.
    if (!(d > -9223372036854775808.0 - 1 && d < 9223372036854775808.0)) return defaultValue;
    return static_cast<int64_t>(d);
  }
  if (value->isNumber()) return value->integerValue();
  if (std::optional<std::string_view> text = value->tryString()) {
    std::string_view digits = trimmed(*text);
    if (!digits.empty() && digits.front() == '+') digits.remove_prefix(1);
    int64_t result = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), result);
    if (error == std::errc() && end == digits.data() + digits.size() && !digits.empty()) return result;
  }
  return defaultValue;
}

double doubleForKeyWithDefault(std::string_view key, double defaultValue) {
  const std::optional<Value> value = userDefaultsObjectForKey(key);
  if (!value) return defaultValue;
  if (value->isNumber()) return value->doubleValue();
  if (std::optional<std::string_view> text = value->tryString()) {
    std::string_view digits = trimmed(*text);
    if (!digits.empty() && digits.front() == '+') digits.remove_prefix(1);
    double result = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), result);
    if (error == std::errc() && end == digits.data() + digits.size() && !digits.empty()) return result;
  }
  return defaultValue;
}

std::string stringForKeyWithDefault(std::string_view key, std::string_view defaultValue) {
  const std::optional<Value> value = userDefaultsObjectForKey(key);
  if (!value) return std::string(defaultValue);
  if (std::optional<std::string_view> text = value->tryString()) return std::string(*text);
  if (value->isInteger() || value->isReal()) return value->description();
  return std::string(defaultValue);
}

Value objectForKeyWithDefault(std::string_view key, Value defaultValue) {
  std::optional<Value> value = userDefaultsObjectForKey(key);
  return value ? std::move(*value) : std::move(defaultValue);
}

}  // namespace loomwork
