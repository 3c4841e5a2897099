#include "loomwork/platform/LocalizedStrings.h"

#include <memory>
#include <mutex>

namespace loomwork {

namespace {

std::mutex gProviderMutex;
std::shared_ptr<const LocalizedStringProvider> gProvider;  // guarded by gProviderMutex

}  // namespace

void setLocalizedStringProvider(LocalizedStringProvider provider) {
  std::shared_ptr<const LocalizedStringProvider> installed;
  if (provider) installed = std::make_shared<const LocalizedStringProvider>(std::move(provider));
  std::lock_guard<std::mutex> lock(gProviderMutex);
  gProvider = std::move(installed);
}

std::string localizedString(std::string_view key, std::string_view defaultValue, std::string_view table) {
  std::shared_ptr<const LocalizedStringProvider> provider;
  {
    std::lock_guard<std::mutex> lock(gProviderMutex);
    provider = gProvider;
  }
  if (provider) {
    if (std::optional<std::string> value = (*provider)(key, table)) return std::move(*value);
  }
  return std::string(defaultValue);
}

}  // namespace loomwork
