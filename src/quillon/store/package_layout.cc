#include "quillon/store/package_layout.h"

#include <fmt/format.h>

#include <algorithm>

#include "quillon/base/env.h"
#include "quillon/base/version.h"
#include "quillon/coding/internal/data_utils.h"
#include "quillon/store/internal/package_format.h"

namespace quillon {
namespace {

bool isDigits(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool isHexDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
  });
}

// "yyyy-MM-dd-HH-mm-ss.SSS": fixed widths, digits and separators.
bool isChangeDate(std::string_view date) {
  static constexpr std::string_view kShape = "0000-00-00-00-00-00.000";
  if (date.size() != kShape.size()) return false;
  for (size_t i = 0; i < kShape.size(); ++i) {
    if (kShape[i] == '0' ? !isDigits(date.substr(i, 1)) : date[i] != kShape[i]) return false;
  }
  return true;
}

bool isUUID(std::string_view text) {
  static constexpr size_t kGroups[] = {8, 4, 4, 4, 12};
  size_t at = 0;
  for (size_t g = 0; g < 5; ++g) {
    if (g > 0) {
      if (at >= text.size() || text[at] != '-') return false;
      ++at;
    }
    if (text.size() < at + kGroups[g] || !isHexDigits(text.substr(at, kGroups[g]))) return false;
    at += kGroups[g];
  }
  return at == text.size();
}

constexpr size_t kChangeNameLength = 23 + 1 + 36;

bool hasJSONExtension(std::string_view name) {
  return name.size() > kChangeFileExtension.size() &&
         name.substr(name.size() - kChangeFileExtension.size()) == kChangeFileExtension;
}

}  // namespace

PackageLayout::PackageLayout(Url package) : package_(std::move(package)) {}

Url PackageLayout::info() const { return package_.appending(kPackageInfoFileName); }
Url PackageLayout::entities() const { return package_.appending(kPackageEntitiesFolder, true); }
Url PackageLayout::changes() const { return package_.appending(kPackageChangesFolder, true); }
Url PackageLayout::invalidChanges() const {
  return package_.appending(kPackageInvalidChangesFolder, true);
}
Url PackageLayout::errors() const { return package_.appending(kPackageErrorsFolder, true); }
Url PackageLayout::cache() const { return package_.appending(kPackageCacheFolder, true); }

std::optional<Url> PackageLayout::entityFolder(std::string_view entityKey) const {
  if (!isSafePathComponent(entityKey)) return std::nullopt;
  return entities().appending(entityKey, true);
}

std::optional<Url> PackageLayout::objectFolder(std::string_view entityKey,
                                               std::string_view uid) const {
  if (!isSafePathComponent(uid)) return std::nullopt;
  std::optional<Url> folder = entityFolder(entityKey);
  if (!folder) return std::nullopt;
  return folder->appending(uid, true);
}

std::optional<Url> PackageLayout::record(std::string_view entityKey, std::string_view uid,
                                         std::string_view changeFileName) const {
  if (!isSafePathComponent(changeFileName)) return std::nullopt;
  std::optional<Url> folder = objectFolder(entityKey, uid);
  if (!folder) return std::nullopt;
  return folder->appending(changeFileName);
}

std::optional<Url> PackageLayout::dataFolder(std::string_view entityKey,
                                             std::string_view uid) const {
  std::optional<Url> folder = objectFolder(entityKey, uid);
  if (!folder) return std::nullopt;
  return folder->appending(kPackageDataFolder, true);
}

std::optional<Url> PackageLayout::dataFile(std::string_view entityKey, std::string_view uid,
                                           std::string_view dataFileName) const {
  if (!isSafePathComponent(dataFileName)) return std::nullopt;
  std::optional<Url> folder = dataFolder(entityKey, uid);
  if (!folder) return std::nullopt;
  return folder->appending(dataFileName);
}

std::optional<Url> PackageLayout::changeFile(std::string_view changeFileName) const {
  if (!isSafePathComponent(changeFileName)) return std::nullopt;
  return changes().appending(changeFileName);
}

std::string PackageLayout::shortText(const Url& url) const {
  std::string text = url.absoluteString();
  const std::string package = package_.absoluteString();
  if (package.empty()) return text;
  std::string shortened;
  size_t from = 0;
  for (size_t at = text.find(package); at != std::string::npos; at = text.find(package, from)) {
    shortened.append(text, from, at - from);
    from = at + package.size();
  }
  shortened.append(text, from, std::string::npos);
  return shortened;
}

std::string PackageLayout::entityKey(std::string_view entityName, bool encrypted) {
  if (!encrypted) return std::string(entityName);
  // The salt is not known when the keys are made, so the digest's first
  // field is always the text of an absent value; existing encrypted
  // packages are named this way.
  return quillonSHA256HexDigest(
      fmt::format("(null).{}.{}", entityName, kQuillonFrameworkIdentifier));
}

bool isSafePathComponent(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  return name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

bool isChangeName(std::string_view name) {
  return name.size() == kChangeNameLength && isChangeDate(name.substr(0, 23)) && name[23] == '.' &&
         isUUID(name.substr(24));
}

bool isChangeFileName(std::string_view fileName) {
  return hasJSONExtension(fileName) &&
         isChangeName(fileName.substr(0, fileName.size() - kChangeFileExtension.size()));
}

std::optional<std::string> conflictCopyOf(std::string_view fileName) {
  // A copy keeps the change's name and adds its own mark before ".json".
  if (!hasJSONExtension(fileName) ||
      fileName.size() <= kChangeNameLength + kChangeFileExtension.size()) {
    return std::nullopt;
  }
  std::string_view name = fileName.substr(0, kChangeNameLength);
  std::string_view mark = fileName.substr(
      kChangeNameLength, fileName.size() - kChangeNameLength - kChangeFileExtension.size());
  if (!isChangeName(name)) return std::nullopt;
  bool known = mark.starts_with(".sync-conflict-") || mark.starts_with(" (") ||
               mark.starts_with("-conflict") || mark.starts_with("_conflict");
  if (!known) return std::nullopt;
  return std::string(name) + std::string(kChangeFileExtension);
}

Error listChangeFiles(Env* env, const Url& changesFolder, std::vector<std::string>* names,
                      std::vector<std::string>* conflictCopies) {
  names->clear();
  const std::string path = changesFolder.path();
  if (path.empty() || !env->exists(path)) return Error();
  std::vector<std::string> listed;
  if (Error error = env->listDirectory(path, &listed)) return error;
  for (std::string& name : listed) {
    if (isChangeFileName(name)) {
      names->push_back(std::move(name));
    } else if (conflictCopies && conflictCopyOf(name)) {
      conflictCopies->push_back(std::move(name));
    }
  }
  std::sort(names->begin(), names->end());
  if (conflictCopies) std::sort(conflictCopies->begin(), conflictCopies->end());
  return Error();
}

Url correctedDataURL(Env* env, const Url& url) {
  std::string wanted = url.path();
  if (env->exists(wanted)) return url;
  Url folder = url.deletingLastPathComponent();
  std::vector<std::string> names;
  if (env->listDirectory(folder.path(), &names)) return url;
  // Sorted, so that the choice among several candidates is the same on
  // every computer.
  std::sort(names.begin(), names.end());
  std::string folderPath = folder.path();
  for (const std::string& name : names) {
    std::string candidate = folderPath == "/" ? "/" + name : folderPath + "/" + name;
    if (candidate.compare(0, wanted.size(), wanted) == 0) return folder.appending(name);
  }
  return url;
}

}  // namespace quillon
