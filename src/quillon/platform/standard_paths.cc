#include "quillon/platform/standard_paths.h"

#include <glib.h>

#include <mutex>

namespace quillon {
namespace {

std::string clean(const char* path) {
  std::string p = path ? path : "";
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

std::mutex& overrideMutex() {
  static std::mutex mutex;
  return mutex;
}

std::string& cacheOverride() {
  static std::string path;
  return path;
}

}  // namespace

void StandardPaths::setUserCacheDirectory(std::string path) {
  std::lock_guard<std::mutex> lock(overrideMutex());
  cacheOverride() = std::move(path);
}

std::string StandardPaths::userCacheDirectory() {
  {
    std::lock_guard<std::mutex> lock(overrideMutex());
    if (!cacheOverride().empty()) return clean(cacheOverride().c_str());
  }
  return clean(g_get_user_cache_dir());
}

std::string StandardPaths::userConfigDirectory() { return clean(g_get_user_config_dir()); }

std::string StandardPaths::userDataDirectory() { return clean(g_get_user_data_dir()); }

std::string StandardPaths::homeDirectory() { return clean(g_get_home_dir()); }

std::string StandardPaths::temporaryDirectory() { return clean(g_get_tmp_dir()); }

}  // namespace quillon
