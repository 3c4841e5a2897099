// Phone numbers through libphonenumber's PhoneNumberMatcher. The matcher is
// handed only the stretches of text around clusters of digits, so prose
// without numbers costs one pass over its bytes; its own candidate search
// runs regular expressions and is by far the slower part.

#include <phonenumbers/phonenumbermatch.h>
#include <phonenumbers/phonenumbermatcher.h>
#include <phonenumbers/phonenumberutil.h>

#include <algorithm>
#include <climits>

#include "loomwork/platform/DataDetector.h"

namespace loomwork {
namespace {

using i18n::phonenumbers::PhoneNumberMatch;
using i18n::phonenumbers::PhoneNumberMatcher;
using i18n::phonenumbers::PhoneNumberUtil;

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Fewer digits than this make no phone number in any region's plan worth
// linking; stretches with fewer are not shown to the matcher.
constexpr int kMinimumDigits = 5;
// Digits with at most this many separators between them belong to one stretch.
constexpr size_t kJoinDistance = 4;

// What phone numbers are written with between their digits.
inline bool isPhonePunctuation(char c) {
  return c == ' ' || c == '-' || c == '.' || c == '(' || c == ')' || c == '/' || c == '+';
}
// Context on each side of a stretch, so the matcher sees what precedes and
// follows a number (a letter glued to it, a "+" or an opening bracket).
constexpr size_t kContext = 16;
// A stretch with more digits than this is a table or an identifier, not
// something written to be dialled (E.164 numbers have at most 15 digits; this
// leaves room for a trunk prefix, an extension or two numbers side by side).
// Stretches of many one-digit groups ("1.2.3.4.5") are not numbers either.
// Both limits keep the matcher, which costs tens to hundreds of microseconds
// per call, away from walls of digits.
constexpr int kMaximumDigits = 30;
constexpr int kMaximumSingleDigitGroups = 3;

size_t backToCodePoint(std::string_view t, size_t i) {
  while (i > 0 && i < t.size() && (static_cast<unsigned char>(t[i]) & 0xC0) == 0x80) --i;
  return i;
}

// Three groups of digits with one separator ("05.10.1986", "3/10/1984",
// "1986-10-05"), shaped as day, month and year in some order.
bool looksLikeDate(std::string_view raw) {
  int groups[4] = {0, 0, 0, 0};
  int count = 0;
  char separator = 0;
  for (size_t i = 0; i < raw.size(); ++i) {
    const char c = raw[i];
    if (isDigit(c)) {
      if (count == 0) count = 1;
      ++groups[count - 1];
    } else if (c == '.' || c == '/' || c == '-') {
      if (count == 0 || (separator != 0 && separator != c) || count == 3 || groups[count - 1] == 0) return false;
      separator = c;
      ++count;
    } else if (c == ' ' && (i == 0 || i + 1 == raw.size())) {
      continue;
    } else {
      return false;
    }
  }
  if (count != 3 || groups[2] == 0) return false;
  const bool short0 = groups[0] <= 2, short1 = groups[1] <= 2, short2 = groups[2] <= 2;
  return (short0 && short1 && (short2 || groups[2] == 4)) || (groups[0] == 4 && short1 && short2);
}

// A number that continues a longer dotted or slashed number ("192.168.10.200",
// "1.2.3.4.5.6.7") is not a phone number either.
bool gluedToNumber(std::string_view t, size_t start, size_t end) {
  auto separator = [](char c) { return c == '.' || c == '/' || c == ':' || c == ','; };
  if (start >= 2 && separator(t[start - 1]) && isDigit(t[start - 2])) return true;
  if (end + 1 < t.size() && separator(t[end]) && isDigit(t[end + 1])) return true;
  return false;
}

}  // namespace

std::vector<DataDetectorMatch> DataDetector::findPhoneNumbers(std::string_view utf8) const {
  std::vector<DataDetectorMatch> matches;
  const PhoneNumberUtil& util = *PhoneNumberUtil::GetInstance();
  const size_t n = utf8.size();
  size_t i = 0;
  while (i < n) {
    while (i < n && !isDigit(utf8[i])) ++i;
    if (i >= n) break;
    // A stretch: digits joined by at most kJoinDistance characters of the
    // kinds phone numbers are written with.
    const size_t first = i;
    size_t last = i;
    int digits = 0;
    int singleDigitGroups = 0;
    while (i < n && i - last <= kJoinDistance) {
      const char c = utf8[i];
      if (isDigit(c)) {
        if ((i == first || !isDigit(utf8[i - 1])) && (i + 1 >= n || !isDigit(utf8[i + 1]))) ++singleDigitGroups;
        last = i;
        ++digits;
      } else if (!isPhonePunctuation(c)) {
        break;
      }
      ++i;
    }
    i = last + 1;
    if (digits < kMinimumDigits || digits > kMaximumDigits || singleDigitGroups > kMaximumSingleDigitGroups ||
        looksLikeDate(utf8.substr(first, last + 1 - first)) || gluedToNumber(utf8, first, last + 1))
      continue;
    if (cancellationCheck_ && cancellationCheck_()) break;
    const size_t begin = backToCodePoint(utf8, first > kContext ? first - kContext : 0);
    const size_t end = backToCodePoint(utf8, std::min(n, last + 1 + kContext));
    const std::string window(utf8.substr(begin, end - begin));
    PhoneNumberMatcher matcher(util, window, region_, PhoneNumberMatcher::VALID, INT_MAX);
    PhoneNumberMatch found;
    while (matcher.HasNext() && matcher.Next(&found)) {
      const size_t start = begin + static_cast<size_t>(found.start());
      const size_t stop = start + static_cast<size_t>(found.length());
      // Context may hold the cut-off start of the next stretch: only numbers on this one count.
      if (stop <= first || start > last) continue;
      if (!matches.empty() && start < static_cast<size_t>(matches.back().byteRange.end())) continue;
      if (looksLikeDate(found.raw_string()) || gluedToNumber(utf8, start, stop)) continue;
      DataDetectorMatch match;
      match.resultType = TextCheckingTypePhoneNumber;
      match.byteRange = {static_cast<int64_t>(start), static_cast<int64_t>(stop - start)};
      match.phoneNumber = found.raw_string();
      matches.push_back(std::move(match));
    }
  }
  return matches;
}

}  // namespace loomwork
