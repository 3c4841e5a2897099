// The readers meet damaged and hostile input: every case must end in absent
// with an error text (or, where the damage is harmless, in a value), without
// crashes, reads out of bounds or unbounded work. The sanitizer build runs
// these too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

#include "PropertyListTestSupport.h"
#include "loomwork/platform/PropertyList.h"

namespace loomwork {
namespace {

using ::testing::AllOf;
using testing::assembleBinary;
using ::testing::HasSubstr;
using testing::sameValue;
using ::testing::StartsWith;

using testing::read;
using testing::readText;
using testing::write;

const Value& sampleDocument() {
  static const Value document =
      Value::dictionary({{"name", "Loom \xC3\xA9\xF0\x9F\x98\x80"},
                         {"count", Value::array({0, 300, 70000, -5, int64_t{1} << 40})},
                         {"ratio", 0.25},
                         {"when", Value::date(1234567890.0)},
                         {"blob", Value::data({1, 2, 3, 4, 5})},
                         {"flags", Value::array({true, false, Value::dictionary({{"deep", std::string(20, 'z')}})})}});
  return document;
}

TEST(PropertyListCorruption, EveryByteOfTheTrailer) {
  const Data whole = write(sampleDocument(), PropertyListFormat::Binary);
  const size_t trailer = whole.size() - 32;
  const uint8_t count = whole[trailer + 15];  // the object count's low byte, all it has
  for (size_t i = 0; i < 32; ++i) {
    for (int replacement : {0x00, 0x01, 0x02, 0x03, 0x05, 0x08, 0x09, 0x10, 0x7F, 0x80, 0xFE, 0xFF,
                            whole[trailer + i] ^ 0x01, whole[trailer + i] ^ 0x40, int{count}}) {
      SCOPED_TRACE("trailer byte " + std::to_string(i) + " = " + std::to_string(replacement));
      Data corrupt = whole;
      corrupt[trailer + i] = static_cast<uint8_t>(replacement);
      std::string error;
      auto value = read(corrupt, &error);
      // Offset width, reference width, object count, top object, table offset.
      const bool invalid = (i == 6 && replacement == 0) || (i == 7 && replacement == 9) ||
                           (i == 8 && replacement == 0x80) || (i == 16 && replacement == 1) ||
                           (i == 23 && replacement == count) || (i == 31 && (replacement <= 8 || replacement == 0xFF));
      if (i < 6) {  // unused and sort-version bytes carry nothing
        EXPECT_TRUE(value && sameValue(*value, sampleDocument())) << error;
      } else if (invalid) {
        EXPECT_EQ(error, "Binary property list has an invalid trailer");
      } else {
        EXPECT_TRUE(value ? dataFromPropertyList(*value, PropertyListFormat::Binary).has_value()
                          : error.starts_with("Binary property list "))
            << error;
      }
    }
  }
}

TEST(PropertyListCorruption, TruncationAtEveryLengthAndRandomByteFlips) {
  constexpr uint64_t kSeed = 20240517;
  std::mt19937_64 random(kSeed);
  for (auto format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
    const Data whole = write(sampleDocument(), format);
    // Binary needs every byte, XML everything but the final line feed.
    const size_t complete = whole.size() - (format == PropertyListFormat::XML ? 1 : 0);
    for (size_t length = 0; length < whole.size(); ++length) {
      SCOPED_TRACE("format " + std::to_string(static_cast<int>(format)) + " truncated to " + std::to_string(length));
      // A copy of exactly the truncated size, so the sanitizers see any read past it.
      Data truncated(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
      std::string error;
      auto value = read(truncated, &error);
      EXPECT_EQ(value.has_value(), length >= complete) << error;
      EXPECT_TRUE(value || !error.empty());
    }
    for (int iteration = 0; iteration < 10000; ++iteration) {
      Data corrupt = whole;
      for (auto flips = 1 + random() % 3; flips > 0; --flips)
        corrupt[random() % corrupt.size()] ^= static_cast<uint8_t>(1 + random() % 255);
      SCOPED_TRACE("seed " + std::to_string(kSeed) + ", format " + std::to_string(static_cast<int>(format)) +
                   ", flip iteration " + std::to_string(iteration));
      // Either an error text or a value that is again a valid property list.
      std::string error;
      auto value = read(corrupt, &error);
      EXPECT_TRUE(value ? dataFromPropertyList(*value, PropertyListFormat::Binary).has_value() : !error.empty())
          << (value ? value->description() : error);
      if (::testing::Test::HasFailure()) return;
    }
  }
}

TEST(PropertyListCorruption, HostileBinaryConstructions) {
  auto chain = [](size_t depth, bool dictionaries = false) {
    // depth nested containers from object 1 on, each holding the next, the
    // dictionaries under the key in object 0; two-byte references.
    std::string hex = "51 6B";
    for (size_t i = 2; i <= depth + 1; ++i) {
      char object[32];
      std::snprintf(object, sizeof object, " | %s%04zX", dictionaries ? "D1 0000 " : "A1 ", i);
      hex += object;
    }
    return assembleBinary(hex + " | 10 07", 1, 2);
  };
  // [object 1] with object 1's offset replaced: 8 names the array itself, 12
  // the offset table, 3 the header.
  auto offsetOfSecond = [](uint8_t offset) {
    Data file = assembleBinary("A1 01 | 10 01");
    file[file.size() - 33] = offset;
    return file;
  };

  // Single objects or small files in hex, by the error they must give.
  // clang-format off
  const std::pair<const char*, std::vector<const char*>> hostile[] = {
      {"contains itself", {"A1 00", "A1 01 | A2 02 00 | 10 01", "D1 00 01 | 10 01"}},
      {"runs past its end", {"AF 13 4000000000000000", "4F 13 7FFFFFFFFFFFFFFF", "DF 12 FFFFFFFF", "5F", "5A 61",
                             "63 0061", "13 0000", "23 0000", "33 00"}},
      {"invalid count", {"4F 13 FFFFFFFFFFFFFFFF", "AF 23 0000000000000000"}}, {"reference out of range", {"A1 05"}},
      {"non-ASCII byte", {"51 C3", "58 41424344454647C3"}}, {"key that is not a string", {"D1 01 01 | 10 01"}},
      {"invalid UTF-16", {"61 DC00", "61 D800", "62 D800 0041", "62 DC00 DC00"}},
      // 16-byte integers beyond the 64-bit range either way.
      {"integer out of range", {"14 0000000000000000 FFFFFFFFFFFFFFFF", "14 FFFFFFFFFFFFFFFF 7F00000000000000"}},
      {"unsupported type", {"15 00000000000000000000000000000000 00000000000000000000000000000001", "21 3FC0", "00",
                            "0F", "80 01", "C1 00", "70", "E0", "34 0000000000000000"}},
  };
  std::vector<std::pair<Data, const char*>> cases = {
      {offsetOfSecond(8), "contains itself"}, {offsetOfSecond(12), "offset out of range"},
      {offsetOfSecond(3), "offset out of range"}, {chain(kPropertyListMaximumDepth + 1), "nests deeper than 512"},
      {chain(kPropertyListMaximumDepth + 1, true), "nests deeper than 512"}, {chain(60000), "nests deeper than 512"}};
  // clang-format on
  for (const auto& [text, objects] : hostile)
    for (const char* hex : objects) cases.emplace_back(assembleBinary(hex), text);
  for (const auto& [bytes, text] : cases) {
    SCOPED_TRACE(text);
    std::string error;
    EXPECT_FALSE(read(bytes, &error));
    EXPECT_THAT(error, AllOf(StartsWith("Binary property list "), HasSubstr(text)));
  }
  EXPECT_TRUE(read(chain(kPropertyListMaximumDepth)) && read(chain(kPropertyListMaximumDepth, true)));
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
    EXPECT_THAT(error, AllOf(StartsWith("XML property list "), HasSubstr(message)));
  }
}

}  // namespace
}  // namespace loomwork
