// The binary property-list codec ("bplist00").
//
// Layout: an 8-byte header, the objects, a table of object offsets and a
// 32-byte trailer (offset width, reference width, object count, top object,
// offset of the table). Containers refer to their elements by object index.
//
// The writer flattens the value into a list of objects first (strings,
// booleans and small integers written once each, data and containers once per
// identity, other numbers as they come), which fixes the object count and
// therefore the reference width; it then computes the exact size of the file
// and fills one buffer.
//
// The reader trusts nothing in the file: every offset, count, width and
// reference is checked against the bytes before use. A first pass counts the
// references to each object; objects referred to more than once are decoded
// once and shared, so a file that shares objects is read in linear time, and
// they are marked while being read, so that a container that contains itself
// is refused rather than followed. Everything else is decoded straight into
// its container.
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <array>
#include <cstring>
#include <functional>
#include <limits>
#include <string_view>
#include <vector>

#include "platform/PropertyListCodecs.h"

namespace loomwork::plist_detail {

namespace {

constexpr double kSecondsFrom1970To2001 = 978307200.0;
constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;

constexpr uint8_t kMarkerFalse = 0x08;
constexpr uint8_t kMarkerTrue = 0x09;
constexpr uint8_t kMarkerInteger = 0x10;
constexpr uint8_t kMarkerReal = 0x20;
constexpr uint8_t kMarkerDate = 0x33;
constexpr uint8_t kMarkerData = 0x40;
constexpr uint8_t kMarkerASCII = 0x50;
constexpr uint8_t kMarkerUTF16 = 0x60;
constexpr uint8_t kMarkerArray = 0xA0;
constexpr uint8_t kMarkerDictionary = 0xD0;

// The smallest of the widths 1, 2, 4 and 8 that holds `v`. Also the width the
// trailer needs for an object count or table offset of `v` (v < 2^(8*width)).
inline unsigned widthFor(uint64_t v) { return v <= 0xFF ? 1 : v <= 0xFFFF ? 2 : v <= 0xFFFFFFFFULL ? 4 : 8; }
inline unsigned log2Width(unsigned width) { return width == 1 ? 0 : width == 2 ? 1 : width == 4 ? 2 : 3; }

// Bytes taken by the count of an object: counts under 15 live in the marker,
// larger ones follow it as an integer object.
inline uint64_t countBytes(uint64_t n) { return n < 15 ? 0 : 1 + widthFor(n); }

inline void putBigEndian(uint8_t*& p, uint64_t v, unsigned width) {
  switch (width) {
    case 1:
      p[0] = static_cast<uint8_t>(v);
      break;
    case 2: {
      uint16_t x = __builtin_bswap16(static_cast<uint16_t>(v));
      std::memcpy(p, &x, 2);
      break;
    }
    case 4: {
      uint32_t x = __builtin_bswap32(static_cast<uint32_t>(v));
      std::memcpy(p, &x, 4);
      break;
    }
    default: {
      uint64_t x = __builtin_bswap64(v);
      std::memcpy(p, &x, 8);
      break;
    }
  }
  p += width;
}

inline void putMarkerAndCount(uint8_t*& p, uint8_t marker, uint64_t n) {
  if (n < 15) {
    *p++ = static_cast<uint8_t>(marker | n);
    return;
  }
  *p++ = static_cast<uint8_t>(marker | 0x0F);
  unsigned width = widthFor(n);
  *p++ = static_cast<uint8_t>(kMarkerInteger | log2Width(width));
  putBigEndian(p, n, width);
}

inline uint64_t bitsOf(double d) {
  uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  return bits;
}

inline bool isASCII(const char* s, size_t n) {
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t chunk;
    std::memcpy(&chunk, s + i, 8);
    if (chunk & 0x8080808080808080ULL) return false;
  }
  unsigned char any = 0;
  for (; i < n; ++i) any |= static_cast<unsigned char>(s[i]);
  return any < 0x80;
}

// Open-addressing map from a hash to an object index; the caller's predicate
// decides whether the object at a candidate index is the one looked for, so
// the keys themselves are never copied.
class IndexTable {
 public:
  static constexpr uint64_t kEmpty = std::numeric_limits<uint64_t>::max();

  // Returns the index of the matching object, or records and returns `newIndex`.
  template <class Equal>
  uint64_t findOrAdd(uint64_t hash, uint64_t newIndex, Equal&& equal) {
    if ((count_ + 1) * 2 > slots_.size()) grow();
    size_t mask = slots_.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
      Slot& slot = slots_[i];
      if (slot.index == kEmpty) {
        slot = {hash, newIndex};
        ++count_;
        return newIndex;
      }
      if (slot.hash == hash && equal(slot.index)) return slot.index;
    }
  }

 private:
  struct Slot {
    uint64_t hash;
    uint64_t index;
  };

  void grow() {
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(old.empty() ? 64 : old.size() * 2, Slot{0, kEmpty});
    size_t mask = slots_.size() - 1;
    for (const Slot& slot : old) {
      if (slot.index == kEmpty) continue;
      size_t i = slot.hash & mask;
      while (slots_[i].index != kEmpty) i = (i + 1) & mask;
      slots_[i] = slot;
    }
  }

  std::vector<Slot> slots_;
  size_t count_ = 0;
};

class BinaryWriter {
 public:
  bool write(const Value& root, Data& out, std::string& error) {
    if (flatten(root, 0) == kFailed) {
      error = error_;
      return false;
    }
    emit(out);
    return true;
  }

 private:
  static constexpr uint64_t kFailed = std::numeric_limits<uint64_t>::max();

  // One object of the file. `aux` is the first slot in refs_ for a container
  // and the UTF-16 length for a string that is not ASCII (0 for ASCII).
  struct Entry {
    const Value* value;
    uint64_t aux;
  };

  // The index of the data or container `v` is (as the same heap object) if it
  // was met before; otherwise `next`, which it is given.
  uint64_t sameContainer(const Value& v, uint64_t next) {
    return identities_.findOrAdd(v.identityHash(), next,
                                 [&](uint64_t i) { return objects_[i].value->isIdenticalTo(v); });
  }

  uint64_t fail(const char* message) {
    error_ = message;
    return kFailed;
  }

  uint64_t add(const Value& v, uint64_t aux, uint64_t bytes) {
    objects_.push_back({&v, aux});
    payload_ += bytes;
    return objects_.size() - 1;
  }

  static uint64_t scalarBytes(const Value& v) {
    switch (v.kind()) {
      case Value::Kind::Boolean:
        return 1;
      case Value::Kind::Integer: {
        int64_t i = v.integerValue();
        return 1 + (i < 0 ? 8 : widthFor(static_cast<uint64_t>(i)));
      }
      default:
        return 9;
    }
  }

  uint64_t flatten(const Value& v, size_t depth) {
    uint64_t next = objects_.size();
    switch (v.kind()) {
      case Value::Kind::Boolean: {
        uint64_t& index = booleans_[v.boolValue() ? 1 : 0];
        if (index == kFailed) index = add(v, 0, 1);
        return index;
      }
      case Value::Kind::Integer: {
        // Small integers (counts, types, flags) recur and are written once;
        // looking every number up would cost more than the bytes it saves.
        int64_t i = v.integerValue();
        if (i < kSmallestShared || i > kLargestShared) return add(v, 0, scalarBytes(v));
        uint64_t& index = smallIntegers_[static_cast<size_t>(i - kSmallestShared)];
        if (index == kFailed) index = add(v, 0, scalarBytes(v));
        return index;
      }
      case Value::Kind::Real:
      case Value::Kind::Date:
        return add(v, 0, 9);
      case Value::Kind::String: {
        std::string_view s = *v.tryString();
        uint64_t index =
            strings_.findOrAdd(v.hash(), next, [&](uint64_t i) { return *objects_[i].value->tryString() == s; });
        if (index != next) return index;
        if (isASCII(s.data(), s.size())) {
          add(v, 0, 1 + countBytes(s.size()) + s.size());
          return index;
        }
        uint64_t units = 0;
        for (size_t i = 0; i < s.size();) {
          UChar32 c;
          U8_NEXT(s.data(), i, s.size(), c);
          if (c < 0) return fail("Property list string is not valid UTF-8");
          units += U16_LENGTH(c);
        }
        add(v, units, 1 + countBytes(units) + 2 * units);
        return index;
      }
      case Value::Kind::Data: {
        const Data& d = *v.tryData();
        uint64_t index = sameContainer(v, next);
        if (index == next) add(v, 0, 1 + countBytes(d.size()) + d.size());
        return index;
      }
      case Value::Kind::Array: {
        const Array& a = *v.tryArray();
        uint64_t index = sameContainer(v, next);
        if (index != next) return index;
        if (depth >= kPropertyListMaximumDepth) return fail("Property list nests deeper than 512 levels");
        size_t first = refs_.size();
        add(v, first, 1 + countBytes(a.size()));
        refs_.resize(first + a.size());
        for (size_t i = 0; i < a.size(); ++i) {
          uint64_t ref = flatten(a[i], depth + 1);
          if (ref == kFailed) return kFailed;
          refs_[first + i] = ref;
        }
        return index;
      }
      case Value::Kind::Dictionary: {
        const Dictionary& d = *v.tryDictionary();
        uint64_t index = sameContainer(v, next);
        if (index != next) return index;
        if (depth >= kPropertyListMaximumDepth) return fail("Property list nests deeper than 512 levels");
        size_t first = refs_.size();
        size_t n = d.size();
        add(v, first, 1 + countBytes(n));
        refs_.resize(first + 2 * n);
        size_t i = 0;
        for (const auto& [key, value] : d) {
          if (!key.isString()) return fail("Property list dictionary keys must be strings");
          uint64_t keyRef = flatten(key, depth + 1);
          if (keyRef == kFailed) return kFailed;
          uint64_t valueRef = flatten(value, depth + 1);
          if (valueRef == kFailed) return kFailed;
          refs_[first + i] = keyRef;
          refs_[first + n + i] = valueRef;
          ++i;
        }
        return index;
      }
      case Value::Kind::Null:
      case Value::Kind::Set:
      case Value::Kind::Object:
        break;
    }
    return fail(unwritableKindReason(v.kind()));
  }

  void emit(Data& out) const {
    const uint64_t count = objects_.size();
    const unsigned refWidth = widthFor(count);
    const uint64_t tableOffset = kHeaderSize + payload_ + refs_.size() * refWidth;
    const unsigned offsetWidth = widthFor(tableOffset);
    out.resize(tableOffset + count * offsetWidth + kTrailerSize);

    uint8_t* const base = out.data();
    std::memcpy(base, "bplist00", kHeaderSize);
    uint8_t* p = base + kHeaderSize;
    uint8_t* table = base + tableOffset;
    for (const Entry& entry : objects_) {
      putBigEndian(table, static_cast<uint64_t>(p - base), offsetWidth);
      const Value& v = *entry.value;
      switch (v.kind()) {
        case Value::Kind::Boolean:
          *p++ = v.boolValue() ? kMarkerTrue : kMarkerFalse;
          break;
        case Value::Kind::Integer: {
          int64_t i = v.integerValue();
          unsigned width = i < 0 ? 8 : widthFor(static_cast<uint64_t>(i));
          *p++ = static_cast<uint8_t>(kMarkerInteger | log2Width(width));
          putBigEndian(p, static_cast<uint64_t>(i), width);
          break;
        }
        case Value::Kind::Real:
          *p++ = kMarkerReal | 3;
          putBigEndian(p, bitsOf(v.doubleValue()), 8);
          break;
        case Value::Kind::Date:
          *p++ = kMarkerDate;
          putBigEndian(p, bitsOf(v.dateValue() - kSecondsFrom1970To2001), 8);
          break;
        case Value::Kind::String: {
          std::string_view s = *v.tryString();
          if (entry.aux == 0) {
            putMarkerAndCount(p, kMarkerASCII, s.size());
            std::memcpy(p, s.data(), s.size());
            p += s.size();
            break;
          }
          putMarkerAndCount(p, kMarkerUTF16, entry.aux);
          for (size_t i = 0; i < s.size();) {
            UChar32 c;
            U8_NEXT_UNSAFE(s.data(), i, c);
            if (c <= 0xFFFF) {
              putBigEndian(p, static_cast<uint64_t>(c), 2);
            } else {
              putBigEndian(p, U16_LEAD(c), 2);
              putBigEndian(p, U16_TRAIL(c), 2);
            }
          }
          break;
        }
        case Value::Kind::Data: {
          const Data& d = *v.tryData();
          putMarkerAndCount(p, kMarkerData, d.size());
          if (!d.empty()) std::memcpy(p, d.data(), d.size());
          p += d.size();
          break;
        }
        case Value::Kind::Array: {
          size_t n = v.tryArray()->size();
          putMarkerAndCount(p, kMarkerArray, n);
          for (size_t i = 0; i < n; ++i) putBigEndian(p, refs_[entry.aux + i], refWidth);
          break;
        }
        case Value::Kind::Dictionary: {
          size_t n = v.tryDictionary()->size();
          putMarkerAndCount(p, kMarkerDictionary, n);
          for (size_t i = 0; i < 2 * n; ++i) putBigEndian(p, refs_[entry.aux + i], refWidth);
          break;
        }
        default:
          break;  // flatten() admits no other kind
      }
    }

    uint8_t* trailer = base + out.size() - kTrailerSize;
    std::memset(trailer, 0, 6);
    trailer[6] = static_cast<uint8_t>(offsetWidth);
    trailer[7] = static_cast<uint8_t>(refWidth);
    uint8_t* q = trailer + 8;
    putBigEndian(q, count, 8);
    putBigEndian(q, 0, 8);  // the root is always the first object flattened
    putBigEndian(q, tableOffset, 8);
  }

  std::vector<Entry> objects_;
  std::vector<uint64_t> refs_;
  static constexpr int64_t kSmallestShared = -16;
  static constexpr int64_t kLargestShared = 255;
  std::array<uint64_t, 2> booleans_ = {kFailed, kFailed};
  std::array<uint64_t, kLargestShared - kSmallestShared + 1> smallIntegers_ = [] {
    std::array<uint64_t, kLargestShared - kSmallestShared + 1> a{};
    a.fill(kFailed);
    return a;
  }();
  IndexTable strings_;
  IndexTable identities_;
  uint64_t payload_ = 0;
  const char* error_ = "";
};

// ---------------------------------------------------------------------------

inline uint64_t getBigEndian(const uint8_t* p, unsigned width) {
  switch (width) {
    case 1:
      return p[0];
    case 2: {
      uint16_t x;
      std::memcpy(&x, p, 2);
      return __builtin_bswap16(x);
    }
    case 4: {
      uint32_t x;
      std::memcpy(&x, p, 4);
      return __builtin_bswap32(x);
    }
    case 8: {
      uint64_t x;
      std::memcpy(&x, p, 8);
      return __builtin_bswap64(x);
    }
    default: {
      uint64_t v = 0;
      for (unsigned i = 0; i < width; ++i) v = (v << 8) | p[i];
      return v;
    }
  }
}

class BinaryReader {
 public:
  BinaryReader(std::span<const uint8_t> data, std::string& error)
      : data_(data.data()), size_(data.size()), error_(error) {}

  std::optional<Value> read() {
    if (size_ >= kHeaderSize && std::memcmp(data_, "bplist00", kHeaderSize) != 0) {
      fail("Binary property list has an unsupported version");
      return std::nullopt;
    }
    if (size_ < kHeaderSize + 1 + kTrailerSize) {
      fail("Binary property list is too short");
      return std::nullopt;
    }
    if (!readTrailer()) return std::nullopt;
    findSharedObjects();
    uint64_t expanded = 0;
    Value top = readObject(top_, 0, expanded);
    if (failed_) return std::nullopt;
    // A file that shares containers stands for a tree that can be far larger
    // than the file. Such a tree is refused, so that code walking the result
    // element by element stays proportional to the bytes received.
    if (expanded > 8 * references_ + 65536) {
      fail("Binary property list expands to too many objects");
      return std::nullopt;
    }
    return top;
  }

 private:
  static constexpr uint64_t kSaturated = std::numeric_limits<uint64_t>::max() - 1;

  static constexpr uint64_t kInProgress = kSaturated + 1;

  // An object that the file refers to more than once: decoded on first use,
  // then handed out again.
  struct SharedObject {
    Value value;
    uint64_t expanded = 0;  // 0 while unread, kInProgress while being read
  };

  bool fail(const char* message) {
    error_ = message;
    failed_ = true;
    return false;
  }
  Value failed(const char* message) {
    fail(message);
    return {};
  }

  bool readTrailer() {
    const uint8_t* t = data_ + size_ - kTrailerSize;
    offsetWidth_ = t[6];
    refWidth_ = t[7];
    count_ = getBigEndian(t + 8, 8);
    top_ = getBigEndian(t + 16, 8);
    tableOffset_ = getBigEndian(t + 24, 8);
    const uint64_t tableEnd = size_ - kTrailerSize;
    if (offsetWidth_ < 1 || offsetWidth_ > 8 || refWidth_ < 1 || refWidth_ > 8 || count_ == 0 || top_ >= count_ ||
        tableOffset_ <= kHeaderSize || tableOffset_ >= tableEnd || count_ > (tableEnd - tableOffset_) / offsetWidth_ ||
        count_ >= std::numeric_limits<uint32_t>::max()) {
      return fail("Binary property list has an invalid trailer");
    }
    return true;
  }

  static uint64_t saturatingAdd(uint64_t a, uint64_t b) { return a > kSaturated - b ? kSaturated : a + b; }

  // The position of object `index`, or 0 when the offset table points
  // outside the objects.
  uint64_t offsetOf(uint64_t index) const {
    uint64_t pos = getBigEndian(data_ + tableOffset_ + index * offsetWidth_, offsetWidth_);
    return pos < kHeaderSize || pos >= tableOffset_ ? 0 : pos;
  }

  // Reads the count that follows a marker whose low nibble is `nibble`; `pos`
  // moves past it. Returns the problem, or null.
  const char* parseCount(uint8_t nibble, uint64_t& pos, uint64_t& count) const {
    if (nibble != 0x0F) {
      count = nibble;
      return nullptr;
    }
    if (pos >= tableOffset_) return "Binary property list has an object that runs past its end";
    uint8_t marker = data_[pos++];
    if ((marker & 0xF0) != kMarkerInteger || (marker & 0x0F) > 3) return "Binary property list has an invalid count";
    unsigned width = 1u << (marker & 0x0F);
    if (width > tableOffset_ - pos) return "Binary property list has an object that runs past its end";
    count = getBigEndian(data_ + pos, width);
    pos += width;
    if (width == 8 && count > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return "Binary property list has an invalid count";
    }
    return nullptr;
  }

  bool readCount(uint8_t nibble, uint64_t& pos, uint64_t& count) {
    const char* problem = parseCount(nibble, pos, count);
    return problem == nullptr || fail(problem);
  }

  // Checks that `count` items of `unit` bytes starting at `pos` lie before the
  // offset table.
  bool fits(uint64_t pos, uint64_t count, uint64_t unit) const { return count <= (tableOffset_ - pos) / unit; }

  bool checkFits(uint64_t pos, uint64_t count, uint64_t unit) {
    return fits(pos, count, unit) || fail("Binary property list has an object that runs past its end");
  }

  // Counts the references to every object over all containers of the file.
  // An object referred to at most once needs no caching and cannot be part of
  // a cycle (a cycle needs a second reference to one of its objects), so only
  // the others get a SharedObject, which also marks them while they are read.
  void findSharedObjects() {
    shared_.assign(count_, 0);
    auto refer = [&](uint64_t ref) {
      if (ref < count_ && shared_[ref] < 2) ++shared_[ref];
    };
    refer(top_);
    for (uint64_t i = 0; i < count_; ++i) {
      uint64_t pos = offsetOf(i);
      if (pos == 0) continue;
      uint8_t marker = data_[pos++];
      uint8_t type = marker & 0xF0;
      if (type != kMarkerArray && type != kMarkerDictionary) continue;
      uint64_t n;
      if (parseCount(marker & 0x0F, pos, n) != nullptr) continue;
      if (type == kMarkerDictionary) {
        if (n > std::numeric_limits<uint64_t>::max() / 2) continue;
        n *= 2;
      }
      if (!fits(pos, n, refWidth_)) continue;
      for (uint64_t j = 0; j < n; ++j) refer(getBigEndian(data_ + pos + j * refWidth_, refWidth_));
    }
    uint32_t slots = 0;
    for (uint32_t& entry : shared_) entry = entry >= 2 ? ++slots : 0;
    sharedObjects_.resize(slots);
  }

  bool readReference(const uint8_t* p, uint64_t& ref) {
    ref = getBigEndian(p, refWidth_);
    return ref < count_ || fail("Binary property list has an object reference out of range");
  }

  // Object `index`; `expanded` receives the number of values in its fully
  // expanded tree. On failure the result is null and failed_ is set.
  Value readObject(uint64_t index, size_t depth, uint64_t& expanded) {
    const uint32_t slot = shared_[index];
    if (slot == 0) return decode(index, depth, expanded);
    SharedObject& shared = sharedObjects_[slot - 1];
    if (shared.expanded == kInProgress) return failed("Binary property list has a container that contains itself");
    if (shared.expanded != 0) {
      expanded = shared.expanded;
      return shared.value;
    }
    shared.expanded = kInProgress;
    Value value = decode(index, depth, expanded);
    if (failed_) return {};
    shared.value = value;
    shared.expanded = expanded;
    return value;
  }

  Value decode(uint64_t index, size_t depth, uint64_t& expanded) {
    uint64_t pos = offsetOf(index);
    if (pos == 0) return failed("Binary property list has an object offset out of range");
    const uint8_t marker = data_[pos++];
    const uint8_t nibble = marker & 0x0F;
    const uint64_t available = tableOffset_ - pos;
    expanded = 1;
    switch (marker & 0xF0) {
      case 0x00:
        if (marker == kMarkerFalse || marker == kMarkerTrue) return Value(marker == kMarkerTrue);
        return failed("Binary property list has an object of unsupported type");
      case kMarkerInteger: {
        if (nibble > 4) return failed("Binary property list has an object of unsupported type");
        unsigned width = 1u << nibble;
        if (width > available) return failed("Binary property list has an object that runs past its end");
        if (width == 16) {
          // Two's complement over 128 bits: representable when the high half
          // is the sign extension of the low half.
          uint64_t high = getBigEndian(data_ + pos, 8);
          uint64_t low = getBigEndian(data_ + pos + 8, 8);
          uint64_t extension = (low >> 63) ? ~uint64_t{0} : 0;
          if (high != extension) return failed("Binary property list has an integer out of range");
          return Value(static_cast<int64_t>(low));
        }
        return Value(static_cast<int64_t>(getBigEndian(data_ + pos, width)));
      }
      case kMarkerReal: {
        if (nibble != 2 && nibble != 3) return failed("Binary property list has an object of unsupported type");
        if (available < (nibble == 2 ? 4u : 8u))
          return failed("Binary property list has an object that runs past its end");
        if (nibble == 2) {
          uint32_t bits = static_cast<uint32_t>(getBigEndian(data_ + pos, 4));
          float f;
          std::memcpy(&f, &bits, 4);
          return Value(static_cast<double>(f));
        }
        uint64_t bits = getBigEndian(data_ + pos, 8);
        double d;
        std::memcpy(&d, &bits, 8);
        return Value(d);
      }
      case 0x30: {
        if (marker != kMarkerDate) return failed("Binary property list has an object of unsupported type");
        if (available < 8) return failed("Binary property list has an object that runs past its end");
        uint64_t bits = getBigEndian(data_ + pos, 8);
        double d;
        std::memcpy(&d, &bits, 8);
        return Value::date(d + kSecondsFrom1970To2001);
      }
      case kMarkerData: {
        uint64_t n;
        if (!readCount(nibble, pos, n) || !checkFits(pos, n, 1)) return {};
        return Value::data(Data(data_ + pos, data_ + pos + n));
      }
      case kMarkerASCII: {
        uint64_t n;
        if (!readCount(nibble, pos, n) || !checkFits(pos, n, 1)) return {};
        const char* s = reinterpret_cast<const char*>(data_ + pos);
        if (!isASCII(s, n)) return failed("Binary property list has a non-ASCII byte in an ASCII string");
        return Value(std::string_view(s, n));
      }
      case kMarkerUTF16: {
        uint64_t n;
        if (!readCount(nibble, pos, n) || !checkFits(pos, n, 2)) return {};
        std::string text;
        if (!decodeUTF16(data_ + pos, n, text)) return failed("Binary property list has invalid UTF-16 text");
        return Value(std::move(text));
      }
      case kMarkerArray: {
        uint64_t n;
        if (depth >= kPropertyListMaximumDepth) return failed("Binary property list nests deeper than 512 levels");
        if (!readCount(nibble, pos, n) || !checkFits(pos, n, refWidth_)) return {};
        Array elements;
        elements.reserve(n);
        for (uint64_t i = 0; i < n; ++i) {
          uint64_t ref, elementExpanded;
          if (!readReference(data_ + pos + i * refWidth_, ref)) return {};
          elements.push_back(readObject(ref, depth + 1, elementExpanded));
          if (failed_) return {};
          expanded = saturatingAdd(expanded, elementExpanded);
        }
        references_ = saturatingAdd(references_, n);
        return Value(std::move(elements));
      }
      case kMarkerDictionary: {
        uint64_t n;
        if (depth >= kPropertyListMaximumDepth) return failed("Binary property list nests deeper than 512 levels");
        if (!readCount(nibble, pos, n) || !checkFits(pos, n, 2 * uint64_t{refWidth_})) return {};
        Dictionary entries;
        entries.reserve(n);
        const uint8_t* keys = data_ + pos;
        const uint8_t* values = keys + n * refWidth_;
        for (uint64_t i = 0; i < n; ++i) {
          uint64_t keyRef, valueRef, keyExpanded, valueExpanded;
          if (!readReference(keys + i * refWidth_, keyRef)) return {};
          Value key = readObject(keyRef, depth + 1, keyExpanded);
          if (failed_) return {};
          if (!key.isString()) return failed("Binary property list has a dictionary key that is not a string");
          if (!readReference(values + i * refWidth_, valueRef)) return {};
          Value value = readObject(valueRef, depth + 1, valueExpanded);
          if (failed_) return {};
          entries.insert_or_assign(std::move(key), std::move(value));
          expanded = saturatingAdd(expanded, saturatingAdd(keyExpanded, valueExpanded));
        }
        references_ = saturatingAdd(references_, 2 * n);
        return Value(std::move(entries));
      }
      default:
        return failed("Binary property list has an object of unsupported type");
    }
  }

  // Big-endian UTF-16 to UTF-8; false on an unpaired surrogate.
  static bool decodeUTF16(const uint8_t* p, uint64_t units, std::string& text) {
    text.resize(units * 3);
    char* out = text.data();
    size_t length = 0;
    for (uint64_t i = 0; i < units; ++i) {
      UChar32 c = static_cast<UChar32>((p[2 * i] << 8) | p[2 * i + 1]);
      if (U16_IS_SURROGATE(c)) {
        if (!U16_IS_SURROGATE_LEAD(c) || i + 1 == units) return false;
        UChar32 trail = static_cast<UChar32>((p[2 * i + 2] << 8) | p[2 * i + 3]);
        if (!U16_IS_TRAIL(trail)) return false;
        c = U16_GET_SUPPLEMENTARY(c, trail);
        ++i;
      }
      U8_APPEND_UNSAFE(out, length, c);
    }
    text.resize(length);
    return true;
  }

  const uint8_t* data_;
  uint64_t size_;
  std::string& error_;
  unsigned offsetWidth_ = 0;
  unsigned refWidth_ = 0;
  uint64_t count_ = 0;
  uint64_t top_ = 0;
  uint64_t tableOffset_ = 0;
  // Per object: 0 when the file refers to it at most once, else 1 + its
  // index in sharedObjects_.
  std::vector<uint32_t> shared_;
  std::vector<SharedObject> sharedObjects_;
  bool failed_ = false;
  uint64_t references_ = 1;
};

}  // namespace

bool writeBinary(const Value& plist, Data& out, std::string& error) { return BinaryWriter().write(plist, out, error); }

std::optional<Value> readBinary(std::span<const uint8_t> data, std::string& error) {
  return BinaryReader(data, error).read();
}

}  // namespace loomwork::plist_detail
