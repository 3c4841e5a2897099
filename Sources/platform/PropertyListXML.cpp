// The XML property-list codec: a writer of its own, and a reader on expat.
//
// The reader refuses every DTD construct beyond the plain DOCTYPE line (an
// internal subset, entity declarations, references to undeclared entities),
// so entity expansion cannot inflate a small document. Elements are handled
// with an explicit stack of open containers, so nesting costs heap memory
// bounded by kPropertyListMaximumDepth rather than stack frames.
#include <expat.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/PropertyListCodecs.h"

#include "platform/CivilDate.h"

namespace loomwork::plist_detail {

namespace {

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kBase64LineLength = 68;

class XMLWriter {
 public:
  bool write(const Value& root, Data& out, std::string& error) {
    text_ =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n";
    if (!writeValue(root, 0)) {
      error = std::move(error_);
      return false;
    }
    text_ += "</plist>\n";
    out.assign(text_.begin(), text_.end());
    return true;
  }

 private:
  bool fail(std::string message) {
    error_ = std::move(message);
    return false;
  }

  void indent(size_t level) { text_.append(level, '\t'); }

  // Appends `s` with the XML special characters escaped. A carriage return is
  // written as a character reference because XML parsers turn a literal one
  // into a line feed.
  bool appendEscaped(std::string_view s) {
    size_t run = 0;
    for (size_t i = 0; i < s.size();) {
      auto c = static_cast<unsigned char>(s[i]);
      const char* replacement = nullptr;
      if (c == '&') {
        replacement = "&amp;";
      } else if (c == '<') {
        replacement = "&lt;";
      } else if (c == '>') {
        replacement = "&gt;";
      } else if (c == '\r') {
        replacement = "&#13;";
      } else if (c < 0x20 && c != '\t' && c != '\n') {
        char message[96];
        std::snprintf(message, sizeof message, "XML property list cannot hold the character U+%04X", c);
        return fail(message);
      } else if (c >= 0x80) {
        UChar32 code;
        U8_NEXT(s.data(), i, s.size(), code);
        if (code < 0) return fail("Property list string is not valid UTF-8");
        if (code == 0xFFFE || code == 0xFFFF) {
          char message[96];
          std::snprintf(message, sizeof message, "XML property list cannot hold the character U+%04X",
                        static_cast<unsigned>(code));
          return fail(message);
        }
        continue;
      }
      if (replacement != nullptr) {
        text_.append(s, run, i - run);
        text_ += replacement;
        run = i + 1;
      }
      ++i;
    }
    text_.append(s, run, s.size() - run);
    return true;
  }

  void appendReal(double d) {
    if (std::isnan(d)) {
      text_ += "nan";
    } else if (std::isinf(d)) {
      text_ += d < 0 ? "-infinity" : "+infinity";
    } else {
      char buffer[64];
      auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
      text_.append(buffer, result.ptr);
    }
  }

  bool appendDate(double seconds) {
    // The text form has whole seconds: the time is rounded down.
    constexpr double kYear0 = -62167219200.0;      // 0000-01-01T00:00:00Z
    constexpr double kYear10000 = 253402300800.0;  // 10000-01-01T00:00:00Z
    double whole = std::floor(seconds);
    if (!(whole >= kYear0 && whole < kYear10000)) {
      return fail("XML property list cannot hold a date outside the years 0000 to 9999");
    }
    const CivilTime t = civilTimeFromSeconds(static_cast<int64_t>(whole));
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(t.year), t.month, t.day,
                  t.hour, t.minute, t.second);
    text_ += buffer;
    return true;
  }

  void appendBase64(const Data& d, size_t level) {
    std::string line;
    for (size_t i = 0; i < d.size(); i += 3) {
      uint32_t n = static_cast<uint32_t>(d[i]) << 16;
      if (i + 1 < d.size()) n |= static_cast<uint32_t>(d[i + 1]) << 8;
      if (i + 2 < d.size()) n |= d[i + 2];
      line += kBase64Alphabet[(n >> 18) & 63];
      line += kBase64Alphabet[(n >> 12) & 63];
      line += i + 1 < d.size() ? kBase64Alphabet[(n >> 6) & 63] : '=';
      line += i + 2 < d.size() ? kBase64Alphabet[n & 63] : '=';
      if (line.size() >= kBase64LineLength || i + 3 >= d.size()) {
        indent(level);
        text_ += line;
        text_ += '\n';
        line.clear();
      }
    }
  }

  bool writeValue(const Value& v, size_t level) {
    switch (v.kind()) {
      case Value::Kind::Boolean:
        indent(level);
        text_ += v.boolValue() ? "<true/>\n" : "<false/>\n";
        return true;
      case Value::Kind::Integer: {
        char buffer[32];
        auto result = std::to_chars(buffer, buffer + sizeof buffer, v.integerValue());
        indent(level);
        text_ += "<integer>";
        text_.append(buffer, result.ptr);
        text_ += "</integer>\n";
        return true;
      }
      case Value::Kind::Real:
        indent(level);
        text_ += "<real>";
        appendReal(v.doubleValue());
        text_ += "</real>\n";
        return true;
      case Value::Kind::Date:
        indent(level);
        text_ += "<date>";
        if (!appendDate(v.dateValue())) return false;
        text_ += "</date>\n";
        return true;
      case Value::Kind::String:
        indent(level);
        text_ += "<string>";
        if (!appendEscaped(v.string())) return false;
        text_ += "</string>\n";
        return true;
      case Value::Kind::Data:
        indent(level);
        text_ += "<data>\n";
        appendBase64(v.data(), level);
        indent(level);
        text_ += "</data>\n";
        return true;
      case Value::Kind::Array: {
        const Array& a = v.array();
        if (level >= kPropertyListMaximumDepth) return fail("Property list nests deeper than 512 levels");
        indent(level);
        if (a.empty()) {
          text_ += "<array/>\n";
          return true;
        }
        text_ += "<array>\n";
        for (const Value& element : a) {
          if (!writeValue(element, level + 1)) return false;
        }
        indent(level);
        text_ += "</array>\n";
        return true;
      }
      case Value::Kind::Dictionary: {
        const Dictionary& d = v.dictionary();
        if (level >= kPropertyListMaximumDepth) return fail("Property list nests deeper than 512 levels");
        indent(level);
        if (d.empty()) {
          text_ += "<dict/>\n";
          return true;
        }
        text_ += "<dict>\n";
        for (const auto& [key, value] : d) {
          if (!key.isString()) return fail("Property list dictionary keys must be strings");
          indent(level + 1);
          text_ += "<key>";
          if (!appendEscaped(key.string())) return false;
          text_ += "</key>\n";
          if (!writeValue(value, level + 1)) return false;
        }
        indent(level);
        text_ += "</dict>\n";
        return true;
      }
      case Value::Kind::Null:
      case Value::Kind::Set:
      case Value::Kind::Object:
        break;
    }
    return fail(unwritableKindReason(v.kind()));
  }

  std::string text_;
  std::string error_;
};

// ---------------------------------------------------------------------------

bool isXMLSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isXMLSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isXMLSpace(s.back())) s.remove_suffix(1);
  return s;
}

// Decimal or "0x" hexadecimal, with an optional sign, within the 64-bit
// signed range.
std::optional<int64_t> parseInteger(std::string_view s) {
  s = trimmed(s);
  bool negative = false;
  if (!s.empty() && (s.front() == '-' || s.front() == '+')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  int base = 10;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16;
    s.remove_prefix(2);
  }
  if (s.empty()) return std::nullopt;
  uint64_t magnitude = 0;
  auto result = std::from_chars(s.data(), s.data() + s.size(), magnitude, base);
  if (result.ec != std::errc() || result.ptr != s.data() + s.size()) return std::nullopt;
  constexpr uint64_t kLimit = uint64_t{1} << 63;
  if (negative) {
    if (magnitude > kLimit) return std::nullopt;
    return magnitude == kLimit ? std::numeric_limits<int64_t>::min() : -static_cast<int64_t>(magnitude);
  }
  if (magnitude >= kLimit) return std::nullopt;
  return static_cast<int64_t>(magnitude);
}

std::optional<double> parseReal(std::string_view s) {
  s = trimmed(s);
  bool negative = false;
  if (!s.empty() && (s.front() == '-' || s.front() == '+')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  if (s.empty() || s.front() == '-' || s.front() == '+') return std::nullopt;
  double d = 0;
  auto result = std::from_chars(s.data(), s.data() + s.size(), d);
  if (result.ptr != s.data() + s.size()) return std::nullopt;
  if (result.ec == std::errc::result_out_of_range) {
    // from_chars leaves `d` alone here; the text overflows to infinity or
    // underflows to zero, as its exponent says.
    size_t e = s.find_first_of("eE");
    d = e != std::string_view::npos && e + 1 < s.size() && s[e + 1] == '-' ? 0.0
                                                                           : std::numeric_limits<double>::infinity();
  } else if (result.ec != std::errc()) {
    return std::nullopt;
  }
  return negative ? -d : d;
}

// "YYYY-MM-DDTHH:MM:SSZ", optionally with a fraction of a second before the Z.
std::optional<double> parseDate(std::string_view s) {
  s = trimmed(s);
  auto digits = [&](size_t at, size_t count, unsigned& value) {
    if (at + count > s.size()) return false;
    value = 0;
    for (size_t i = at; i < at + count; ++i) {
      if (s[i] < '0' || s[i] > '9') return false;
      value = value * 10 + static_cast<unsigned>(s[i] - '0');
    }
    return true;
  };
  unsigned year, month, day, hour, minute, second;
  if (s.size() < 20 || !digits(0, 4, year) || s[4] != '-' || !digits(5, 2, month) || s[7] != '-' ||
      !digits(8, 2, day) || s[10] != 'T' || !digits(11, 2, hour) || s[13] != ':' || !digits(14, 2, minute) ||
      s[16] != ':' || !digits(17, 2, second)) {
    return std::nullopt;
  }
  double fraction = 0;
  size_t i = 19;
  if (s[i] == '.') {
    double scale = 0.1;
    ++i;
    size_t start = i;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i, scale /= 10) fraction += (s[i] - '0') * scale;
    if (i == start) return std::nullopt;
  }
  if (i + 1 != s.size() || s[i] != 'Z') return std::nullopt;
  static constexpr unsigned kDaysInMonth[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  if (day < 1 || day > kDaysInMonth[month - 1] + (month == 2 && leap ? 1 : 0)) return std::nullopt;
  int64_t days = daysFromCivil(year, month, day);
  return static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second) + fraction;
}

// Base64 with whitespace anywhere and '=' padding only at the end.
std::optional<Data> decodeBase64(std::string_view s) {
  static const auto kDecode = [] {
    std::array<int8_t, 256> table{};
    table.fill(-1);
    for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<int8_t>(i);
    return table;
  }();
  Data out;
  out.reserve(s.size() / 4 * 3);
  uint32_t accumulator = 0;
  int bits = 0;
  size_t symbols = 0, padding = 0;
  for (char ch : s) {
    if (isXMLSpace(ch)) continue;
    if (ch == '=') {
      ++padding;
      continue;
    }
    int8_t value = kDecode[static_cast<unsigned char>(ch)];
    if (value < 0 || padding > 0) return std::nullopt;
    ++symbols;
    accumulator = (accumulator << 6) | static_cast<uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<uint8_t>(accumulator >> bits));
      accumulator &= (1u << bits) - 1;
    }
  }
  if (symbols % 4 == 1 || padding > 2 || (padding > 0 && (symbols + padding) % 4 != 0)) return std::nullopt;
  return out;
}

class XMLReader {
 public:
  explicit XMLReader(std::string& error) : error_(error) {}

  std::optional<Value> read(std::span<const uint8_t> data) {
    std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser(XML_ParserCreate(nullptr),
                                                                                         &XML_ParserFree);
    if (!parser) {
      error_ = "XML property list could not be parsed: out of memory";
      return std::nullopt;
    }
    parser_ = parser.get();
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, &XMLReader::onStart, &XMLReader::onEnd);
    XML_SetCharacterDataHandler(parser_, &XMLReader::onText);
    XML_SetStartDoctypeDeclHandler(parser_, &XMLReader::onDoctype);
    XML_SetEntityDeclHandler(parser_, &XMLReader::onEntityDeclaration);
    XML_SetSkippedEntityHandler(parser_, &XMLReader::onSkippedEntity);
    XML_SetParamEntityParsing(parser_, XML_PARAM_ENTITY_PARSING_NEVER);

    frames_.push_back(Frame{Frame::kRoot, {}, {}, std::nullopt, std::nullopt});
    constexpr size_t kChunk = size_t{1} << 30;
    size_t offset = 0;
    do {
      size_t length = std::min(kChunk, data.size() - offset);
      bool last = offset + length == data.size();
      if (XML_Parse(parser_, reinterpret_cast<const char*>(data.data() + offset), static_cast<int>(length),
                    last ? XML_TRUE : XML_FALSE) != XML_STATUS_OK) {
        if (!failed_) {
          char message[256];
          std::snprintf(message, sizeof message, "XML property list could not be parsed: %s at line %lu, column %lu",
                        XML_ErrorString(XML_GetErrorCode(parser_)),
                        static_cast<unsigned long>(XML_GetCurrentLineNumber(parser_)),
                        static_cast<unsigned long>(XML_GetCurrentColumnNumber(parser_)) + 1);
          error_ = message;
        }
        return std::nullopt;
      }
      offset += length;
    } while (offset < data.size());
    if (frames_.size() != 1 || !frames_[0].value) {
      error_ = "XML property list has no value";
      return std::nullopt;
    }
    return std::move(frames_[0].value);
  }

 private:
  enum class Leaf : uint8_t { None, String, Key, Integer, Real, Date, Data, True, False };

  struct Frame {
    enum Kind : uint8_t { kRoot, kPlist, kArray, kDictionary } kind;
    Array elements;
    Dictionary entries;
    std::optional<Value> key;    // a dictionary's key waiting for its value
    std::optional<Value> value;  // the single value of the root or <plist>
  };

  static const char* leafName(Leaf leaf) {
    static constexpr const char* kNames[] = {"", "string", "key", "integer", "real", "date", "data", "true", "false"};
    return kNames[static_cast<size_t>(leaf)];
  }

  void fail(std::string message) {
    if (failed_) return;
    failed_ = true;
    error_ = std::move(message);
    XML_StopParser(parser_, XML_FALSE);
  }

  static std::string quotedName(const XML_Char* name) {
    std::string_view n(name);
    if (n.size() > 40) return std::string(n.substr(0, 40)) + "...";
    return std::string(n);
  }

  void deliver(Value v) {
    Frame& top = frames_.back();
    switch (top.kind) {
      case Frame::kRoot:
      case Frame::kPlist:
        if (top.value) return fail("XML property list has more than one value");
        top.value = std::move(v);
        return;
      case Frame::kArray:
        top.elements.push_back(std::move(v));
        return;
      case Frame::kDictionary:
        if (!top.key) return fail("XML property list has a dictionary value without a key");
        top.entries.insert_or_assign(std::move(*top.key), std::move(v));
        top.key.reset();
        return;
    }
  }

  void start(const XML_Char* name) {
    if (failed_) return;
    if (leaf_ != Leaf::None)
      return fail(std::string("XML property list has an element inside <") + leafName(leaf_) + ">");
    std::string_view n(name);
    auto beginLeaf = [&](Leaf leaf) {
      leaf_ = leaf;
      text_.clear();
    };
    if (n == "dict" || n == "array") {
      if (containerDepth_ >= kPropertyListMaximumDepth) return fail("XML property list nests deeper than 512 levels");
      ++containerDepth_;
      frames_.push_back(Frame{n == "dict" ? Frame::kDictionary : Frame::kArray, {}, {}, std::nullopt, std::nullopt});
    } else if (n == "key") {
      Frame& top = frames_.back();
      if (top.kind != Frame::kDictionary || top.key) return fail("XML property list has a misplaced key element");
      beginLeaf(Leaf::Key);
    } else if (n == "string") {
      beginLeaf(Leaf::String);
    } else if (n == "integer") {
      beginLeaf(Leaf::Integer);
    } else if (n == "real") {
      beginLeaf(Leaf::Real);
    } else if (n == "date") {
      beginLeaf(Leaf::Date);
    } else if (n == "data") {
      beginLeaf(Leaf::Data);
    } else if (n == "true") {
      beginLeaf(Leaf::True);
    } else if (n == "false") {
      beginLeaf(Leaf::False);
    } else if (n == "plist") {
      if (frames_.size() != 1 || frames_[0].value || sawPlist_)
        return fail("XML property list has a misplaced plist element");
      sawPlist_ = true;
      frames_.push_back(Frame{Frame::kPlist, {}, {}, std::nullopt, std::nullopt});
    } else {
      fail("XML property list has an unknown element <" + quotedName(name) + ">");
    }
  }

  void end() {
    if (failed_) return;
    if (leaf_ != Leaf::None) {
      Leaf leaf = leaf_;
      leaf_ = Leaf::None;
      switch (leaf) {
        case Leaf::String:
          return deliver(Value(std::move(text_)));
        case Leaf::Key:
          frames_.back().key = Value(std::move(text_));
          return;
        case Leaf::Integer:
          if (auto i = parseInteger(text_)) return deliver(Value(*i));
          return fail("XML property list has an invalid integer");
        case Leaf::Real:
          if (auto d = parseReal(text_)) return deliver(Value(*d));
          return fail("XML property list has an invalid real");
        case Leaf::Date:
          if (auto d = parseDate(text_)) return deliver(Value::date(*d));
          return fail("XML property list has an invalid date");
        case Leaf::Data:
          if (auto d = decodeBase64(text_)) return deliver(Value::data(std::move(*d)));
          return fail("XML property list has invalid base64 data");
        case Leaf::True:
        case Leaf::False:
          if (!trimmed(text_).empty()) return fail("XML property list has text inside a boolean");
          return deliver(Value(leaf == Leaf::True));
        case Leaf::None:
          return;
      }
      return;
    }
    Frame frame = std::move(frames_.back());
    frames_.pop_back();
    switch (frame.kind) {
      case Frame::kArray:
        --containerDepth_;
        return deliver(Value(std::move(frame.elements)));
      case Frame::kDictionary:
        --containerDepth_;
        if (frame.key) return fail("XML property list has a dictionary key without a value");
        return deliver(Value(std::move(frame.entries)));
      case Frame::kPlist:
        if (!frame.value) return fail("XML property list has no value");
        return deliver(std::move(*frame.value));
      case Frame::kRoot:
        return;
    }
  }

  void text(const XML_Char* s, int length) {
    if (failed_) return;
    std::string_view t(s, static_cast<size_t>(length));
    if (leaf_ != Leaf::None) {
      text_ += t;
    } else if (!trimmed(t).empty()) {
      fail("XML property list has text outside a value");
    }
  }

  static void XMLCALL onStart(void* self, const XML_Char* name, const XML_Char**) {
    static_cast<XMLReader*>(self)->start(name);
  }
  static void XMLCALL onEnd(void* self, const XML_Char*) { static_cast<XMLReader*>(self)->end(); }
  static void XMLCALL onText(void* self, const XML_Char* s, int length) {
    static_cast<XMLReader*>(self)->text(s, length);
  }
  static void XMLCALL onDoctype(void* self, const XML_Char*, const XML_Char*, const XML_Char*, int hasInternalSubset) {
    if (hasInternalSubset)
      static_cast<XMLReader*>(self)->fail("XML property list has a DOCTYPE with an internal subset");
  }
  static void XMLCALL onEntityDeclaration(void* self, const XML_Char*, int, const XML_Char*, int, const XML_Char*,
                                          const XML_Char*, const XML_Char*, const XML_Char*) {
    static_cast<XMLReader*>(self)->fail("XML property list declares an entity");
  }
  static void XMLCALL onSkippedEntity(void* self, const XML_Char*, int) {
    static_cast<XMLReader*>(self)->fail("XML property list refers to an undeclared entity");
  }

  std::string& error_;
  XML_Parser parser_ = nullptr;
  bool failed_ = false;
  bool sawPlist_ = false;
  std::vector<Frame> frames_;
  size_t containerDepth_ = 0;
  Leaf leaf_ = Leaf::None;
  std::string text_;
};

}  // namespace

bool writeXML(const Value& plist, Data& out, std::string& error) { return XMLWriter().write(plist, out, error); }

std::optional<Value> readXML(std::span<const uint8_t> data, std::string& error) { return XMLReader(error).read(data); }

}  // namespace loomwork::plist_detail
