#include "quillon/coding/internal/url_utils.h"

#include <string_view>
#include <unordered_map>
#include <vector>

#include "quillon/base/internal/user_defaults.h"
#include "quillon/platform/internal/volumes.h"

namespace quillon {
namespace {

// A folder answers YES once this many of its items have been examined.
constexpr size_t kOnDiskItemLimit = 101;

constexpr std::string_view kNull = "(null)";

std::string parentPath(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

// The volume of the nearest existing path at or above the URL's path.
std::optional<VolumeInfo> volumeOf(const Url& url, Env* env) {
  if (!url.isFileURL()) return std::nullopt;
  std::string path = url.path();
  if (path.empty() || path.front() != '/') return std::nullopt;
  while (!env->exists(path)) {
    if (path == "/") return std::nullopt;
    path = parentPath(path);
  }
  return Volumes::volumeForPath(path);
}

Value text(const std::optional<std::string>& s) {
  return Value::string(s ? std::string_view(*s) : kNull);
}

Value text(const std::optional<bool>& b) { return Value::string(b ? (*b ? "1" : "0") : kNull); }

Value information(const std::string& urlString, const std::optional<VolumeInfo>& volume) {
  Value info = Value::mutableDictionary();
  info.set("URL", Value::string(urlString));
  if (!volume) {
    for (const char* key : {"MountURL", "Name", "Ejectable", "Local", "Internal", "Format"}) {
      info.set(key, Value::string(kNull));
    }
    info.set("Properties", Value::dictionary());
    return info;
  }
  info.set("MountURL", text(volume->remountURL));
  info.set("Name", text(volume->name));
  info.set("Ejectable", text(volume->isEjectable));
  info.set("Local", text(volume->isLocal));
  info.set("Internal", text(volume->isInternal));
  info.set("Format", text(volume->format));
  info.set("Properties", volume->deviceCharacteristics.isDictionary()
                             ? volume->deviceCharacteristics
                             : Value::dictionary());
  return info;
}

// Answers QuillonIsOnDisk for folders, remembering each folder's answer: a
// folder's items include its subfolders, whose own answers look at their
// items again, so without the memo nested folders would cost exponential
// time.
class OnDiskCheck {
 public:
  explicit OnDiskCheck(Env* env) : env_(env) {}

  bool item(const std::string& path) {
    FileAttributes a;
    if (env_->attributes(path, &a)) return true;  // vanished or unreadable: nothing to fetch
    if (!a.isDirectory()) return QuillonIsOnDisk(a);
    auto known = folders_.find(path);
    if (known != folders_.end()) return known->second;
    bool answer = folder(path);
    folders_.emplace(path, answer);
    return answer;
  }

 private:
  // Walks the folder depth-first, parents before their contents and each
  // folder's items by name, stopping after the item limit.
  bool folder(const std::string& root) {
    size_t examined = 0;
    struct Level {
      std::string path;
      std::vector<std::string> names;
      size_t next = 0;
    };
    std::vector<Level> stack;
    if (!list(root, &stack)) return true;
    while (!stack.empty()) {
      Level& level = stack.back();
      if (level.next == level.names.size()) {
        stack.pop_back();
        continue;
      }
      std::string child = level.path + "/" + level.names[level.next++];
      if (examined++ == kOnDiskItemLimit) return true;
      if (!item(child)) return false;
      if (env_->isDirectory(child)) list(child, &stack);
    }
    return true;
  }

  template <typename Stack>
  bool list(const std::string& path, Stack* stack) {
    std::vector<std::string> names;
    if (env_->listDirectory(path, &names)) return false;
    std::sort(names.begin(), names.end());
    stack->push_back({path, std::move(names), 0});
    return true;
  }

  Env* env_;
  std::unordered_map<std::string, bool> folders_;
};

}  // namespace

std::optional<Url> QuillonVolumeURL(const Url& url, Env* env) {
  auto volume = volumeOf(url, env);
  if (!volume) return std::nullopt;
  return Url::fileURL(volume->mountPoint, true);
}

bool QuillonIsLocalURL(const Url& url, Env* env) {
  if (UserDefaults::standard().boolForKey(kQuillonIgnoreNetworkVolumesWarningAtMyOwnRisk)) {
    return true;
  }
  auto volume = volumeOf(url, env);
  if (!volume || !volume->isLocal) return true;
  return *volume->isLocal;
}

bool QuillonIsOnDisk(const std::string& path, Env* env) { return OnDiskCheck(env).item(path); }

bool QuillonIsOnDisk(const FileAttributes& measuredFile) {
  return !measuredFile.isRegular() || measuredFile.allocatedSize >= 1 || measuredFile.size == 0;
}

bool QuillonIsOnDisk(const Url& url, Env* env) { return QuillonIsOnDisk(url.path(), env); }

Value QuillonVolumeProperties(const Url& url, Env* env) {
  auto volume = volumeOf(url, env);
  if (!volume || !volume->deviceCharacteristics.isDictionary()) return Value::dictionary();
  return volume->deviceCharacteristics;
}

Value QuillonVolumeInformation(const Url& url, Env* env) {
  return information(url.absoluteString(), volumeOf(url, env));
}

Value QuillonAllVolumeInformation() {
  Value all = Value::mutableArray();
  for (const VolumeInfo& volume : Volumes::mountedVolumes()) {
    all.append(information(Url::fileURL(volume.mountPoint, true).absoluteString(), volume));
  }
  return all;
}

}  // namespace quillon
