#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {

// One line of /proc/self/mountinfo, with the kernel's octal escapes ("\040"
// for a space) undone. A plain value.
struct MountEntry {
  int mountId = 0;
  int parentId = 0;
  std::string majorMinor;  // "254:0"
  std::string root;        // the mounted folder inside its file system
  std::string mountPoint;
  std::string mountOptions;
  std::string fileSystemType;  // "ext4", "nfs4", "fuse.sshfs"
  std::string source;          // "/dev/sda1", "server:/export", "//server/share"
  std::string superOptions;
};

// Pure functions over mount tables, kept apart from the system so that they
// can be checked against sample text. Stateless and thread-safe.
class MountTable {
 public:
  // Parses mountinfo text; malformed lines are skipped.
  static std::vector<MountEntry> parse(std::string_view mountinfo);
  // Undoes the kernel's octal escapes ("\040", "\011", "\012", "\134").
  static std::string unescape(std::string_view field);

  // The entry whose mount point is the longest whole-component prefix of an
  // absolute, resolved path; the last listed one when a mount point is
  // mounted over. nullptr when none matches.
  static const MountEntry* entryForPath(const std::vector<MountEntry>& entries,
                                        std::string_view path);

  // Whether the file system type names a network or other remote file system.
  static bool isNetworkFileSystem(std::string_view type);
  // Kernel and FUSE-internal file systems that are not volumes a person
  // would recognise (proc, sysfs, cgroup …).
  static bool isPseudoFileSystem(std::string_view type);
  // A human-readable name of the file system type ("NFS", "SMB", "ext4").
  static std::string formatDescription(std::string_view type);
  // Where a network volume would be remounted from: "nfs://server/export",
  // "smb://server/share", "sftp://user@host/path"; nullopt for local volumes
  // and sources that do not say.
  static std::optional<std::string> remountURL(const MountEntry& entry);
};

}  // namespace quillon
