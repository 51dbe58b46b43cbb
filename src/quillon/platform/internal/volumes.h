#pragma once

#include <optional>
#include <string>
#include <vector>

#include "quillon/base/value.h"

namespace quillon {

// What the system knows about one mounted volume. Every field except the mount
// point may be unknown (nullopt), as on systems that cannot tell.
struct VolumeInfo {
  std::string mountPoint;                   // absolute path of the volume's root
  std::string device;                       // mount source as listed (/dev/sda1, server:/export)
  std::optional<std::string> name;          // the label, else the last component of the mount point
  std::optional<std::string> format;        // human-readable file-system name ("ext4", "NFS")
  std::optional<bool> isLocal;              // false for NFS, SMB/CIFS, SSHFS and other remote FUSE, WebDAV
  std::optional<bool> isEjectable;
  std::optional<bool> isInternal;
  std::optional<std::string> remountURL;    // where a network volume would be remounted from
  Value deviceCharacteristics = Value::dictionary();  // of the storage device; empty when unknown
};

// The mounted volumes of this machine, read from /proc/self/mountinfo, GIO and
// sysfs. Stateless and thread-safe.
class Volumes {
 public:
  // The volume holding an existing path (the mount with the longest matching
  // mount point); nullopt when the path does not exist.
  static std::optional<VolumeInfo> volumeForPath(const std::string& path);
  // Every mounted volume, in the order the system lists them; kernel pseudo
  // file systems (proc, sysfs, cgroup …) are left out.
  static std::vector<VolumeInfo> mountedVolumes();
};

}  // namespace quillon
