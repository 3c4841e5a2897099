// The data detector: runs the finders for its kinds over well-formed UTF-8,
// merges their matches into one non-overlapping list in text order, and turns
// byte offsets into UTF-16 offsets in the same forward pass.

#include "loomwork/platform/DataDetector.h"

#include <unicode/locid.h>

#include <algorithm>
#include <cstring>

#include "platform/DataDetectorInternal.h"

namespace loomwork {

namespace detail {

namespace {
// Length of the well-formed sequence at `i`, or 0 (Unicode's table 3-7).
size_t sequenceLength(const unsigned char* s, size_t i, size_t n) noexcept {
  const unsigned char b = s[i];
  if (b < 0x80) return 1;
  auto cont = [&](size_t k, unsigned char lo = 0x80, unsigned char hi = 0xBF) {
    return i + k < n && s[i + k] >= lo && s[i + k] <= hi;
  };
  if (b >= 0xC2 && b <= 0xDF) return cont(1) ? 2 : 0;
  if (b == 0xE0) return cont(1, 0xA0) && cont(2) ? 3 : 0;
  if ((b >= 0xE1 && b <= 0xEC) || b == 0xEE || b == 0xEF) return cont(1) && cont(2) ? 3 : 0;
  if (b == 0xED) return cont(1, 0x80, 0x9F) && cont(2) ? 3 : 0;
  if (b == 0xF0) return cont(1, 0x90) && cont(2) && cont(3) ? 4 : 0;
  if (b >= 0xF1 && b <= 0xF3) return cont(1) && cont(2) && cont(3) ? 4 : 0;
  if (b == 0xF4) return cont(1, 0x80, 0x8F) && cont(2) && cont(3) ? 4 : 0;
  return 0;
}

// Bytes of the maximal ill-formed prefix at `i` (at least one).
size_t illFormedLength(const unsigned char* s, size_t i, size_t n) noexcept {
  const unsigned char b = s[i];
  unsigned char lo = 0x80, hi = 0xBF;
  size_t needed;
  if (b >= 0xC2 && b <= 0xDF)
    needed = 1;
  else if (b >= 0xE0 && b <= 0xEF)
    needed = 2, lo = b == 0xE0 ? 0xA0 : 0x80, hi = b == 0xED ? 0x9F : 0xBF;
  else if (b >= 0xF0 && b <= 0xF4)
    needed = 3, lo = b == 0xF0 ? 0x90 : 0x80, hi = b == 0xF4 ? 0x8F : 0xBF;
  else
    return 1;
  size_t k = 1;
  if (i + 1 < n && s[i + 1] >= lo && s[i + 1] <= hi) {
    ++k;
    while (k <= needed && i + k < n && s[i + k] >= 0x80 && s[i + k] <= 0xBF) ++k;
  }
  return k;
}
}  // namespace

bool isWellFormedUTF8(std::string_view text) noexcept {
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    if (i + 8 <= n) {
      uint64_t word;
      std::memcpy(&word, s + i, 8);
      if ((word & 0x8080808080808080ULL) == 0) {
        i += 8;
        continue;
      }
    }
    const size_t length = sequenceLength(s, i, n);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

std::string wellFormedUTF8(std::string_view text) {
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  std::string out;
  out.reserve(n + n / 8);
  size_t i = 0;
  while (i < n) {
    const size_t length = sequenceLength(s, i, n);
    if (length != 0) {
      out.append(text.substr(i, length));
      i += length;
    } else {
      out += "\xEF\xBF\xBD";
      i += illFormedLength(s, i, n);
    }
  }
  return out;
}

void appendPercentEncoded(std::string& out, std::string_view text, std::string_view allowed) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (char c : text) {
    const auto b = static_cast<unsigned char>(c);
    if (b < 0x80 && allowed.find(c) != std::string_view::npos) {
      out += c;
    } else {
      out += '%';
      out += kHex[b >> 4];
      out += kHex[b & 15];
    }
  }
}

}  // namespace detail

std::optional<std::string> DataDetectorMatch::addressComponent(std::string_view key) const {
  for (const auto& [name, text] : addressComponents)
    if (name == key) return text;
  return std::nullopt;
}

DataDetector::DataDetector(uint64_t types) : types_(types), region_(defaultRegion()) {}

std::unique_ptr<DataDetector> DataDetector::initWithTypes(uint64_t types) {
  const uint64_t supported = TextCheckingTypeLink | TextCheckingTypeAddress | TextCheckingTypePhoneNumber;
  if ((types & supported) == 0) return nullptr;
  return std::unique_ptr<DataDetector>(new DataDetector(types & supported));
}

std::string DataDetector::defaultRegion() {
  const char* country = icu::Locale::getDefault().getCountry();
  if (country == nullptr || std::strlen(country) != 2) return "US";
  return country;
}

namespace {
// Where two matches overlap, a link wins; otherwise the earlier start wins,
// then the longer match, then an address over a phone number.
int rank(TextCheckingType type) { return type == TextCheckingTypeLink ? 0 : type == TextCheckingTypeAddress ? 1 : 2; }

bool overlapsLink(const std::vector<IndexRange>& links, IndexRange range) {
  auto it = std::upper_bound(links.begin(), links.end(), range.location,
                             [](int64_t location, IndexRange link) { return location < link.end(); });
  return it != links.end() && it->location < range.end();
}
}  // namespace

void DataDetector::enumerateMatchesInString(
    std::string_view text, const std::function<void(const DataDetectorMatch&, bool& stop)>& block) const {
  std::string cleaned;
  if (!detail::isWellFormedUTF8(text)) {
    cleaned = detail::wellFormedUTF8(text);
    text = cleaned;
  }
  std::vector<DataDetectorMatch> all;
  if (types_ & TextCheckingTypeLink) all = findLinks(text);
  std::vector<IndexRange> links;
  for (const DataDetectorMatch& link : all) links.push_back(link.byteRange);
  auto addUnlessOverLink = [&](std::vector<DataDetectorMatch> found) {
    for (DataDetectorMatch& match : found)
      if (!overlapsLink(links, match.byteRange)) all.push_back(std::move(match));
  };
  if (types_ & TextCheckingTypeAddress) addUnlessOverLink(findAddresses(text));
  if (types_ & TextCheckingTypePhoneNumber) addUnlessOverLink(findPhoneNumbers(text));
  // Each finder gives its matches in text order; only a mix needs sorting.
  const uint64_t kinds = types_ & (TextCheckingTypeLink | TextCheckingTypeAddress | TextCheckingTypePhoneNumber);
  if ((kinds & (kinds - 1)) != 0)
    std::stable_sort(all.begin(), all.end(), [](const DataDetectorMatch& a, const DataDetectorMatch& b) {
      if (a.byteRange.location != b.byteRange.location) return a.byteRange.location < b.byteRange.location;
      if (a.byteRange.length != b.byteRange.length) return a.byteRange.length > b.byteRange.length;
      return rank(a.resultType) < rank(b.resultType);
    });
  detail::UTF16Counter counter(text);
  int64_t covered = 0;
  bool stop = false;
  for (DataDetectorMatch& match : all) {
    if (match.byteRange.location < covered) continue;
    covered = match.byteRange.end();
    const int64_t start = counter.offsetOfByte(static_cast<size_t>(match.byteRange.location));
    const int64_t end = counter.offsetOfByte(static_cast<size_t>(match.byteRange.end()));
    match.range = {start, end - start};
    block(match, stop);
    if (stop) break;
  }
}

std::vector<DataDetectorMatch> DataDetector::matchesInString(std::string_view text) const {
  std::vector<DataDetectorMatch> matches;
  enumerateMatchesInString(text, [&](const DataDetectorMatch& match, bool&) { matches.push_back(match); });
  return matches;
}

}  // namespace loomwork
