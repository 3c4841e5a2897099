#include "loomwork/runtime/Directories.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace loomwork {

namespace {

bool isAbsolute(std::string_view path) { return !path.empty() && path.front() == '/'; }

std::optional<std::string> absoluteVariable(const EnvironmentLookup& environment, std::string_view name) {
  std::optional<std::string> value = environment(name);
  if (value && isAbsolute(*value)) return value;
  return std::nullopt;
}

std::vector<std::string> pathList(const EnvironmentLookup& environment, std::string_view name,
                                  std::vector<std::string> fallback) {
  std::vector<std::string> paths;
  if (std::optional<std::string> value = environment(name)) {
    std::string_view rest = *value;
    while (true) {
      const size_t colon = rest.find(':');
      std::string_view entry = rest.substr(0, colon);
      if (isAbsolute(entry)) paths.emplace_back(entry);
      if (colon == std::string_view::npos) break;
      rest.remove_prefix(colon + 1);
    }
  }
  return paths.empty() ? fallback : paths;
}

std::string homeFromPasswordDatabase() {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::string buffer(size > 0 ? static_cast<size_t>(size) : 16384, '\0');
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
      isAbsolute(found->pw_dir ? found->pw_dir : "")) {
    return found->pw_dir;
  }
  return "/";
}

}  // namespace

XDGBaseDirectories xdgBaseDirectories() {
  return xdgBaseDirectories([](std::string_view name) -> std::optional<std::string> {
    const char* value = std::getenv(std::string(name).c_str());
    if (value == nullptr) return std::nullopt;
    return std::string(value);
  });
}

XDGBaseDirectories xdgBaseDirectories(const EnvironmentLookup& environment) {
  XDGBaseDirectories d;
  d.home = absoluteVariable(environment, "HOME").value_or(std::string());
  if (d.home.empty()) d.home = homeFromPasswordDatabase();
  const std::string base = d.home == "/" ? std::string() : d.home;
  d.dataHome = absoluteVariable(environment, "XDG_DATA_HOME").value_or(base + "/.local/share");
  d.configHome = absoluteVariable(environment, "XDG_CONFIG_HOME").value_or(base + "/.config");
  d.stateHome = absoluteVariable(environment, "XDG_STATE_HOME").value_or(base + "/.local/state");
  d.cacheHome = absoluteVariable(environment, "XDG_CACHE_HOME").value_or(base + "/.cache");
  d.runtimeDir = absoluteVariable(environment, "XDG_RUNTIME_DIR");
  d.dataDirs = pathList(environment, "XDG_DATA_DIRS", {"/usr/local/share", "/usr/share"});
  d.configDirs = pathList(environment, "XDG_CONFIG_DIRS", {"/etc/xdg"});
  return d;
}

bool fileExistsAtPath(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::optional<std::string> pathForResourceWithScale(std::string_view directory, std::string_view name,
                                                    std::string_view extension, double scale,
                                                    const FileExistsCheck& exists) {
  std::string_view stem = name;
  std::string suffix;
  if (!extension.empty()) {
    suffix = "." + std::string(extension);
  } else if (const size_t dot = name.rfind('.'); dot != std::string_view::npos && dot > 0) {
    stem = name.substr(0, dot);
    suffix = std::string(name.substr(dot));
  }
  std::string prefix(directory);
  if (!prefix.empty() && prefix.back() != '/') prefix += '/';
  prefix += stem;
  for (const auto& [minimumScale, marker] : {std::pair{3.0, "@3x"}, std::pair{2.0, "@2x"}, std::pair{0.0, ""}}) {
    if (!(scale >= minimumScale) && minimumScale > 0) continue;
    std::string path = prefix + marker + suffix;
    if (exists(path)) return path;
  }
  return std::nullopt;
}

}  // namespace loomwork
