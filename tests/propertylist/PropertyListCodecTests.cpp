#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "PropertyListTestSupport.h"
#include "loomwork/additions/PropertyListAdditions.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/PropertyList.h"

namespace loomwork {
namespace {

using testing::assembleBinary;
using ::testing::HasSubstr;
using testing::sameValue;

using testing::read;
using testing::readText;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

Data binary(const Value& v) { return testing::write(v, PropertyListFormat::Binary); }

// Through the plain codec and, with nulls and sets, through the extended one.
TEST(PropertyListCodec, RandomValuesRoundTripExactlyInBothFormats) {
  for (uint64_t seed = 1; seed <= 400; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (auto format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
      const bool extended = seed % 2 == 0;
      Value original =
          testing::PlistGenerator(seed, {.xmlSafe = format == PropertyListFormat::XML, .extended = extended}).value();
      std::string error;
      auto data = extended ? dataFromExtendedPropertyListFormatErrorDescription(original, format, &error)
                           : dataFromPropertyList(original, format, &error);
      ASSERT_TRUE(data) << error;
      PropertyListFormat found{};
      const auto leaves = PropertyListMutabilityOption::MutableContainersAndLeaves;
      auto back =
          extended ? extendedPropertyListFromDataMutabilityOptionFormatErrorDescription(*data, leaves, &found, &error)
                   : propertyListFromData(*data, leaves, &found, &error);
      ASSERT_TRUE(back) << error;
      EXPECT_EQ(found, format);
      EXPECT_TRUE(sameValue(original, *back)) << original.description() << "\n" << back->description();
    }
  }
}

TEST(PropertyListBinary, ObjectEncodingsWrittenAndRead) {
  // Single-object files, the object in hex. The writer's rows (a scalar at the
  // top: header, the object, a one-entry offset table, the trailer) must come
  // out byte for byte; the others are forms other writers use.
  constexpr bool W = true, R = false;
  // clang-format off
  const std::tuple<bool, const char*, Value> cases[] = {
      {W, "10 01", Value(1)}, {W, "10 FF", Value(255)}, {W, "11 0100", Value(256)}, {W, "12 00010000", Value(65536)},
      {W, "13 0000000100000000", Value(int64_t{1} << 32)}, {W, "13 FFFFFFFFFFFFFFFF", Value(-1)},
      {W, "09", Value(true)}, {W, "08", Value(false)}, {W, "23 3FF8000000000000", Value(1.5)},
      {W, "33 3FF0000000000000", Value::date(978307200.0 + 1.0)}, {W, "53 616263", Value("abc")},
      {W, "61 00E9", Value("\xC3\xA9")}, {W, "62 D83DDE00", Value("\xF0\x9F\x98\x80")},
      {W, "5F 100F 787878787878787878787878787878", Value(std::string(15, 'x'))}, {W, "42 0102", Value::data({1, 2})},
      {W, "A0", Value(Array{})}, {W, "D0", Value(Dictionary{})},
      // 16-byte integers: negative and the extremes of the range.
      {R, "14 FFFFFFFFFFFFFFFF FFFFFFFFFFFFFFFD", Value(-3)}, {R, "22 3FC00000", Value(1.5)},
      {R, "14 0000000000000000 7FFFFFFFFFFFFFFF", Value(INT64_MAX)},
      {R, "14 FFFFFFFFFFFFFFFF 8000000000000000", Value(INT64_MIN)},
      {R, "5F 1001 71", Value("q")},  // a count that could have been in the marker
      {R, "5F 13 0000000000000001 71", Value("q")}, {R, "61 0041", Value("A")},
  };
  // clang-format on
  for (const auto& [written, object, expected] : cases) {
    SCOPED_TRACE(object);
    std::string error;
    auto back = read(assembleBinary(object), &error);
    EXPECT_TRUE(back && sameValue(*back, expected)) << (back ? back->description() : error);
    EXPECT_TRUE(!written || binary(expected) == assembleBinary(object)) << ::testing::PrintToString(binary(expected));
  }
  // Reference widths other than the usual ones still read.
  auto wide = read(assembleBinary("A2 000001 000001 | 10 07", 0, 3));
  EXPECT_TRUE(wide && sameValue(*wide, Value::array({7, 7})));
}

TEST(PropertyListBinary, SharesEqualObjectsAndWidensReferences) {
  // Containers refer to their elements by index; equal strings and small
  // numbers are written once, and the root comes first.
  EXPECT_EQ(binary(Value::dictionary({{"x", "x"}, {"y", Value::array({1, 1, "x"})}})),
            assembleBinary("D2 01 02 01 03 | 51 78 | 51 79 | A3 04 04 01 | 10 01"));
  // A container held more than once is written once and read back as one
  // container. Writing stays linear even where the expanded tree is
  // astronomic; the reader takes ten levels of doubling but refuses a hundred.
  for (bool dictionaries : {false, true}) {
    Value tree(1), moderate;
    for (int level = 1; level <= 100; ++level) {
      tree = dictionaries ? Value::dictionary({{"k", tree}, {"l", tree}}) : Value::array({tree, tree});
      if (level == 10) moderate = tree;
    }
    auto back = read(binary(moderate));
    ASSERT_TRUE(back && sameValue(*back, moderate));
    EXPECT_TRUE(dictionaries || back->array()[0].isIdenticalTo(back->array()[1]));
    Data huge = binary(tree);
    EXPECT_LT(huge.size(), 1000u);  // about a hundred objects, not 2^100
    std::string error;
    EXPECT_FALSE(read(huge, &error));
    EXPECT_EQ(error, "Binary property list expands to too many objects");
  }

  // Distinct integers in one array (elements + 1 objects): reference and
  // offset widths, the trailer's bytes 6 and 7, grow with the document.
  using Widths = std::tuple<size_t, unsigned, unsigned>;
  for (auto [elements, refWidth, offsetWidth] : {Widths{254, 1, 2}, {255, 2, 2}, {65534, 2, 4}, {65535, 4, 4}}) {
    SCOPED_TRACE(elements);
    Array a;
    for (size_t i = 0; i < elements; ++i) a.push_back(Value(static_cast<int64_t>(i) + 1000));
    Value original(std::move(a));
    Data file = binary(original);
    EXPECT_EQ(std::tuple(file[file.size() - 26], file[file.size() - 25]), std::tuple(offsetWidth, refWidth));
    auto again = read(file);
    EXPECT_TRUE(again && sameValue(*again, original));
  }
}

TEST(PropertyListXML, WritesTheStandardDocument) {
  // clang-format off
  Value v = Value::dictionary({
      {"a&b", Value::array({1, -2, 0.5, true, false})}, {"text", "<tag> & \"q\" \r\n\ttab"},
      {"when", Value::date(1e9 + 0.75)}, {"bytes", Value::data(Data(61, 0xAB))},
      {"empty", Value::array({Value(Array{}), Value(Dictionary{}), Value::data({})})},
      {"reals", Value::array({1.0, 1e300, -kInfinity, kInfinity, std::numeric_limits<double>::quiet_NaN()})},
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
                "\t\t<real>-infinity</real>\n\t\t<real>+infinity</real>\n\t\t<real>nan</real>\n\t</array>\n"
                "</dict>\n</plist>\n");
}

TEST(PropertyListXML, ReadsTheFormsOtherWritersProduce) {
  auto doc = [](std::string body) { return testing::kXMLPrologue + "<plist version=\"1.0\">" + body + "</plist>"; };
  std::u16string utf16 = u"\uFEFF<plist><string>\u00E9\U0001F600</string></plist>";  // with a byte-order mark
  std::string utf16le;
  for (char16_t unit : utf16) utf16le += {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
  // clang-format off
  const std::pair<std::string, Value> cases[] = {
      {doc("<integer> 0x1F </integer>"), Value(31)}, {doc("<integer>-9223372036854775808</integer>"), Value(INT64_MIN)},
      {doc("<integer>+7</integer>"), Value(7)}, {doc("<real>+infinity</real>"), Value(kInfinity)},
      {doc("<real>inf</real>"), Value(kInfinity)}, {doc("<real>-1e400</real>"), Value(-kInfinity)},
      {doc("<real>1e-400</real>"), Value(0.0)}, {doc("<real>3</real>"), Value(3.0)},
      {doc("<date>2001-01-01T00:00:00.5Z</date>"), Value::date(978307200.5)},
      {doc("<date>0001-01-01T00:00:00Z</date>"), Value::date(-62135596800.0)},
      {doc("<date>2000-02-29T00:00:00Z</date>"), Value::date(951782400.0)},
      {doc("<data>AA\n  E=</data>"), Value::data({0, 1})}, {doc("<string/>"), Value("")},
      {doc("<string><![CDATA[<a&b>]]>&#x1F600;&amp;</string>"), Value("<a&b>\xF0\x9F\x98\x80&")},
      {doc("<!-- note --><dict><key>k</key><!-- x --><true/><key>k</key><false/></dict>"),
       Value::dictionary({{"k", false}})},
      {"<array><string>bare root</string></array>", Value::array({"bare root"})},
      {"\xEF\xBB\xBF  <plist><string>bom</string></plist>", Value("bom")},
      {utf16le, Value("\xC3\xA9\xF0\x9F\x98\x80")},
  };
  // clang-format on
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    std::string error;
    PropertyListFormat format{};
    auto back = readText(text, &error, &format);
    EXPECT_TRUE(back && sameValue(*back, expected) && format == PropertyListFormat::XML)
        << (back ? back->description() : error);
  }
}

TEST(PropertyListCodec, UnusableValuesFormatsAndDataFailWithAText) {
  class Thing : public Object {};
  Value deep = Value(1);
  for (size_t i = 0; i < kPropertyListMaximumDepth; ++i) deep = Value::array({deep});
  // The last rows only XML cannot carry; binary writes them.
  // clang-format off
  const std::pair<Value, const char*> cases[] = {
      {Value::null(), "cannot hold a null value"}, {Value::array({1, Value::set({1})}), "cannot hold a set"},
      {Value::dictionary({{"o", Value(make<Thing>())}}), "cannot hold an object reference"},
      {Value::dictionary({{Value(1), "one"}}), "keys must be strings"},
      {Value::dictionary({{"k", deep}}), "nests deeper than 512 levels"},
      {Value("bad \xC3"), "not valid UTF-8"}, {Value("\xED\xA0\x80"), "not valid UTF-8"},  // an encoded surrogate
      {Value("a\x01"), "cannot hold the character U+0001"}, {Value("\xEF\xBF\xBF"), "cannot hold the character U+FFFF"},
      {Value::date(-62167219201.0), "outside the years 0000 to 9999"},
      {Value::date(std::numeric_limits<double>::quiet_NaN()), "outside the years"},
  };
  // clang-format on
  for (auto format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
    for (size_t i = 0; i < std::size(cases); ++i) {
      std::string error;
      bool binaryWrites = format == PropertyListFormat::Binary && i >= std::size(cases) - 4;
      EXPECT_EQ(dataFromPropertyList(cases[i].first, format, &error).has_value(), binaryWrites) << i;
      if (binaryWrites) continue;
      EXPECT_THAT(error, HasSubstr(cases[i].second));
    }
    // The deepest document allowed still goes through.
    auto back = read(testing::write(deep, format));
    EXPECT_TRUE(back && sameValue(*back, deep));
  }
  std::string error;
  EXPECT_FALSE(dataFromPropertyList(Value(1), static_cast<PropertyListFormat>(9), &error));
  EXPECT_EQ(error, "Property list format is not supported");
  EXPECT_FALSE(dataFromPropertyList(Value::null(), PropertyListFormat::Binary, nullptr));

  // Bytes that are no property list; the format found is left alone.
  // clang-format off
  const std::pair<std::string, const char*> unusable[] = {
      {"", "Property list data is empty"}, {"{a = b;}", "Property list data is in an unknown format"},
      {"bplist15xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", "Binary property list has an unsupported version"},
      {"bplist00", "Binary property list is too short"},
      {"bplist00" + std::string(32, '\0'), "Binary property list is too short"},  // a trailer but no object
  };
  // clang-format on
  PropertyListFormat format = PropertyListFormat::XML;
  for (const auto& [text, message] : unusable) {
    EXPECT_FALSE(readText(text, &error, &format));
    EXPECT_EQ(error, message);
  }
  EXPECT_FALSE(readText("bplist00", nullptr, &format));
  EXPECT_EQ(format, PropertyListFormat::XML);
}

}  // namespace
}  // namespace loomwork
