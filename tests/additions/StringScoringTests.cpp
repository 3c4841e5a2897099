#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "loomwork/additions.h"
#include "loomwork/platform.h"

namespace loomwork {
namespace {

// The scoring recursion written down step by step, without memoisation or
// shortcuts: the reference the library must agree with bit for bit.
float plainAbbreviationScore(std::u16string_view text, std::u16string_view abbreviation, IndexRange s, IndexRange a) {
  if (a.length == 0) return 0.9f;
  if (s.length < a.length) return 0.0f;
  for (int64_t k = 0; k < a.length; ++k) {
    auto match = rangeOfStringIgnoringCaseAndDiacritics(
        text, abbreviation.substr(static_cast<size_t>(a.location), static_cast<size_t>(a.length - k)),
        IndexRange{s.location, s.length - k});
    if (!match) continue;
    const int64_t mLoc = match->location, mEnd = match->end();
    const float r = plainAbbreviationScore(text, abbreviation, IndexRange{mEnd, s.location + s.length - mEnd},
                                           IndexRange{a.location + a.length - k, k});
    if (!(r > 0)) continue;
    float score = static_cast<float>(mEnd - s.location);
    if (mLoc > s.location) {
      auto view = [&](int64_t j) -> char16_t { return j >= 0 && j < s.length ? text[s.location + j] : u'\0'; };
      auto separator = [](char16_t c) { return c == u'.' || isWhitespaceCharacter(c); };
      if (separator(view(mLoc - 1))) {
        for (int64_t j = mLoc - 2; j >= s.location; --j) score -= separator(view(j)) ? 1.0f : 0.15f;
      } else if (isUppercaseLetterCharacter(view(mLoc))) {
        for (int64_t j = mLoc - 1; j >= s.location; --j) score -= isUppercaseLetterCharacter(view(j)) ? 1.0f : 0.15f;
      } else {
        score -= static_cast<float>((mLoc - s.location) / 2);
      }
    }
    return (score + r * static_cast<float>(s.location + s.length - mEnd)) / static_cast<float>(s.length);
  }
  return 0.0f;
}

float plainSearchScore(std::u16string_view text, std::u16string_view search) {
  search = trimmingWhitespace(search);
  text = trimmingWhitespace(text);
  if (search.empty() || text.empty()) return 0.0f;
  const float a = plainAbbreviationScore(text, search, {0, static_cast<int64_t>(text.size())},
                                         {0, static_cast<int64_t>(search.size())});
  auto first = rangeOfStringIgnoringCaseAndDiacritics(text, search);
  return a * 0.8f + (first && first->location == 0 ? 0.2f : 0.0f);
}

std::u16string randomText(std::mt19937& rng, const std::vector<std::u16string>& alphabet, size_t maxPieces) {
  std::u16string text;
  const size_t pieces = std::uniform_int_distribution<size_t>(0, maxPieces)(rng);
  for (size_t i = 0; i < pieces; ++i)
    text += alphabet[std::uniform_int_distribution<size_t>(0, alphabet.size() - 1)(rng)];
  return text;
}

IndexRange randomRange(std::mt19937& rng, size_t size) {
  const auto location = std::uniform_int_distribution<int64_t>(0, static_cast<int64_t>(size))(rng);
  const auto length = std::uniform_int_distribution<int64_t>(0, static_cast<int64_t>(size) - location)(rng);
  return {location, length};
}

// Compares the library with the plain recursion on random texts over an alphabet.
void expectAgreement(const std::vector<std::u16string>& alphabet, int rounds, uint32_t seed) {
  std::mt19937 rng(seed);
  for (int round = 0; round < rounds; ++round) {
    const std::u16string text = randomText(rng, alphabet, 16);
    const std::u16string search = randomText(rng, alphabet, 5);
    SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round) + ": text \"" +
                 utf8FromUTF16(text) + "\", search \"" + utf8FromUTF16(search) + "\"");
    const float expected = plainSearchScore(text, search);
    ASSERT_EQ(expected, scoreWithSearchString(text, search));
    ASSERT_EQ(expected, scoreWithSearchString(utf8FromUTF16(text), utf8FromUTF16(search)));
    ASSERT_EQ(expected, AbbreviationScorer(search).score(utf8FromUTF16(text)));

    const IndexRange s = randomRange(rng, text.size()), a = randomRange(rng, search.size());
    ASSERT_EQ(plainAbbreviationScore(text, search, s, a), scoreForAbbreviationWithRanges(text, search, s, a))
        << "ranges {" << s.location << ", " << s.length << "} {" << a.location << ", " << a.length << "}";
  }
}

class StringScoringTest : public ::testing::Test {
 protected:
  void SetUp() override { setTextLocale("en"); }
  void TearDown() override { setTextLocale(""); }
};

TEST_F(StringScoringTest, WorkedExamplesAndPenalties) {
  // Skipping before a separated word costs 0.15 per letter and 1 per separator; at a capital, 0.15 per
  // lower-case and 1 per capital; mid-word, half the skipped length. Case and diacritics do not count.
  const std::tuple<std::u16string, std::u16string, float> cases[] = {
      {u"anything", u" \t ", 0.0f},
      {u" \t", u"a", 0.0f},
      {u"  Loomwork\t", u" loomwork ", 1.0f},
      {u"Cre\u0301me", u"CRÉME", 1.0f},  // a decomposed accent
      {u"abcd", u"abdc", 0.0f},
      {u"abcd", u"abc", (3.0f + 0.9f * 1.0f) / 4.0f * 0.8f + 0.2f},
      {u"a. c", u"c", (4.0f - 1.0f - 0.15f) / 4.0f * 0.8f},
      {u"a\u00A0b", u"b", (3.0f - 0.15f) / 3.0f * 0.8f},
      {u"aab", u"b", (3.0f - 1.0f) / 3.0f * 0.8f},
      {u"aAB", u"b", (3.0f - 1.0f - 0.15f) / 3.0f * 0.8f},
      {u"aaÉ", u"e", (3.0f - 0.15f - 0.15f) / 3.0f * 0.8f}};
  for (const auto& [text, search, expected] : cases) {
    EXPECT_EQ(expected, scoreWithSearchString(text, search)) << utf8FromUTF16(text) << " / " << utf8FromUTF16(search);
    EXPECT_EQ(expected, scoreWithSearchString(utf8FromUTF16(text), utf8FromUTF16(search)));
  }
  EXPECT_EQ(scoreWithSearchString("creme brulee", "cb"), scoreWithSearchString("Crème Brûlée", "CB"));
  // A character outside the basic plane counts two code units.
  EXPECT_EQ(plainSearchScore(u"x\U0001D400b", u"ab"), scoreWithSearchString(u"x\U0001D400b", u"ab"));
  EXPECT_GT(scoreWithSearchString(u"x\U0001D400b", u"ab"), 0.0f);

  EXPECT_EQ(0.9f, scoreForAbbreviationWithRanges(u"", u"", {0, 0}, {0, 0}));
  EXPECT_EQ(0.0f, scoreForAbbreviationWithRanges(u"ab", u"abc", {0, 2}, {0, 3}));
  EXPECT_THROW(scoreForAbbreviationWithRanges(u"ab", u"a", {1, 2}, {0, 1}), Exception);
  EXPECT_THROW(scoreForAbbreviationWithRanges(u"ab", u"a", {0, 1}, {-1, 1}), Exception);
}

TEST_F(StringScoringTest, NestedCallsReadTheShiftedView) {
  // The nested call (1, 5) matches "d" at 5 and reads view index 4, which is text[5] = "d", not the
  // space in front of it; so the skip counts as mid-word: 5 - (5 - 1) / 2 = 3.
  const float nested = 3.0f / 5.0f, top = (1.0f + nested * 5.0f) / 6.0f;
  EXPECT_EQ(nested, scoreForAbbreviationWithRanges(u"a bc d", u"ad", {1, 5}, {1, 1}));
  EXPECT_EQ(top, scoreForAbbreviationWithRanges(u"a bc d", u"ad", {0, 6}, {0, 2}));
  EXPECT_EQ(top * 0.8f, scoreWithSearchString("a bc d", "ad"));
}

TEST_F(StringScoringTest, AgreesWithPlainRecursion) {
  const uint32_t seed = 20261122;
  expectAgreement({u"a", u"A", u"b", u"B", u"c", u" ", u".", u"\t", u"-", u"1", u"ab", u"Ab", u"\n"}, 3000, seed);
  expectAgreement({u"a", u"A", u"á", u"Á", u"a\u0301", u"e", u"É", u"ß", u"s", u"S", u" ", u"\u00A0", u".",
                   u"\U0001D400", u"\u01C5", u"\r\n", u"\x01"},
                  1500, seed);
}

TEST_F(StringScoringTest, FollowsTheTextLocale) {
  // Danish collates "aa" as one letter, so "a" alone does not match inside it;
  // the ASCII path must notice that and agree with the full search.
  setTextLocale("da");
  EXPECT_EQ(plainSearchScore(u"baad", u"bd"), scoreWithSearchString("baad", "bd"));
  EXPECT_EQ(0.0f, scoreWithSearchString("baad", "ad"));
  expectAgreement({u"a", u"A", u"b", u"d", u" "}, 500, 7);
  setTextLocale("en");
  EXPECT_GT(scoreWithSearchString("baad", "ad"), 0.0f);
}

TEST_F(StringScoringTest, RepeatedLettersStayCheap) {
  // Exponential in the plain recursion; checked against closed forms instead.
  const float closedForm = (20.0f + 0.9f * 180.0f) / 200.0f * 0.8f + 0.2f;
  const std::string text(200, 'a');
  EXPECT_EQ(closedForm, scoreWithSearchString(text, std::string(20, 'a')));
  EXPECT_EQ(0.0f, scoreWithSearchString(text, std::string(19, 'a') + "b"));
  EXPECT_EQ(0.0f, scoreWithSearchString(text, "b" + std::string(19, 'a')));
  const std::u16string accented(200, u'á');
  EXPECT_EQ(0.0f, scoreWithSearchString(accented, std::u16string(19, u'a') + u"b"));
  EXPECT_EQ(closedForm, scoreWithSearchString(accented, std::u16string(20, u'A')));
  // Deep abbreviations do not recurse on the machine stack.
  EXPECT_GT(scoreWithSearchString(std::u16string(6000, u'é'), std::u16string(3000, u'e')), 0.0f);
}

TEST(TextServices, ConversionsAndClasses) {
  EXPECT_EQ(u"h\u00E9\U0001F600", utf16FromUTF8("h\xC3\xA9\xF0\x9F\x98\x80"));
  EXPECT_EQ(u"a\uFFFD-", utf16FromUTF8("a\xFF-"));
  EXPECT_EQ("a\xEF\xBF\xBD", utf8FromUTF16(u"a\xD800"));
  // Title case counts as upper case; line breaks are not whitespace; half surrogates are in no class.
  const std::u16string spaces = u" \t\u3000", uppers = u"Q\u01C5";
  for (char16_t c : spaces + uppers + u"\nq\xD835") {
    EXPECT_EQ(spaces.find(c) != std::u16string::npos, isWhitespaceCharacter(c)) << int(c);
    EXPECT_EQ(uppers.find(c) != std::u16string::npos, isUppercaseLetterCharacter(c)) << int(c);
  }
  EXPECT_EQ("a b", trimmingWhitespace(std::string_view("\xC2\xA0\t a b \xE3\x80\x80")));
  EXPECT_EQ("\n", trimmingWhitespace(std::string_view(" \n ")));
  EXPECT_EQ("\xFF", trimmingWhitespace(std::string_view(" \xFF ")));
  EXPECT_EQ(u"x", trimmingWhitespace(std::u16string_view(u"\u2003x\t")));

  EXPECT_EQ((IndexRange{4, 1}), rangeOfStringIgnoringCaseAndDiacritics(u"Straße", u"SS"));
  EXPECT_FALSE(rangeOfStringIgnoringCaseAndDiacritics(u"Straße", u"a", {4, 2}));
  EXPECT_FALSE(rangeOfStringIgnoringCaseAndDiacritics(u"abc", u"a", {2, 5}));
  EXPECT_FALSE(rangeOfStringIgnoringCaseAndDiacritics(u"abc", u""));
}

TEST(TextServices, AsciiClassesDescribeTheSearch) {
  // What the direct ASCII path assumes of the search: the leftmost window of equal ids, for every pair of
  // simple characters and for random texts over a few of them (so that runs repeat), in locales with
  // contractions, other letters, shifted punctuation and numeric collation.
  const uint32_t seed = 20261122;
  std::mt19937 rng(seed);
  for (const char* locale :
       {"", "en", "da", "cs", "hr", "tr", "fi", "th", "en@colAlternate=shifted", "de@colNumeric=yes"}) {
    SCOPED_TRACE(std::string("locale ") + locale + ", seed " + std::to_string(seed));
    setTextLocale(locale);
    const AsciiSearchClasses classes = asciiSearchClasses();
    auto leftmostRun = [&](const std::u16string& text, const std::u16string& pattern) -> ::testing::AssertionResult {
      std::optional<IndexRange> expected;
      for (size_t p = 0; !expected && p + pattern.size() <= text.size(); ++p) {
        bool same = true;
        for (size_t k = 0; same && k < pattern.size(); ++k) same = classes.ids[text[p + k]] == classes.ids[pattern[k]];
        if (same) expected = IndexRange{static_cast<int64_t>(p), static_cast<int64_t>(pattern.size())};
      }
      if (expected == rangeOfStringIgnoringCaseAndDiacritics(text, pattern)) return ::testing::AssertionSuccess();
      return ::testing::AssertionFailure() << utf8FromUTF16(pattern) << " in " << utf8FromUTF16(text);
    };
    std::u16string simple;
    for (char16_t c = 1; c < 128; ++c)
      if (classes.ids[c] != 0) simple += c;
    EXPECT_GE(simple.size(), 52u);  // at least the letters, wherever they are not contracted
    for (char16_t a : simple)
      for (char16_t b : simple) ASSERT_TRUE(leftmostRun(std::u16string(1, b), std::u16string(1, a)));
    std::u16string few = simple.substr(simple.size() / 2, 4);
    for (char16_t c : u"aA. ")
      if (c != 0 && classes.ids[c] != 0) few += c;
    for (int round = 0; round < 300; ++round) {
      std::u16string text, pattern;
      for (size_t n = rng() % 12; n > 0; --n) text += few[rng() % few.size()];
      for (size_t n = 1 + rng() % 3; n > 0; --n) pattern += few[rng() % few.size()];
      ASSERT_TRUE(leftmostRun(text, pattern));
    }
  }
  setTextLocale("");
}

}  // namespace
}  // namespace loomwork
