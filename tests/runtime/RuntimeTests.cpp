#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <stdexcept>

#include "loomwork/platform/Exception.h"
#include "loomwork/runtime.h"

namespace loomwork {
namespace {

TEST(RuntimeHelpers, HexadecimalTextRoundTripsAndRefusesBadText) {
  const uint32_t seed = 5150;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  for (int round = 0; round < 2000; ++round) {
    Data bytes(rng() % 40);
    for (auto& byte : bytes) byte = static_cast<uint8_t>(rng());
    std::string text = hexadecimalStringFromData(bytes);
    ASSERT_EQ(bytes.size() * 2, text.size());
    ASSERT_EQ(bytes, dataFromHexadecimalString(text));
    for (auto& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    ASSERT_EQ(bytes, dataFromHexadecimalString(text));
    if (!text.empty()) {
      // Any one character that is not a digit spoils the whole text.
      const char bad[] = {'g', 'G', ' ', 'x', '\0', '-', static_cast<char>(0xC3)};
      text[rng() % text.size()] = bad[rng() % sizeof bad];
      ASSERT_EQ(std::nullopt, dataFromHexadecimalString(text)) << text;
    }
  }
  EXPECT_EQ("00ff10", hexadecimalStringFromData({0x00, 0xFF, 0x10}));
  EXPECT_EQ(std::nullopt, dataFromHexadecimalString("abc"));
  EXPECT_EQ(Data{}, dataFromHexadecimalString(""));
}

TEST(RuntimeHelpers, NumberKindsCatchingAndDelayedCalls) {
  EXPECT_TRUE(isBOOL(Value(true)) && !isBOOL(Value(1)) && !isBOOL(Value(1.0)));
  EXPECT_TRUE(isInteger(Value(7)) && !isInteger(Value(false)) && !isInteger(Value(7.0)));
  EXPECT_TRUE(isDouble(Value(0.5)) && !isDouble(Value(1)) && !isDouble(Value("0.5")));
  EXPECT_FALSE(isBOOL(Value::null()) || isInteger(Value("1")) || isDouble(Value::date(1)));

  EXPECT_EQ(nullptr, catchException([] {}));
  EXPECT_THROW(std::rethrow_exception(catchException([] { throw Exception(ExceptionKind::OutOfRange, "x"); })),
               Exception);
  EXPECT_NE(nullptr, catchException([] { throw std::runtime_error("other"); }));

  std::vector<int> order;
  performBlockAfterDelay([&] { order.push_back(2); }, 0.02);
  const RunLoop::TaskID dropped = performBlockAfterDelay([&] { order.push_back(9); }, 0.01);
  performBlockAfterDelay(
      [&] {
        order.push_back(3);
        RunLoop::current()->stop();
      },
      0.03);
  performBlockAfterDelay([&] { order.push_back(1); }, 0);
  // Any thread can serve its own loop; a cancelled task never runs.
  EXPECT_TRUE(RunLoop::current()->cancelTask(dropped) && !RunLoop::current()->cancelTask(dropped));
  RunLoop::current()->runFor(10);
  EXPECT_EQ((std::vector<int>{1, 2, 3}), order);
  EXPECT_EQ(0u, RunLoop::current()->pendingDelayedTaskCount());
}

TEST(RuntimeHelpers, UserDefaultsReadTheHostStoreWithDefaults) {
  EXPECT_EQ(5, integerForKeyWithDefault("n", 5));  // no store
  std::map<std::string, Value, std::less<>> stored = {
      {"yes", Value("YES")},      {"zero", Value("  -00")}, {"on", Value(true)},   {"n", Value(42)},
      {"real", Value(-2.75)},     {"text", Value(" 17 ")},  {"junk", Value("1x")}, {"huge", Value(1e300)},
      {"list", Value::array({})}, {"name", Value("Ada")},
  };
  setUserDefaultsStore([&](std::string_view key) -> std::optional<Value> {
    auto found = stored.find(key);
    return found == stored.end() ? std::nullopt : std::optional<Value>(found->second);
  });
  EXPECT_TRUE(boolForKeyWithDefault("yes", false));
  EXPECT_FALSE(boolForKeyWithDefault("zero", true));
  EXPECT_TRUE(boolForKeyWithDefault("on", false) && boolForKeyWithDefault("n", false));
  EXPECT_TRUE(boolForKeyWithDefault("missing", true) && boolForKeyWithDefault("list", true));
  EXPECT_EQ(42, integerForKeyWithDefault("n", 0));
  EXPECT_EQ(-2, integerForKeyWithDefault("real", 0));
  EXPECT_EQ(17, integerForKeyWithDefault("text", 0));
  EXPECT_EQ(3, integerForKeyWithDefault("junk", 3));
  EXPECT_EQ(3, integerForKeyWithDefault("huge", 3));
  EXPECT_EQ(-2.75, doubleForKeyWithDefault("real", 0));
  EXPECT_EQ(17.0, doubleForKeyWithDefault("text", 0));
  EXPECT_EQ(0.5, doubleForKeyWithDefault("name", 0.5));
  EXPECT_EQ("Ada", stringForKeyWithDefault("name", "x"));
  EXPECT_EQ("42", stringForKeyWithDefault("n", "x"));
  EXPECT_EQ("x", stringForKeyWithDefault("list", "x"));
  EXPECT_TRUE(objectForKeyWithDefault("list", Value(1)).isArray());
  EXPECT_EQ(Value(1), objectForKeyWithDefault("missing", Value(1)));
  setUserDefaultsStore(nullptr);
  EXPECT_EQ(std::nullopt, userDefaultsObjectForKey("n"));
}

TEST(RuntimeHelpers, BaseDirectoriesAndScaledResources) {
  std::map<std::string, std::string, std::less<>> environment = {{"HOME", "/home/ada"}};
  const EnvironmentLookup lookup = [&](std::string_view name) -> std::optional<std::string> {
    auto found = environment.find(name);
    return found == environment.end() ? std::nullopt : std::optional<std::string>(found->second);
  };
  using Strings = std::vector<std::string>;
  XDGBaseDirectories d = xdgBaseDirectories(lookup);
  EXPECT_EQ((Strings{"/home/ada/.local/share", "/home/ada/.config", "/home/ada/.local/state", "/home/ada/.cache"}),
            (Strings{d.dataHome, d.configHome, d.stateHome, d.cacheHome}));
  EXPECT_EQ(std::nullopt, d.runtimeDir);
  EXPECT_EQ((Strings{"/usr/local/share", "/usr/share"}), d.dataDirs);
  EXPECT_EQ((Strings{"/etc/xdg"}), d.configDirs);
  // Relative and empty settings are ignored.
  environment = {{"HOME", "/h"},
                 {"XDG_DATA_HOME", "relative/data"},
                 {"XDG_CONFIG_HOME", ""},
                 {"XDG_CACHE_HOME", "/c"},
                 {"XDG_RUNTIME_DIR", "/run/user/1"},
                 {"XDG_DATA_DIRS", "/a::b:/c/"},
                 {"XDG_CONFIG_DIRS", "x:y"}};
  d = xdgBaseDirectories(lookup);
  EXPECT_EQ((Strings{"/h/.local/share", "/h/.config", "/c", "/run/user/1", "/a", "/c/", "/etc/xdg"}),
            (Strings{d.dataHome, d.configHome, d.cacheHome, d.runtimeDir.value_or(""), d.dataDirs.at(0),
                     d.dataDirs.back(), d.configDirs.back()}));
  EXPECT_TRUE(d.dataDirs.size() == 2 && d.configDirs.size() == 1);
  EXPECT_FALSE(xdgBaseDirectories().home.empty());

  std::set<std::string> files = {"/r/icon@3x.png", "/r/icon@2x.png", "/r/icon.png", "/r/logo.png", "/r/mark@2x.png"};
  const FileExistsCheck exists = [&](const std::string& path) { return files.count(path) > 0; };
  EXPECT_EQ("/r/icon@3x.png", pathForResourceWithScale("/r", "icon", "png", 3, exists));
  EXPECT_EQ("/r/icon@2x.png", pathForResourceWithScale("/r/", "icon.png", "", 2, exists));
  EXPECT_EQ("/r/icon.png", pathForResourceWithScale("/r", "icon", "png", 1, exists));
  EXPECT_EQ("/r/logo.png", pathForResourceWithScale("/r", "logo", "png", 3, exists));
  EXPECT_EQ("/r/mark@2x.png", pathForResourceWithScale("/r", "mark.png", "", 3, exists));
  EXPECT_EQ(std::nullopt, pathForResourceWithScale("/r", "mark", "png", 1, exists));
  EXPECT_EQ(std::nullopt, pathForResourceWithScale("/r", "none", "png", 3, exists));
}

}  // namespace
}  // namespace loomwork
