#pragma once

#include <string>

#include "quillon/base/error.h"

namespace quillon {

// Moves items to the user's trash (the freedesktop trash that file managers
// show: $XDG_DATA_HOME/Trash for the home file system, the volume's own trash
// folder elsewhere), from where the user can put them back. Stateless and
// thread-safe.
class Trash {
 public:
  // Trashes a file or a folder. On success answers true and, when asked,
  // where the item now is (a path in the trash's "files" folder; its
  // ".trashinfo" is in the sibling "info" folder); the path is empty in the
  // rare case that the trash cannot be located. On failure answers false and
  // fills `error` (a POSIX-domain error naming the path).
  static bool trashItem(const std::string& path, std::string* trashedPath, Error* error);
};

}  // namespace quillon
