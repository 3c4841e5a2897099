// Value: the dynamic value that every subsystem stores and passes around.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <tsl/ordered_map.h>
#include <tsl/ordered_set.h>

#pragma GCC visibility push(default)
namespace loomwork {

class Object;
class Value;

// Hash functor that agrees with Value equality (operator==).
struct ValueHash {
  size_t operator()(const Value& value) const noexcept;
};

// Hash and equality by identity: two values match only when they are the same
// container, string or object (scalars: the same kind and bits).
struct ValueIdentityHash {
  size_t operator()(const Value& value) const noexcept;
};
struct ValueIdentityEqual {
  bool operator()(const Value& a, const Value& b) const noexcept;
};

using Array = std::vector<Value>;
// Dictionaries and sets keep insertion order, so enumeration and text forms are
// reproducible.
// Entries are kept in a vector (not tsl's default deque): one allocation per
// container instead of a 512-byte block, which halves the cost of building and
// freeing the many small dictionaries of a document.
using Dictionary = tsl::ordered_map<Value, Value, ValueHash, std::equal_to<Value>, std::allocator<std::pair<Value, Value>>,
                                    std::vector<std::pair<Value, Value>>>;
using Set = tsl::ordered_set<Value, ValueHash, std::equal_to<Value>, std::allocator<Value>, std::vector<Value>>;
using Data = std::vector<uint8_t>;

namespace detail {

// The storage of a string value: an immutable, reference-counted UTF-8 text
// held in one heap block (counts, length, cached hash, then the bytes and a
// terminating NUL). One allocation per string whatever its length, and the
// hash is computed once per string, however many dictionaries it keys.
class SharedText {
 public:
  explicit SharedText(std::string_view text);
  SharedText(const SharedText& other) noexcept : rep_(other.rep_) { retain(); }
  SharedText(SharedText&& other) noexcept : rep_(other.rep_) { other.rep_ = nullptr; }
  SharedText& operator=(const SharedText& other) noexcept {
    SharedText copy(other);
    std::swap(rep_, copy.rep_);
    return *this;
  }
  SharedText& operator=(SharedText&& other) noexcept {
    std::swap(rep_, other.rep_);
    return *this;
  }
  ~SharedText() { release(); }

  std::string_view view() const noexcept { return {chars(), rep_->size}; }
  const void* identity() const noexcept { return rep_; }
  size_t hash() const noexcept {
    size_t h = rep_->hash.load(std::memory_order_relaxed);
    return h != 0 ? h : computeHash();
  }

 private:
  struct Rep {
    std::atomic<size_t> references;
    size_t size;
    mutable std::atomic<size_t> hash;  // 0 until first asked
  };
  const char* chars() const noexcept { return reinterpret_cast<const char*>(rep_ + 1); }
  void retain() const noexcept {
    if (rep_ != nullptr) rep_->references.fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept {
    if (rep_ == nullptr) return;
    // The last owner skips the atomic decrement: no other thread can take a
    // new reference to a block that nobody else holds.
    if (rep_->references.load(std::memory_order_acquire) == 1 ||
        rep_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      ::operator delete(rep_);
    }
  }
  size_t computeHash() const noexcept;
  Rep* rep_;
};

}  // namespace detail

// A date: seconds since 1970-01-01 00:00:00 GMT.
struct Date {
  double secondsSince1970 = 0;
  friend bool operator==(Date a, Date b) { return a.secondsSince1970 == b.secondsSince1970; }
};

// A dynamic value: null, boolean, integer (64-bit), real (double), date,
// string (UTF-8), data (bytes), array, dictionary, set, or a reference to an
// Object.
//
// Containers and strings are shared and never change once built: copying a
// Value is cheap and never deep. A string of at most 22 bytes is held in the
// value itself, so the view string() answers lives only as long as that value
// stays where it is; a longer string's view lives as long as any copy. Code that changes a list works on an Array
// and makes a new Value from it. A default-constructed Value is the null value;
// absence is expressed with std::optional<Value>, never with a null.
//
// Equality (operator==) is identity first, then value equality: numbers
// (booleans, integers, reals) compare by numeric value, dictionaries and sets
// regardless of order, objects through Object::isEqual. hash() agrees with it.
//
// Values are immutable and may be read from several threads at once.
class Value {
 public:
  enum class Kind : uint8_t {
    Null,
    Boolean,
    Integer,
    Real,
    Date,
    String,
    Data,
    Array,
    Dictionary,
    Set,
    Object,
  };

  Value() noexcept = default;
  static Value null() noexcept { return Value(); }

  Value(bool b) noexcept { emplace<bool>(Kind::Boolean, b); }
  template <std::integral T>
  requires(!std::same_as<T, bool>) Value(T i)
  noexcept { emplace<int64_t>(Kind::Integer, static_cast<int64_t>(i)); }
  Value(double d) noexcept { emplace<double>(Kind::Real, d); }
  Value(float d) noexcept { emplace<double>(Kind::Real, static_cast<double>(d)); }
  Value(Date d) noexcept { emplace<Date>(Kind::Date, d); }
  Value(const char* s);
  Value(std::string_view s);
  Value(const std::string& s);
  Value(Array a);
  Value(Dictionary d);
  Value(Set s);
  Value(std::shared_ptr<Object> object) noexcept;
  template <class T>
  requires std::derived_from<T, Object> Value(std::shared_ptr<T> object)
  noexcept : Value(std::shared_ptr<Object>(std::move(object))) {}

  Value(const Value& other) noexcept : tag_(other.tag_) {
    if (holdsHeapBlock()) {
      forHeapType(tag_, [&]<class T>() { ::new (payload_) T(other.as<T>()); });
    } else {
      std::memcpy(payload_, other.payload_, sizeof payload_);
    }
  }
  Value(Value&& other) noexcept : tag_(other.tag_) {
    if (holdsHeapBlock()) {
      forHeapType(tag_, [&]<class T>() {
        ::new (payload_) T(std::move(other.as<T>()));
        other.as<T>().~T();
      });
      other.tag_ = 0;
    } else {
      std::memcpy(payload_, other.payload_, sizeof payload_);
    }
  }
  Value& operator=(const Value& other) noexcept {
    if (this != &other) {
      Value copy(other);
      *this = std::move(copy);
    }
    return *this;
  }
  Value& operator=(Value&& other) noexcept {
    if (this != &other) {
      this->~Value();
      ::new (this) Value(std::move(other));
    }
    return *this;
  }
  ~Value() {
    if (holdsHeapBlock()) forHeapType(tag_, [&]<class T>() { as<T>().~T(); });
  }

  static Value date(double secondsSince1970) noexcept { return Value(Date{secondsSince1970}); }
  static Value data(Data bytes);
  static Value array(std::initializer_list<Value> elements) { return Value(Array(elements)); }
  // Builds a dictionary from (key, value) pairs; a repeated key keeps the last value.
  static Value dictionary(std::initializer_list<std::pair<Value, Value>> entries);
  static Value set(std::initializer_list<Value> members);

  Kind kind() const noexcept { return static_cast<Kind>(tag_ & 0x7F); }
  bool isNull() const noexcept { return kind() == Kind::Null; }
  bool isBoolean() const noexcept { return kind() == Kind::Boolean; }
  bool isInteger() const noexcept { return kind() == Kind::Integer; }
  bool isReal() const noexcept { return kind() == Kind::Real; }
  // Booleans, integers and reals are numbers.
  bool isNumber() const noexcept;
  bool isDate() const noexcept { return kind() == Kind::Date; }
  bool isString() const noexcept { return kind() == Kind::String; }
  bool isData() const noexcept { return kind() == Kind::Data; }
  bool isArray() const noexcept { return kind() == Kind::Array; }
  bool isDictionary() const noexcept { return kind() == Kind::Dictionary; }
  bool isSet() const noexcept { return kind() == Kind::Set; }
  bool isObject() const noexcept { return kind() == Kind::Object; }

  // Typed reading. Each throws Exception (invalid argument) when the value is of
  // another kind; the try* forms return nullptr instead.
  bool boolValue() const;        // any number: non-zero is true
  int64_t integerValue() const;  // any number; reals are truncated
  double doubleValue() const;    // any number
  double dateValue() const;      // seconds since 1970
  std::string_view string() const;
  const Data& data() const;
  const Array& array() const;
  const Dictionary& dictionary() const;
  const Set& set() const;
  const std::shared_ptr<Object>& object() const;
  template <class T>
  std::shared_ptr<T> objectAs() const {
    return isObject() ? std::dynamic_pointer_cast<T>(object()) : nullptr;
  }

  std::optional<std::string_view> tryString() const noexcept;
  const Data* tryData() const noexcept;
  const Array* tryArray() const noexcept;
  const Dictionary* tryDictionary() const noexcept;
  const Set* trySet() const noexcept;
  Object* tryObject() const noexcept;

  // Number of elements of an array, dictionary or set; 0 for anything else.
  size_t count() const noexcept;
  // The dictionary's value for a string key, or absent (also when not a dictionary).
  std::optional<Value> operator[](std::string_view key) const;
  std::optional<Value> objectForKey(const Value& key) const;

  // The same object: the same container, long string, data or object; for
  // scalars and strings of at most 22 bytes the same kind and bits.
  bool isIdenticalTo(const Value& other) const noexcept;
  bool isEqual(const Value& other) const { return *this == other; }
  friend bool operator==(const Value& a, const Value& b) {
    // Integers and strings, by far the most common keys, skip the general path.
    if (a.kind() == b.kind()) {
      if (a.kind() == Kind::Integer) return a.as<int64_t>() == b.as<int64_t>();
      if (a.kind() == Kind::String) return a.stringView() == b.stringView();
    }
    return equalValues(a, b);
  }
  size_t hash() const noexcept {
    if (kind() == Kind::Integer) return hashInteger(as<int64_t>());
    if (kind() == Kind::String) return stringHash();
    return hashSlow();
  }
  static size_t hashInteger(int64_t i) noexcept {
    auto x = static_cast<uint64_t>(i);
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ULL;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebULL;
    x ^= x >> 31;
    return static_cast<size_t>(x);
  }
  size_t identityHash() const noexcept;

  // Orders two values: numbers numerically, strings by code point, dates by
  // time, arrays element by element; values of different kinds by kind, null
  // first. Returns -1, 0 or 1.
  int compare(const Value& other) const;

  // The text form; its grammar is written down in docs/ARCHITECTURE.md. A string
  // describes itself as its own text; inside containers it is quoted when needed.
  std::string description() const;
  // The text form used for elements inside containers.
  void appendDescription(std::string& out, bool nested) const;

 private:
  // A value is 24 bytes: 23 of payload and a tag. The tag is the Kind; a
  // string of at most kInlineTextCapacity bytes is kept in the payload itself
  // (its length in the payload's last byte) and tagged Kind::String with
  // kInlineText added. Short strings, the usual keys and names, so cost no
  // allocation, no reference counting and no cache miss to read.
  // Longer strings, data, containers and objects hold one shared heap block.
  static constexpr uint8_t kInlineText = 0x80 | static_cast<uint8_t>(Kind::String);
  static constexpr size_t kInlineTextCapacity = 22;

  template <class T, class... Args>
  void emplace(Kind kind, Args&&... args) noexcept {
    ::new (payload_) T(std::forward<Args>(args)...);
    tag_ = static_cast<uint8_t>(kind);
  }
  template <class T>
  T& as() noexcept {
    return *std::launder(reinterpret_cast<T*>(payload_));
  }
  template <class T>
  const T& as() const noexcept {
    return *std::launder(reinterpret_cast<const T*>(payload_));
  }
  // Long strings, data, containers and objects; never an inline string.
  bool holdsHeapBlock() const noexcept { return tag_ >= static_cast<uint8_t>(Kind::String) && tag_ < 0x80; }
  // Calls f.template operator()<T>() with the type of a heap-held payload.
  template <class F>
  static void forHeapType(uint8_t tag, F&& f) {
    switch (static_cast<Kind>(tag)) {
      case Kind::String:
        f.template operator()<detail::SharedText>();
        break;
      case Kind::Data:
        f.template operator()<std::shared_ptr<const Data>>();
        break;
      case Kind::Array:
        f.template operator()<std::shared_ptr<const Array>>();
        break;
      case Kind::Dictionary:
        f.template operator()<std::shared_ptr<const Dictionary>>();
        break;
      case Kind::Set:
        f.template operator()<std::shared_ptr<const Set>>();
        break;
      case Kind::Object:
        f.template operator()<std::shared_ptr<Object>>();
        break;
      default:
        break;
    }
  }
  // The text of a string value (either representation).
  std::string_view stringView() const noexcept {
    if (tag_ == kInlineText) return {reinterpret_cast<const char*>(payload_), payload_[kInlineTextCapacity]};
    return as<detail::SharedText>().view();
  }
  // A long string's hash is computed once and kept in its block; a short
  // one's is computed from the few bytes each time.
  size_t stringHash() const noexcept {
    if (tag_ == kInlineText) return std::hash<std::string_view>()(stringView());
    return as<detail::SharedText>().hash();
  }
  void setString(std::string_view text);
  const void* heapPointer() const noexcept;
  static bool equalValues(const Value& a, const Value& b);
  size_t hashSlow() const noexcept;

  alignas(8) unsigned char payload_[23];
  uint8_t tag_ = 0;
};

static_assert(sizeof(Value) == 24);

// Key-value reading: a dictionary answers its entry for a string key; an object
// answers through Object::valueForKey. Anything else, or a missing key, gives
// absent.
std::optional<Value> valueForKey(const Value& value, std::string_view key);
// Resolves a dotted key path ("a.b.c") one component at a time through
// dictionaries and objects. An empty path gives the value itself.
std::optional<Value> valueForKeyPath(const Value& value, std::string_view keyPath);

// Text form of an optional value: "nil" when absent.
std::string describe(const std::optional<Value>& value);

}  // namespace loomwork
#pragma GCC visibility pop

template <>
struct std::hash<loomwork::Value> {
  size_t operator()(const loomwork::Value& v) const noexcept { return v.hash(); }
};
