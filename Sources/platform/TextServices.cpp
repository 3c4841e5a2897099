#include "loomwork/platform/TextServices.h"

#include <unicode/uchar.h>
#include <unicode/ucol.h>
#include <unicode/ucoleitr.h>
#include <unicode/uloc.h>
#include <unicode/usearch.h>
#include <unicode/uset.h>
#include <unicode/ustring.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>

namespace loomwork {

namespace {

// ICU takes int32_t lengths; longer inputs are converted in pieces.
constexpr size_t kMaxChunk = size_t{1} << 30;

enum : uint8_t { kWhitespaceBit = 1, kUppercaseBit = 2 };

const std::array<uint8_t, 65536>& characterClassTable() {
  static const auto* table = [] {
    auto* t = new std::array<uint8_t, 65536>{};
    for (UChar32 c = 0; c < 65536; ++c) {
      int8_t type = u_charType(c);
      uint8_t bits = 0;
      if (c == 0x09 || type == U_SPACE_SEPARATOR) bits |= kWhitespaceBit;
      if (type == U_UPPERCASE_LETTER || type == U_TITLECASE_LETTER) bits |= kUppercaseBit;
      (*t)[static_cast<size_t>(c)] = bits;
    }
    return t;
  }();
  return *table;
}

// Decodes the code point starting at text[i] when it is a well-formed one- to
// three-byte sequence (every whitespace character is one); sets `length`.
std::optional<char16_t> decodeBMP(std::string_view text, size_t i, size_t& length) {
  auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  unsigned char b0 = byte(i);
  if (b0 < 0x80) {
    length = 1;
    return b0;
  }
  auto continuation = [&](size_t k) { return k < text.size() && (byte(k) & 0xC0) == 0x80; };
  if (b0 >= 0xC2 && b0 <= 0xDF && continuation(i + 1)) {
    length = 2;
    return static_cast<char16_t>(((b0 & 0x1F) << 6) | (byte(i + 1) & 0x3F));
  }
  if (b0 >= 0xE0 && b0 <= 0xEF && continuation(i + 1) && continuation(i + 2)) {
    unsigned cp = ((b0 & 0x0Fu) << 12) | ((byte(i + 1) & 0x3Fu) << 6) | (byte(i + 2) & 0x3Fu);
    if (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF)) return std::nullopt;
    length = 3;
    return static_cast<char16_t>(cp);
  }
  return std::nullopt;
}

// --- locale and per-thread search state ---

std::mutex gLocaleMutex;
std::string gLocaleIdentifier;  // guarded by gLocaleMutex
std::atomic<uint64_t> gLocaleGeneration{1};

std::string resolvedLocale(const std::string& identifier) {
  std::string id = identifier.empty() ? std::string(uloc_getDefault()) : identifier;
  // The POSIX locale sorts ASCII by code point (no case folding); it stands for
  // "no preference", so the root rules apply.
  if (id == "en_US_POSIX" || id == "c" || id == "C" || id == "POSIX") id.clear();
  return id;
}

// Whether the character is exactly one collation element with a primary
// weight under this collator.
bool isSingleElement(const UCollator* collator, UChar unit) {
  UErrorCode status = U_ZERO_ERROR;
  UCollationElements* elements = ucol_openElements(collator, &unit, 1, &status);
  if (U_FAILURE(status)) return false;
  int count = 0;
  int32_t primary = 0;
  for (int32_t element; (element = ucol_next(elements, &status)) != UCOL_NULLORDER && U_SUCCESS(status);) {
    ++count;
    primary = ucol_primaryOrder(element);
  }
  ucol_closeElements(elements);
  return U_SUCCESS(status) && count == 1 && primary != 0;
}

// The root collation maps every printable ASCII character to one element of
// its own, the controls to nothing, and has no contraction made only of ASCII
// (the tests check this against ICU). So only what the locale tailors needs a
// closer look, which keeps this cheap: walking all contractions, or opening an
// element iterator, costs milliseconds.
AsciiSearchClasses computeAsciiClasses(const UCollator* collator) {
  AsciiSearchClasses result;
  if (collator == nullptr) return result;
  UErrorCode status = U_ZERO_ERROR;
  const bool shifted = ucol_getAttribute(collator, UCOL_ALTERNATE_HANDLING, &status) == UCOL_SHIFTED;
  if (U_FAILURE(status)) return result;

  enum Tailoring : uint8_t { kPlain, kTailored, kInContraction };
  Tailoring tailoring[128] = {};
  USet* tailored = ucol_getTailoredSet(collator, &status);
  if (U_FAILURE(status)) return result;
  const int32_t items = uset_getItemCount(tailored);
  for (int32_t i = 0; i < items; ++i) {
    UChar32 start = 0, end = 0;
    UChar buffer[32];
    status = U_ZERO_ERROR;
    const int32_t length = uset_getItem(tailored, i, &start, &end, buffer, 32, &status);
    if (U_FAILURE(status)) continue;  // too long to be made of ASCII that matters
    if (length == 0) {
      for (UChar32 c = start; c <= end && c < 128; ++c)
        if (tailoring[c] == kPlain) tailoring[c] = kTailored;
      continue;
    }
    bool allAscii = true;
    for (int32_t k = 0; k < length; ++k) allAscii = allAscii && buffer[k] < 128;
    if (allAscii)
      for (int32_t k = 0; k < length; ++k) tailoring[buffer[k]] = kInContraction;
  }
  uset_close(tailored);

  // The primary sort key of each simple character; equal keys, equal class.
  std::string keys[128];
  for (int c = 0; c < 128; ++c) {
    const bool alphanumeric = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    // CR and LF form one grapheme; a match may not split them.
    if (c == '\r' || c == '\n') continue;
    // With shifted alternates, spaces and punctuation become ignorable.
    if (shifted && !alphanumeric) continue;
    if (tailoring[c] == kInContraction) continue;
    const auto unit = static_cast<UChar>(c);
    if (tailoring[c] == kTailored && !isSingleElement(collator, unit)) continue;
    uint8_t key[64];
    const int32_t length = ucol_getSortKey(collator, &unit, 1, key, sizeof key);
    // The key ends in a zero byte; an ignorable character has nothing else.
    if (length <= 1 || length > static_cast<int32_t>(sizeof key)) continue;
    keys[c].assign(reinterpret_cast<const char*>(key), static_cast<size_t>(length));
  }

  uint8_t next = 1;
  for (int c = 0; c < 128; ++c) {
    if (keys[c].empty() || result.ids[c] != 0) continue;
    for (int d = c; d < 128; ++d)
      if (keys[d] == keys[c]) result.ids[d] = next;
    ++next;
  }
  return result;
}

struct ThreadSearcher {
  uint64_t generation = 0;
  UCollator* collator = nullptr;
  UStringSearch* search = nullptr;
  // The search keeps a pointer to its pattern, so the pattern lives here.
  std::u16string pattern;
  AsciiSearchClasses ascii;

  ThreadSearcher() = default;
  ThreadSearcher(const ThreadSearcher&) = delete;
  ThreadSearcher& operator=(const ThreadSearcher&) = delete;
  ~ThreadSearcher() { close(); }

  void close() {
    if (search != nullptr) usearch_close(search);
    if (collator != nullptr) ucol_close(collator);
    search = nullptr;
    collator = nullptr;
    pattern.clear();
  }

  void refresh() {
    const uint64_t current = gLocaleGeneration.load(std::memory_order_acquire);
    if (generation == current) return;
    std::string identifier;
    {
      std::lock_guard<std::mutex> lock(gLocaleMutex);
      identifier = gLocaleIdentifier;
    }
    close();
    UErrorCode status = U_ZERO_ERROR;
    collator = ucol_open(resolvedLocale(identifier).c_str(), &status);
    if (U_FAILURE(status)) {
      status = U_ZERO_ERROR;
      collator = ucol_open("", &status);
      if (U_FAILURE(status)) collator = nullptr;
    }
    if (collator != nullptr) {
      ucol_setStrength(collator, UCOL_PRIMARY);
      // The string search does not support numeric collation (a locale may ask
      // for it); digits are then compared one by one.
      status = U_ZERO_ERROR;
      ucol_setAttribute(collator, UCOL_NUMERIC_COLLATION, UCOL_OFF, &status);
    }
    ascii = computeAsciiClasses(collator);
    generation = current;
  }
};

ThreadSearcher& threadSearcher() {
  thread_local ThreadSearcher searcher;
  searcher.refresh();
  return searcher;
}

}  // namespace

void utf16FromUTF8(std::string_view text, std::u16string& out) {
  out.clear();
  while (!text.empty()) {
    size_t piece = text.size();
    if (piece > kMaxChunk) {
      piece = kMaxChunk;
      // Cut in front of a lead byte so no sequence is split.
      while (piece > kMaxChunk - 4 && (static_cast<unsigned char>(text[piece]) & 0xC0) == 0x80) --piece;
    }
    const size_t base = out.size();
    out.resize(base + piece);  // UTF-16 never needs more units than UTF-8 has bytes
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(reinterpret_cast<UChar*>(out.data() + base), static_cast<int32_t>(piece), &length, text.data(),
                         static_cast<int32_t>(piece), 0xFFFD, nullptr, &status);
    if (U_FAILURE(status)) length = 0;
    out.resize(base + static_cast<size_t>(length));
    text.remove_prefix(piece);
  }
}

std::u16string utf16FromUTF8(std::string_view text) {
  std::u16string out;
  utf16FromUTF8(text, out);
  return out;
}

std::string utf8FromUTF16(std::u16string_view text) {
  std::string out;
  while (!text.empty()) {
    size_t piece = std::min(text.size(), kMaxChunk / 4);
    if (piece < text.size() && U16_IS_LEAD(text[piece - 1])) --piece;
    const size_t base = out.size();
    out.resize(base + piece * 3);  // at most three bytes per UTF-16 unit
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8WithSub(out.data() + base, static_cast<int32_t>(piece * 3), &length,
                       reinterpret_cast<const UChar*>(text.data()), static_cast<int32_t>(piece), 0xFFFD, nullptr,
                       &status);
    if (U_FAILURE(status)) length = 0;
    out.resize(base + static_cast<size_t>(length));
    text.remove_prefix(piece);
  }
  return out;
}

// ASCII is answered directly so that plain text never builds the full table.
bool isWhitespaceCharacter(char16_t unit) noexcept {
  if (unit < 128) return unit == u' ' || unit == u'\t';
  return (characterClassTable()[unit] & kWhitespaceBit) != 0;
}

bool isUppercaseLetterCharacter(char16_t unit) noexcept {
  if (unit < 128) return unit >= u'A' && unit <= u'Z';
  return (characterClassTable()[unit] & kUppercaseBit) != 0;
}

std::u16string_view trimmingWhitespace(std::u16string_view text) {
  size_t begin = 0, end = text.size();
  while (begin < end && isWhitespaceCharacter(text[begin])) ++begin;
  while (end > begin && isWhitespaceCharacter(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

std::string_view trimmingWhitespace(std::string_view text) {
  size_t begin = 0, length = 0;
  while (begin < text.size()) {
    auto unit = decodeBMP(text, begin, length);
    if (!unit || !isWhitespaceCharacter(*unit)) break;
    begin += length;
  }
  size_t end = text.size();
  while (end > begin) {
    size_t start = end - 1;
    while (start > begin && end - start < 3 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) --start;
    auto unit = decodeBMP(text, start, length);
    if (!unit || start + length != end || !isWhitespaceCharacter(*unit)) break;
    end = start;
  }
  return text.substr(begin, end - begin);
}

void setTextLocale(std::string localeIdentifier) {
  std::lock_guard<std::mutex> lock(gLocaleMutex);
  gLocaleIdentifier = std::move(localeIdentifier);
  gLocaleGeneration.fetch_add(1, std::memory_order_release);
}

std::string textLocale() {
  std::lock_guard<std::mutex> lock(gLocaleMutex);
  return gLocaleIdentifier;
}

std::optional<IndexRange> rangeOfStringIgnoringCaseAndDiacritics(std::u16string_view text, std::u16string_view pattern,
                                                                 IndexRange range) {
  if (pattern.empty() || range.length <= 0 || range.location < 0 ||
      range.location > static_cast<int64_t>(text.size()) ||
      range.length > static_cast<int64_t>(text.size()) - range.location) {
    return std::nullopt;
  }
  if (range.length > INT32_MAX || pattern.size() > static_cast<size_t>(INT32_MAX)) return std::nullopt;
  ThreadSearcher& searcher = threadSearcher();
  if (searcher.collator == nullptr) return std::nullopt;

  const auto* window = reinterpret_cast<const UChar*>(text.data() + range.location);
  const auto windowLength = static_cast<int32_t>(range.length);
  UErrorCode status = U_ZERO_ERROR;
  if (searcher.search == nullptr) {
    searcher.pattern.assign(pattern);
    searcher.search = usearch_openFromCollator(reinterpret_cast<const UChar*>(searcher.pattern.data()),
                                               static_cast<int32_t>(searcher.pattern.size()), window, windowLength,
                                               searcher.collator, nullptr, &status);
    if (U_FAILURE(status)) {
      searcher.close();
      searcher.generation = 0;  // reopen the collator next time
      return std::nullopt;
    }
  } else {
    usearch_setText(searcher.search, window, windowLength, &status);
    if (U_SUCCESS(status) && pattern != std::u16string_view(searcher.pattern)) {
      searcher.pattern.assign(pattern);
      usearch_setPattern(searcher.search, reinterpret_cast<const UChar*>(searcher.pattern.data()),
                         static_cast<int32_t>(searcher.pattern.size()), &status);
    }
    if (U_FAILURE(status)) {
      // Leave no half-set search behind; the next call opens a fresh one.
      usearch_close(searcher.search);
      searcher.search = nullptr;
      searcher.pattern.clear();
      return std::nullopt;
    }
  }
  const int32_t start = usearch_first(searcher.search, &status);
  if (U_FAILURE(status) || start == USEARCH_DONE) return std::nullopt;
  const int32_t length = usearch_getMatchedLength(searcher.search);
  return IndexRange{range.location + start, length};
}

std::optional<IndexRange> rangeOfStringIgnoringCaseAndDiacritics(std::u16string_view text,
                                                                 std::u16string_view pattern) {
  return rangeOfStringIgnoringCaseAndDiacritics(text, pattern, IndexRange{0, static_cast<int64_t>(text.size())});
}

const AsciiSearchClasses& asciiSearchClasses() { return threadSearcher().ascii; }

}  // namespace loomwork
