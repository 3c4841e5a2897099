// The URL detection operation and its worker queue.

#include "loomwork/additions/LWURLDetectionOperation.h"

#include <algorithm>

#include "platform/DataDetectorInternal.h"

namespace loomwork {
namespace {

std::mutex& settingsMutex() {
  static std::mutex mutex;
  return mutex;
}
std::function<void(std::function<void()>)>& mainThreadDispatcher() {
  static std::function<void(std::function<void()>)> dispatcher;
  return dispatcher;
}
std::string& mapsSearchAddressSetting() {
  static std::string address = "https://maps.google.com/?q=";
  return address;
}

constexpr std::string_view kAlphanumerics = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

// The URL-query set without "=", "?" and "&", so those are encoded in the q value too.
const std::string& addressQueryCharacters() {
  static const std::string set = std::string(kAlphanumerics) + "!$'()*+,-./:;@_~";
  return set;
}
const std::string& phoneCharacters() {
  static const std::string set = std::string(kAlphanumerics) + "+-.()*";
  return set;
}

inline bool isHex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// Whether a URL reader accepts `text` as written: a scheme, then only URL
// characters, each "%" followed by two hexadecimal digits.
bool isValidURLString(std::string_view text) {
  static constexpr std::string_view kAllowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~:/?#[]@!$&'()*+,;=%";
  const size_t colon = text.find(':');
  if (colon == 0 || colon == std::string_view::npos) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (static_cast<unsigned char>(c) >= 0x80 || kAllowed.find(c) == std::string_view::npos) return false;
    if (c == '%' && !(i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2]))) return false;
  }
  return true;
}

bool startsWithIgnoringASCIICase(std::string_view text, size_t at, std::string_view prefix) {
  if (text.size() - at < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    char c = text[at + i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    if (c != prefix[i]) return false;
  }
  return true;
}

// Bytes of the stop-set character at `i` (whitespace, line breaks and the
// terminating characters), or 0.
size_t stopCharacterLength(std::string_view t, size_t i) {
  const auto b = static_cast<unsigned char>(t[i]);
  if (b < 0x80) {
    if (b <= 0x20 || b == 0x7F) return 1;
    return std::string_view("<>\"()[]{},;").find(static_cast<char>(b)) != std::string_view::npos ? 1 : 0;
  }
  // U+0085, U+00A0, U+1680, U+2000..U+200A, U+2028, U+2029, U+202F, U+205F, U+3000
  if (b == 0xC2 && i + 1 < t.size()) {
    const auto c = static_cast<unsigned char>(t[i + 1]);
    return c == 0x85 || c == 0xA0 ? 2 : 0;
  }
  if (i + 2 >= t.size()) return 0;
  const auto c1 = static_cast<unsigned char>(t[i + 1]), c2 = static_cast<unsigned char>(t[i + 2]);
  if (b == 0xE1 && c1 == 0x9A && c2 == 0x80) return 3;
  if (b == 0xE2 && c1 == 0x80 && (c2 <= 0x8A || c2 == 0xA8 || c2 == 0xA9 || c2 == 0xAF)) return 3;
  if (b == 0xE2 && c1 == 0x81 && c2 == 0x9F) return 3;
  if (b == 0xE3 && c1 == 0x80 && c2 == 0x80) return 3;
  return 0;
}

size_t findIgnoringASCIICase(std::string_view text, size_t from, std::string_view needle) {
  // needle is lower-case ASCII; its first byte is not a letter in our uses
  for (size_t i = text.find(needle[0], from); i != std::string_view::npos; i = text.find(needle[0], i + 1))
    if (startsWithIgnoringASCIICase(text, i, needle)) return i;
  return std::string_view::npos;
}

size_t findMessagePrefix(std::string_view text, size_t from) {
  size_t best = std::string_view::npos;
  for (char first : {'m', 'M'}) {
    for (size_t i = text.find(first, from); i != std::string_view::npos && i < best; i = text.find(first, i + 1)) {
      if (startsWithIgnoringASCIICase(text, i, "message:")) {
        best = i;
        break;
      }
    }
  }
  return best;
}

}  // namespace

LWURLDetectionOperation::LWURLDetectionOperation(std::string_view string, uint64_t types)
    : string_(string), types_(types) {}

std::shared_ptr<LWURLDetectionOperationDelegate> LWURLDetectionOperation::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void LWURLDetectionOperation::setDelegate(std::weak_ptr<LWURLDetectionOperationDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::string LWURLDetectionOperation::region() const {
  std::lock_guard lock(mutex_);
  return region_;
}

void LWURLDetectionOperation::setRegion(std::string region) {
  std::lock_guard lock(mutex_);
  region_ = std::move(region);
}

void LWURLDetectionOperation::setMainThreadDispatcher(std::function<void(std::function<void()>)> dispatcher) {
  std::lock_guard lock(settingsMutex());
  mainThreadDispatcher() = std::move(dispatcher);
}

void LWURLDetectionOperation::setMapsSearchAddress(std::string address) {
  std::lock_guard lock(settingsMutex());
  mapsSearchAddressSetting() = std::move(address);
}

std::string LWURLDetectionOperation::mapsSearchAddress() {
  std::lock_guard lock(settingsMutex());
  return mapsSearchAddressSetting();
}

std::optional<std::string> LWURLDetectionOperation::linkForMatch(const DataDetectorMatch& match) {
  if (match.url) return isValidURLString(*match.url) ? match.url : std::nullopt;
  if (!match.addressComponents.empty()) {
    std::string query;
    for (std::string_view key :
         {kAddressStreetKey, kAddressCityKey, kAddressStateKey, kAddressZIPKey, kAddressCountryKey}) {
      if (const auto part = match.addressComponent(key)) {
        if (!query.empty()) query += ", ";
        query += *part;
      }
    }
    std::string url = mapsSearchAddress();
    detail::appendPercentEncoded(url, query, addressQueryCharacters());
    if (isValidURLString(url)) return url;
    return std::nullopt;
  }
  if (match.phoneNumber && !match.phoneNumber->empty()) {
    std::string url = "tel://";
    detail::appendPercentEncoded(url, *match.phoneNumber, phoneCharacters());
    return url;
  }
  return std::nullopt;
}

void LWURLDetectionOperation::enumerateMessageURLMatches(
    const std::function<void(const std::string& url, IndexRange range)>& block) const {
  std::string cleaned;
  std::string_view text = string_;
  if (!detail::isWellFormedUTF8(text)) {
    cleaned = detail::wellFormedUTF8(text);
    text = cleaned;
  }
  detail::UTF16Counter counter(text);
  const size_t n = text.size();
  size_t position = 0;
  size_t closing = 0;  // the next "%3E" at or after `closing`'s last search, or npos when none is left
  bool closingKnown = false;
  while (position < n && !isCancelled()) {
    while (position < n) {
      const size_t length = stopCharacterLength(text, position);
      if (length == 0) break;
      position += length;
    }
    const size_t start = findMessagePrefix(text, position);
    if (start == std::string_view::npos) return;
    const size_t reference = start + 8;
    // (b) up to the next stop-set character, or the end of the text
    size_t stop = reference;
    while (stop < n && stopCharacterLength(text, stop) == 0) ++stop;
    // (a) up to and with the next "%3E", if one follows
    size_t end = stop;
    if (closing != std::string_view::npos && (!closingKnown || closing < reference)) {
      closing = findIgnoringASCIICase(text, reference, "%3e");
      closingKnown = true;
    }
    if (closing != std::string_view::npos && closing + 3 - reference < stop - reference) end = closing + 3;
    position = std::max(end, reference);
    if (end == reference) continue;
    const std::string url = "message:" + std::string(text.substr(reference, end - reference));
    if (!isValidURLString(url)) continue;
    const int64_t from = counter.offsetOfByte(start);
    block(url, {from, counter.offsetOfByte(end) - from});
  }
}

void LWURLDetectionOperation::main() {
  struct FinishOnExit {
    std::atomic<bool>& finished;
    ~FinishOnExit() { finished.store(true, std::memory_order_release); }
  } finishOnExit{finished_};

  auto detector = DataDetector::initWithTypes(types_);
  if (!detector) return;
  if (const std::string chosen = region(); !chosen.empty()) detector->setRegion(chosen);
  detector->setCancellationCheck([this] { return isCancelled(); });

  std::vector<std::string> urls;
  std::vector<IndexRange> ranges;
  detector->enumerateMatchesInString(string_, [&](const DataDetectorMatch& match, bool& stop) {
    if (isCancelled()) {
      stop = true;
      return;
    }
    std::optional<std::string> url = linkForMatch(match);
    if (!url) return;
    urls.push_back(std::move(*url));
    ranges.push_back(match.range);
  });

  if ((types_ & TextCheckingTypeLink) && !isCancelled()) {
    enumerateMessageURLMatches([&](const std::string& url, IndexRange range) {
      std::vector<size_t> overlapping;
      for (size_t i = 0; i < ranges.size(); ++i)
        if (ranges[i].location < range.end() && range.location < ranges[i].end()) overlapping.push_back(i);
      for (auto it = overlapping.rbegin(); it != overlapping.rend(); ++it) {
        urls.erase(urls.begin() + static_cast<std::ptrdiff_t>(*it));
        ranges.erase(ranges.begin() + static_cast<std::ptrdiff_t>(*it));
      }
      urls.push_back(url);
      ranges.push_back(range);
    });
  }

  auto self = ref<LWURLDetectionOperation>();
  std::function<void()> report = [self, this, urls = std::move(urls), ranges = std::move(ranges)] {
    if (isCancelled()) return;
    if (auto target = delegate()) target->urlDetectionOperationDidFinishWithURLsCharacterRanges(*this, urls, ranges);
  };
  std::function<void(std::function<void()>)> dispatcher;
  {
    std::lock_guard lock(settingsMutex());
    dispatcher = mainThreadDispatcher();
  }
  if (dispatcher)
    dispatcher(std::move(report));
  else
    report();
}

LWURLDetectionOperationQueue::LWURLDetectionOperationQueue() : worker_([this] { work(); }) {}

LWURLDetectionOperationQueue::~LWURLDetectionOperationQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  worker_.join();
}

void LWURLDetectionOperationQueue::addOperation(Ref<LWURLDetectionOperation> operation) {
  if (!operation) return;
  {
    std::lock_guard lock(mutex_);
    pending_.push_back(std::move(operation));
  }
  changed_.notify_all();
}

void LWURLDetectionOperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return pending_.empty() && !running_; });
}

void LWURLDetectionOperationQueue::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
    if (pending_.empty()) return;
    Ref<LWURLDetectionOperation> operation = std::move(pending_.front());
    pending_.pop_front();
    running_ = true;
    lock.unlock();
    operation->main();
    operation.reset();
    lock.lock();
    running_ = false;
    changed_.notify_all();
  }
}

}  // namespace loomwork
