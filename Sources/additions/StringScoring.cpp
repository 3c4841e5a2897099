#include "loomwork/additions/StringScoring.h"

#include <cstdint>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "loomwork/platform/Exception.h"
#include "loomwork/platform/TextServices.h"

// The score is defined by a recursion (per call: a text range, an abbreviation
// range) that tries the longest front part of the abbreviation first and falls
// back to shorter ones when the rest cannot be matched. Written down directly it
// takes exponential time on texts such as "aaaa...a" against "aaa...ab". Within
// one top-level call the text range and the abbreviation range always end at the
// same places, so a call is determined by (text start, abbreviation length).
//
// Over plain ASCII the search is the identity of collation classes (see
// AsciiSearchClasses), and a recursive call scores above 0 exactly when its
// abbreviation is a subsequence of its text. So the direct path computes, for
// each abbreviation suffix, the last text position it can still start at, and
// takes at each level the first candidate whose rest is known to succeed: the
// calls that would have returned 0 are skipped, and the recursion becomes one
// chain of at most abbreviation-length links. Any other text goes through the
// Unicode search with every call memoised on (text start, abbreviation length)
// and an explicit stack, so neither time nor depth depend on luck.

namespace loomwork {

namespace {

constexpr float kEmptyAbbreviationScore = 0.9f;
constexpr float kPrefixBonus = 0.2f;
constexpr float kAbbreviationWeight = 0.8f;

template <class CharT>
inline char16_t unitOf(CharT c) {
  return static_cast<char16_t>(static_cast<std::make_unsigned_t<CharT>>(c));
}

inline bool isSeparatorUnit(char16_t unit) { return unit == u'.' || isWhitespaceCharacter(unit); }

// The score of a call with text range (sLoc, sLen) whose candidate matched
// (mLoc, mEnd) and whose rest scored `remaining`: the characters up to the end
// of the match, less a penalty for the skipped ones, plus the rest's score per
// remaining character, over the range length. Characters are read through a
// view that starts at sLoc but is indexed with absolute positions: in a nested
// call the characters examined lie sLoc further on than the skipped ones.
// Scores (and orderings of search results) depend on this, so it is kept.
template <class CharT>
float combine(const CharT* text, int64_t sLoc, int64_t sLen, int64_t mLoc, int64_t mEnd, float remaining) {
  float score = static_cast<float>(mEnd - sLoc);
  if (mLoc > sLoc) {
    auto view = [&](int64_t j) -> char16_t { return (j >= 0 && j < sLen) ? unitOf(text[sLoc + j]) : u'\0'; };
    if (isSeparatorUnit(view(mLoc - 1))) {
      for (int64_t j = mLoc - 2; j >= sLoc; --j) score -= isSeparatorUnit(view(j)) ? 1.0f : 0.15f;
    } else if (isUppercaseLetterCharacter(view(mLoc))) {
      for (int64_t j = mLoc - 1; j >= sLoc; --j) score -= isUppercaseLetterCharacter(view(j)) ? 1.0f : 0.15f;
    } else {
      score -= static_cast<float>((mLoc - sLoc) / 2);
    }
  }
  return (score + remaining * static_cast<float>(sLoc + sLen - mEnd)) / static_cast<float>(sLen);
}

struct Link {
  int64_t sLoc, mLoc, mEnd;
};

struct Frame {
  int64_t sLoc, aLen, k, mLoc, mEnd;
};

struct Scratch {
  std::vector<uint8_t> textIds, abbreviationIds;
  std::vector<int64_t> lastStart, firstStart;
  std::vector<Link> chain;
  std::unordered_map<uint64_t, float> memo;
  std::vector<Frame> frames;
  std::u16string converted;  // UTF-16 form of a UTF-8 argument
};

// The collation ids of the units, or false when one of them is not simple.
template <class CharT>
bool simpleIds(const CharT* units, size_t count, const AsciiSearchClasses& classes, std::vector<uint8_t>& ids) {
  ids.resize(count);
  for (size_t i = 0; i < count; ++i) {
    const char16_t unit = unitOf(units[i]);
    if (unit >= 128) return false;
    const uint8_t id = classes.ids[unit];
    if (id == 0) return false;
    ids[i] = id;
  }
  return true;
}

// simpleIds for a whole text scored against a search string whose ids are
// known, also telling whether the search string is a subsequence of the text
// (one pass, since most texts in a ranking are rejected).
enum class TextScan { NotSimple, Subsequence, NoSubsequence };

template <class CharT>
TextScan scanText(const CharT* units, size_t count, const AsciiSearchClasses& classes, std::vector<uint8_t>& ids,
                  const std::vector<uint8_t>& search) {
  ids.resize(count);
  uint8_t* out = ids.data();
  const uint8_t* table = classes.ids.data();
  // `search` ends in a 0, which no simple character has, so `want` can always
  // be read and never matches once the search string is used up.
  const uint8_t* next = search.data();
  uint8_t want = *next;
  for (size_t i = 0; i < count; ++i) {
    const char16_t unit = unitOf(units[i]);
    const uint8_t id = unit < 128 ? table[unit] : 0;
    if (id == 0) return TextScan::NotSimple;
    out[i] = id;
    if (id == want) want = *++next;
  }
  return want == 0 ? TextScan::Subsequence : TextScan::NoSubsequence;
}

template <class CharT>
bool mayNeedTrimming(const CharT* text, size_t length) {
  auto edge = [](char16_t unit) { return unit >= 128 || unit == u' ' || unit == u'\t'; };
  return length > 0 && (edge(unitOf(text[0])) || edge(unitOf(text[length - 1])));
}

// The abbreviation score over simple ASCII. `t` holds the ids of text[base,
// sEnd), `a` the aLen0 ids of the abbreviation range.
template <class CharT>
float directAbbreviationScore(const CharT* text, const uint8_t* t, int64_t base, int64_t sEnd, const uint8_t* a,
                              int64_t aLen0, Scratch& s) {
  if (aLen0 == 0) return kEmptyAbbreviationScore;
  if (sEnd - base < aLen0) return 0.0f;

  // lastStart[k]: the last text position from which the abbreviation's final k
  // characters are still a subsequence of the text up to sEnd.
  s.lastStart.resize(static_cast<size_t>(aLen0) + 1);
  s.lastStart[0] = sEnd;
  int64_t p = sEnd;
  for (int64_t k = 1; k <= aLen0; ++k) {
    const uint8_t want = a[aLen0 - k];
    do {
      --p;
    } while (p >= base && t[p - base] != want);
    if (p < base) return 0.0f;  // not a subsequence: no call ever reaches the empty abbreviation
    s.lastStart[static_cast<size_t>(k)] = p;
  }

  s.firstStart.resize(static_cast<size_t>(aLen0) + 1);
  s.chain.clear();
  int64_t sLoc = base;
  int64_t aLen = aLen0;
  while (aLen > 0) {
    const uint8_t* candidate = a + (aLen0 - aLen);
    // Every candidate's window (sLoc, sLen - k) allows the same last start.
    const int64_t limit = sEnd - aLen;
    // firstStart[L]: the first start of the candidate's first L characters.
    int64_t found = 0;
    for (int64_t q = sLoc; q <= limit && found < aLen; ++q) {
      const uint8_t* at = t + (q - base);
      if (at[0] != candidate[0]) continue;
      int64_t length = 1;
      while (length < aLen && at[length] == candidate[length]) ++length;
      while (found < length) s.firstStart[static_cast<size_t>(++found)] = q;
    }
    // The longest candidate whose rest is still a subsequence after it; the
    // one-character candidate always qualifies.
    int64_t k = aLen - found;
    while (k < aLen - 1 &&
           s.firstStart[static_cast<size_t>(aLen - k)] + (aLen - k) > s.lastStart[static_cast<size_t>(k)]) {
      ++k;
    }
    const int64_t mLoc = s.firstStart[static_cast<size_t>(aLen - k)];
    s.chain.push_back({sLoc, mLoc, mLoc + (aLen - k)});
    sLoc = mLoc + (aLen - k);
    aLen = k;
  }

  float remaining = kEmptyAbbreviationScore;
  for (auto link = s.chain.rbegin(); link != s.chain.rend(); ++link) {
    remaining = combine(text, link->sLoc, sEnd - link->sLoc, link->mLoc, link->mEnd, remaining);
  }
  return remaining;
}

// The abbreviation score through the Unicode search, memoised.
float unicodeAbbreviationScore(std::u16string_view text, std::u16string_view abbreviation, int64_t sLoc0, int64_t sEnd,
                               int64_t aLoc0, int64_t aEnd, Scratch& s) {
  const int64_t aLen0 = aEnd - aLoc0;
  const auto key = [&](int64_t sLoc, int64_t aLen) {
    return static_cast<uint64_t>(sLoc - sLoc0) * static_cast<uint64_t>(aLen0 + 1) + static_cast<uint64_t>(aLen);
  };
  s.memo.clear();
  s.frames.clear();
  const auto settled = [&](int64_t sLoc, int64_t aLen) -> std::optional<float> {
    if (aLen == 0) return kEmptyAbbreviationScore;
    if (sEnd - sLoc < aLen) return 0.0f;
    auto it = s.memo.find(key(sLoc, aLen));
    if (it != s.memo.end()) return it->second;
    return std::nullopt;
  };
  if (auto value = settled(sLoc0, aLen0)) return *value;

  s.frames.push_back({sLoc0, aLen0, 0, 0, 0});
  float result = 0.0f;
  std::optional<float> returned;  // the value of the call that just finished
  while (!s.frames.empty()) {
    Frame f = s.frames.back();
    const int64_t sLen = sEnd - f.sLoc;
    std::optional<float> value;
    if (returned) {
      if (*returned > 0) {
        value = combine(text.data(), f.sLoc, sLen, f.mLoc, f.mEnd, *returned);
      } else {
        ++f.k;
      }
      returned.reset();
    }
    bool descended = false;
    while (!value && !descended) {
      if (f.k >= f.aLen) {
        value = 0.0f;
        break;
      }
      auto match = rangeOfStringIgnoringCaseAndDiacritics(
          text, abbreviation.substr(static_cast<size_t>(aEnd - f.aLen), static_cast<size_t>(f.aLen - f.k)),
          IndexRange{f.sLoc, sLen - f.k});
      if (!match) {
        ++f.k;
        continue;
      }
      f.mLoc = match->location;
      f.mEnd = match->end();
      if (auto rest = settled(f.mEnd, f.k)) {
        if (*rest > 0) {
          value = combine(text.data(), f.sLoc, sLen, f.mLoc, f.mEnd, *rest);
        } else {
          ++f.k;
        }
        continue;
      }
      s.frames.back() = f;
      s.frames.push_back({f.mEnd, f.k, 0, 0, 0});
      descended = true;
    }
    if (descended) continue;
    s.memo.emplace(key(f.sLoc, f.aLen), *value);
    s.frames.pop_back();
    returned = *value;
    result = *value;
  }
  return result;
}

void checkRange(IndexRange range, size_t size, const char* what) {
  if (range.location < 0 || range.length < 0 || range.location > static_cast<int64_t>(size) ||
      range.length > static_cast<int64_t>(size) - range.location) {
    throw Exception(ExceptionKind::OutOfRange, std::string(what) + " range {" + std::to_string(range.location) + ", " +
                                                   std::to_string(range.length) + "} out of bounds; length " +
                                                   std::to_string(size));
  }
}

}  // namespace

struct AbbreviationScorer::State {
  AsciiSearchClasses classes;
  std::u16string search;           // trimmed
  std::vector<uint8_t> searchIds;  // when simple: the ids of `search`, then a 0
  bool searchIsSimple = false;
  Scratch scratch;

  void prepare(std::u16string_view searchString) {
    classes = asciiSearchClasses();
    search.assign(trimmingWhitespace(searchString));
    searchIsSimple = simpleIds(search.data(), search.size(), classes, searchIds);
    searchIds.resize(search.size());
    searchIds.push_back(0);  // the end marker scanText relies on
  }

  void prepare(std::string_view searchString) {
    utf16FromUTF8(trimmingWhitespace(searchString), scratch.converted);
    prepare(std::u16string_view(scratch.converted));
  }

  template <class CharT>
  float directScore(const CharT* text, size_t length) {
    const auto n = static_cast<int64_t>(length);
    const auto m = static_cast<int64_t>(search.size());
    const float a = directAbbreviationScore(text, scratch.textIds.data(), 0, n, searchIds.data(), m, scratch);
    if (a == 0.0f) return 0.0f;  // no prefix either: a prefix would be a subsequence
    bool prefix = n >= m;
    for (int64_t i = 0; prefix && i < m; ++i)
      prefix = scratch.textIds[static_cast<size_t>(i)] == searchIds[static_cast<size_t>(i)];
    return a * kAbbreviationWeight + (prefix ? kPrefixBonus : 0.0f);
  }

  float unicodeScore(std::u16string_view text) {
    const auto n = static_cast<int64_t>(text.size());
    const float a = unicodeAbbreviationScore(text, search, 0, n, 0, static_cast<int64_t>(search.size()), scratch);
    auto first = rangeOfStringIgnoringCaseAndDiacritics(text, search);
    const float b = (first && first->location == 0) ? kPrefixBonus : 0.0f;
    return a * kAbbreviationWeight + b;
  }

  template <class CharT>
  float score(std::basic_string_view<CharT> text) {
    if (search.empty()) return 0.0f;
    if (mayNeedTrimming(text.data(), text.size())) text = trimmingWhitespace(text);
    if (text.empty()) return 0.0f;
    if (searchIsSimple) {
      switch (scanText(text.data(), text.size(), classes, scratch.textIds, searchIds)) {
        case TextScan::Subsequence:
          return directScore(text.data(), text.size());
        case TextScan::NoSubsequence:
          return 0.0f;  // every call fails before it reaches the empty abbreviation
        case TextScan::NotSimple:
          break;
      }
    }
    if constexpr (std::is_same_v<CharT, char16_t>) {
      return unicodeScore(text);
    } else {
      utf16FromUTF8(text, scratch.converted);
      return unicodeScore(scratch.converted);
    }
  }
};

namespace {

AbbreviationScorer::State& threadState() {
  thread_local AbbreviationScorer::State state;
  return state;
}

}  // namespace

AbbreviationScorer::AbbreviationScorer(std::string_view searchString) : state_(std::make_unique<State>()) {
  state_->prepare(searchString);
}

AbbreviationScorer::AbbreviationScorer(std::u16string_view searchString) : state_(std::make_unique<State>()) {
  state_->prepare(searchString);
}

AbbreviationScorer::~AbbreviationScorer() = default;
AbbreviationScorer::AbbreviationScorer(AbbreviationScorer&&) noexcept = default;
AbbreviationScorer& AbbreviationScorer::operator=(AbbreviationScorer&&) noexcept = default;

float AbbreviationScorer::score(std::string_view text) { return state_->score(text); }
float AbbreviationScorer::score(std::u16string_view text) { return state_->score(text); }

float scoreWithSearchString(std::string_view text, std::string_view searchString) {
  AbbreviationScorer::State& state = threadState();
  state.prepare(searchString);
  return state.score(text);
}

float scoreWithSearchString(std::u16string_view text, std::u16string_view searchString) {
  AbbreviationScorer::State& state = threadState();
  state.prepare(searchString);
  return state.score(text);
}

float scoreForAbbreviationWithRanges(std::u16string_view text, std::u16string_view abbreviation, IndexRange textRange,
                                     IndexRange abbreviationRange) {
  checkRange(textRange, text.size(), "text");
  checkRange(abbreviationRange, abbreviation.size(), "abbreviation");
  if (abbreviationRange.length == 0) return kEmptyAbbreviationScore;
  if (textRange.length < abbreviationRange.length) return 0.0f;

  Scratch& s = threadState().scratch;
  const AsciiSearchClasses& classes = asciiSearchClasses();
  if (simpleIds(text.data() + textRange.location, static_cast<size_t>(textRange.length), classes, s.textIds) &&
      simpleIds(abbreviation.data() + abbreviationRange.location, static_cast<size_t>(abbreviationRange.length),
                classes, s.abbreviationIds)) {
    return directAbbreviationScore(text.data(), s.textIds.data(), textRange.location, textRange.end(),
                                   s.abbreviationIds.data(), abbreviationRange.length, s);
  }
  return unicodeAbbreviationScore(text, abbreviation, textRange.location, textRange.end(), abbreviationRange.location,
                                  abbreviationRange.end(), s);
}

float scoreForAbbreviationWithRanges(std::string_view text, std::string_view abbreviation, IndexRange textRange,
                                     IndexRange abbreviationRange) {
  // Kept apart from the scratch buffers the UTF-16 form uses.
  thread_local std::u16string text16, abbreviation16;
  utf16FromUTF8(text, text16);
  utf16FromUTF8(abbreviation, abbreviation16);
  return scoreForAbbreviationWithRanges(std::u16string_view(text16), std::u16string_view(abbreviation16), textRange,
                                        abbreviationRange);
}

}  // namespace loomwork
