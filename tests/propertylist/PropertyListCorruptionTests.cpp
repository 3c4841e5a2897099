// The readers meet damaged and hostile input: every case must end in absent
// with an error text (or, where the damage is harmless, in a value), without
// crashes, reads out of bounds or unbounded work. The sanitizer build runs
// these too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "PropertyListTestSupport.h"
#include "platform/PropertyList.h"

namespace loomwork {
namespace {

using testing::assembleBinary;
using ::testing::HasSubstr;
using testing::sameValue;
using ::testing::StartsWith;

using testing::read;
using testing::readText;
using testing::write;

const Value& sampleDocument() {
  static const Value document = Value::dictionary({
      {"name", "Loom \xC3\xA9\xF0\x9F\x98\x80"},
      {"count", Value::array({0, 300, 70000, -5, int64_t{1} << 40})},
      {"ratio", 0.25},
      {"when", Value::date(1234567890.0)},
      {"blob", Value::data({1, 2, 3, 4, 5})},
      {"flags", Value::array({true, false, Value::dictionary({{"deep", std::string(20, 'z')}})})},
  });
  return document;
}

TEST(PropertyListCorruption, EveryByteOfTheTrailer) {
  const Data original = write(sampleDocument(), PropertyListFormat::Binary);
  const size_t trailer = original.size() - 32;
  for (size_t i = 0; i < 32; ++i) {
    for (int replacement : {0x00, 0x01, 0x02, 0x03, 0x05, 0x08, 0x09, 0x10, 0x7F, 0x80, 0xFE, 0xFF,
                            original[trailer + i] ^ 0x01, original[trailer + i] ^ 0x40}) {
      SCOPED_TRACE("trailer byte " + std::to_string(i) + " = " + std::to_string(replacement));
      Data corrupt = original;
      corrupt[trailer + i] = static_cast<uint8_t>(replacement);
      std::string error;
      auto value = read(corrupt, &error);
      if (i < 6) {
        // Unused and sort-version bytes carry nothing.
        ASSERT_TRUE(value) << error;
        EXPECT_TRUE(sameValue(*value, sampleDocument()));
      } else if (value) {
        EXPECT_TRUE(dataFromPropertyList(*value, PropertyListFormat::Binary));
      } else {
        EXPECT_THAT(error, StartsWith("Binary property list "));
      }
    }
  }
  // Offset width, reference width, object count, top object, table offset.
  for (auto [i, byte] : {std::pair<size_t, uint8_t>{6, 0}, {7, 9}, {8, 0x80}, {16, 1}, {31, 0xFF}}) {
    Data corrupt = original;
    corrupt[trailer + i] = byte;
    std::string error;
    EXPECT_FALSE(read(corrupt, &error));
    EXPECT_EQ(error, "Binary property list has an invalid trailer") << i;
  }
}

TEST(PropertyListCorruption, TruncationAtEveryLength) {
  const Data binary = write(sampleDocument(), PropertyListFormat::Binary);
  for (size_t length = 0; length < binary.size(); ++length) {
    SCOPED_TRACE("binary truncated to " + std::to_string(length));
    // A copy of exactly the truncated size, so the sanitizers see any read past it.
    Data truncated(binary.begin(), binary.begin() + static_cast<std::ptrdiff_t>(length));
    std::string error;
    EXPECT_FALSE(read(truncated, &error));
    EXPECT_FALSE(error.empty());
  }
  const Data xml = write(sampleDocument(), PropertyListFormat::XML);
  const size_t complete = xml.size() - 1;  // everything but the final line feed is needed
  for (size_t length = 0; length < xml.size(); ++length) {
    SCOPED_TRACE("XML truncated to " + std::to_string(length));
    Data truncated(xml.begin(), xml.begin() + static_cast<std::ptrdiff_t>(length));
    std::string error;
    auto value = read(truncated, &error);
    EXPECT_EQ(value.has_value(), length >= complete) << error;
    EXPECT_TRUE(value || !error.empty());
  }
}

TEST(PropertyListCorruption, RandomByteFlips) {
  constexpr uint64_t kSeed = 20240517;
  std::mt19937_64 random(kSeed);
  const Data documents[] = {write(sampleDocument(), PropertyListFormat::Binary),
                            write(sampleDocument(), PropertyListFormat::XML)};
  for (int iteration = 0; iteration < 20000; ++iteration) {
    const Data& original = documents[iteration % 2];
    Data corrupt = original;
    int flips = 1 + static_cast<int>(random() % 3);
    for (int f = 0; f < flips; ++f) {
      corrupt[random() % corrupt.size()] ^= static_cast<uint8_t>(1 + random() % 255);
    }
    SCOPED_TRACE("seed " + std::to_string(kSeed) + ", iteration " + std::to_string(iteration));
    // Either an error text or a value that is again a valid property list.
    std::string error;
    auto value = read(corrupt, &error);
    EXPECT_TRUE(value ? dataFromPropertyList(*value, PropertyListFormat::Binary).has_value() : !error.empty())
        << (value ? value->description() : error);
    if (::testing::Test::HasFailure()) return;
  }
}

TEST(PropertyListCorruption, HostileBinaryConstructions) {
  auto chain = [](size_t depth) {
    // depth nested arrays, each holding the next; two-byte references.
    std::vector<Data> objects;
    for (size_t i = 0; i < depth; ++i) {
      objects.push_back({0xA1, static_cast<uint8_t>((i + 1) >> 8), static_cast<uint8_t>(i + 1)});
    }
    objects.push_back({0x10, 0x07});
    return assembleBinary(objects, 0, 2);
  };
  auto doubling = [](size_t levels, uint8_t marker) {
    // Each level refers twice to the next: a small file for a tree of 2^levels leaves.
    std::vector<Data> objects;
    for (size_t i = 0; i < levels; ++i) {
      auto next = static_cast<uint8_t>(i + 1);
      objects.push_back(marker == 0xA0 ? Data{0xA2, next, next} : Data{0xD2, 0xFE, 0xFF, next, next});
    }
    objects.push_back({0x10, 0x07});
    objects.resize(254, Data{0x10, 0x00});
    objects.push_back({0x51, 'k'});  // objects 254 and 255: the keys of the dictionaries
    objects.push_back({0x51, 'l'});
    return assembleBinary(objects, 0, 1);
  };
  Data pointsIntoTable = assembleBinary({{0xA1, 1}, {0x10, 1}});
  pointsIntoTable[pointsIntoTable.size() - 32 - 1] = static_cast<uint8_t>(pointsIntoTable.size() - 34);
  // Two entries of the offset table name the same bytes, an array holding object 1.
  Data aliased = assembleBinary({{0xA1, 1}, {0x10, 1}});
  aliased[aliased.size() - 32 - 1] = 8;
  Data pointsIntoHeader = assembleBinary({{0xA1, 1}, {0x10, 1}});
  pointsIntoHeader[pointsIntoHeader.size() - 32 - 1] = 3;

  // clang-format off
  const std::pair<Data, const char*> cases[] = {
      {assembleBinary({{0xA1, 0}}), "contains itself"},
      {assembleBinary({{0xA1, 1}, {0xA2, 2, 0}, {0x10, 1}}), "contains itself"},
      {assembleBinary({{0xD1, 0, 1}, {0x10, 1}}), "contains itself"}, {aliased, "contains itself"},
      {assembleBinary({{0xA1, 5}}), "reference out of range"}, {pointsIntoTable, "offset out of range"},
      {pointsIntoHeader, "offset out of range"},
      {assembleBinary({{0xAF, 0x13, 0x40, 0, 0, 0, 0, 0, 0, 0}}), "runs past its end"},
      {assembleBinary({{0x4F, 0x13, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}), "runs past its end"},
      {assembleBinary({{0xDF, 0x12, 0xFF, 0xFF, 0xFF, 0xFF}}), "runs past its end"},
      {assembleBinary({{0x4F, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}), "invalid count"},
      {assembleBinary({{0xAF, 0x23, 0, 0, 0, 0, 0, 0, 0, 0}}), "invalid count"},
      {assembleBinary({{0x5F}}), "runs past its end"}, {assembleBinary({{0x5A, 'a'}}), "runs past its end"},
      {assembleBinary({{0x63, 0, 'a'}}), "runs past its end"}, {assembleBinary({{0x13, 0, 0}}), "runs past its end"},
      {assembleBinary({{0x23, 0, 0}}), "runs past its end"}, {assembleBinary({{0x33, 0}}), "runs past its end"},
      {assembleBinary({{0x61, 0xDC, 0x00}}), "invalid UTF-16"},
      {assembleBinary({{0x61, 0xD8, 0x00}}), "invalid UTF-16"},
      {assembleBinary({{0x62, 0xD8, 0x00, 0x00, 0x41}}), "invalid UTF-16"},
      {assembleBinary({{0x51, 0xC3}}), "non-ASCII byte"},
      {assembleBinary({{0xD1, 1, 1}, {0x10, 1}}), "key that is not a string"},
      {assembleBinary({{0x00}}), "unsupported type"}, {assembleBinary({{0x0F}}), "unsupported type"},
      {assembleBinary({{0x80, 0x01}}), "unsupported type"}, {assembleBinary({{0xC1, 0}}), "unsupported type"},
      {assembleBinary({{0x70}}), "unsupported type"}, {assembleBinary({{0xE0}}), "unsupported type"},
      {assembleBinary({{0x34, 0, 0, 0, 0, 0, 0, 0, 0}}), "unsupported type"},
      {chain(kPropertyListMaximumDepth + 1), "nests deeper than 512 levels"},
      {chain(60000), "nests deeper than 512 levels"}, {doubling(64, 0xA0), "expands to too many objects"},
      {doubling(200, 0xD0), "expands to too many objects"},
  };
  // clang-format on
  for (const auto& [bytes, text] : cases) {
    SCOPED_TRACE(text);
    std::string error;
    EXPECT_FALSE(read(bytes, &error));
    EXPECT_THAT(error, HasSubstr(text));
  }

  auto deepest = read(chain(kPropertyListMaximumDepth));
  ASSERT_TRUE(deepest);
  // Moderate sharing is legitimate; the shared container is read once.
  auto shared = read(doubling(10, 0xA0));
  ASSERT_TRUE(shared);
  EXPECT_TRUE(shared->array()[0].isIdenticalTo(shared->array()[1]));
  // The empty trailer-only file and a file of nothing but a header.
  std::string error;
  EXPECT_FALSE(readText("bplist00", &error));
  EXPECT_EQ(error, "Binary property list is too short");
}

TEST(PropertyListCorruption, HostileAndMalformedXML) {
  auto plist = [](const std::string& body) { return "<plist>" + body + "</plist>"; };
  std::string deep = "<plist>";
  for (int i = 0; i < 100000; ++i) deep += "<array>";

  // clang-format off
  const std::pair<std::string, const char*> cases[] = {
      {"<!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\">"
       "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;\">]><plist><string>&c;</string></plist>",
       "DOCTYPE with an internal subset"},
      {"<!DOCTYPE plist [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><plist><string>&x;</string></plist>",
       "DOCTYPE with an internal subset"},
      {testing::kXMLPrologue + plist("<string>&foo;</string>"), "undeclared entity"},
      {plist("<string>&foo;</string>"), "could not be parsed"}, {deep, "nests deeper than 512 levels"},
      {plist("<string>a"), "could not be parsed"}, {plist("<string>\xC3</string>"), "could not be parsed"},
      {"<?xml version=\"1.0\"?>", "could not be parsed"}, {plist("<dict><key>a</key></dict>"), "key without a value"},
      {plist("<dict><string>a</string></dict>"), "value without a key"},
      {plist("<dict><key>a</key><key>b</key></dict>"), "misplaced key"}, {plist("<key>a</key>"), "misplaced key"},
      {plist("<string>a</string><string>b</string>"), "more than one value"}, {plist(""), "has no value"},
      {plist("<plist><true/></plist>"), "misplaced plist"}, {plist("<foo/>"), "unknown element <foo>"},
      {plist("<string>a<b/></string>"), "element inside <string>"}, {plist("text<string/>"), "text outside a value"},
      {plist("<array><true/>x</array>"), "text outside a value"}, {plist("<integer>12a</integer>"), "invalid integer"},
      {plist("<integer>9223372036854775808</integer>"), "invalid integer"},
      {plist("<integer>-9223372036854775809</integer>"), "invalid integer"}, {plist("<integer/>"), "invalid integer"},
      {plist("<integer>0x</integer>"), "invalid integer"}, {plist("<real>1.5x</real>"), "invalid real"},
      {plist("<real></real>"), "invalid real"}, {plist("<real>--1</real>"), "invalid real"},
      {plist("<date>2001-02-29T00:00:00Z</date>"), "invalid date"}, {plist("<date>2001-01-01</date>"), "invalid date"},
      {plist("<date>2001-13-01T00:00:00Z</date>"), "invalid date"},
      {plist("<date>2001-01-01T00:00:00.Z</date>"), "invalid date"}, {plist("<data>A</data>"), "invalid base64"},
      {plist("<data>AB=C</data>"), "invalid base64"}, {plist("<data>A*==</data>"), "invalid base64"},
      {plist("<data>AB===</data>"), "invalid base64"}, {plist("<true>yes</true>"), "text inside a boolean"},
  };
  // clang-format on
  for (const auto& [text, message] : cases) {
    SCOPED_TRACE(text.substr(0, 120));
    std::string error;
    EXPECT_FALSE(readText(text, &error));
    EXPECT_THAT(error, HasSubstr(message));
    EXPECT_THAT(error, StartsWith("XML property list "));
  }
}

}  // namespace
}  // namespace loomwork
