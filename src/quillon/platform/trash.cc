#include "quillon/platform/internal/trash.h"

#include <errno.h>
#include <gio/gio.h>
#include <unistd.h>

#include <set>
#include <string_view>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/url.h"
#include "quillon/platform/internal/volumes.h"

namespace quillon {
namespace {

constexpr std::string_view kInfoSuffix = ".trashinfo";

std::string parentOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

// The trash folders an item at this path may go to: the home trash, then
// the two places a volume keeps its own.
std::vector<std::string> candidateTrashFolders(const std::string& path) {
  std::vector<std::string> folders = {std::string(g_get_user_data_dir()) + "/Trash"};
  if (std::optional<VolumeInfo> volume = Volumes::volumeForPath(parentOf(path))) {
    std::string top = volume->mountPoint == "/" ? "" : volume->mountPoint;
    std::string uid = std::to_string(::getuid());
    folders.push_back(top + "/.Trash/" + uid);
    folders.push_back(top + "/.Trash-" + uid);
  }
  return folders;
}

std::set<std::string> infoNames(const std::string& trashFolder) {
  std::vector<std::string> names;
  Env::Default()->listDirectory(trashFolder + "/info", &names);
  return std::set<std::string>(names.begin(), names.end());
}

// The original location recorded in a .trashinfo file: absolute for the home
// trash, relative to the volume for a volume's trash.
std::string recordedPath(const std::string& infoFile) {
  std::vector<uint8_t> bytes;
  if (Env::Default()->readFile(infoFile, &bytes)) return {};
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    if (line.substr(0, 5) == "Path=") return Url::percentDecode(line.substr(5));
    start = end + 1;
  }
  return {};
}

bool samePlace(const std::string& recorded, const std::string& path) {
  if (recorded.empty()) return false;
  if (recorded[0] == '/') return recorded == path;
  return path.size() > recorded.size() &&
         path.compare(path.size() - recorded.size(), recorded.size(), recorded) == 0 &&
         path[path.size() - recorded.size() - 1] == '/';
}

Error errorFrom(const GError* gerror, const std::string& path) {
  int code = EIO;
  if (gerror->domain == G_IO_ERROR) {
    switch (gerror->code) {
      case G_IO_ERROR_NOT_FOUND:
        code = ENOENT;
        break;
      case G_IO_ERROR_PERMISSION_DENIED:
        code = EACCES;
        break;
      case G_IO_ERROR_NOT_SUPPORTED:
        code = ENOTSUP;
        break;
      case G_IO_ERROR_NO_SPACE:
        code = ENOSPC;
        break;
      case G_IO_ERROR_READ_ONLY:
        code = EROFS;
        break;
      default:
        break;
    }
  }
  Value info = Value::dictionary();
  info.set(kLocalizedDescriptionKey, std::string(gerror->message));
  info.set(kFilePathErrorKey, path);
  return Error(std::string(kPosixErrorDomain), code, info);
}

}  // namespace

bool Trash::trashItem(const std::string& path, std::string* trashedPath, Error* error) {
  if (trashedPath) trashedPath->clear();
  FileAttributes attributes;
  if (Error e = Env::Default()->attributes(path, &attributes)) {
    if (error) *error = e;
    return false;
  }
  std::vector<std::string> folders = candidateTrashFolders(path);
  std::vector<std::set<std::string>> before;
  for (const std::string& folder : folders) before.push_back(infoNames(folder));

  GFile* file = g_file_new_for_path(path.c_str());
  GError* gerror = nullptr;
  gboolean trashed = g_file_trash(file, nullptr, &gerror);
  g_object_unref(file);
  if (!trashed) {
    if (error) *error = errorFrom(gerror, path);
    g_error_free(gerror);
    return false;
  }
  if (error) *error = Error();
  if (!trashedPath) return true;

  // g_file_trash does not say where the item went: find the .trashinfo that
  // appeared for it. Another process trashing at the same moment is told
  // apart by the recorded original path.
  std::string onlyNew;
  int newCount = 0;
  for (size_t i = 0; i < folders.size(); ++i) {
    for (const std::string& name : infoNames(folders[i])) {
      if (before[i].count(name) || name.size() <= kInfoSuffix.size() ||
          name.compare(name.size() - kInfoSuffix.size(), kInfoSuffix.size(), kInfoSuffix) != 0) {
        continue;
      }
      std::string trashed =
          folders[i] + "/files/" + name.substr(0, name.size() - kInfoSuffix.size());
      if (samePlace(recordedPath(folders[i] + "/info/" + name), path)) {
        *trashedPath = trashed;
        return true;
      }
      onlyNew = trashed;
      ++newCount;
    }
  }
  if (newCount == 1) *trashedPath = onlyNew;
  return true;
}

}  // namespace quillon
