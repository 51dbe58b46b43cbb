#pragma once

#include <string>

namespace quillon {

// The user's standard folders, after the XDG base-directory rules (GLib reads
// the variables once per process). Paths are absolute, without a trailing
// "/", and may not exist yet. Stateless and thread-safe.
class StandardPaths {
 public:
  // $XDG_CACHE_HOME, else ~/.cache: where local caches go.
  static std::string userCacheDirectory();
  // Replaces the cache folder for this process (empty restores the XDG one):
  // lets one process hold two stores with separate local caches.
  static void setUserCacheDirectory(std::string path);
  // $XDG_CONFIG_HOME, else ~/.config: user defaults.
  static std::string userConfigDirectory();
  // $XDG_DATA_HOME, else ~/.local/share: the home trash lives here.
  static std::string userDataDirectory();
  static std::string homeDirectory();
  // $TMPDIR, else /tmp.
  static std::string temporaryDirectory();
};

}  // namespace quillon
