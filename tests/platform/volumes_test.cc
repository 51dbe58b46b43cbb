#include "quillon/platform/internal/volumes.h"

#include <gtest/gtest.h>

#include "quillon/platform/internal/mount_table.h"

namespace quillon {
namespace {

constexpr std::string_view kSample =
    "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard\n"
    "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
    "60 27 0:50 / /mnt/nas rw,relatime shared:30 - nfs4 fileserver:/exports/team rw,vers=4.2\n"
    "61 27 0:51 / /mnt/old\\040share rw - nfs [fd00::1]:/srv/old\\040files rw\n"
    "62 27 0:52 / /media/smb rw,relatime - cifs //winbox/Shared\\040Docs rw,vers=3.0\n"
    "63 27 0:53 / /home/ann/remote rw,nosuid - fuse.sshfs ann@build.example:projects rw\n"
    "64 27 0:54 / /home/ann/abs rw,nosuid - fuse.sshfs build.example:/var/www rw\n"
    "65 27 8:17 / /media/ann/USB\\040STICK rw - vfat /dev/sdb1 rw\n"
    "garbage line without fields\n"
    "66 27 0:55 / relative rw - tmpfs tmpfs rw\n"
    "67 27 0:56 / /mnt/nas/inner rw - tmpfs tmpfs rw\n"
    "68 27 0:57 / /mnt/nas/inner rw - ext4 /dev/sdc1 rw\n";

TEST(MountTableTest, ParsesFieldsAndUndoesEscapes) {
  std::vector<MountEntry> entries = MountTable::parse(kSample);
  // The garbage line and the one with a relative mount point are skipped.
  ASSERT_EQ(entries.size(), 10u);
  EXPECT_EQ(entries[0].mountId, 27);
  EXPECT_EQ(entries[0].parentId, 1);
  EXPECT_EQ(entries[0].majorMinor, "254:0");
  EXPECT_EQ(entries[0].fileSystemType, "ext4");
  EXPECT_EQ(entries[0].source, "/dev/vda");
  EXPECT_EQ(entries[0].superOptions, "rw,discard");
  // Optional fields ("shared:30") do not shift the ones after the separator.
  EXPECT_EQ(entries[2].fileSystemType, "nfs4");
  EXPECT_EQ(entries[2].source, "fileserver:/exports/team");
  EXPECT_EQ(entries[3].mountPoint, "/mnt/old share");
  EXPECT_EQ(entries[3].source, "[fd00::1]:/srv/old files");
  EXPECT_EQ(entries[7].mountPoint, "/media/ann/USB STICK");

  EXPECT_EQ(MountTable::unescape("a\\011b\\012c\\134d"), "a\tb\nc\\d");
  EXPECT_EQ(MountTable::unescape("trailing\\04"), "trailing\\04");
  EXPECT_EQ(MountTable::unescape("not\\9999octal"), "not\\9999octal");
  EXPECT_TRUE(MountTable::parse("").empty());
  EXPECT_TRUE(MountTable::parse("1 2 3 4 5 6 7 - \n").empty());
}

TEST(MountTableTest, LongestWholeComponentMountPointWinsAndNetworkFileSystemsAreKnown) {
  std::vector<MountEntry> entries = MountTable::parse(kSample);
  auto mountFor = [&](std::string_view path) {
    const MountEntry* e = MountTable::entryForPath(entries, path);
    return e ? e->mountPoint + "|" + e->fileSystemType : std::string("none");
  };
  EXPECT_EQ(mountFor("/"), "/|ext4");
  EXPECT_EQ(mountFor("/mnt/nas/doc.quillon/Changes"), "/mnt/nas|nfs4");
  EXPECT_EQ(mountFor("/mnt/nas"), "/mnt/nas|nfs4");
  EXPECT_EQ(mountFor("/mnt/nasty/file"), "/|ext4");
  EXPECT_EQ(mountFor("/mnt/old share/x"), "/mnt/old share|nfs");
  // Mounted over: the later entry hides the earlier one.
  EXPECT_EQ(mountFor("/mnt/nas/inner/x"), "/mnt/nas/inner|ext4");
  EXPECT_EQ(mountFor("relative/path"), "none");

  // Known FUSE network subtypes count as network; a FUSE block device does not.
  // Known FUSE network subtypes count as network; a FUSE block device does not.
  for (std::string_view type : {"nfs4", "cifs", "fuse.sshfs", "fuse.rclone"}) {
    EXPECT_TRUE(MountTable::isNetworkFileSystem(type)) << type;
  }
  for (std::string_view type : {"ext4", "tmpfs", "fuseblk", "overlay"}) {
    EXPECT_FALSE(MountTable::isNetworkFileSystem(type)) << type;
  }
  EXPECT_TRUE(MountTable::isPseudoFileSystem("cgroup2"));
  EXPECT_FALSE(MountTable::isPseudoFileSystem("ext4"));
  EXPECT_EQ(MountTable::formatDescription("fuse.sshfs"), "SSHFS");
  EXPECT_EQ(MountTable::formatDescription("somethingnew"), "somethingnew");
}

}  // namespace
}  // namespace quillon
