#include "loomwork/additions/StringAdditions.h"

#include <cstdlib>

#include "loomwork/platform/LocalizedStrings.h"
#include "loomwork/platform/UUID.h"

namespace loomwork {

namespace {

constexpr std::string_view kDefaultOrdinals =
    "1st,2nd,3rd,4th,5th,6th,7th,8th,9th,10th,11th,12th,13th,14th,15th,16th,17th,18th,19th,20th,"
    "21st,22nd,23rd,24th,25th,26th,27th,28th,29th,30th,31st,32nd,33rd,34th,35th,36th,37th,38th,39th,40th";

std::vector<std::string> splitAtCommas(std::string_view text) {
  std::vector<std::string> parts;
  while (true) {
    size_t comma = text.find(',');
    parts.emplace_back(text.substr(0, comma));
    if (comma == std::string_view::npos) return parts;
    text.remove_prefix(comma + 1);
  }
}

std::string ordinalFrom(const std::vector<std::string>& list, uint64_t n) {
  if (n >= 1 && n <= list.size()) return list[n - 1];
  return std::to_string(n);
}

std::string repeated(std::string_view string, int64_t count) {
  std::string out;
  if (count < 1 || string.empty()) return out;
  out.reserve(string.size() * static_cast<size_t>(count));
  for (int64_t i = 0; i < count; ++i) out.append(string);
  return out;
}

}  // namespace

std::string stringByAddingCStyleEscapes(std::string_view string) {
  // Each replacement introduces only a backslash followed by a character that
  // no later replacement touches, so one pass gives what replacing kind after
  // kind (backslash first) gives.
  constexpr std::string_view kEscaped = "\\\a\b\f\n\r\t\v'\"?";
  constexpr std::string_view kLetters = "\\abfnrtv'\"?";
  static_assert(kEscaped.size() == kLetters.size());
  std::string out;
  out.reserve(string.size() + string.size() / 8);
  for (char c : string) {
    const size_t kind = kEscaped.find(c);
    if (kind == std::string_view::npos) {
      out += c;
    } else {
      out += '\\';
      out += kLetters[kind];
    }
  }
  return out;
}

std::string stringByRepeatingNumberOfTimes(std::string_view string, int64_t count) { return repeated(string, count); }

std::string stringByRepeatingStringCount(std::string_view string, int64_t count) { return repeated(string, count); }

std::string stringWithSpaces(int32_t count) {
  const int64_t width = std::llabs(static_cast<long long>(count));
  return std::string(static_cast<size_t>(width < 1 ? 1 : width), ' ');
}

std::string randomWord() { return std::string(); }

std::optional<std::string> keyPathWithComponents(std::initializer_list<std::optional<std::string_view>> components) {
  std::string path;
  bool any = false;
  for (const auto& component : components) {
    if (!component) break;
    path.append(*component);
    path += '.';
    any = true;
  }
  if (!any) return std::nullopt;
  path.pop_back();
  return path;
}

std::optional<std::string> keyPathWithComponents(const std::vector<std::string>& components) {
  if (components.empty()) return std::nullopt;
  std::string path;
  for (const auto& component : components) {
    path.append(component);
    path += '.';
  }
  path.pop_back();
  return path;
}

std::string uuidString() { return newUUIDString(); }

std::string ordinalStringForNumber(uint64_t n) { return nominativeOrdinalStringForNumber(n); }

std::string nominativeOrdinalStringForNumber(uint64_t n) {
  static const std::vector<std::string> list = splitAtCommas(localizedString("Ordinals-Nominative", kDefaultOrdinals));
  return ordinalFrom(list, n);
}

std::string dativeOrdinalStringForNumber(uint64_t n) {
  static const std::vector<std::string> list = splitAtCommas(localizedString("Ordinals-Dative", kDefaultOrdinals));
  return ordinalFrom(list, n);
}

}  // namespace loomwork
