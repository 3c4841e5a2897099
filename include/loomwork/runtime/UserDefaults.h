// User defaults: reading the host's stored preferences with a default value.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Answers the stored value of a key, or absent. The library keeps no defaults
// of its own: the host installs the store (its preferences file, a database,
// a dictionary in tests). It may be installed from any thread, is called on
// the caller's thread outside any lock, and must itself be thread-safe.
using UserDefaultsStore = std::function<std::optional<Value>(std::string_view key)>;

// Installs the store; an empty function removes it (every key is then absent).
void setUserDefaultsStore(UserDefaultsStore store);

// The stored value, or absent when there is no store or no such key.
std::optional<Value> userDefaultsObjectForKey(std::string_view key);

// Each getter gives `defaultValue` when the key is absent or its value cannot
// be read as the type asked for.
//
// Numbers (non-zero is true) and strings: a string is true when, after leading
// white space and an optional sign, it starts with Y, y, T, t or a digit 1-9
// after any zeros ("YES", "true", "1"); other strings are false.
bool boolForKeyWithDefault(std::string_view key, bool defaultValue);
// Numbers (reals truncated toward zero, when in range) and strings that hold a
// whole decimal integer.
int64_t integerForKeyWithDefault(std::string_view key, int64_t defaultValue);
// Numbers and strings that hold a decimal number.
double doubleForKeyWithDefault(std::string_view key, double defaultValue);
// Strings, and numbers as their text form.
std::string stringForKeyWithDefault(std::string_view key, std::string_view defaultValue);
// Any stored value.
Value objectForKeyWithDefault(std::string_view key, Value defaultValue);

}  // namespace loomwork
#pragma GCC visibility pop
