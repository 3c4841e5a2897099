#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "loomwork/additions.h"
#include "loomwork/platform.h"

namespace loomwork {
namespace {

TEST(StringAdditions, CStyleEscapesRepetitionAndSpaces) {
  const std::pair<std::string_view, std::string> escapes[] = {{"\\n", "\\\\n"},
                                                              {"\a\b\f\n\r\t\v'\"?", "\\a\\b\\f\\n\\r\\t\\v\\'\\\"\\?"},
                                                              {"plain \xC3\xA9 text", "plain \xC3\xA9 text"},
                                                              {std::string_view("\0\x01", 2), std::string("\0\x01", 2)},
                                                              {"", ""}};
  for (const auto& [input, expected] : escapes) EXPECT_EQ(expected, stringByAddingCStyleEscapes(input));
  EXPECT_EQ("ababab", stringByRepeatingNumberOfTimes("ab", 3));
  EXPECT_EQ("", stringByRepeatingNumberOfTimes("ab", 0));
  EXPECT_EQ("", stringByRepeatingNumberOfTimes("ab", -2));
  EXPECT_EQ("xx", stringByRepeatingStringCount("x", 2));
  for (const auto& [count, expected] : {std::pair{0, " "}, {1, " "}, {3, "   "}, {-4, "    "}})
    EXPECT_EQ(expected, stringWithSpaces(count)) << count;
  EXPECT_EQ("", randomWord());
}

TEST(StringAdditions, KeyPaths) {
  EXPECT_EQ("a.b", keyPathWithComponents({"a", "b"}));
  EXPECT_EQ(std::nullopt, keyPathWithComponents({}));
  EXPECT_EQ(std::nullopt, keyPathWithComponents({std::nullopt, "a"}));
  EXPECT_EQ("a", keyPathWithComponents({"a", std::nullopt, "b"}));
  EXPECT_EQ("a..b", keyPathWithComponents({"a", "", "b"}));
  EXPECT_EQ("x.y.z", keyPathWithComponents(std::vector<std::string>{"x", "y", "z"}));
  EXPECT_EQ(std::nullopt, keyPathWithComponents(std::vector<std::string>{}));
}

TEST(StringAdditions, UUIDStrings) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const std::string uuid = uuidString();  // upper-case hexadecimal, random version
    ASSERT_THAT(uuid, ::testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[0-9A-F]{4}-[0-9A-F]{12}"));
    seen.insert(uuid);
  }
  EXPECT_EQ(200u, seen.size());
}

TEST(StringAdditions, OrdinalsFromDefaultsOncePerProcess) {
  // First use from several threads at once builds each list exactly once.
  std::vector<std::thread> threads;
  std::vector<std::string> results(8);
  for (size_t i = 0; i < results.size(); ++i)
    threads.emplace_back(
        [&, i] { results[i] = i % 2 ? dativeOrdinalStringForNumber(22) : nominativeOrdinalStringForNumber(22); });
  for (auto& thread : threads) thread.join();
  for (const auto& result : results) EXPECT_EQ("22nd", result);

  for (const auto& [n, expected] : {std::pair<uint64_t, const char*>{1, "1st"}, {40, "40th"}, {41, "41"}, {0, "0"}})
    EXPECT_EQ(expected, nominativeOrdinalStringForNumber(n));
  EXPECT_EQ("3rd", ordinalStringForNumber(3));
  EXPECT_EQ("18446744073709551615", dativeOrdinalStringForNumber(UINT64_MAX));
  EXPECT_EQ("11th", dativeOrdinalStringForNumber(11));

  // A provider installed later does not change the lists already made.
  setLocalizedStringProvider([](std::string_view, std::string_view) { return std::optional<std::string>("x"); });
  EXPECT_EQ("2nd", nominativeOrdinalStringForNumber(2));
  setLocalizedStringProvider(nullptr);
}

TEST(LocalizedStrings, ProviderAndDefaults) {
  EXPECT_EQ("fallback", localizedString("Key", "fallback"));
  setLocalizedStringProvider([](std::string_view key, std::string_view table) -> std::optional<std::string> {
    if (key == "Known") return std::string(table) + ":known";
    return std::nullopt;
  });
  EXPECT_EQ("Localizable:known", localizedString("Known", "fallback"));
  EXPECT_EQ("Other:known", localizedString("Known", "fallback", "Other"));
  EXPECT_EQ("fallback", localizedString("Unknown", "fallback"));
  setLocalizedStringProvider(nullptr);
  EXPECT_EQ("fallback", localizedString("Known", "fallback"));
}

}  // namespace
}  // namespace loomwork
