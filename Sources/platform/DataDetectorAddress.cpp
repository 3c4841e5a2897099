// US-style postal addresses. Every number that starts a word is tried as a
// house number; the attempt reads at most kMaximumTokens words, so the finder
// is linear in the text with a small constant.

#include <algorithm>
#include <array>
#include <string>

#include "loomwork/platform/DataDetector.h"

namespace loomwork {
namespace {

constexpr size_t kMaximumTokens = 24;
constexpr size_t kMaximumTokenLength = 40;

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
inline bool isLower(char c) { return c >= 'a' && c <= 'z'; }
inline bool isLetter(char c) { return isUpper(c) || isLower(c); }
inline char lower(char c) { return isUpper(c) ? static_cast<char>(c + 32) : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (lower(a[i]) != lower(b[i])) return false;
  return true;
}

template <size_t N>
bool inList(std::string_view word, const std::array<std::string_view, N>& list) {
  return std::any_of(list.begin(), list.end(), [&](std::string_view w) { return equalsIgnoringCase(w, word); });
}

constexpr std::array<std::string_view, 58> kSuffixes = {
    "St",      "Street",  "Ave",      "Avenue",  "Av",       "Blvd",    "Boulevard", "Rd",     "Road",       "Dr",
    "Drive",   "Ln",      "Lane",     "Way",     "Ct",       "Court",   "Pl",        "Place",  "Ter",        "Terrace",
    "Pkwy",    "Parkway", "Hwy",      "Highway", "Cir",      "Circle",  "Sq",        "Square", "Trl",        "Trail",
    "Plz",     "Plaza",   "Loop",     "Aly",     "Alley",    "Row",     "Pike",      "Expy",   "Expressway", "Fwy",
    "Freeway", "Cres",    "Crescent", "Walk",    "Crossing", "Xing",    "Run",       "Pass",   "Path",       "Point",
    "Pt",      "Ridge",   "Bend",     "Cv",      "Cove",     "Commons", "Grove",     "Heights"};
constexpr std::array<std::string_view, 12> kDirections = {"N",  "S",  "E",     "W",     "NE",   "NW",
                                                          "SE", "SW", "North", "South", "East", "West"};
constexpr std::array<std::string_view, 13> kUnits = {"Apt", "Apartment", "Suite", "Ste",      "Unit", "Fl", "Floor",
                                                     "Rm",  "Room",      "Bldg",  "Building", "Dept", "Lot"};
constexpr std::array<std::string_view, 56> kStateCodes = {
    "AL", "AK", "AZ", "AR", "CA", "CO", "CT", "DE", "FL", "GA", "HI", "ID", "IL", "IN", "IA", "KS", "KY", "LA", "ME",
    "MD", "MA", "MI", "MN", "MS", "MO", "MT", "NE", "NV", "NH", "NJ", "NM", "NY", "NC", "ND", "OH", "OK", "OR", "PA",
    "RI", "SC", "SD", "TN", "TX", "UT", "VT", "VA", "WA", "WV", "WI", "WY", "DC", "PR", "GU", "VI", "AS", "MP"};
constexpr std::array<std::string_view, 51> kStateNames = {"Alabama",        "Alaska",        "Arizona",
                                                          "Arkansas",       "California",    "Colorado",
                                                          "Connecticut",    "Delaware",      "Florida",
                                                          "Georgia",        "Hawaii",        "Idaho",
                                                          "Illinois",       "Indiana",       "Iowa",
                                                          "Kansas",         "Kentucky",      "Louisiana",
                                                          "Maine",          "Maryland",      "Massachusetts",
                                                          "Michigan",       "Minnesota",     "Mississippi",
                                                          "Missouri",       "Montana",       "Nebraska",
                                                          "Nevada",         "New Hampshire", "New Jersey",
                                                          "New Mexico",     "New York",      "North Carolina",
                                                          "North Dakota",   "Ohio",          "Oklahoma",
                                                          "Oregon",         "Pennsylvania",  "Rhode Island",
                                                          "South Carolina", "South Dakota",  "Tennessee",
                                                          "Texas",          "Utah",          "Vermont",
                                                          "Virginia",       "Washington",    "West Virginia",
                                                          "Wisconsin",      "Wyoming",       "District of Columbia"};

// A word of the address and what separates it from the previous one.
struct Token {
  size_t begin = 0, end = 0;  // bytes of the word, a trailing '.' included
  bool commaBefore = false;
  int lineBreaksBefore = 0;
};

class AddressParser {
 public:
  explicit AddressParser(std::string_view text) : t_(text) {}

  // Reads up to kMaximumTokens words from `start`; stops at anything that
  // cannot be part of an address (two line breaks, other punctuation).
  void tokenize(size_t start) {
    tokens_.clear();
    size_t i = start;
    bool comma = false;
    int breaks = 0;
    while (i < t_.size() && tokens_.size() < kMaximumTokens) {
      const char c = t_[i];
      if (c == ' ' || c == '\t' || c == '\r') {
        ++i;
      } else if (c == '\n') {
        if (++breaks > 1) break;
        ++i;
      } else if (c == ',') {
        if (comma) break;
        comma = true;
        ++i;
      } else if (isLetter(c) || isDigit(c) || c == '#') {
        Token token;
        token.begin = i;
        ++i;
        while (i < t_.size() && (isLetter(t_[i]) || isDigit(t_[i]) || t_[i] == '-' || t_[i] == '\'' ||
                                 (t_[i] == '/' && i + 1 < t_.size() && isDigit(t_[i + 1]))))
          ++i;
        if (i < t_.size() && t_[i] == '.') ++i;
        if (i - token.begin > kMaximumTokenLength) break;
        token.end = i;
        token.commaBefore = comma;
        token.lineBreaksBefore = breaks;
        tokens_.push_back(token);
        comma = false;
        breaks = 0;
      } else {
        break;
      }
    }
  }

  std::string_view word(size_t k) const {
    std::string_view w = t_.substr(tokens_[k].begin, tokens_[k].end - tokens_[k].begin);
    if (!w.empty() && w.back() == '.') w.remove_suffix(1);
    return w;
  }
  bool capitalized(size_t k) const { return isUpper(t_[tokens_[k].begin]); }
  bool separated(size_t k) const { return tokens_[k].commaBefore || tokens_[k].lineBreaksBefore > 0; }
  bool isOrdinal(size_t k) const {
    const std::string_view w = word(k);
    size_t d = 0;
    while (d < w.size() && isDigit(w[d])) ++d;
    if (d == 0 || d > 3) return false;
    const std::string_view rest = w.substr(d);
    return equalsIgnoringCase(rest, "st") || equalsIgnoringCase(rest, "nd") || equalsIgnoringCase(rest, "rd") ||
           equalsIgnoringCase(rest, "th");
  }
  bool isZIP(size_t k) const {
    const std::string_view w = word(k);
    if (w.size() != 5 && w.size() != 10) return false;
    for (size_t i = 0; i < w.size(); ++i)
      if (i == 5 ? w[i] != '-' : !isDigit(w[i])) return false;
    return true;
  }
  // Words of a state starting at `k` (0 when there is none).
  size_t stateWords(size_t k) const {
    if (isUpper(t_[tokens_[k].begin]) && inList(word(k), kStateCodes) && word(k).size() == 2 &&
        isUpper(t_[tokens_[k].begin + 1]))
      return 1;
    for (std::string_view name : kStateNames) {
      size_t words = 1 + static_cast<size_t>(std::count(name.begin(), name.end(), ' '));
      if (k + words > tokens_.size()) continue;
      std::string_view rest = name;
      bool same = true;
      for (size_t w = 0; w < words && same; ++w) {
        const size_t space = rest.find(' ');
        same = word(k + w) == rest.substr(0, space) && (w == 0 || !separated(k + w));
        rest = space == std::string_view::npos ? std::string_view() : rest.substr(space + 1);
      }
      if (same) return words;
    }
    return 0;
  }

  // An address whose house number is the first token; its end in bytes, or 0.
  size_t parse(DataDetectorMatch& match) const {
    const size_t count = tokens_.size();
    if (count < 5) return 0;
    // house number: up to six digits, optionally one letter or a fraction
    const std::string_view number = word(0);
    size_t digits = 0;
    while (digits < number.size() && isDigit(number[digits])) ++digits;
    if (digits == 0 || digits > 6 || number[0] == '0') return 0;
    const std::string_view after = number.substr(digits);
    if (!(after.empty() || (after.size() == 1 && isLetter(after[0])) || (after.size() >= 2 && after[0] == '-')))
      return 0;
    size_t k = 1;
    if (k < count && inList(word(k), kDirections) && capitalized(k) && !separated(k)) ++k;
    const size_t nameStart = k;
    size_t suffix = 0;
    for (; k < count && k < nameStart + 6 && !separated(k); ++k) {
      if (k > nameStart && inList(word(k), kSuffixes) && capitalized(k) &&
          !(k + 1 < count && !separated(k + 1) && inList(word(k + 1), kSuffixes) && capitalized(k + 1))) {
        suffix = k;
        break;
      }
      if (!(capitalized(k) || isOrdinal(k) || (isDigit(t_[tokens_[k].begin]) && k == nameStart))) return 0;
    }
    if (suffix == 0) return 0;
    k = suffix + 1;
    if (k < count && !separated(k) && inList(word(k), kDirections) && capitalized(k)) ++k;
    size_t streetEnd = tokens_[k - 1].end;
    // unit
    if (k < count && (inList(word(k), kUnits) || t_[tokens_[k].begin] == '#')) {
      if (t_[tokens_[k].begin] == '#' && tokens_[k].end - tokens_[k].begin > 1) {
        ++k;
      } else if (k + 1 < count && !separated(k + 1)) {
        k += 2;
      } else {
        return 0;
      }
      streetEnd = tokens_[k - 1].end;
    }
    // city, state, ZIP
    const size_t cityStart = k;
    for (size_t stateAt = cityStart + 1; stateAt < count && stateAt <= cityStart + 4; ++stateAt) {
      if (!capitalized(stateAt - 1) || (stateAt - 1 > cityStart && separated(stateAt - 1))) break;
      const size_t words = stateWords(stateAt);
      if (words == 0 || stateAt + words >= count || !isZIP(stateAt + words)) continue;
      const size_t zip = stateAt + words;
      if (tokens_[zip].lineBreaksBefore > 0) continue;
      size_t end = tokens_[zip].begin + word(zip).size();
      std::string country;
      if (zip + 1 < count && tokens_[zip + 1].lineBreaksBefore == 0) {
        if (word(zip + 1) == "USA" || word(zip + 1) == "US") {
          country = "USA", end = tokens_[zip + 1].begin + word(zip + 1).size();
        } else if (zip + 2 < count && word(zip + 1) == "United" && word(zip + 2) == "States" && !separated(zip + 2)) {
          country = "United States", end = tokens_[zip + 2].begin + word(zip + 2).size();
        }
      }
      auto text = [&](size_t from, size_t to) {
        std::string s(t_.substr(tokens_[from].begin, tokens_[to - 1].end - tokens_[from].begin));
        for (char& c : s)
          if (c == '\n' || c == '\r' || c == '\t') c = ' ';
        return s;
      };
      std::string street(t_.substr(tokens_[0].begin, streetEnd - tokens_[0].begin));
      for (char& c : street)
        if (c == '\n' || c == '\r' || c == '\t') c = ' ';
      match.addressComponents.clear();
      match.addressComponents.emplace_back(std::string(kAddressStreetKey), std::move(street));
      match.addressComponents.emplace_back(std::string(kAddressCityKey), text(cityStart, stateAt));
      match.addressComponents.emplace_back(std::string(kAddressStateKey), text(stateAt, stateAt + words));
      match.addressComponents.emplace_back(std::string(kAddressZIPKey), std::string(word(zip)));
      if (!country.empty()) match.addressComponents.emplace_back(std::string(kAddressCountryKey), country);
      return end;
    }
    return 0;
  }

 private:
  std::string_view t_;
  std::vector<Token> tokens_;
};

}  // namespace

std::vector<DataDetectorMatch> DataDetector::findAddresses(std::string_view utf8) {
  std::vector<DataDetectorMatch> matches;
  AddressParser parser(utf8);
  size_t i = 0;
  const size_t n = utf8.size();
  while (i < n) {
    while (i < n && !isDigit(utf8[i])) ++i;
    if (i >= n) break;
    const bool wordStart = i == 0 || utf8[i - 1] == ' ' || utf8[i - 1] == '\n' || utf8[i - 1] == '\t' ||
                           utf8[i - 1] == '(' || utf8[i - 1] == '"' || utf8[i - 1] == ',' || utf8[i - 1] == ':';
    if (wordStart) {
      parser.tokenize(i);
      DataDetectorMatch match;
      if (const size_t end = parser.parse(match); end > i) {
        match.resultType = TextCheckingTypeAddress;
        match.byteRange = {static_cast<int64_t>(i), static_cast<int64_t>(end - i)};
        matches.push_back(std::move(match));
        i = end;
        continue;
      }
    }
    while (i < n && isDigit(utf8[i])) ++i;
  }
  return matches;
}

}  // namespace loomwork
