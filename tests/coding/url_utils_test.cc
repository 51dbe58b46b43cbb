#include "quillon/coding/internal/url_utils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "quillon/base/internal/user_defaults.h"
#include "quillon/platform/internal/volumes.h"
#include "support/fault_env.h"
#include "support/private_home.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

// Creates a file (and its folders) quickly; `placeholder` gives it a logical
// size without allocated blocks, as a sync service leaves for contents it
// keeps only in the cloud.
void touch(const std::string& path, bool placeholder = false) {
  ASSERT_FALSE(Env::Default()->createDirectories(path.substr(0, path.rfind('/'))));
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0) << path;
  if (placeholder) {
    ASSERT_EQ(::ftruncate(fd, 4096), 0);
  } else {
    ASSERT_EQ(::write(fd, "data", 4), 4);
  }
  ::close(fd);
}

std::string numbered(int i) {
  char name[16];
  std::snprintf(name, sizeof name, "item%03d", i);
  return name;
}

TEST(IsOnDiskTest, FilesByAllocatedBlocks) {
  TempDir dir;
  dir.write("empty", "");
  touch(dir.file("present"));
  touch(dir.file("evicted"), true);
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("missing")));
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("missing/below")));
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("empty")));
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("present")));
  EXPECT_FALSE(QuillonIsOnDisk(dir.file("evicted")));
  EXPECT_FALSE(QuillonIsOnDisk(Url::fileURL(dir.file("evicted"))));
  ASSERT_EQ(::symlink("evicted", dir.file("link").c_str()), 0);
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("link")));  // a link is no placeholder itself
}

TEST(IsOnDiskTest, FoldersLookAtTheirFirst101Items) {
  TempDir dir;
  ASSERT_FALSE(Env::Default()->createDirectories(dir.file("empty")));
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("empty")));

  // 150 items listed by name: the 101st is still examined, the 102nd is not.
  for (int i = 1; i <= 150; ++i) {
    touch(dir.file("late/" + numbered(i)), i == 101);
    touch(dir.file("later/" + numbered(i)), i == 102);
  }
  EXPECT_FALSE(QuillonIsOnDisk(dir.file("late")));
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("later")));
  EXPECT_FALSE(QuillonIsOnDisk(dir.file("later/" + numbered(102))));

  // Subfolders are listed before their parent's later items.
  touch(dir.file("nested/a/b/c/note.json"));
  touch(dir.file("nested/a/b/c/record"), true);
  touch(dir.file("nested/z"));
  EXPECT_FALSE(QuillonIsOnDisk(dir.file("nested")));
  EXPECT_FALSE(QuillonIsOnDisk(Url::fileURL(dir.file("nested"), true)));
}

TEST(IsOnDiskTest, ASubfolderAnswersForItsOwnFirstItems) {
  TempDir dir;
  // The parent's items are "a", then a's items. a/item101 is the parent's
  // 102nd item, beyond its own limit, but a's 101st: asking about "a" finds it.
  for (int i = 1; i <= 130; ++i) {
    touch(dir.file("found/a/" + numbered(i)), i == 101);
    touch(dir.file("missed/a/" + numbered(i)), i == 102);
  }
  EXPECT_FALSE(QuillonIsOnDisk(dir.file("found")));
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("missed")));
}

TEST(IsOnDiskTest, NestedFoldersAreCheckedOnceEach) {
  TempDir dir;
  // A binary tree of folders seven levels deep: asking every folder again
  // for every ancestor would take over 20000 look-ups, once each about 2200.
  std::function<void(const std::string&, int)> grow = [&](const std::string& path, int depth) {
    if (depth == 7) {
      touch(path + "/f");
      return;
    }
    grow(path + "/0", depth + 1);
    grow(path + "/1", depth + 1);
  };
  grow(dir.file("tree"), 0);
  touch(dir.file("tree/1/1/1/1/1/1/1/f"), true);  // far beyond the first 101 items

  FaultInjectingEnv env;
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("tree"), &env));
  EXPECT_LT(env.count(FaultInjectingEnv::Op::Attributes), 5000u);
  EXPECT_FALSE(QuillonIsOnDisk(dir.file("tree/1/1/1/1/1"), &env));
}

TEST(IsOnDiskTest, UnreadableFolderCountsAsPresent) {
  TempDir dir;
  touch(dir.file("folder/file"), true);
  FaultInjectingEnv env;
  env.failAfter(FaultInjectingEnv::Op::List, "folder", 0, FaultInjectingEnv::Fault::IoError);
  EXPECT_TRUE(QuillonIsOnDisk(dir.file("folder"), &env));
}

TEST(VolumeTest, VolumeUrlWalksUpToAnExistingFolder) {
  TempDir dir;
  auto volume = Volumes::volumeForPath(dir.path());
  ASSERT_TRUE(volume);
  auto url = QuillonVolumeURL(Url::fileURL(dir.file("not/yet/created.quillon")));
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), volume->mountPoint);
  EXPECT_TRUE(url->hasDirectoryPath());
  EXPECT_FALSE(QuillonVolumeURL(*Url::parse("https://example.invalid/x")));
}

// The standard user defaults live in the test program's private home.
class IsLocalUrlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::privateHome();
    UserDefaults::setStandardApplicationIdentifier("org.quillon.url-utils-test");
  }
  void TearDown() override {
    UserDefaults::standard().removeObject(kQuillonIgnoreNetworkVolumesWarningAtMyOwnRisk);
    UserDefaults::setStandardApplicationIdentifier("org.quillon.cli");
  }
};

TEST_F(IsLocalUrlTest, FollowsTheVolumeUnlessTheUserSaysOtherwise) {
  TempDir dir;
  const Url url = Url::fileURL(dir.file("Doc.quillon"), true);
  auto volume = Volumes::volumeForPath(dir.path());
  ASSERT_TRUE(volume);
  EXPECT_EQ(QuillonIsLocalURL(url), volume->isLocal.value_or(true));

  // With the override every location is local, even one without a volume.
  UserDefaults::standard().setObject(kQuillonIgnoreNetworkVolumesWarningAtMyOwnRisk, true);
  EXPECT_TRUE(QuillonIsLocalURL(url));
  EXPECT_TRUE(QuillonIsLocalURL(*Url::parse("https://example.invalid/x")));
}

}  // namespace
}  // namespace quillon
