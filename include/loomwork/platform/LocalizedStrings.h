// The application's localised strings, as the host supplies them.
//
// The library never reads string tables itself: the host installs a provider
// that answers a key from a table of its own (the default table is
// "Localizable"). Without a provider, and for keys the provider does not know,
// callers get the default value they pass. The provider may be installed or
// replaced from any thread; it is called on the caller's thread, outside any
// lock, and must itself be safe to call from several threads.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)
namespace loomwork {

// Answers the localised string for a key of a table, or absent for an unknown key.
using LocalizedStringProvider = std::function<std::optional<std::string>(std::string_view key, std::string_view table)>;

inline constexpr std::string_view kDefaultLocalizedStringTable = "Localizable";

// Installs the provider (an empty function removes it). Values that callers
// cached from the previous provider stay as they are.
void setLocalizedStringProvider(LocalizedStringProvider provider);

// The provider's string for the key, or `defaultValue` when there is no
// provider or it does not know the key.
std::string localizedString(std::string_view key, std::string_view defaultValue,
                            std::string_view table = kDefaultLocalizedStringTable);

}  // namespace loomwork
#pragma GCC visibility pop
