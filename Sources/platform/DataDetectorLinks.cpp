// The link and e-mail finder: one forward pass over the bytes that stops only
// at '.', ':' and '@'. Each stop looks back at most to the end of what was
// already decided (a link, or a run found not to be one) and forward over one
// host run and one path, and the pass resumes after the farthest byte it
// examined, so every byte is looked at a bounded number of times.

#include <unicode/uchar.h>
#include <unicode/uidna.h>
#include <unicode/uscript.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <fstream>
#include <string>
#include <unordered_set>

#include "loomwork/platform/DataDetector.h"
#include "platform/DataDetectorInternal.h"

#ifndef LOOMWORK_PUBLIC_SUFFIX_LIST_PATH
#define LOOMWORK_PUBLIC_SUFFIX_LIST_PATH "/usr/share/publicsuffix/public_suffix_list.dat"
#endif

namespace loomwork {
namespace {

enum : uint8_t {
  kHost = 1,  // letters, digits, '-'
  kDigit = 2,
  kTrigger = 4,    // '.', ':', '@'
  kStop = 8,       // never inside a link: controls, space, < > " ` \ ^ { } | DEL
  kScheme = 16,    // letters, digits, '+', '-', '.'
  kLocal = 32,     // e-mail local part: letters, digits, '.', '_', '%', '+', '-'
  kTrailing = 64,  // left off the end of a link: . , : ; ! ? ' " *
  kLetter = 128,
};

constexpr std::array<uint8_t, 256> makeClasses() {
  std::array<uint8_t, 256> table{};
  for (int c = 0; c < 256; ++c) {
    uint8_t bits = 0;
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    const bool digit = c >= '0' && c <= '9';
    if (letter) bits |= kLetter | kHost | kScheme | kLocal;
    if (digit) bits |= kDigit | kHost | kScheme | kLocal;
    if (c == '-') bits |= kHost | kScheme | kLocal;
    if (c == '+') bits |= kScheme | kLocal;
    if (c == '.') bits |= kScheme | kLocal | kTrailing | kTrigger;
    if (c == '_' || c == '%') bits |= kLocal;
    if (c == ':' || c == '@') bits |= kTrigger;
    if (c == ',' || c == ':' || c == ';' || c == '!' || c == '?' || c == '\'' || c == '"' || c == '*')
      bits |= kTrailing;
    if (c <= 0x20 || c == 0x7F || c == '<' || c == '>' || c == '"' || c == '`' || c == '\\' || c == '^' || c == '{' ||
        c == '}' || c == '|')
      bits |= kStop;
    table[static_cast<size_t>(c)] = bits;
  }
  return table;
}
constexpr std::array<uint8_t, 256> kClasses = makeClasses();

inline uint8_t cls(char c) { return kClasses[static_cast<unsigned char>(c)]; }
inline bool isASCII(char c) { return static_cast<unsigned char>(c) < 0x80; }
inline char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

bool equalsIgnoringASCIICase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (lower(a[i]) != lower(b[i])) return false;
  return true;
}

// Decodes the code point at `i` of well-formed UTF-8; `length` receives its bytes.
char32_t decodeAt(std::string_view t, size_t i, size_t& length) {
  const auto b = static_cast<unsigned char>(t[i]);
  if (b < 0x80) return length = 1, b;
  const size_t n = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : 2;
  if (i + n > t.size()) return length = 1, 0xFFFD;
  char32_t c = b & (0x7F >> n);
  for (size_t k = 1; k < n; ++k) c = (c << 6) | (static_cast<unsigned char>(t[i + k]) & 0x3F);
  length = n;
  return c;
}

// The start of the code point that ends just before `i`.
size_t previousStart(std::string_view t, size_t i) {
  size_t j = i - 1;
  while (j > 0 && i - j < 4 && (static_cast<unsigned char>(t[j]) & 0xC0) == 0x80) --j;
  return j;
}

bool isHostCodePoint(char32_t c) {
  const auto u = static_cast<UChar32>(c);
  if (u_isalnum(u)) return true;
  const int8_t type = u_charType(u);
  return type == U_NON_SPACING_MARK || type == U_COMBINING_SPACING_MARK || type == U_ENCLOSING_MARK;
}

// Scripts written without spaces between words: a host name does not run from
// Latin letters into them or back, so "访问example.com获取" holds "example.com".
bool isUnspacedScript(char32_t c) {
  UErrorCode error = U_ZERO_ERROR;
  switch (uscript_getScript(static_cast<UChar32>(c), &error)) {
    case USCRIPT_HAN:
    case USCRIPT_HIRAGANA:
    case USCRIPT_KATAKANA:
    case USCRIPT_HANGUL:
    case USCRIPT_THAI:
    case USCRIPT_LAO:
    case USCRIPT_KHMER:
    case USCRIPT_MYANMAR:
      return true;
    default:
      return false;
  }
}

// A code point that may stand in a path: letters, digits and marks (so
// punctuation, symbols, emoji and every kind of space end a link).
bool isPathCodePoint(char32_t c) { return isHostCodePoint(c); }

const std::unordered_set<std::string>& topLevelDomains() {
  static const std::unordered_set<std::string> domains = [] {
    std::unordered_set<std::string> set;
    std::ifstream in(LOOMWORK_PUBLIC_SUFFIX_LIST_PATH);
    std::string line;
    while (std::getline(in, line)) {
      if (line.empty() || line.starts_with("//")) continue;
      const size_t space = line.find_first_of(" \t\r");
      if (space != std::string::npos) line.resize(space);
      const size_t dot = line.rfind('.');
      std::string label = dot == std::string::npos ? line : line.substr(dot + 1);
      if (label.empty() || label[0] == '!' || label[0] == '*') continue;
      for (char& c : label) c = lower(c);
      set.insert(std::move(label));
    }
    return set;
  }();
  return domains;
}

// Generic top-level domains seen on bare host names in running text. The
// other generic ones are mostly words ("name", "email", "open", "map",
// "data", "new"), and "user.name" or "window.open" is code, not a link: a
// bare host under them needs a path ("example.email/x" is a link,
// "www.example.email" always is). Two-letter country domains and
// internationalised ones need none.
bool isCommonGenericDomain(std::string_view tld) {
  static constexpr std::string_view kCommon[] = {"com",    "net",  "org",  "edu",  "gov",    "mil",  "int",    "info",
                                                 "biz",    "pro",  "mobi", "app",  "dev",    "xyz",  "online", "site",
                                                 "store",  "shop", "tech", "blog", "cloud",  "club", "news",   "live",
                                                 "museum", "aero", "coop", "asia", "travel", "jobs", "tel",    "cat"};
  for (std::string_view d : kCommon)
    if (equalsIgnoringASCIICase(d, tld)) return true;
  return false;
}

// Top-level domains that are also common file extensions: a bare host ending
// in one of them is a link only with a path ("setup.py" is a file name).
bool isFileExtensionDomain(std::string_view tld) {
  static constexpr std::string_view kExtensions[] = {"md", "py", "sh", "pl", "pm", "rs", "zip", "mov", "so",
                                                     "cc", "ml", "mk", "sv", "tf", "ps", "mp",  "java"};
  for (std::string_view e : kExtensions)
    if (equalsIgnoringASCIICase(e, tld)) return true;
  return false;
}

// The ASCII (IDNA) form of a host, or empty when it is not a valid name.
std::string asciiHost(std::string_view host) {
  bool ascii = true;
  for (char c : host) ascii &= isASCII(c);
  if (ascii) return std::string(host);
  UErrorCode error = U_ZERO_ERROR;
  static UIDNA* const idna = [] {
    UErrorCode e = U_ZERO_ERROR;
    return uidna_openUTS46(UIDNA_NONTRANSITIONAL_TO_ASCII | UIDNA_CHECK_BIDI | UIDNA_CHECK_CONTEXTJ, &e);
  }();
  if (idna == nullptr || host.size() > 1024) return {};
  std::string out(host.size() * 2 + 64, '\0');
  UIDNAInfo info = UIDNA_INFO_INITIALIZER;
  const int32_t length = uidna_nameToASCII_UTF8(idna, host.data(), static_cast<int32_t>(host.size()), out.data(),
                                                static_cast<int32_t>(out.size()), &info, &error);
  if (U_FAILURE(error) || info.errors != 0 || length <= 0) return {};
  out.resize(static_cast<size_t>(length));
  return out;
}

// What a host name is made of.
struct HostShape {
  bool valid = false;
  int labels = 0;
  bool hasLetterBeforeTLD = false;
  bool ipv4 = false;
  std::string_view tld;
};

HostShape shapeOfHost(std::string_view host) {
  HostShape shape;
  if (host.empty() || host.size() > 253 * 4) return shape;
  int numericLabels = 0;
  bool ipv4Values = true;
  size_t start = 0;
  while (true) {
    const size_t dot = host.find('.', start);
    const std::string_view label =
        host.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
    if (label.empty() || label.size() > 63 * 4 || label.front() == '-' || label.back() == '-') return shape;
    bool numeric = true;
    bool letter = false;
    for (char c : label) {
      numeric &= (cls(c) & kDigit) != 0;
      letter |= !isASCII(c) || (cls(c) & kLetter) != 0;
    }
    if (numeric) {
      ++numericLabels;
      ipv4Values &= label.size() <= 3 && std::stoi(std::string(label)) <= 255 && !(label.size() > 1 && label[0] == '0');
    }
    ++shape.labels;
    if (dot == std::string_view::npos) {
      shape.tld = label;
      break;
    }
    shape.hasLetterBeforeTLD |= letter;
    start = dot + 1;
  }
  shape.ipv4 = shape.labels == 4 && numericLabels == 4 && ipv4Values;
  shape.valid = true;
  return shape;
}

bool knownTopLevelDomain(std::string_view tld) {
  if (tld.empty() || tld.size() > 64) return false;
  std::string key(tld);
  for (char& c : key) c = lower(c);
  return topLevelDomains().count(key) != 0;
}

// A top-level domain written in one case: "Hello.It" is a sentence, "example.COM" a host.
bool singleCase(std::string_view tld) {
  bool upper = false, low = false;
  for (char c : tld) {
    upper |= c >= 'A' && c <= 'Z';
    low |= c >= 'a' && c <= 'z';
  }
  return !(upper && low);
}

class LinkScanner {
 public:
  explicit LinkScanner(std::string_view text) : t_(text), n_(text.size()) {}

  std::vector<DataDetectorMatch> run() {
    size_t i = 0;
    while (i < n_) {
      i = nextTrigger(i);
      if (i >= n_) break;
      size_t next;
      switch (t_[i]) {
        case ':':
          next = onColon(i);
          break;
        case '@':
          next = onAt(i);
          break;
        default:
          next = onDot(i);
          break;
      }
      i = std::max(next, i + 1);
    }
    return std::move(matches_);
  }

 private:
  std::string_view t_;
  size_t n_;
  size_t floor_ = 0;  // nothing before this starts a link
  std::vector<DataDetectorMatch> matches_;

  // The first '.', ':' or '@' at or after `i`; words without one are passed
  // over eight bytes at a time.
  size_t nextTrigger(size_t i) const {
    constexpr uint64_t kOnes = 0x0101010101010101ULL, kHighs = 0x8080808080808080ULL;
    auto hasByte = [](uint64_t word, char c) {
      const uint64_t x = word ^ (kOnes * static_cast<unsigned char>(c));
      return ((x - kOnes) & ~x & kHighs) != 0;
    };
    while (i + 8 <= n_) {
      uint64_t word;
      std::memcpy(&word, t_.data() + i, 8);
      if (hasByte(word, '.') || hasByte(word, ':') || hasByte(word, '@')) break;
      i += 8;
    }
    while (i < n_ && !(cls(t_[i]) & kTrigger)) ++i;
    return i;
  }

  // The end of the run of host characters and dots that starts at `i`, not
  // crossing between unspaced scripts and others within a label.
  size_t hostRunForward(size_t i) const {
    bool labelASCII = false, labelUnspaced = false;
    while (i < n_) {
      const char c = t_[i];
      if (c == '.') {
        labelASCII = labelUnspaced = false;
        ++i;
      } else if (isASCII(c)) {
        if (!(cls(c) & kHost) || labelUnspaced) break;
        labelASCII = true;
        ++i;
      } else {
        size_t length;
        const char32_t cp = decodeAt(t_, i, length);
        if (!isHostCodePoint(cp)) break;
        const bool unspaced = isUnspacedScript(cp);
        if (unspaced ? labelASCII : labelUnspaced) break;
        (unspaced ? labelUnspaced : labelASCII) = true;
        i += length;
      }
    }
    return i;
  }

  // The start of the label that ends at `i` (just before a dot), looking back no further than floor_.
  size_t labelBackward(size_t i) const {
    bool labelASCII = false, labelUnspaced = false;
    while (i > floor_) {
      const char c = t_[i - 1];
      if (isASCII(c)) {
        if (!(cls(c) & kHost) || labelUnspaced) break;
        labelASCII = true;
        --i;
      } else {
        const size_t start = previousStart(t_, i);
        if (start < floor_) break;
        size_t length;
        const char32_t cp = decodeAt(t_, start, length);
        if (!isHostCodePoint(cp)) break;
        const bool unspaced = isUnspacedScript(cp);
        if (unspaced ? labelASCII : labelUnspaced) break;
        (unspaced ? labelUnspaced : labelASCII) = true;
        i = start;
      }
    }
    return i;
  }

  // Port, path, query and fragment after a host that ends at `i`; returns the end of the link.
  size_t restOfLink(size_t i) const {
    if (i + 1 < n_ && t_[i] == ':' && (cls(t_[i + 1]) & kDigit)) {
      size_t j = i + 1;
      while (j < n_ && j - i <= 6 && (cls(t_[j]) & kDigit)) ++j;
      if (j - i - 1 > 5 || (j < n_ && (cls(t_[j]) & (kLetter | kHost))) ||
          std::stoi(std::string(t_.substr(i + 1, j - i - 1))) > 65535)
        return i;
      i = j;
    }
    if (i >= n_ || (t_[i] != '/' && t_[i] != '?' && t_[i] != '#')) return i;
    const size_t pathStart = i;
    size_t parens = 0, brackets = 0;
    while (i < n_) {
      const char c = t_[i];
      if (isASCII(c)) {
        if (cls(c) & kStop) break;
        if (c == '(') ++parens;
        if (c == '[') ++brackets;
        if (c == ')' && parens-- == 0) break;
        if (c == ']' && brackets-- == 0) break;
        ++i;
      } else {
        size_t length;
        if (!isPathCodePoint(decodeAt(t_, i, length))) break;
        i += length;
      }
    }
    while (i > pathStart && (cls(t_[i - 1]) & kTrailing)) --i;
    if (i == pathStart + 1 && t_[pathStart] != '/') --i;
    return i;
  }

  // Whether a bare host may start after the byte before `start`.
  bool leftBoundaryAllowsHost(size_t start) const {
    if (start == 0) return true;
    const char c = t_[start - 1];
    if (!isASCII(c)) return true;
    if (c == '.') return start >= 2 && t_[start - 2] == '.';
    if (cls(c) & kStop) return c != '\\' && c != '^' && c != '`' && c != '|';
    return std::strchr("([{,;:!?*'\")]}", c) != nullptr;
  }

  bool rightBoundaryAllowsHost(size_t end) const {
    if (end >= n_) return true;
    const char c = t_[end];
    return !isASCII(c) || std::strchr("_~=&%+$@", c) == nullptr;
  }

  void emit(size_t start, size_t end, std::string url) {
    DataDetectorMatch match;
    match.resultType = TextCheckingTypeLink;
    match.byteRange = {static_cast<int64_t>(start), static_cast<int64_t>(end - start)};
    match.url = std::move(url);
    matches_.push_back(std::move(match));
    floor_ = end;
  }

  // prefix + text[start, hostStart) + ASCII host + encoded rest.
  std::string makeURL(std::string_view prefix, size_t start, size_t hostStart, std::string_view host, size_t hostEnd,
                      size_t end) const {
    std::string url(prefix);
    detail::appendPercentEncoded(url, t_.substr(start, hostStart - start), kURLCharacters);
    url += host;
    detail::appendPercentEncoded(url, t_.substr(hostEnd, end - hostEnd), kURLCharacters);
    return url;
  }

  static constexpr std::string_view kURLCharacters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~:/?#[]@!$&'()*+,;=%";

  size_t onDot(size_t dot) {
    size_t start = labelBackward(dot);
    // A run that starts with dots (an ellipsis) begins after them.
    const size_t runEnd = hostRunForward(start);
    while (start < runEnd && t_[start] == '.') ++start;
    // The candidate ends at the first empty label; what follows it is another run.
    size_t end = start;
    while (end < runEnd && !(t_[end] == '.' && (end + 1 == runEnd || t_[end + 1] == '.'))) ++end;
    const bool splitAtDots = end + 1 < runEnd;
    if (!splitAtDots && runEnd < n_ && t_[runEnd] == '@') return runEnd;  // a local part
    const size_t resume = splitAtDots ? end + 1 : runEnd;
    if (start >= end || !leftBoundaryAllowsHost(start) || (start > 0 && t_[start - 1] == '@') ||
        (end == runEnd && !rightBoundaryAllowsHost(end)) ||
        (end < runEnd && end + 1 == runEnd && !rightBoundaryAllowsHost(runEnd))) {
      floor_ = resume;
      return resume;
    }
    const std::string_view host = t_.substr(start, end - start);
    const HostShape shape = shapeOfHost(host);
    bool accept = false;
    if (shape.valid && shape.labels >= 2) {
      const bool www = shape.labels >= 3 && equalsIgnoringASCIICase(host.substr(0, 4), "www.");
      const bool followedByPath = end < n_ && t_[end] == '/';
      const bool followedByPortOrPath =
          followedByPath || (end + 1 < n_ && t_[end] == ':' && (cls(t_[end + 1]) & kDigit));
      if (shape.ipv4) {
        accept = followedByPortOrPath;
      } else if (www) {
        accept = shape.tld.size() >= 2 && (knownTopLevelDomain(shape.tld) || !isASCII(shape.tld[0]));
      } else {
        const bool needsPath = isFileExtensionDomain(shape.tld) ||
                               (isASCII(shape.tld[0]) && shape.tld.size() > 2 && !isCommonGenericDomain(shape.tld));
        accept = shape.hasLetterBeforeTLD && knownTopLevelDomain(shape.tld) && singleCase(shape.tld) &&
                 (followedByPath || !needsPath);
      }
    }
    if (accept) {
      const std::string ascii = asciiHost(host);
      if (!ascii.empty()) {
        const size_t linkEnd = restOfLink(end);
        emit(start, linkEnd, makeURL("http://", start, start, ascii, end, linkEnd));
        return linkEnd;
      }
    }
    floor_ = resume;
    return resume;
  }

  size_t onColon(size_t colon) {
    if (colon + 2 < n_ && t_[colon + 1] == '/' && t_[colon + 2] == '/') return schemeLink(colon);
    if (colon >= floor_ + 6 && equalsIgnoringASCIICase(t_.substr(colon - 6, 6), "mailto") &&
        (colon == 6 || !(cls(t_[colon - 7]) & kScheme)))
      return mailtoLink(colon - 6, colon + 1);
    return colon + 1;
  }

  size_t schemeLink(size_t colon) {
    size_t start = colon;
    while (start > floor_ && (cls(t_[start - 1]) & kScheme)) --start;
    while (start < colon && !(cls(t_[start]) & kLetter)) ++start;
    if (colon - start < 2) return colon + 3;
    size_t host = colon + 3;
    // user information ends at the last '@' before the host
    size_t j = host;
    while (j < n_ && isASCII(t_[j]) && !(cls(t_[j]) & kStop) && t_[j] != '/' && t_[j] != '?' && t_[j] != '#' &&
           t_[j] != '@')
      ++j;
    if (j < n_ && t_[j] == '@') host = j + 1;
    size_t hostEnd;
    std::string ascii;
    if (host < n_ && t_[host] == '[') {
      hostEnd = host + 1;
      while (hostEnd < n_ && hostEnd - host < 64 &&
             (std::isxdigit(static_cast<unsigned char>(t_[hostEnd])) || t_[hostEnd] == ':' || t_[hostEnd] == '.'))
        ++hostEnd;
      if (hostEnd >= n_ || t_[hostEnd] != ']' || hostEnd == host + 1) return std::max(hostEnd, colon + 3);
      ++hostEnd;
      ascii = std::string(t_.substr(host, hostEnd - host));
    } else {
      hostEnd = hostRunForward(host);
      while (hostEnd > host && t_[hostEnd - 1] == '.') --hostEnd;
      const std::string_view name = t_.substr(host, hostEnd - host);
      if (name.empty()) {
        if (!(equalsIgnoringASCIICase(t_.substr(start, colon - start), "file") && host < n_ && t_[host] == '/'))
          return colon + 3;
      } else {
        if (!shapeOfHost(name).valid) return std::max(hostEnd, colon + 3);
        ascii = asciiHost(name);
        if (ascii.empty()) return std::max(hostEnd, colon + 3);
      }
    }
    const size_t end = restOfLink(hostEnd);
    emit(start, end, makeURL("", start, host, ascii, hostEnd, end));
    return end;
  }

  // An e-mail address whose local part starts at `local`; the end of its
  // domain, or npos. `hostStart`/`ascii` receive the domain.
  size_t emailDomain(size_t at, size_t& hostEnd, std::string& ascii) const {
    hostEnd = hostRunForward(at + 1);
    while (hostEnd > at + 1 && t_[hostEnd - 1] == '.') --hostEnd;
    const std::string_view domain = t_.substr(at + 1, hostEnd - at - 1);
    const HostShape shape = shapeOfHost(domain);
    if (!shape.valid || shape.labels < 2 || !rightBoundaryAllowsHost(hostEnd)) return std::string_view::npos;
    if (!(knownTopLevelDomain(shape.tld) || (shape.ipv4 == false && !isASCII(shape.tld[0]))))
      return std::string_view::npos;
    ascii = asciiHost(domain);
    return ascii.empty() ? std::string_view::npos : hostEnd;
  }

  static bool validLocalPart(std::string_view local) {
    return !local.empty() && local.size() <= 64 && local.front() != '.' && local.back() != '.' &&
           local.find("..") == std::string_view::npos;
  }

  size_t mailtoLink(size_t start, size_t local) {
    size_t at = local;
    while (at < n_ && (cls(t_[at]) & kLocal)) ++at;
    if (at >= n_ || t_[at] != '@' || !validLocalPart(t_.substr(local, at - local))) return at;
    size_t hostEnd;
    std::string ascii;
    if (emailDomain(at, hostEnd, ascii) == std::string_view::npos) return std::max(hostEnd, at + 1);
    size_t end = hostEnd;
    if (end < n_ && t_[end] == '?') end = restOfLink(end);
    emit(start, end, makeURL("", start, at + 1, ascii, hostEnd, end));
    return end;
  }

  size_t onAt(size_t at) {
    size_t start = at;
    while (start > floor_ && (cls(t_[start - 1]) & kLocal)) --start;
    while (start < at && t_[start] == '.') ++start;
    if (!validLocalPart(t_.substr(start, at - start))) return at + 1;
    if (start > 0 && (t_[start - 1] == '@' || t_[start - 1] == '/' || t_[start - 1] == ':')) return at + 1;
    size_t hostEnd;
    std::string ascii;
    if (emailDomain(at, hostEnd, ascii) == std::string_view::npos) {
      floor_ = std::max(hostEnd, at + 1);
      return floor_;
    }
    emit(start, hostEnd, makeURL("mailto:", start, at + 1, ascii, hostEnd, hostEnd));
    return hostEnd;
  }
};

}  // namespace

bool DataDetectorIsKnownTopLevelDomain(std::string_view label) { return knownTopLevelDomain(label); }

std::vector<DataDetectorMatch> DataDetector::findLinks(std::string_view utf8) { return LinkScanner(utf8).run(); }

}  // namespace loomwork
