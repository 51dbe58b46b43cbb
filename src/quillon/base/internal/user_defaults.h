#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "quillon/base/value.h"

namespace quillon {

// Persistent per-application settings: one property list
// "<config folder>/<application identifier>.plist" (the config folder being
// $XDG_CONFIG_HOME, else ~/.config), read on first use and written
// atomically on every change. Safe across threads.
class UserDefaults {
 public:
  // The defaults of the application identifier set with
  // setStandardApplicationIdentifier() (default "org.quillon.cli").
  static UserDefaults& standard();
  static void setStandardApplicationIdentifier(std::string identifier);

  // `folder` empty: the config folder above.
  explicit UserDefaults(std::string applicationIdentifier, std::string folder = {});

  Value objectForKey(std::string_view key);
  bool boolForKey(std::string_view key);
  int64_t integerForKey(std::string_view key);
  std::string stringForKey(std::string_view key);
  // Setting nil removes the key.
  void setObject(std::string_view key, Value value);
  void removeObject(std::string_view key) { setObject(key, Value()); }
  // Forgets what was read so the next access reads the file again.
  void reload();
  const std::string& path() const { return path_; }

 private:
  void loadLocked();
  std::string path_;
  std::mutex mutex_;
  bool loaded_ = false;
  Value values_;
};

}  // namespace quillon
