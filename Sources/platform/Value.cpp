#include "loomwork/platform/Value.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/CivilDate.h"
#include "loomwork/platform/Exception.h"
#include "loomwork/platform/Object.h"

namespace loomwork {

namespace {

inline size_t mix(uint64_t x) noexcept { return Value::hashInteger(static_cast<int64_t>(x)); }

inline size_t hashBytes(const void* data, size_t length) noexcept {
  return std::hash<std::string_view>()(std::string_view(static_cast<const char*>(data), length));
}

constexpr double kTwo63 = 9223372036854775808.0;

// The integer a real stands for exactly, if it stands for one.
std::optional<int64_t> exactInteger(double d) {
  if (!(d >= -kTwo63 && d < kTwo63)) return std::nullopt;
  if (std::floor(d) != d) return std::nullopt;
  return static_cast<int64_t>(d);
}

int compareIntegerToReal(int64_t i, double d) {
  if (std::isnan(d)) return -1;
  if (d >= kTwo63) return -1;
  if (d < -kTwo63) return 1;
  double floored = std::floor(d);
  auto f = static_cast<int64_t>(floored);
  if (i < f) return -1;
  if (i > f) return 1;
  return d > floored ? -1 : 0;
}

int sign(int64_t a, int64_t b) { return a < b ? -1 : (a > b ? 1 : 0); }

[[noreturn]] void wrongKind(const char* wanted) {
  throw Exception(ExceptionKind::InvalidArgument, std::string("Value is not ") + wanted);
}

bool isBareStringCharacter(unsigned char c) {
  return std::isalnum(c) || c == '_' || c == '.' || c == '$' || c == '/' || c == ':' || c == '-';
}

void appendQuoted(std::string& out, std::string_view s) {
  out += '"';
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char buffer[8];
          std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
          out += buffer;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

void appendReal(std::string& out, double d) {
  if (std::isnan(d)) {
    out += "nan";
    return;
  }
  if (std::isinf(d)) {
    out += d < 0 ? "-inf" : "inf";
    return;
  }
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
  std::string_view text(buffer, static_cast<size_t>(result.ptr - buffer));
  out += text;
  if (text.find_first_of(".e") == std::string_view::npos) out += ".0";
}

void appendDate(std::string& out, double seconds) {
  if (!std::isfinite(seconds) || std::fabs(seconds) > 1e15) {
    out += "<date ";
    appendReal(out, seconds);
    out += '>';
    return;
  }
  const CivilTime t = civilTimeFromSeconds(static_cast<int64_t>(std::floor(seconds)));
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02u %02d:%02d:%02d +0000", static_cast<long long>(t.year), t.month,
                t.day, t.hour, t.minute, t.second);
  out += buffer;
}

}  // namespace

size_t ValueHash::operator()(const Value& value) const noexcept { return value.hash(); }
size_t ValueIdentityHash::operator()(const Value& value) const noexcept { return value.identityHash(); }
bool ValueIdentityEqual::operator()(const Value& a, const Value& b) const noexcept { return a.isIdenticalTo(b); }

namespace detail {

SharedText::SharedText(std::string_view text) {
  void* block = ::operator new(sizeof(Rep) + text.size() + 1);
  rep_ = new (block) Rep{{1}, text.size(), {0}};
  char* chars = reinterpret_cast<char*>(rep_ + 1);
  if (!text.empty()) std::memcpy(chars, text.data(), text.size());
  chars[text.size()] = '\0';
}

size_t SharedText::computeHash() const noexcept {
  size_t h = std::hash<std::string_view>()(view());
  rep_->hash.store(h, std::memory_order_relaxed);
  return h;
}

}  // namespace detail

void Value::setString(std::string_view text) {
  if (text.size() <= kInlineTextCapacity) {
    if (!text.empty()) std::memcpy(payload_, text.data(), text.size());
    payload_[kInlineTextCapacity] = static_cast<unsigned char>(text.size());
    tag_ = kInlineText;
  } else {
    emplace<detail::SharedText>(Kind::String, text);
  }
}

Value::Value(const char* s) { setString(s ? std::string_view(s) : std::string_view()); }
Value::Value(std::string_view s) { setString(s); }
Value::Value(const std::string& s) { setString(s); }
Value::Value(Array a) { emplace<std::shared_ptr<const Array>>(Kind::Array, std::make_shared<const Array>(std::move(a))); }
Value::Value(Dictionary d) {
  emplace<std::shared_ptr<const Dictionary>>(Kind::Dictionary, std::make_shared<const Dictionary>(std::move(d)));
}
Value::Value(Set s) { emplace<std::shared_ptr<const Set>>(Kind::Set, std::make_shared<const Set>(std::move(s))); }
Value::Value(std::shared_ptr<Object> object) noexcept {
  if (object) emplace<std::shared_ptr<Object>>(Kind::Object, std::move(object));
}

Value Value::data(Data bytes) {
  Value v;
  v.emplace<std::shared_ptr<const Data>>(Kind::Data, std::make_shared<const Data>(std::move(bytes)));
  return v;
}

Value Value::dictionary(std::initializer_list<std::pair<Value, Value>> entries) {
  Dictionary d;
  for (const auto& [key, value] : entries) d.insert_or_assign(key, value);
  return Value(std::move(d));
}

Value Value::set(std::initializer_list<Value> members) {
  Set s;
  for (const auto& m : members) s.insert(m);
  return Value(std::move(s));
}

bool Value::isNumber() const noexcept {
  Kind k = kind();
  return k == Kind::Boolean || k == Kind::Integer || k == Kind::Real;
}

bool Value::boolValue() const {
  switch (kind()) {
    case Kind::Boolean:
      return as<bool>();
    case Kind::Integer:
      return as<int64_t>() != 0;
    case Kind::Real:
      return as<double>() != 0;
    default:
      wrongKind("a number");
  }
}

int64_t Value::integerValue() const {
  switch (kind()) {
    case Kind::Boolean:
      return as<bool>() ? 1 : 0;
    case Kind::Integer:
      return as<int64_t>();
    case Kind::Real: {
      double d = as<double>();
      if (std::isnan(d)) return 0;
      if (d >= kTwo63) return INT64_MAX;
      if (d < -kTwo63) return INT64_MIN;
      return static_cast<int64_t>(d);
    }
    default:
      wrongKind("a number");
  }
}

double Value::doubleValue() const {
  switch (kind()) {
    case Kind::Boolean:
      return as<bool>() ? 1.0 : 0.0;
    case Kind::Integer:
      return static_cast<double>(as<int64_t>());
    case Kind::Real:
      return as<double>();
    default:
      wrongKind("a number");
  }
}

double Value::dateValue() const {
  if (!isDate()) wrongKind("a date");
  return as<Date>().secondsSince1970;
}

std::string_view Value::string() const {
  if (!isString()) wrongKind("a string");
  return stringView();
}
const Data& Value::data() const {
  if (!isData()) wrongKind("data");
  return *as<std::shared_ptr<const Data>>();
}
const Array& Value::array() const {
  if (!isArray()) wrongKind("an array");
  return *as<std::shared_ptr<const Array>>();
}
const Dictionary& Value::dictionary() const {
  if (!isDictionary()) wrongKind("a dictionary");
  return *as<std::shared_ptr<const Dictionary>>();
}
const Set& Value::set() const {
  if (!isSet()) wrongKind("a set");
  return *as<std::shared_ptr<const Set>>();
}
const std::shared_ptr<Object>& Value::object() const {
  if (!isObject()) wrongKind("an object");
  return as<std::shared_ptr<Object>>();
}

std::optional<std::string_view> Value::tryString() const noexcept {
  if (!isString()) return std::nullopt;
  return stringView();
}
const Data* Value::tryData() const noexcept {
  return isData() ? as<std::shared_ptr<const Data>>().get() : nullptr;
}
const Array* Value::tryArray() const noexcept {
  return isArray() ? as<std::shared_ptr<const Array>>().get() : nullptr;
}
const Dictionary* Value::tryDictionary() const noexcept {
  return isDictionary() ? as<std::shared_ptr<const Dictionary>>().get() : nullptr;
}
const Set* Value::trySet() const noexcept {
  return isSet() ? as<std::shared_ptr<const Set>>().get() : nullptr;
}
Object* Value::tryObject() const noexcept {
  return isObject() ? as<std::shared_ptr<Object>>().get() : nullptr;
}

size_t Value::count() const noexcept {
  if (auto a = tryArray()) return a->size();
  if (auto d = tryDictionary()) return d->size();
  if (auto s = trySet()) return s->size();
  return 0;
}

std::optional<Value> Value::operator[](std::string_view key) const {
  const Dictionary* d = tryDictionary();
  if (d == nullptr) return std::nullopt;
  auto it = d->find(Value(key));
  if (it == d->end()) return std::nullopt;
  return it->second;
}

std::optional<Value> Value::objectForKey(const Value& key) const {
  const Dictionary* d = tryDictionary();
  if (d == nullptr) return std::nullopt;
  auto it = d->find(key);
  if (it == d->end()) return std::nullopt;
  return it->second;
}

const void* Value::heapPointer() const noexcept {
  const void* pointer = nullptr;
  if (holdsHeapBlock()) {
    forHeapType(tag_, [&]<class T>() {
      if constexpr (std::is_same_v<T, detail::SharedText>) {
        pointer = as<T>().identity();
      } else {
        pointer = as<T>().get();
      }
    });
  }
  return pointer;
}

bool Value::isIdenticalTo(const Value& other) const noexcept {
  if (kind() != other.kind()) return false;
  switch (kind()) {
    case Kind::Null:
      return true;
    case Kind::Boolean:
      return as<bool>() == other.as<bool>();
    case Kind::Integer:
      return as<int64_t>() == other.as<int64_t>();
    case Kind::Real: {
      double a = as<double>(), b = other.as<double>();
      return std::memcmp(&a, &b, sizeof a) == 0;
    }
    case Kind::Date: {
      double a = as<Date>().secondsSince1970, b = other.as<Date>().secondsSince1970;
      return std::memcmp(&a, &b, sizeof a) == 0;
    }
    case Kind::String:
      // Short strings live in the value: the same text is the same string.
      if (tag_ == kInlineText || other.tag_ == kInlineText) return stringView() == other.stringView();
      return heapPointer() == other.heapPointer();
    default:
      return heapPointer() == other.heapPointer();
  }
}

bool Value::equalValues(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) {
    Kind ka = a.kind(), kb = b.kind();
    if (ka != Kind::Real && kb != Kind::Real) return a.integerValue() == b.integerValue();
    if (ka == Kind::Real && kb == Kind::Real) return a.doubleValue() == b.doubleValue();
    if (ka == Kind::Real)
      return compareIntegerToReal(b.integerValue(), a.doubleValue()) == 0 && !std::isnan(a.doubleValue());
    return compareIntegerToReal(a.integerValue(), b.doubleValue()) == 0 && !std::isnan(b.doubleValue());
  }
  if (a.kind() != b.kind()) return false;
  if (a.isIdenticalTo(b)) return true;
  switch (a.kind()) {
    case Kind::Null:
      return true;
    case Kind::Date:
      return a.dateValue() == b.dateValue();
    case Kind::String:
      return a.string() == b.string();
    case Kind::Data:
      return a.data() == b.data();
    case Kind::Array:
      return a.array() == b.array();
    case Kind::Dictionary: {
      const Dictionary& x = a.dictionary();
      const Dictionary& y = b.dictionary();
      if (x.size() != y.size()) return false;
      for (const auto& [key, value] : x) {
        auto it = y.find(key);
        if (it == y.end() || !(it->second == value)) return false;
      }
      return true;
    }
    case Kind::Set: {
      const Set& x = a.set();
      const Set& y = b.set();
      if (x.size() != y.size()) return false;
      for (const auto& member : x) {
        if (y.find(member) == y.end()) return false;
      }
      return true;
    }
    case Kind::Object:
      return a.object()->isEqual(*b.object());
    default:
      return false;
  }
}

size_t Value::hashSlow() const noexcept {
  switch (kind()) {
    case Kind::Null:
      return 0x6e756c6cULL;
    case Kind::Boolean:
      return mix(as<bool>() ? 1 : 0);
    case Kind::Integer:
      return mix(static_cast<uint64_t>(as<int64_t>()));
    case Kind::Real: {
      double d = as<double>();
      if (auto i = exactInteger(d)) return mix(static_cast<uint64_t>(*i));
      uint64_t bits;
      std::memcpy(&bits, &d, sizeof bits);
      return mix(bits);
    }
    case Kind::Date: {
      double d = as<Date>().secondsSince1970;
      if (d == 0) d = 0;  // -0 and +0 are equal
      uint64_t bits;
      std::memcpy(&bits, &d, sizeof bits);
      return mix(bits ^ 0xda7eULL);
    }
    case Kind::String:
      return stringHash();
    case Kind::Data: {
      const Data& d = *as<std::shared_ptr<const Data>>();
      return hashBytes(d.data(), d.size()) ^ 0xd474ULL;
    }
    case Kind::Array: {
      size_t h = 0xa7700ULL;
      for (const auto& element : *as<std::shared_ptr<const Array>>()) h = mix(h * 31 + element.hash());
      return h;
    }
    case Kind::Dictionary: {
      // Order-independent, so that equal dictionaries hash alike.
      size_t h = 0;
      for (const auto& [key, value] : *as<std::shared_ptr<const Dictionary>>()) {
        h += mix(key.hash() * 31 + value.hash());
      }
      return mix(h ^ 0xd1c7ULL);
    }
    case Kind::Set: {
      size_t h = 0;
      for (const auto& member : *as<std::shared_ptr<const Set>>()) h += member.hash();
      return mix(h ^ 0x5e7ULL);
    }
    case Kind::Object:
      return as<std::shared_ptr<Object>>()->hash();
  }
  return 0;
}

size_t Value::identityHash() const noexcept {
  switch (kind()) {
    case Kind::Null:
    case Kind::Boolean:
    case Kind::Integer:
    case Kind::Real:
    case Kind::Date:
      return hash();
    default:
      if (tag_ == kInlineText) return hash();
      return mix(reinterpret_cast<uintptr_t>(heapPointer()));
  }
}

int Value::compare(const Value& other) const {
  if (isNumber() && other.isNumber()) {
    bool realA = isReal(), realB = other.isReal();
    if (!realA && !realB) return sign(integerValue(), other.integerValue());
    if (realA && realB) {
      double a = doubleValue(), b = other.doubleValue();
      return a < b ? -1 : (a > b ? 1 : 0);
    }
    if (realB) return compareIntegerToReal(integerValue(), other.doubleValue());
    return -compareIntegerToReal(other.integerValue(), doubleValue());
  }
  auto rank = [](Kind k) {
    return (k == Kind::Boolean || k == Kind::Integer || k == Kind::Real) ? static_cast<int>(Kind::Integer)
                                                                         : static_cast<int>(k);
  };
  if (rank(kind()) != rank(other.kind())) return rank(kind()) < rank(other.kind()) ? -1 : 1;
  switch (kind()) {
    case Kind::Date: {
      double a = dateValue(), b = other.dateValue();
      return a < b ? -1 : (a > b ? 1 : 0);
    }
    case Kind::String: {
      int c = string().compare(other.string());
      return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
    case Kind::Data: {
      const Data &a = data(), &b = other.data();
      if (a < b) return -1;
      return b < a ? 1 : 0;
    }
    case Kind::Array: {
      const Array &a = array(), &b = other.array();
      for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        int c = a[i].compare(b[i]);
        if (c != 0) return c;
      }
      return sign(static_cast<int64_t>(a.size()), static_cast<int64_t>(b.size()));
    }
    case Kind::Dictionary:
    case Kind::Set:
      return sign(static_cast<int64_t>(count()), static_cast<int64_t>(other.count()));
    case Kind::Object: {
      if (object()->isEqual(*other.object())) return 0;
      return std::less<const void*>()(heapPointer(), other.heapPointer()) ? -1 : 1;
    }
    default:
      return 0;
  }
}

std::string Value::description() const {
  std::string out;
  appendDescription(out, false);
  return out;
}

void Value::appendDescription(std::string& out, bool nested) const {
  switch (kind()) {
    case Kind::Null:
      out += "<null>";
      return;
    case Kind::Boolean:
      out += as<bool>() ? "true" : "false";
      return;
    case Kind::Integer: {
      char buffer[24];
      auto result = std::to_chars(buffer, buffer + sizeof buffer, as<int64_t>());
      out.append(buffer, result.ptr);
      return;
    }
    case Kind::Real:
      appendReal(out, as<double>());
      return;
    case Kind::Date:
      appendDate(out, as<Date>().secondsSince1970);
      return;
    case Kind::String: {
      std::string_view s = string();
      if (!nested || (!s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
            return isBareStringCharacter(static_cast<unsigned char>(c));
          }))) {
        out += s;
      } else {
        appendQuoted(out, s);
      }
      return;
    }
    case Kind::Data: {
      static const char* digits = "0123456789abcdef";
      const Data& d = data();
      out += '<';
      for (size_t i = 0; i < d.size(); ++i) {
        if (i > 0 && i % 4 == 0) out += ' ';
        out += digits[d[i] >> 4];
        out += digits[d[i] & 15];
      }
      out += '>';
      return;
    }
    case Kind::Array: {
      out += '(';
      bool first = true;
      for (const auto& element : array()) {
        if (!first) out += ", ";
        first = false;
        element.appendDescription(out, true);
      }
      out += ')';
      return;
    }
    case Kind::Dictionary: {
      out += '{';
      bool first = true;
      for (const auto& [key, value] : dictionary()) {
        if (!first) out += ' ';
        first = false;
        key.appendDescription(out, true);
        out += " = ";
        value.appendDescription(out, true);
        out += ';';
      }
      out += '}';
      return;
    }
    case Kind::Set: {
      out += "{(";
      bool first = true;
      for (const auto& member : set()) {
        if (!first) out += ", ";
        first = false;
        member.appendDescription(out, true);
      }
      out += ")}";
      return;
    }
    case Kind::Object:
      out += object()->description();
      return;
  }
}

std::optional<Value> valueForKey(const Value& value, std::string_view key) {
  if (value.isDictionary()) return value[key];
  if (Object* object = value.tryObject()) return object->valueForKey(key);
  return std::nullopt;
}

std::optional<Value> valueForKeyPath(const Value& value, std::string_view keyPath) {
  if (keyPath.empty()) return value;
  std::optional<Value> current = value;
  while (true) {
    size_t dot = keyPath.find('.');
    current = valueForKey(*current, keyPath.substr(0, dot));
    if (!current || dot == std::string_view::npos) return current;
    keyPath.remove_prefix(dot + 1);
  }
}

std::string describe(const std::optional<Value>& value) { return value ? value->description() : "nil"; }

}  // namespace loomwork
