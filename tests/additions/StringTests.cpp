// String additions, localized strings, abbreviation scoring against a plain
// model of its recursion, and the text services it stands on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "loomwork/additions.h"
#include "loomwork/platform.h"

namespace loomwork {
namespace {

TEST(StringAdditions, CStyleEscapesRepetitionAndSpaces) {
  const std::pair<std::string_view, std::string> escapes[] = {
      {"\\n", "\\\\n"},
      {"\a\b\f\n\r\t\v'\"?", "\\a\\b\\f\\n\\r\\t\\v\\'\\\"\\?"},
      {"plain \xC3\xA9 text", "plain \xC3\xA9 text"},
      {std::string_view("\0\x01", 2), std::string("\0\x01", 2)}};
  for (const auto& [input, expected] : escapes) EXPECT_EQ(expected, stringByAddingCStyleEscapes(input));
  for (const auto& [count, expected] : {std::pair{3, "ababab"}, {0, ""}, {-2, ""}})
    EXPECT_EQ(expected, stringByRepeatingNumberOfTimes("ab", count)) << count;
  EXPECT_EQ("xx", stringByRepeatingStringCount("x", 2));
  for (const auto& [count, expected] : {std::pair{0, " "}, {1, " "}, {3, "   "}, {-4, "    "}})
    EXPECT_EQ(expected, stringWithSpaces(count)) << count;
  EXPECT_EQ("", randomWord());

  // Key paths take the components up to the first absent one.
  EXPECT_EQ("a.b", keyPathWithComponents({"a", "b"}));
  EXPECT_EQ(std::nullopt, keyPathWithComponents({std::nullopt, "a"}));
  EXPECT_EQ("a", keyPathWithComponents({"a", std::nullopt, "b"}));
  EXPECT_EQ("a..b", keyPathWithComponents({"a", "", "b"}));
  EXPECT_EQ("x.y.z", keyPathWithComponents(std::vector<std::string>{"x", "y", "z"}));
  EXPECT_EQ(std::nullopt, keyPathWithComponents(std::vector<std::string>{}));

  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) seen.insert(uuidString());
  EXPECT_EQ(200u, seen.size());
  for (const auto& uuid : seen)  // upper-case hexadecimal, random version
    ASSERT_THAT(uuid, ::testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[0-9A-F]{4}-[0-9A-F]{12}"));
}

TEST(StringAdditions, OrdinalsAndLocalizedStrings) {
  // The ordinal lists come from the defaults when first used, once per process.
  for (const auto& [n, expected] :
       {std::pair<uint64_t, const char*>{1, "1st"}, {22, "22nd"}, {40, "40th"}, {41, "41"}, {0, "0"}})
    EXPECT_EQ(expected, nominativeOrdinalStringForNumber(n));
  EXPECT_EQ("3rd", ordinalStringForNumber(3));
  EXPECT_EQ("18446744073709551615", dativeOrdinalStringForNumber(UINT64_MAX));
  EXPECT_EQ("11th", dativeOrdinalStringForNumber(11));

  EXPECT_EQ("fallback", localizedString("Known", "fallback"));
  setLocalizedStringProvider([](std::string_view key, std::string_view table) -> std::optional<std::string> {
    if (key == "Unknown") return std::nullopt;
    return std::string(table) + ":" + std::string(key);
  });
  EXPECT_EQ("Localizable:Known", localizedString("Known", "fallback"));
  EXPECT_EQ("Other:Known", localizedString("Known", "fallback", "Other"));
  EXPECT_EQ("fallback", localizedString("Unknown", "fallback"));
  EXPECT_EQ("2nd", nominativeOrdinalStringForNumber(2));  // the lists already made stay
  EXPECT_EQ("12th", dativeOrdinalStringForNumber(12));
  setLocalizedStringProvider(nullptr);
  EXPECT_EQ("fallback", localizedString("Known", "fallback"));
}

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
  for (size_t pieces = rng() % (maxPieces + 1); pieces > 0; --pieces) text += alphabet[rng() % alphabet.size()];
  return text;
}

IndexRange randomRange(std::mt19937& rng, size_t size) {
  const size_t location = rng() % (size + 1);
  return {static_cast<int64_t>(location), static_cast<int64_t>(rng() % (size + 1 - location))};
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

TEST_F(StringScoringTest, WorkedExamplesPenaltiesAndRepeatedLetters) {
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
      {u"aaÉ", u"e", (3.0f - 0.15f - 0.15f) / 3.0f * 0.8f},
      // The nested call matches "d" at 5 of its range (1, 5) and reads view index 4, which is text[5] = "d", not
      // the space in front of it; so the skip counts as mid-word and the nested score is (5 - (5 - 1) / 2) / 5.
      {u"a bc d", u"ad", (1.0f + 3.0f / 5.0f * 5.0f) / 6.0f * 0.8f}};
  for (const auto& [text, search, expected] : cases) {
    EXPECT_EQ(expected, scoreWithSearchString(text, search)) << utf8FromUTF16(text) << " / " << utf8FromUTF16(search);
    EXPECT_EQ(expected, scoreWithSearchString(utf8FromUTF16(text), utf8FromUTF16(search)));
  }
  EXPECT_EQ(scoreWithSearchString("creme brulee", "cb"), scoreWithSearchString("Crème Brûlée", "CB"));
  EXPECT_THROW(scoreForAbbreviationWithRanges(u"ab", u"a", {1, 2}, {0, 1}), Exception);
  EXPECT_THROW(scoreForAbbreviationWithRanges(u"ab", u"a", {0, 1}, {-1, 1}), Exception);

  // Repeated letters are exponential in the plain recursion; checked against closed forms instead.
  const float closedForm = (20.0f + 0.9f * 180.0f) / 200.0f * 0.8f + 0.2f;
  EXPECT_EQ(closedForm, scoreWithSearchString(std::string(200, 'a'), std::string(20, 'a')));
  const std::u16string accented(200, u'á');
  EXPECT_EQ(0.0f, scoreWithSearchString(accented, std::u16string(19, u'a') + u"b"));
  EXPECT_EQ(closedForm, scoreWithSearchString(accented, std::u16string(20, u'A')));
  // Deep abbreviations do not recurse on the machine stack.
  EXPECT_GT(scoreWithSearchString(std::u16string(6000, u'é'), std::u16string(3000, u'e')), 0.0f);
}

TEST_F(StringScoringTest, AgreesWithPlainRecursionInTheTextLocale) {
  expectAgreement({u"a", u"A", u"b", u"B", u"c", u" ", u".", u"\t", u"-", u"1", u"ab", u"Ab", u"\n"}, 3000, 20261122);
  expectAgreement({u"a", u"A", u"á", u"Á", u"a\u0301", u"e", u"É", u"ß", u"s", u"S", u" ", u"\u00A0", u".",
                   u"\U0001D400", u"\u01C5", u"\r\n", u"\x01"},
                  1500, 20261122);
  // Danish collates "aa" as one letter, so "a" alone does not match inside it;
  // the ASCII path must notice that and agree with the full search.
  setTextLocale("da");
  EXPECT_EQ(plainSearchScore(u"baad", u"bd"), scoreWithSearchString("baad", "bd"));
  EXPECT_EQ(0.0f, scoreWithSearchString("baad", "ad"));
  expectAgreement({u"a", u"A", u"b", u"d", u" "}, 500, 7);
  setTextLocale("en");
  EXPECT_GT(scoreWithSearchString("baad", "ad"), 0.0f);
}

TEST(TextServices, ConversionsClassesAndTheAsciiSearch) {
  EXPECT_EQ(u"h\u00E9\U0001F600", utf16FromUTF8("h\xC3\xA9\xF0\x9F\x98\x80"));
  EXPECT_EQ(u"a\uFFFD-", utf16FromUTF8("a\xFF-"));
  EXPECT_EQ("a\xEF\xBF\xBD", utf8FromUTF16(u"a\xD800"));
  // Title case counts as upper case; line breaks are not whitespace; half surrogates are in no class.
  const std::u16string spaces = u" \t\u3000", uppers = u"Z\u01C5";
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
  EXPECT_FALSE(rangeOfStringIgnoringCaseAndDiacritics(u"abc", u"c", {2, 2}));
  EXPECT_FALSE(rangeOfStringIgnoringCaseAndDiacritics(u"abc", u""));

  // What the direct ASCII path assumes of the search: the leftmost window of equal ids, for every pair of
  // simple characters and for random texts over a few of them (so that runs repeat), in locales with
  // contractions, other letters, shifted punctuation and numeric collation.
  std::mt19937 rng(20261122);
  for (const char* locale :
       {"", "en", "da", "cs", "hr", "tr", "fi", "th", "en@colAlternate=shifted", "de@colNumeric=yes"}) {
    SCOPED_TRACE(std::string("locale ") + locale + ", seed 20261122");
    setTextLocale(locale);
    const AsciiSearchClasses classes = asciiSearchClasses();
    auto leftmostRun = [&](const std::u16string& text, const std::u16string& pattern) -> ::testing::AssertionResult {
      auto same = [&](char16_t x, char16_t y) { return classes.ids[x] == classes.ids[y]; };
      const auto at = std::search(text.begin(), text.end(), pattern.begin(), pattern.end(), same);
      std::optional<IndexRange> expected;
      if (at != text.end()) expected = IndexRange{at - text.begin(), static_cast<int64_t>(pattern.size())};
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
