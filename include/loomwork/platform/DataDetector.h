// DataDetector: finds links, e-mail addresses, postal addresses and phone
// numbers in text, as typed matches with ranges.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "loomwork/platform/IndexSet.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Bits of the kinds of matches a detector looks for (the platform's
// text-checking type bits).
enum TextCheckingType : uint64_t {
  TextCheckingTypeAddress = 16,
  TextCheckingTypeLink = 32,
  TextCheckingTypePhoneNumber = 2048,
};

// Keys of a postal address match's components.
inline constexpr std::string_view kAddressStreetKey = "Street";
inline constexpr std::string_view kAddressCityKey = "City";
inline constexpr std::string_view kAddressStateKey = "State";
inline constexpr std::string_view kAddressZIPKey = "ZIP";
inline constexpr std::string_view kAddressCountryKey = "Country";

// One match. `range` counts UTF-16 code units of the scanned text;
// `byteRange` the same span in bytes of the UTF-8 text the detector scanned
// (which is the input itself when that was well-formed UTF-8).
struct DataDetectorMatch {
  TextCheckingType resultType = TextCheckingTypeLink;
  IndexRange range;
  IndexRange byteRange;
  // Links and e-mail addresses: the absolute URL ("http://" is put in front
  // of bare host names, "mailto:" in front of e-mail addresses; host names
  // are in their ASCII form, other non-ASCII characters percent-encoded).
  std::optional<std::string> url;
  // Postal addresses: (key, text) pairs under the kAddress...Key names, in
  // the order street, city, state, ZIP, country; missing parts are left out.
  std::vector<std::pair<std::string, std::string>> addressComponents;
  // Phone numbers: the number as written in the text.
  std::optional<std::string> phoneNumber;

  // The text of an address component, or absent.
  std::optional<std::string> addressComponent(std::string_view key) const;
};

// A detector for a fixed set of kinds. It keeps no state between scans, so
// one detector may be used from several threads at once.
//
// What it finds:
// - Links: URLs with a scheme followed by "://" (any scheme of letters, digits,
//   "+", "-", "."), "www." host names, bare host names whose top-level domain is
//   in the public suffix list (read once per process), IPv4 and bracketed IPv6
//   hosts after a scheme, IPv4 hosts with a port or a path without one, ports,
//   paths, queries and fragments, internationalised host names; "mailto:"
//   links and bare e-mail addresses. Punctuation at the end of a link (". , ;
//   : ! ? ' \" *") is left out, as are closing brackets that close nothing in
//   the link. Version numbers, decimal numbers, dates and file names are not
//   links: a bare host needs a known top-level domain written in one case, and
//   where that domain is also a common file extension ("readme.md",
//   "setup.py", "app.zip") or a generic domain that is mostly seen as a word
//   in code ("user.name", "window.open"; all but about thirty common generic
//   domains) it needs a path as well.
// - Phone numbers: libphonenumber's matcher at its "valid" leniency for the
//   detector's region, without anything shaped like a date ("05.10.1986",
//   "3/10/1984", "1986-10-05") or glued to a longer dotted number. Numbers are
//   looked for in ASCII digits, on stretches of 5 to 30 digits joined by
//   spaces and ". - / ( ) +"; longer walls of digits are not searched.
// - Postal addresses: see the address detector's description in
//   DataDetector::findAddresses.
//
// Scanning time is linear in the text for links and addresses; invalid UTF-8
// is read with U+FFFD in place of each bad sequence (and ranges count that
// replacement as one unit).
class DataDetector {
 public:
  // A detector for `types` (a bit set of TextCheckingType). Empty when no
  // supported bit is set.
  static std::unique_ptr<DataDetector> initWithTypes(uint64_t types);

  uint64_t types() const { return types_; }

  // The region (ISO 3166 code such as "US" or "DE") national phone numbers
  // are read for. By default the region of the host's locale (LC_ALL,
  // LC_MESSAGES, LANG; "US" when none names one).
  const std::string& region() const { return region_; }
  void setRegion(std::string region) { region_ = std::move(region); }

  // A test the slow finder (phone numbers, whose matcher costs tens to
  // hundreds of microseconds per candidate) asks before each candidate; when
  // it answers true the scan ends early with what it has. Empty by default.
  void setCancellationCheck(std::function<bool()> check) { cancellationCheck_ = std::move(check); }

  // Calls `block` with each match in text order; matches never overlap (a
  // link wins over anything it overlaps; otherwise the earlier, then the
  // longer match wins). Setting the block's `stop` argument ends the
  // enumeration. Any bytes are accepted.
  void enumerateMatchesInString(std::string_view text,
                                const std::function<void(const DataDetectorMatch&, bool& stop)>& block) const;
  std::vector<DataDetectorMatch> matchesInString(std::string_view text) const;

  // The finders behind enumerateMatchesInString, on well-formed UTF-8. Their
  // matches carry byte ranges only; `range` is left empty.
  static std::vector<DataDetectorMatch> findLinks(std::string_view utf8);
  std::vector<DataDetectorMatch> findPhoneNumbers(std::string_view utf8) const;
  // US-style postal addresses: a house number (digits, optionally a letter or
  // a fraction), a street name of up to five words with an optional leading
  // direction ("N", "West"), a street suffix ("St", "Avenue", "Blvd.", ...)
  // and an optional trailing direction, an optional unit ("Apt 4B", "Suite
  // 200", "#12"), then a city of up to four capitalised words, a state (postal
  // code or full name) and a ZIP code (five digits, optionally "-" and four).
  // Separators between the parts may be commas, spaces or one line break; an
  // optional "USA"/"United States" after the ZIP is taken as the country.
  // Not found: addresses without a ZIP code or without a street suffix ("1
  // Broadway"), post-office boxes, rural routes, numbered highways without a
  // suffix, addresses written city first, and other countries' formats.
  static std::vector<DataDetectorMatch> findAddresses(std::string_view utf8);

  // The region of the host's locale as described under region().
  static std::string defaultRegion();

 private:
  explicit DataDetector(uint64_t types);
  uint64_t types_;
  std::string region_;
  std::function<bool()> cancellationCheck_;
};

// True when `label` (UTF-8, ASCII letters in any case) is a top-level domain
// of the public suffix list. False for every label when the list cannot be
// read.
bool DataDetectorIsKnownTopLevelDomain(std::string_view label);

}  // namespace loomwork
#pragma GCC visibility pop
