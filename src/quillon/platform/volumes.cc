#include "quillon/platform/internal/volumes.h"

#include <gio/gio.h>
#include <limits.h>
#include <stdlib.h>

#include <string_view>

#include "quillon/base/env.h"
#include "quillon/platform/internal/mount_table.h"

namespace quillon {
namespace {

std::optional<std::string> resolvedPath(const std::string& path) {
  char buffer[PATH_MAX];
  if (!::realpath(path.c_str(), buffer)) return std::nullopt;
  return std::string(buffer);
}

std::string trimmed(std::string_view s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string_view::npos) return {};
  size_t e = s.find_last_not_of(" \t\r\n");
  return std::string(s.substr(b, e - b + 1));
}

// A small sysfs or proc file, trimmed; nullopt when missing or empty.
std::optional<std::string> readSmallFile(const std::string& path) {
  std::vector<uint8_t> bytes;
  if (Env::Default()->readFile(path, &bytes)) return std::nullopt;
  std::string text =
      trimmed(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  if (text.empty()) return std::nullopt;
  return text;
}

std::vector<MountEntry> currentMounts() {
  std::vector<uint8_t> bytes;
  if (Env::Default()->readFile("/proc/self/mountinfo", &bytes)) return {};
  return MountTable::parse(
      std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

// udev writes unsafe characters of labels as "\xHH".
std::string unescapeUdev(std::string_view name) {
  std::string out;
  for (size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '\\' && i + 3 < name.size() && name[i + 1] == 'x') {
      char hex[3] = {name[i + 2], name[i + 3], 0};
      char* end = nullptr;
      long value = std::strtol(hex, &end, 16);
      if (end == hex + 2) {
        out.push_back(static_cast<char>(value));
        i += 3;
        continue;
      }
    }
    out.push_back(name[i]);
  }
  return out;
}

std::optional<std::string> labelForDevice(const std::string& source) {
  if (source.rfind("/dev/", 0) != 0) return std::nullopt;
  std::optional<std::string> device = resolvedPath(source);
  if (!device) return std::nullopt;
  const std::string folder = "/dev/disk/by-label";
  std::vector<std::string> names;
  if (Env::Default()->listDirectory(folder, &names)) return std::nullopt;
  for (const std::string& name : names) {
    std::optional<std::string> target = resolvedPath(folder + "/" + name);
    if (target && *target == *device) return unescapeUdev(name);
  }
  return std::nullopt;
}

std::string lastComponent(const std::string& mountPoint) {
  if (mountPoint == "/") return mountPoint;
  size_t slash = mountPoint.find_last_of('/');
  return slash == std::string::npos ? mountPoint : mountPoint.substr(slash + 1);
}

// GIO's own answer, from the file system's statfs magic.
std::optional<bool> gioSaysRemote(const std::string& mountPoint) {
  GFile* file = g_file_new_for_path(mountPoint.c_str());
  GFileInfo* info =
      g_file_query_filesystem_info(file, G_FILE_ATTRIBUTE_FILESYSTEM_REMOTE, nullptr, nullptr);
  g_object_unref(file);
  if (!info) return std::nullopt;
  std::optional<bool> remote;
  if (g_file_info_has_attribute(info, G_FILE_ATTRIBUTE_FILESYSTEM_REMOTE)) {
    remote = g_file_info_get_attribute_boolean(info, G_FILE_ATTRIBUTE_FILESYSTEM_REMOTE) != FALSE;
  }
  g_object_unref(info);
  return remote;
}

// Fills removability, bus and device characteristics from sysfs for volumes
// backed by a block device.
void describeBlockDevice(const MountEntry& entry, VolumeInfo* info) {
  std::optional<std::string> devicePath = resolvedPath("/sys/dev/block/" + entry.majorMinor);
  if (!devicePath) return;
  std::string disk = *devicePath;
  if (Env::Default()->exists(disk + "/partition")) disk = disk.substr(0, disk.find_last_of('/'));

  bool removable = readSmallFile(disk + "/removable").value_or("0") == "1";
  bool usb = devicePath->find("/usb") != std::string::npos;
  info->isEjectable = removable || usb;
  info->isInternal = !removable && !usb;

  Value characteristics = Value::mutableDictionary();
  if (std::optional<std::string> rotational = readSmallFile(disk + "/queue/rotational")) {
    characteristics.set("Medium Type", *rotational == "0" ? "Solid State" : "Rotational");
  }
  if (std::optional<std::string> model = readSmallFile(disk + "/device/model")) {
    characteristics.set("Product Name", *model);
  }
  if (std::optional<std::string> vendor = readSmallFile(disk + "/device/vendor")) {
    characteristics.set("Vendor Name", *vendor);
  }
  info->deviceCharacteristics = characteristics;
}

VolumeInfo describe(const MountEntry& entry) {
  VolumeInfo info;
  info.mountPoint = entry.mountPoint;
  info.device = entry.source;
  info.format = MountTable::formatDescription(entry.fileSystemType);
  info.name = labelForDevice(entry.source).value_or(lastComponent(entry.mountPoint));

  if (MountTable::isNetworkFileSystem(entry.fileSystemType)) {
    info.isLocal = false;
    info.isEjectable = false;
    info.isInternal = false;
    info.remountURL = MountTable::remountURL(entry);
    return info;
  }
  // Unknown FUSE and other types: GIO may still know them to be remote. Known
  // network types never get here, so a hung server cannot block this call.
  std::optional<bool> remote;
  if (!MountTable::isPseudoFileSystem(entry.fileSystemType))
    remote = gioSaysRemote(entry.mountPoint);
  info.isLocal = !remote.value_or(false);
  if (!*info.isLocal) {
    info.isEjectable = false;
    info.isInternal = false;
    return info;
  }
  describeBlockDevice(entry, &info);
  return info;
}

}  // namespace

std::optional<VolumeInfo> Volumes::volumeForPath(const std::string& path) {
  std::optional<std::string> resolved = resolvedPath(path);
  if (!resolved) return std::nullopt;
  std::vector<MountEntry> mounts = currentMounts();
  const MountEntry* entry = MountTable::entryForPath(mounts, *resolved);
  if (!entry) return std::nullopt;
  return describe(*entry);
}

std::vector<VolumeInfo> Volumes::mountedVolumes() {
  std::vector<VolumeInfo> volumes;
  for (const MountEntry& entry : currentMounts()) {
    if (MountTable::isPseudoFileSystem(entry.fileSystemType)) continue;
    volumes.push_back(describe(entry));
  }
  return volumes;
}

}  // namespace quillon
