#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "PropertyListTestSupport.h"
#include "platform/Object.h"
#include "platform/PropertyList.h"

namespace loomwork {
namespace {

using testing::assembleBinary;
using ::testing::HasSubstr;
using testing::sameValue;
using testing::trailerOf;

using testing::read;
using testing::readText;

Data binary(const Value& v) { return testing::write(v, PropertyListFormat::Binary); }

// The object bytes between the header and the offset table.
Data objectBytes(const Data& file) {
  auto trailer = trailerOf(file);
  return Data(file.begin() + 8, file.begin() + static_cast<std::ptrdiff_t>(trailer.tableOffset));
}

TEST(PropertyListCodec, RandomValuesRoundTripExactlyInBothFormats) {
  for (uint64_t seed = 1; seed <= 400; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (auto format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
      testing::PlistGenerator generator(seed, {.xmlSafe = format == PropertyListFormat::XML});
      Value original = generator.value();
      std::string error;
      auto data = dataFromPropertyList(original, format, &error);
      ASSERT_TRUE(data) << error;
      PropertyListFormat found{};
      auto back = propertyListFromData(*data, PropertyListMutabilityOption::MutableContainersAndLeaves, &found, &error);
      ASSERT_TRUE(back) << error;
      EXPECT_EQ(found, format);
      EXPECT_TRUE(sameValue(original, *back)) << original.description() << "\n" << back->description();
    }
  }
}

TEST(PropertyListBinary, WritesTheSmallestEncodings) {
  // A scalar at the top: header, one object, a one-entry offset table, trailer.
  Data one = binary(Value(1));
  ASSERT_EQ(one.size(), 8u + 2 + 1 + 32);
  EXPECT_EQ(std::string(one.begin(), one.begin() + 8), "bplist00");
  EXPECT_EQ(objectBytes(one), (Data{0x10, 0x01}));
  auto t = trailerOf(one);
  EXPECT_EQ(std::tuple(t.offsetWidth, t.refWidth, t.count, t.top, t.tableOffset), std::tuple(1u, 1u, 1u, 0u, 10u));

  // clang-format off
  const std::pair<Value, Data> cases[] = {
      {Value(255), {0x10, 0xFF}}, {Value(256), {0x11, 0x01, 0x00}}, {Value(65536), {0x12, 0x00, 0x01, 0x00, 0x00}},
      {Value(int64_t{1} << 32), {0x13, 0, 0, 0, 1, 0, 0, 0, 0}},
      {Value(-1), {0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}, {Value(true), {0x09}},
      {Value(false), {0x08}}, {Value(1.5), {0x23, 0x3F, 0xF8, 0, 0, 0, 0, 0, 0}},
      {Value::date(978307200.0 + 1.0), {0x33, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0}}, {Value("abc"), {0x53, 'a', 'b', 'c'}},
      {Value("\xC3\xA9"), {0x61, 0x00, 0xE9}}, {Value("\xF0\x9F\x98\x80"), {0x62, 0xD8, 0x3D, 0xDE, 0x00}},
      {Value(std::string(15, 'x')),
       {0x5F, 0x10, 0x0F, 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'}},
      {Value::data({1, 2}), {0x42, 1, 2}}, {Value(Array{}), {0xA0}}, {Value(Dictionary{}), {0xD0}},
  };
  // clang-format on
  for (const auto& [value, bytes] : cases) {
    SCOPED_TRACE(value.description());
    Data file = binary(value);
    EXPECT_EQ(objectBytes(file), bytes);
    auto back = read(file);
    ASSERT_TRUE(back);
    EXPECT_TRUE(sameValue(*back, value));
  }

  // Containers refer to their elements by index; equal strings and numbers
  // are written once, and the root comes first.
  Data shared = binary(Value::dictionary({{"x", "x"}, {"y", Value::array({1, 1, "x"})}}));
  EXPECT_EQ(objectBytes(shared), (Data{0xD2, 1, 2, 1, 3,  // {x: x, y: [...]}
                                       0x51, 'x',         // "x"
                                       0x51, 'y',         // "y"
                                       0xA3, 4, 4, 1,     // [1, 1, "x"]
                                       0x10, 0x01}));
  EXPECT_EQ(trailerOf(shared).count, 5u);

  // A container held twice is written once and read back as one container.
  Value inner = Value::array({1000, 2000});
  Data twice = binary(Value::array({inner, inner}));
  EXPECT_EQ(trailerOf(twice).count, 4u);
  auto back = read(twice);
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->array()[0].isIdenticalTo(back->array()[1]));
  // Sharing keeps writing linear even where the expanded tree is astronomic;
  // the reader refuses such a file.
  Value doubling = Value::array({1});
  for (int i = 0; i < 100; ++i) doubling = Value::array({doubling, doubling});
  Data huge = binary(doubling);
  EXPECT_EQ(trailerOf(huge).count, 102u);
  std::string error;
  EXPECT_FALSE(read(huge, &error));
  EXPECT_EQ(error, "Binary property list expands to too many objects");
}

TEST(PropertyListBinary, ReferenceAndOffsetWidthsGrowWithTheDocument) {
  // Distinct integers in one array: elements + 1 objects.
  using Widths = std::tuple<size_t, unsigned, unsigned>;
  for (auto [elements, refWidth, offsetWidth] : {Widths{254, 1, 2}, {255, 2, 2}, {65534, 2, 4}, {65535, 4, 4}}) {
    SCOPED_TRACE(elements);
    Array a;
    for (size_t i = 0; i < elements; ++i) a.push_back(Value(static_cast<int64_t>(i) + 1000));
    Value original(std::move(a));
    Data file = binary(original);
    auto t = trailerOf(file);
    EXPECT_EQ(std::tuple(t.count, t.refWidth, t.offsetWidth), std::tuple(elements + 1, refWidth, offsetWidth));
    auto back = read(file);
    ASSERT_TRUE(back);
    EXPECT_TRUE(sameValue(*back, original));
  }
}

TEST(PropertyListBinary, ReadsEveryWidthOtherWritersUse) {
  // An absent value: the file must be refused.
  // clang-format off
  const std::pair<Data, std::optional<Value>> cases[] = {
      {{0x10, 0xFF}, Value(255)}, {{0x11, 0xFF, 0xFF}, Value(65535)},
      {{0x12, 0xFF, 0xFF, 0xFF, 0xFF}, Value(int64_t{4294967295})},
      {{0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}, Value(-2)},
      // 16-byte integers: negative, the extremes within range, beyond them either way, and wider ones.
      {{0x14, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFD},
       Value(-3)},
      {{0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, Value(INT64_MAX)},
      {{0x14, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0, 0, 0, 0, 0, 0, 0}, Value(INT64_MIN)},
      {{0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, std::nullopt},
      {{0x14, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0, 0, 0, 0}, std::nullopt},
      {{0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
       std::nullopt},
      {{0x22, 0x3F, 0xC0, 0, 0}, Value(1.5)}, {{0x23, 0xBF, 0xF8, 0, 0, 0, 0, 0, 0}, Value(-1.5)},
      {{0x21, 0x3F, 0xC0}, std::nullopt}, {{0x33, 0, 0, 0, 0, 0, 0, 0, 0}, Value::date(978307200.0)},
      {{0x5F, 0x10, 0x01, 'q'}, Value("q")},  // a count that could have been in the marker
      {{0x5F, 0x13, 0, 0, 0, 0, 0, 0, 0, 0x01, 'q'}, Value("q")}, {{0x61, 0x00, 0x41}, Value("A")},
  };
  // clang-format on
  for (const auto& [object, expected] : cases) {
    SCOPED_TRACE(::testing::PrintToString(object));
    std::string error;
    auto back = read(assembleBinary({object}), &error);
    if (expected) {
      ASSERT_TRUE(back) << error;
      EXPECT_TRUE(sameValue(*back, *expected)) << back->description();
    } else {
      EXPECT_FALSE(back);
      EXPECT_FALSE(error.empty());
    }
  }
  // Reference widths other than the usual ones still read.
  auto wide = read(assembleBinary({{0xA2, 0, 0, 1, 0, 0, 1}, {0x10, 7}}, 0, 3));
  ASSERT_TRUE(wide);
  EXPECT_TRUE(sameValue(*wide, Value::array({7, 7})));
}

TEST(PropertyListXML, WritesTheStandardDocument) {
  // clang-format off
  Value v = Value::dictionary({
      {"a&b", Value::array({1, -2, 0.5, true, false})}, {"text", "<tag> & \"q\" \r\n\ttab"},
      {"when", Value::date(1e9 + 0.75)}, {"bytes", Value::data(Data(61, 0xAB))},
      {"empty", Value::array({Value(Array{}), Value(Dictionary{}), Value::data({})})},
      {"reals", Value::array({1.0, 1e300, -std::numeric_limits<double>::infinity()})},
  });
  // clang-format on
  const Data written = testing::write(v, PropertyListFormat::XML);
  EXPECT_EQ(std::string(written.begin(), written.end()),
            testing::kXMLPrologue +
                "<plist version=\"1.0\">\n<dict>\n\t<key>a&amp;b</key>\n\t<array>\n\t\t<integer>1</integer>\n"
                "\t\t<integer>-2</integer>\n\t\t<real>0.5</real>\n\t\t<true/>\n\t\t<false/>\n\t</array>\n"
                "\t<key>text</key>\n\t<string>&lt;tag&gt; &amp; \"q\" &#13;\n\ttab</string>\n\t<key>when</key>\n"
                "\t<date>2001-09-09T01:46:40Z</date>\n\t<key>bytes</key>\n\t<data>\n"
                "\tq6urq6urq6urq6urq6urq6urq6urq6urq6urq6urq6urq6urq6urq6urq6urq6urq6ur\n\tq6urq6urq6urqw==\n"
                "\t</data>\n\t<key>empty</key>\n\t<array>\n\t\t<array/>\n\t\t<dict/>\n\t\t<data>\n\t\t</data>\n"
                "\t</array>\n\t<key>reals</key>\n\t<array>\n\t\t<real>1</real>\n\t\t<real>1e+300</real>\n"
                "\t\t<real>-infinity</real>\n\t</array>\n</dict>\n</plist>\n");
}

TEST(PropertyListXML, ReadsTheFormsOtherWritersProduce) {
  auto doc = [](std::string body) { return testing::kXMLPrologue + "<plist version=\"1.0\">" + body + "</plist>"; };
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  // clang-format off
  const std::pair<std::string, Value> cases[] = {
      {doc("<integer> 0x1F </integer>"), Value(31)}, {doc("<integer>-9223372036854775808</integer>"), Value(INT64_MIN)},
      {doc("<integer>+7</integer>"), Value(7)}, {doc("<real>+infinity</real>"), Value(kInfinity)},
      {doc("<real>inf</real>"), Value(kInfinity)}, {doc("<real>-1e400</real>"), Value(-kInfinity)},
      {doc("<real>1e-400</real>"), Value(0.0)}, {doc("<real>3</real>"), Value(3.0)},
      {doc("<date>2001-01-01T00:00:00.5Z</date>"), Value::date(978307200.5)},
      {doc("<date>0001-01-01T00:00:00Z</date>"), Value::date(-62135596800.0)},
      {doc("<data>AA\n  E=</data>"), Value::data({0, 1})}, {doc("<string/>"), Value("")},
      {doc("<string><![CDATA[<a&b>]]>&#x1F600;&amp;</string>"), Value("<a&b>\xF0\x9F\x98\x80&")},
      {doc("<!-- note --><dict><key>k</key><!-- x --><true/><key>k</key><false/></dict>"),
       Value::dictionary({{"k", false}})},
      {"<array><string>bare root</string></array>", Value::array({"bare root"})},
      {"\xEF\xBB\xBF  <plist><string>bom</string></plist>", Value("bom")},
  };
  // clang-format on
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    std::string error;
    PropertyListFormat format{};
    auto back = propertyListFromData(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()),
                                     PropertyListMutabilityOption::Immutable, &format, &error);
    ASSERT_TRUE(back) << error;
    EXPECT_EQ(format, PropertyListFormat::XML);
    EXPECT_TRUE(sameValue(*back, expected)) << back->description();
  }

  // UTF-16 with a byte-order mark.
  std::u16string utf16 = u"\uFEFF<plist><string>\u00E9\U0001F600</string></plist>";
  Data bytes;
  for (char16_t unit : utf16)
    bytes.insert(bytes.end(), {static_cast<uint8_t>(unit & 0xFF), static_cast<uint8_t>(unit >> 8)});
  auto back = read(bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, Value("\xC3\xA9\xF0\x9F\x98\x80"));
}

TEST(PropertyListCodec, ValuesTheFormatsCannotHoldFailWithAText) {
  class Thing : public Object {};
  Value deep = Value(1);
  for (size_t i = 0; i < kPropertyListMaximumDepth; ++i) deep = Value::array({deep});
  Value tooDeep = Value::dictionary({{"k", deep}});
  // clang-format off
  const std::pair<Value, const char*> cases[] = {
      {Value::null(), "cannot hold a null value"}, {Value::array({1, Value::set({1})}), "cannot hold a set"},
      {Value::dictionary({{"o", Value(make<Thing>())}}), "cannot hold an object reference"},
      {Value::dictionary({{Value(1), "one"}}), "keys must be strings"}, {tooDeep, "nests deeper than 512 levels"},
      {Value("bad \xC3"), "not valid UTF-8"}, {Value("\xED\xA0\x80"), "not valid UTF-8"},  // an encoded surrogate
  };
  // clang-format on
  for (auto format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
    for (const auto& [value, text] : cases) {
      std::string error;
      EXPECT_FALSE(dataFromPropertyList(value, format, &error));
      EXPECT_THAT(error, HasSubstr(text));
    }
    // The deepest document allowed still goes through.
    std::string error;
    auto data = dataFromPropertyList(deep, format, &error);
    ASSERT_TRUE(data) << error;
    auto back = read(*data, &error);
    ASSERT_TRUE(back) << error;
    EXPECT_TRUE(sameValue(*back, deep));
  }
  // What only XML cannot carry.
  // clang-format off
  const std::pair<Value, const char*> xmlCases[] = {
      {Value("a\x01"), "cannot hold the character U+0001"}, {Value("\xEF\xBF\xBF"), "cannot hold the character U+FFFF"},
      {Value::date(-62167219201.0), "outside the years 0000 to 9999"},
      {Value::date(std::numeric_limits<double>::quiet_NaN()), "outside the years"},
  };
  // clang-format on
  for (const auto& [value, text] : xmlCases) {
    std::string error;
    EXPECT_FALSE(dataFromPropertyList(value, PropertyListFormat::XML, &error));
    EXPECT_THAT(error, HasSubstr(text));
    EXPECT_TRUE(dataFromPropertyList(value, PropertyListFormat::Binary));
  }
  std::string error;
  EXPECT_FALSE(dataFromPropertyList(Value(1), static_cast<PropertyListFormat>(9), &error));
  EXPECT_EQ(error, "Property list format is not supported");
  EXPECT_FALSE(dataFromPropertyList(Value::null(), PropertyListFormat::Binary, nullptr));
}

TEST(PropertyListCodec, UnrecognisedDataFailsAndLeavesTheFormatAlone) {
  PropertyListFormat format = PropertyListFormat::XML;
  std::string error;
  EXPECT_FALSE(propertyListFromData({}, PropertyListMutabilityOption::Immutable, &format, &error));
  EXPECT_EQ(error, "Property list data is empty");
  EXPECT_FALSE(readText("{a = b;}", &error));
  EXPECT_EQ(error, "Property list data is in an unknown format");
  EXPECT_FALSE(readText("bplist15xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", &error));
  EXPECT_EQ(error, "Binary property list has an unsupported version");
  Data bad = binary(Value::array({1}));
  bad.pop_back();
  EXPECT_FALSE(propertyListFromData(bad, PropertyListMutabilityOption::Immutable, &format, nullptr));
  EXPECT_EQ(format, PropertyListFormat::XML);
}

}  // namespace
}  // namespace loomwork
