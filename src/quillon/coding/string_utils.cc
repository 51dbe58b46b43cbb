#include "quillon/coding/internal/string_utils.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <mutex>

#include "quillon/coding/internal/data_utils.h"
#include "quillon/coding/internal/url_utils.h"
#include "quillon/platform/internal/localization.h"
#include "quillon/platform/internal/volumes.h"

namespace quillon {
namespace {

constexpr std::string_view kEllipsis = "\u2026";
constexpr std::string_view kBackupDatabaseName = "Backups.backupdb";

// The length of the UTF-8 sequence starting at `i`; 1 for a byte that does
// not start a well-formed sequence, so hostile text still advances.
size_t codePointLength(std::string_view text, size_t i) {
  unsigned char lead = static_cast<unsigned char>(text[i]);
  size_t length = lead < 0x80           ? 1
                  : (lead >> 5) == 0x6  ? 2
                  : (lead >> 4) == 0xE  ? 3
                  : (lead >> 3) == 0x1E ? 4
                                        : 0;
  if (length == 0 || i + length > text.size()) return 1;
  for (size_t k = 1; k < length; ++k) {
    if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return 1;
  }
  return length;
}

std::mutex& providerMutex() {
  static std::mutex m;
  return m;
}

BackupProvider& provider() {
  static BackupProvider p;
  return p;
}

std::vector<std::string> sortedSubfolders(Env* env, const std::string& folder) {
  std::vector<std::string> names;
  if (env->listDirectory(folder, &names)) return {};
  std::vector<std::string> folders;
  for (auto& name : names) {
    if (env->isDirectory(folder + "/" + name)) folders.push_back(std::move(name));
  }
  std::sort(folders.begin(), folders.end());
  return folders;
}

}  // namespace

std::string storeUID(std::string_view path) {
  size_t slash = path.rfind('/');
  std::string_view last = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (!last.empty() && (last.front() == 'p' || last.front() == 't')) last.remove_prefix(1);
  return std::string(last);
}

std::string storeUIDOff(std::string_view path) { return storeUID(path); }

std::string storeEntityName(std::string_view path) {
  size_t start = path.find_first_not_of('/');
  if (start == std::string_view::npos) return {};
  size_t end = path.find('/', start);
  return std::string(path.substr(start, end == std::string_view::npos ? end : end - start));
}

std::string storeSHA256String(std::string_view text) {
  std::array<uint8_t, 32> digest;
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    return {};
  }
  return quillonHexadecimalString(std::span<const uint8_t>(digest.data(), length));
}

std::string storeMD5String(std::string_view text) {
  std::array<uint8_t, 16> digest;
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_md5(), nullptr) != 1) {
    return {};
  }
  return quillonHexadecimalString(std::span<const uint8_t>(digest.data(), length));
}

std::string QuillonLocalizedString(std::string_view key) { return localizedString(key); }

std::string anonymize(std::string_view text) {
  // Find the first and last characters and whether there is a third one,
  // without decoding more than needed.
  if (text.empty()) return std::string(kEllipsis);
  size_t firstLength = codePointLength(text, 0);
  size_t count = 1;
  size_t lastStart = 0;
  for (size_t i = firstLength; i < text.size(); i += codePointLength(text, i)) {
    lastStart = i;
    ++count;
  }
  if (count < 3) return std::string(kEllipsis);
  std::string result(text.substr(0, firstLength));
  result += kEllipsis;
  result += text.substr(lastStart);
  return result;
}

Value anonymize(const Value& value) {
  if (!value.isString()) return Value();
  return Value::string(anonymize(value.str()));
}

void setBackupProvider(BackupProvider p) {
  std::lock_guard lock(providerMutex());
  provider() = std::move(p);
}

std::vector<std::string> mountedBackupDatabases(Env* env) {
  std::vector<std::string> databases;
  auto add = [&](std::string path) {
    if (std::find(databases.begin(), databases.end(), path) == databases.end()) {
      databases.push_back(std::move(path));
    }
  };
  for (const VolumeInfo& volume : Volumes::mountedVolumes()) {
    std::string root = volume.mountPoint == "/" ? "" : volume.mountPoint;
    std::string atRoot = root + "/" + std::string(kBackupDatabaseName);
    if (env->isDirectory(atRoot)) {
      add(atRoot);
      continue;
    }
    std::string marker = "/" + std::string(kBackupDatabaseName);
    for (size_t at = root.find(marker); at != std::string::npos; at = root.find(marker, at + 1)) {
      size_t end = at + marker.size();
      if (end == root.size() || root[end] == '/') {
        add(root.substr(0, end));
        break;
      }
    }
  }
  return databases;
}

std::vector<std::string> timeMachineBackupPath(std::string_view path, Env* env) {
  BackupProvider current;
  {
    std::lock_guard lock(providerMutex());
    current = provider();
  }
  if (!current || path.empty()) return {};
  std::string volumeName(QuillonVolumeInformation(Url::fileURL(path), env).get("Name").str());
  std::string relative(path);
  if (relative.front() != '/') relative.insert(relative.begin(), '/');

  std::vector<std::string> copies;
  for (const std::string& database : current()) {
    for (const std::string& machine : sortedSubfolders(env, database)) {
      std::string machineFolder = database + "/" + machine;
      std::vector<std::string> snapshots = sortedSubfolders(env, machineFolder);
      for (auto it = snapshots.rbegin(); it != snapshots.rend(); ++it) {
        std::string candidate = machineFolder + "/" + *it + "/" + volumeName + relative;
        if (env->exists(candidate)) copies.push_back(std::move(candidate));
      }
    }
  }
  return copies;
}

}  // namespace quillon
