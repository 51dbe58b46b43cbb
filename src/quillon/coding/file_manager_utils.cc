#include "quillon/coding/internal/file_manager_utils.h"

#include <vector>

#include "quillon/base/internal/system_log.h"

namespace quillon {

bool createDirectoryAtPathIfNeeded(const std::string& path, Env* env) {
  if (env->exists(path)) return env->isDirectory(path);
  return !env->createDirectories(path);
}

bool quillonMergeContentsOfPath(const std::string& source, const std::string& destination,
                                Error* error, Env* env) {
  systemLog("- mergeContentsOfPath: " + source + "\n intoPath: " + destination);
  auto fail = [&](const Error& e) {
    systemLog("ERROR: " + e.description());
    if (error) *error = e;
    return false;
  };

  std::vector<std::string> subPaths;
  if (!env->exists(source)) return true;
  if (Error e = env->listRecursively(source, &subPaths)) {
    // An unreadable source is not an empty one: removing it could lose data.
    return fail(e);
  }
  if (subPaths.empty()) {
    env->removeItem(source);
    return true;
  }

  for (const std::string& subPath : subPaths) {
    systemLog(" subPath: " + subPath);
    const std::string from = source + "/" + subPath;
    const std::string to = destination + "/" + subPath;
    Error e;
    if (env->isDirectory(from)) {
      systemLog("   create directory");
      e = env->createDirectories(to);
    } else if (env->exists(to)) {
      systemLog("   removeItemAtPath");
      e = env->removeItem(to);
      // Without an error out-parameter the move follows at once; with one,
      // a failed removal is reported before anything else happens.
      if (!error) {
        systemLog("   moveItemAtPath");
        Error moved = env->moveItem(from, to);
        if (!e) e = moved;
      } else if (!e) {
        systemLog("   moveItemAtPath");
        e = env->moveItem(from, to);
      }
    } else {
      systemLog("   moveItemAtPath");
      e = env->moveItem(from, to);
    }
    if (e) return fail(e);
  }
  env->removeItem(source);  // what is left are empty folders; a failure here loses nothing
  return true;
}

}  // namespace quillon
