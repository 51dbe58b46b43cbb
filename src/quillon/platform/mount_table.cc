#include "quillon/platform/internal/mount_table.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "quillon/base/url.h"

namespace quillon {
namespace {

std::vector<std::string_view> splitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && line[i] == ' ') ++i;
    if (i >= line.size()) break;
    size_t end = line.find(' ', i);
    if (end == std::string_view::npos) end = line.size();
    fields.push_back(line.substr(i, end - i));
    i = end;
  }
  return fields;
}

bool parseInt(std::string_view text, int* out) {
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), *out);
  return ec == std::errc() && ptr == text.data() + text.size();
}

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

constexpr std::array<std::string_view, 14> kNetworkTypes = {
    "nfs", "nfs4",  "cifs", "smb3",      "smbfs",  "ncpfs", "afs",
    "9p",  "davfs", "ceph", "glusterfs", "lustre", "coda",  "fuse.davfs"};

// FUSE file systems that reach over the network.
constexpr std::array<std::string_view, 12> kRemoteFuseTypes = {
    "fuse.sshfs",      "fuse.rclone",    "fuse.s3fs",      "fuse.gcsfuse",
    "fuse.curlftpfs",  "fuse.goofys",    "fuse.glusterfs", "fuse.cephfs",
    "fuse.gvfsd-fuse", "fuse.onedriver", "fuse.smbnetfs",  "fuse.httpfs"};

constexpr std::array<std::string_view, 22> kPseudoTypes = {
    "proc",     "sysfs",     "cgroup",     "cgroup2",     "devpts",     "mqueue",
    "debugfs",  "tracefs",   "securityfs", "pstore",      "bpf",        "configfs",
    "fusectl",  "hugetlbfs", "autofs",     "binfmt_misc", "rpc_pipefs", "nsfs",
    "efivarfs", "devtmpfs",  "selinuxfs",  "ramfs"};

template <size_t N>
bool contains(const std::array<std::string_view, N>& list, std::string_view value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

// "host:/path" → {"host", "/path"}; IPv6 hosts come in brackets.
bool splitHostPath(std::string_view source, std::string* host, std::string* path) {
  size_t colon;
  if (!source.empty() && source[0] == '[') {
    size_t close = source.find(']');
    if (close == std::string_view::npos) return false;
    colon = source.find(':', close);
  } else {
    colon = source.find(':');
  }
  if (colon == std::string_view::npos || colon == 0) return false;
  *host = std::string(source.substr(0, colon));
  *path = std::string(source.substr(colon + 1));
  return true;
}

}  // namespace

std::string MountTable::unescape(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      int value = 0;
      bool octal = true;
      for (size_t k = 1; k <= 3; ++k) {
        char c = field[i + k];
        if (c < '0' || c > '7') {
          octal = false;
          break;
        }
        value = value * 8 + (c - '0');
      }
      if (octal && value < 256) {
        out.push_back(static_cast<char>(value));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

std::vector<MountEntry> MountTable::parse(std::string_view mountinfo) {
  std::vector<MountEntry> entries;
  size_t start = 0;
  while (start < mountinfo.size()) {
    size_t end = mountinfo.find('\n', start);
    if (end == std::string_view::npos) end = mountinfo.size();
    std::string_view line = mountinfo.substr(start, end - start);
    start = end + 1;

    // id parent major:minor root mount-point options [optional…] - type source super-options
    std::vector<std::string_view> f = splitFields(line);
    auto separator = std::find(f.begin(), f.end(), std::string_view("-"));
    if (f.size() < 6 || separator == f.end() || separator - f.begin() < 6 ||
        f.end() - separator < 3) {
      continue;
    }
    MountEntry e;
    if (!parseInt(f[0], &e.mountId) || !parseInt(f[1], &e.parentId)) continue;
    e.majorMinor = std::string(f[2]);
    e.root = unescape(f[3]);
    e.mountPoint = unescape(f[4]);
    if (e.mountPoint.empty() || e.mountPoint[0] != '/') continue;
    e.mountOptions = std::string(f[5]);
    e.fileSystemType = unescape(separator[1]);
    e.source = unescape(separator[2]);
    if (f.end() - separator >= 4) e.superOptions = std::string(separator[3]);
    entries.push_back(std::move(e));
  }
  return entries;
}

const MountEntry* MountTable::entryForPath(const std::vector<MountEntry>& entries,
                                           std::string_view path) {
  const MountEntry* best = nullptr;
  for (const MountEntry& e : entries) {
    std::string_view mp = e.mountPoint;
    bool matches;
    if (mp == "/") {
      matches = !path.empty() && path[0] == '/';
    } else {
      matches = startsWith(path, mp) && (path.size() == mp.size() || path[mp.size()] == '/');
    }
    // ">=" so that a later mount over the same point wins.
    if (matches && (!best || mp.size() >= best->mountPoint.size())) best = &e;
  }
  return best;
}

bool MountTable::isNetworkFileSystem(std::string_view type) {
  return contains(kNetworkTypes, type) || contains(kRemoteFuseTypes, type);
}

bool MountTable::isPseudoFileSystem(std::string_view type) { return contains(kPseudoTypes, type); }

std::string MountTable::formatDescription(std::string_view type) {
  struct Name {
    std::string_view type;
    std::string_view description;
  };
  static constexpr Name kNames[] = {{"nfs", "NFS"},          {"nfs4", "NFS"},
                                    {"cifs", "SMB"},         {"smb3", "SMB"},
                                    {"smbfs", "SMB"},        {"ncpfs", "NetWare"},
                                    {"afs", "AFS"},          {"9p", "9P"},
                                    {"davfs", "WebDAV"},     {"fuse.davfs", "WebDAV"},
                                    {"fuse.sshfs", "SSHFS"}, {"fuse.rclone", "rclone"},
                                    {"ceph", "Ceph"},        {"glusterfs", "GlusterFS"},
                                    {"btrfs", "Btrfs"},      {"xfs", "XFS"},
                                    {"zfs", "ZFS"},          {"f2fs", "F2FS"},
                                    {"vfat", "FAT"},         {"msdos", "FAT"},
                                    {"exfat", "exFAT"},      {"ntfs", "NTFS"},
                                    {"ntfs3", "NTFS"},       {"fuseblk", "FUSE"},
                                    {"hfsplus", "HFS+"},     {"apfs", "APFS"},
                                    {"iso9660", "ISO 9660"}, {"udf", "UDF"},
                                    {"tmpfs", "tmpfs"},      {"overlay", "overlay"},
                                    {"squashfs", "SquashFS"}};
  for (const Name& n : kNames) {
    if (n.type == type) return std::string(n.description);
  }
  return std::string(type);
}

std::optional<std::string> MountTable::remountURL(const MountEntry& entry) {
  const std::string& type = entry.fileSystemType;
  const std::string& source = entry.source;
  std::string host;
  std::string path;
  if (type == "nfs" || type == "nfs4") {
    if (!splitHostPath(source, &host, &path)) return std::nullopt;
    if (path.empty() || path[0] != '/') path = "/" + path;
    return "nfs://" + host + Url::percentEncodePath(path);
  }
  if (type == "cifs" || type == "smb3" || type == "smbfs") {
    std::string_view s = source;
    if (startsWith(s, "//") || startsWith(s, "\\\\")) s.remove_prefix(2);
    if (s.empty()) return std::nullopt;
    std::string rest(s);
    std::replace(rest.begin(), rest.end(), '\\', '/');
    size_t slash = rest.find('/');
    host = rest.substr(0, slash);
    path = slash == std::string::npos ? "/" : rest.substr(slash);
    return "smb://" + host + Url::percentEncodePath(path);
  }
  if (type == "fuse.sshfs") {
    if (!splitHostPath(source, &host, &path)) return std::nullopt;
    // A relative path is relative to the remote home folder.
    if (path.empty() || path[0] != '/') path = "/~/" + path;
    return "sftp://" + host + Url::percentEncodePath(path);
  }
  if (type == "davfs" || type == "fuse.davfs") {
    if (startsWith(source, "http://") || startsWith(source, "https://")) return source;
    return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace quillon
