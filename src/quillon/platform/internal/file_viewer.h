#pragma once

#include <string>

#include "quillon/base/env.h"

namespace quillon {

// Shows items in the desktop's file manager ("Show in Finder" of the log's
// remedy menus). Stateless; call from any thread (it blocks for at most a few
// seconds while the file manager answers).
class FileViewer {
 public:
  // Selects the item, or its nearest existing parent, in a file manager
  // window: the org.freedesktop.FileManager1 ShowItems call on the session
  // bus, else the folder opened with the default application. Answers
  // whether either request was accepted.
  static bool reveal(const std::string& path);

  // The path itself when something exists there, else its nearest existing
  // parent folder; empty for an empty or relative path.
  static std::string nearestExistingItem(const std::string& path, Env* env = Env::Default());
};

}  // namespace quillon
