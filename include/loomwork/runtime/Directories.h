// Well-known directories (the XDG base directories) and resource lookup by
// display scale.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#pragma GCC visibility push(default)
namespace loomwork {

// The base directories that the XDG base-directory convention names. A variable
// that is unset, empty or not an absolute path is ignored and its default
// used; in the lists, entries that are not absolute are dropped.
struct XDGBaseDirectories {
  std::string home;                       // $HOME, else the user's entry in the password database, else "/"
  std::string dataHome;                   // $XDG_DATA_HOME, else ~/.local/share
  std::string configHome;                 // $XDG_CONFIG_HOME, else ~/.config
  std::string stateHome;                  // $XDG_STATE_HOME, else ~/.local/state
  std::string cacheHome;                  // $XDG_CACHE_HOME, else ~/.cache
  std::optional<std::string> runtimeDir;  // $XDG_RUNTIME_DIR; absent when unset
  std::vector<std::string> dataDirs;      // $XDG_DATA_DIRS, else /usr/local/share, /usr/share
  std::vector<std::string> configDirs;    // $XDG_CONFIG_DIRS, else /etc/xdg
};

// Reads an environment variable; absent when unset.
using EnvironmentLookup = std::function<std::optional<std::string>(std::string_view name)>;

// From the process environment, read on each call.
XDGBaseDirectories xdgBaseDirectories();
// From the given environment (HOME included).
XDGBaseDirectories xdgBaseDirectories(const EnvironmentLookup& environment);

// Tells whether a regular file exists at the path.
using FileExistsCheck = std::function<bool(const std::string& path)>;
bool fileExistsAtPath(const std::string& path);

// The path of the image resource `name` in `directory` for a display of the
// given scale: "name@3x.ext" on displays of scale 3 and more, then
// "name@2x.ext" on scale 2 and more, then "name.ext"; the first that exists.
// The extension may be passed separately or be part of the name ("icon.png").
// Absent when none exists.
std::optional<std::string> pathForResourceWithScale(std::string_view directory, std::string_view name,
                                                    std::string_view extension, double scale,
                                                    const FileExistsCheck& exists = fileExistsAtPath);

}  // namespace loomwork
#pragma GCC visibility pop
