// String makers: C-style escapes, repetition, spaces, dotted key paths, UUID
// strings and localised ordinal numbers ("1st", "2nd", ...).
//
// Strings are UTF-8. Every function may be called from any thread; the ordinal
// lists are read from the host's localised strings once per process, on first
// use, and kept.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#pragma GCC visibility push(default)
namespace loomwork {

// The string with C escapes added: backslash, the control characters bell,
// backspace, form feed, line feed, carriage return, tab and vertical tab, and
// the characters ', " and ? each become a backslash sequence (\\, \a, \b, \f,
// \n, \r, \t, \v, \', \", \?). Existing backslashes are doubled, so "\n" as
// two characters becomes three.
std::string stringByAddingCStyleEscapes(std::string_view string);

// The string `count` times in a row; empty for a count below 1.
std::string stringByRepeatingNumberOfTimes(std::string_view string, int64_t count);
// The same; kept as its own name for callers that want a string to change.
std::string stringByRepeatingStringCount(std::string_view string, int64_t count);

// What the format "%*s" makes of " " for width `count`: max(|count|, 1)
// spaces, so 0 gives one space, on purpose.
std::string stringWithSpaces(int32_t count);

// An empty string, always.
std::string randomWord();

// The components joined by ".", taken up to the first absent entry; absent when
// there is no component before it. An empty component still adds its ".".
std::optional<std::string> keyPathWithComponents(std::initializer_list<std::optional<std::string_view>> components);
std::optional<std::string> keyPathWithComponents(const std::vector<std::string>& components);

// A new random UUID in canonical upper-case text form (36 characters).
std::string uuidString();

// The ordinal of n in the nominative (respectively dative) case: entry n - 1 of
// the host's comma-separated list under "Ordinals-Nominative" (respectively
// "Ordinals-Dative"), which defaults to "1st" ... "40th"; the plain decimal
// number for 0 and for n beyond the list.
std::string ordinalStringForNumber(uint64_t n);  // nominative
std::string nominativeOrdinalStringForNumber(uint64_t n);
std::string dativeOrdinalStringForNumber(uint64_t n);

}  // namespace loomwork
#pragma GCC visibility pop
