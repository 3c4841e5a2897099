// Helpers shared by the property-list suites: a seeded generator of random
// property lists and a comparison that, unlike Value equality, also demands
// the same kinds, the same real bits and the same dictionary order.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "loomwork/platform/PropertyList.h"
#include "loomwork/platform/Value.h"

namespace loomwork::testing {

// What the XML writer puts before the top element.
inline const std::string kXMLPrologue =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n";

struct GeneratorOptions {
  bool xmlSafe = false;      // whole-second dates in years 0001-9999, no control characters
  bool allowCR = true;       // carriage returns in strings
  size_t maximumDepth = 4;   // nesting of containers
  bool narrowDates = false;  // dates within 1902-2038 only
  bool extended = false;     // nulls and sets too, and no string equal to the null marker
};

class PlistGenerator {
 public:
  PlistGenerator(uint64_t seed, GeneratorOptions options = {}) : random_(seed), options_(options) {}

  // A random property list; the top level is a container (or, extended, a null or a set).
  Value value(size_t depth = 0) {
    if (options_.extended && pick(12) == 0) return Value::null();
    int choice = depth == 0 ? 8 + pick(2) : pick(depth < options_.maximumDepth ? 10 : 8);
    if (choice == 0) return Value(pick(2) == 1);
    if (choice == 1 || choice == 7) return Value(integer());
    if (choice == 2) return Value(real());
    if (choice == 3) return Value::date(date());
    if (choice == 4 || choice == 5) return Value(string());
    if (choice == 6) {
      Data d(pick(40) == 0 ? 300 : pick(20));
      for (auto& b : d) b = static_cast<uint8_t>(random_());
      return Value::data(std::move(d));
    }
    if (choice == 8) {
      Array a;
      for (size_t n = pick(7); n > 0; --n) a.push_back(value(depth + 1));
      if (options_.extended && pick(3) == 0) return Value(Set(a.begin(), a.end()));
      return Value(std::move(a));
    }
    Dictionary d;
    for (size_t n = pick(7); n > 0; --n) d.insert_or_assign(Value(string()), value(depth + 1));
    return Value(std::move(d));
  }

  int64_t integer() {
    static constexpr int64_t kEdges[] = {0,         1,         14,         15,          255,       256,
                                         65535,     65536,     4294967295, 4294967296,  -1,        -128,
                                         INT64_MAX, INT64_MIN, INT32_MIN,  -4294967296, 1LL << 62, -(1LL << 40)};
    if (pick(3) == 0) return kEdges[pick(sizeof kEdges / sizeof kEdges[0])];
    int shift = pick(64);
    return static_cast<int64_t>(random_() >> shift) * (pick(2) ? 1 : -1);
  }

  double real() {
    static constexpr double kEdges[] = {0.0, -0.0, 1.0, -1.5, 0.1, 1e300, -1e-300, 5e-324, 3.4028234663852886e38};
    if (pick(3) == 0) return kEdges[pick(sizeof kEdges / sizeof kEdges[0])];
    if (options_.xmlSafe || pick(2) == 0)
      return std::ldexp(static_cast<double>(random_() >> 11), pick(200) - 100) * (pick(2) ? 1 : -1);
    return std::bit_cast<double>(random_());  // any bit pattern, NaN payloads included
  }

  double date() {
    // Quarter seconds: exact both as seconds since 1970 and since 2001.
    int64_t seconds = options_.narrowDates
                          ? static_cast<int64_t>(random_() % (1ULL << 32)) - (1LL << 31)
                          : static_cast<int64_t>(random_() % 253402300800ULL) - 62135596800LL;  // years 0001-9999
    if (options_.xmlSafe) return static_cast<double>(seconds);
    return static_cast<double>(seconds) + 0.25 * pick(4);
  }

  std::string string() {
    static constexpr const char* kNullMarker = "com.tarnwick.NSPropertyListSerialization.NSNull";
    static const char* const kPieces[] = {"a",  "key", "t",  "é",    "日本",         "😀",        "\xF0\x9F\x91\x8D",
                                          " ",  "&",   "<",  ">",    "\"",           "'",        "]]>",
                                          "\t", "\n",  "\r", "\x7F", "\xEF\xBF\xBD", kNullMarker};
    std::string s;
    for (size_t n = pick(8); n > 0; --n) {
      const char* piece = kPieces[pick(sizeof kPieces / sizeof kPieces[0])];
      if (options_.allowCR || piece[0] != '\r') s += piece;
    }
    if (!options_.xmlSafe && pick(8) == 0) s += '\x01';
    if (pick(20) == 0) s.append(static_cast<size_t>(pick(40) + 15), 'x');
    return options_.extended && s == kNullMarker ? "not the marker" : s;
  }

  int pick(int n) { return static_cast<int>(random_() % static_cast<uint64_t>(n)); }

 private:
  std::mt19937_64 random_;
  GeneratorOptions options_;
};

// Where two values differ in kind, scalar bits (reals and dates), order or
// content, as a path such as "$[2][\"key\"]"; empty when they are the same.
inline std::string differenceBetween(const Value& a, const Value& b, const std::string& path = "$") {
  std::string here = path + ": " + a.description() + " / " + b.description();
  if (a.kind() != b.kind() || a.count() != b.count()) return here;
  auto bits = [](const Value& v) { return std::bit_cast<uint64_t>(v.isDate() ? v.dateValue() : v.doubleValue()); };
  if (a.isReal() || a.isDate()) return bits(a) == bits(b) ? "" : here;
  if (a.isArray()) {
    for (size_t i = 0; i < a.count(); ++i)
      if (auto d = differenceBetween(a.array()[i], b.array()[i], path + "[" + std::to_string(i) + "]"); !d.empty())
        return d;
    return "";
  }
  if (!a.isDictionary()) return a == b ? "" : here;
  for (auto i = a.dictionary().begin(), j = b.dictionary().begin(); i != a.dictionary().end(); ++i, ++j) {
    std::string sub = path + "[" + i->first.description() + "]",
                d = differenceBetween(i->first, j->first, sub + " key");
    if (d.empty()) d = differenceBetween(i->second, j->second, sub);
    if (!d.empty()) return d;
  }
  return "";
}

inline bool sameValue(const Value& a, const Value& b) { return differenceBetween(a, b).empty(); }

// Assembles a "bplist00" file from objects written in hex and separated by
// '|', such as "A1 01 | 10 07", references inside them already `refWidth`
// bytes wide: header, objects, offset table and trailer.
inline Data assembleBinary(std::string_view hex, uint64_t top = 0, unsigned refWidth = 1) {
  Data out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<uint64_t> offsets = {out.size()};
  for (size_t i = 0; i < hex.size(); ++i) {
    if (hex[i] == '|') offsets.push_back(out.size());
    if (std::isxdigit(hex[i]))
      out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i++, 2)), nullptr, 16)));
  }
  const uint64_t tableOffset = out.size();
  const unsigned offsetWidth = tableOffset < 256 ? 1 : tableOffset < 65536 ? 2 : 4;
  auto put = [&](uint64_t v, unsigned width) {
    for (unsigned i = width; i-- > 0;) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  for (uint64_t offset : offsets) put(offset, offsetWidth);
  put(offsetWidth << 8 | refWidth, 8);  // six unused bytes, then the two widths
  put(offsets.size(), 8);
  put(top, 8);
  put(tableOffset, 8);
  return out;
}

inline std::optional<Value> read(std::span<const uint8_t> bytes, std::string* error = nullptr,
                                 PropertyListFormat* format = nullptr) {
  return propertyListFromData(bytes, PropertyListMutabilityOption::Immutable, format, error);
}

inline std::optional<Value> readText(std::string_view text, std::string* error = nullptr,
                                     PropertyListFormat* format = nullptr) {
  return read(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()), error, format);
}

inline Data write(const Value& v, PropertyListFormat format) {
  std::string error;
  auto data = dataFromPropertyList(v, format, &error);
  EXPECT_TRUE(data) << error;
  return data.value_or(Data{});
}

}  // namespace loomwork::testing
