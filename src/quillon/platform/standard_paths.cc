#include "quillon/platform/standard_paths.h"

#include <glib.h>

namespace quillon {
namespace {

std::string clean(const char* path) {
  std::string p = path ? path : "";
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

}  // namespace

std::string StandardPaths::userCacheDirectory() { return clean(g_get_user_cache_dir()); }

std::string StandardPaths::userConfigDirectory() { return clean(g_get_user_config_dir()); }

std::string StandardPaths::userDataDirectory() { return clean(g_get_user_data_dir()); }

std::string StandardPaths::homeDirectory() { return clean(g_get_home_dir()); }

std::string StandardPaths::temporaryDirectory() { return clean(g_get_tmp_dir()); }

}  // namespace quillon
