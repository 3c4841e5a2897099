// Unicode text services: UTF-8/UTF-16 conversion, the character classes the
// library tests, and locale-aware search that ignores case and diacritics.
//
// Positions and lengths count UTF-16 code units of the text as given. The
// character classes are tables built once per process on first use; they may
// be read from any thread. The search keeps one collator per thread, so every
// function here may be called from several threads at once.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "loomwork/platform/IndexSet.h"

#pragma GCC visibility push(default)
namespace loomwork {

// UTF-8 to UTF-16. Ill-formed byte sequences become U+FFFD, so any bytes
// convert. The second form replaces the content of `out`, reusing its storage.
std::u16string utf16FromUTF8(std::string_view text);
void utf16FromUTF8(std::string_view text, std::u16string& out);
// UTF-16 to UTF-8. Unpaired surrogates become U+FFFD.
std::string utf8FromUTF16(std::u16string_view text);

// The whitespace set: tab and the space separators (general category Zs). Line
// breaks are not whitespace.
bool isWhitespaceCharacter(char16_t unit) noexcept;
// The upper-case letter set: general categories Lu and Lt. The code units of a
// surrogate pair belong to no class.
bool isUppercaseLetterCharacter(char16_t unit) noexcept;

// The text without whitespace (as above) at either end.
std::u16string_view trimmingWhitespace(std::u16string_view text);
std::string_view trimmingWhitespace(std::string_view text);

// The locale whose rules the search follows, as an ICU locale identifier. The
// empty identifier (the default) stands for the process's default locale, where
// the POSIX ("C") locale means the root rules. Changing it affects later
// searches on every thread.
void setTextLocale(std::string localeIdentifier);
std::string textLocale();

// The first occurrence of `pattern` inside text[range], compared
// case-insensitively and diacritic-insensitively by the text locale's rules
// (collation at primary strength). The match may be longer or shorter than the
// pattern. Absent when there is none, when the pattern or the range is empty,
// or when the range does not lie inside the text.
std::optional<IndexRange> rangeOfStringIgnoringCaseAndDiacritics(std::u16string_view text, std::u16string_view pattern,
                                                                 IndexRange range);
std::optional<IndexRange> rangeOfStringIgnoringCaseAndDiacritics(std::u16string_view text, std::u16string_view pattern);

// How the search above treats plain ASCII under the current text locale, for
// callers that take a fast path over ASCII text. `ids[c]` is non-zero when the
// character c is "simple": it is one collation element of its own at primary
// strength, takes part in no contraction with other ASCII characters and is a
// boundary on both sides. Two simple characters compare equal in the search
// exactly when their ids are equal, and for texts and patterns made only of
// simple characters, the search finds exactly the leftmost window whose ids
// equal the pattern's. Characters with id 0 need the full search.
struct AsciiSearchClasses {
  std::array<uint8_t, 128> ids{};
};
// The classes for the calling thread's collator (rebuilt when the text locale
// changes).
const AsciiSearchClasses& asciiSearchClasses();

}  // namespace loomwork
#pragma GCC visibility pop
