#include "quillon/base/env.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace quillon {
namespace {

std::vector<std::string> namesIn(Env* env, const std::string& folder) {
  std::vector<std::string> names;
  EXPECT_FALSE(env->listDirectory(folder, &names));
  std::sort(names.begin(), names.end());
  return names;
}

// A synchronisation service watching the folder must not meet a file of ours
// under a temporary name it would copy and then lose: a new file appears
// under its final name only, complete; a replaced one may pass through a
// temporary name, which then has the form such services leave alone.
TEST(EnvTest, AtomicWritesShowOnlyFinalOrIgnorableNamesToAWatcher) {
  TempDir dir;
  Env* env = Env::Default();
  int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(watch, 0);
  ASSERT_GE(::inotify_add_watch(watch, dir.path().c_str(), IN_CREATE | IN_MOVED_TO), 0);
  for (int i = 0; i < 20; ++i) {
    ASSERT_FALSE(env->writeFileAtomically(dir.file("new-" + std::to_string(i)), "x"));
  }
  const std::vector<uint8_t> one{'x'};
  ASSERT_FALSE(env->writeFileAtomicallyUnflushed(dir.file("new-20"), one));
  ASSERT_FALSE(env->writeFileAtomically(dir.file("new-0"), "replaced"));

  std::vector<std::string> created, temporary;
  alignas(inotify_event) char buffer[64 * 1024];
  ssize_t n;
  while ((n = ::read(watch, buffer, sizeof buffer)) > 0) {
    for (char* at = buffer; at < buffer + n;) {
      auto* event = reinterpret_cast<inotify_event*>(at);
      std::string name = event->len ? event->name : "";
      if (name.rfind("new-", 0) == 0) {
        if (event->mask & IN_CREATE) created.push_back(name);
      } else {
        temporary.push_back(name);
      }
      at += sizeof(inotify_event) + event->len;
    }
  }
  ::close(watch);
  EXPECT_EQ(created.size(), 21u);  // each new file appeared once, under its own name
  for (const std::string& name : temporary) {
    EXPECT_EQ(name.rfind(kTemporaryFilePrefix, 0), 0u) << name;
    EXPECT_TRUE(name.ends_with(".tmp")) << name;
  }
  EXPECT_EQ(dir.read("new-0"), "replaced");
  EXPECT_EQ(namesIn(env, dir.path()).size(), 21u);
}

TEST(EnvTest, AtomicWriteReplacesContentsAndLeavesNoTemporaryFile) {
  TempDir dir;
  Env* env = Env::Default();
  const std::string path = dir.file("Info.plist");
  ASSERT_FALSE(env->writeFileAtomically(path, "first version, longer"));
  ASSERT_FALSE(env->writeFileAtomically(path, "second"));
  EXPECT_EQ(dir.read("Info.plist"), "second");
  EXPECT_EQ(namesIn(env, dir.path()), std::vector<std::string>{"Info.plist"});

  // A write into a missing folder fails cleanly.
  Error e = env->writeFileAtomically(dir.file("missing/x"), "x");
  ASSERT_TRUE(e);
  EXPECT_EQ(e.domain(), kPosixErrorDomain);
  EXPECT_EQ(e.code(), ENOENT);

  // So is reading a missing file, which leaves nothing behind; reading a
  // folder is an error too, not an empty file.
  std::vector<uint8_t> contents{1, 2, 3};
  e = env->readFile(dir.file("nothing.json"), &contents);
  EXPECT_EQ(e.domain(), kPosixErrorDomain);
  EXPECT_EQ(e.code(), ENOENT);
  EXPECT_TRUE(contents.empty());
  EXPECT_TRUE(env->readFile(dir.path(), &contents));
}

TEST(EnvTest, MoveRefusesAnExistingDestination) {
  TempDir dir;
  Env* env = Env::Default();
  dir.write("a", "from a");
  dir.write("b", "from b");
  Error e = env->moveItem(dir.file("a"), dir.file("b"));
  ASSERT_TRUE(e);
  EXPECT_EQ(e.code(), EEXIST);
  EXPECT_EQ(dir.read("a"), "from a");
  EXPECT_EQ(dir.read("b"), "from b");

  ASSERT_FALSE(env->moveItem(dir.file("a"), dir.file("c")));
  EXPECT_FALSE(env->exists(dir.file("a")));
  EXPECT_EQ(dir.read("c"), "from a");
}

TEST(EnvTest, ListRecursivelyPutsParentsFirstAndSortsEachFolder) {
  TempDir dir;
  dir.write("b/z", "");
  dir.write("b/a/deep", "");
  dir.write("a", "");
  dir.write("c/x", "");
  std::vector<std::string> paths;
  ASSERT_FALSE(Env::Default()->listRecursively(dir.path(), &paths));
  EXPECT_EQ(paths, (std::vector<std::string>{"a", "b", "b/a", "b/a/deep", "b/z", "c", "c/x"}));

  EXPECT_TRUE(Env::Default()->listRecursively(dir.file("missing"), &paths));
}

TEST(EnvTest, RemoveItemTakesAWholeTree) {
  TempDir dir;
  Env* env = Env::Default();
  dir.write("Package/Entities/Note/1.json", "{}");
  dir.write("Package/Changes/c", "{}");
  ASSERT_FALSE(env->createDirectories(dir.file("Package/Empty/Deeper")));
  EXPECT_TRUE(env->isDirectory(dir.file("Package/Empty/Deeper")));
  ASSERT_FALSE(env->removeItem(dir.file("Package")));
  EXPECT_FALSE(env->exists(dir.file("Package")));
  EXPECT_TRUE(namesIn(env, dir.path()).empty());
  EXPECT_EQ(env->removeItem(dir.file("Package")).code(), ENOENT);

  dir.write("file", "x");
  EXPECT_TRUE(env->createDirectories(dir.file("file")));
  EXPECT_TRUE(env->createDirectories(dir.file("file/below")));
  EXPECT_FALSE(env->createDirectories(dir.path()));  // an existing folder is fine
}

TEST(EnvTest, AttributesTellAPlaceholderFromAFile) {
  TempDir dir;
  Env* env = Env::Default();
  const std::string sparse = dir.file("evicted");
  int fd = ::open(sparse.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, 1 << 20), 0);
  ::close(fd);
  dir.write("present", std::string(10000, 'x'));

  FileAttributes a;
  ASSERT_FALSE(env->attributes(sparse, &a));
  EXPECT_TRUE(a.isRegular());
  EXPECT_EQ(a.size, 1u << 20);
  EXPECT_EQ(a.allocatedSize, 0u);

  FileAttributes b;
  ASSERT_FALSE(env->attributes(dir.file("present"), &b));
  EXPECT_EQ(b.size, 10000u);
  EXPECT_GE(b.allocatedSize, 10000u);
  EXPECT_NE(a.fileNumber, b.fileNumber);
  EXPECT_EQ(a.device, b.device);
  // Written just now: the date is this century, in reference-date seconds.
  EXPECT_GT(b.modificationDate, 7e8);

  FileAttributes folder;
  ASSERT_FALSE(env->attributes(dir.path(), &folder));
  EXPECT_TRUE(folder.isDirectory());
}

// The bounded read measures the file it opened: a larger file is refused
// unread, a placeholder shows as one, and an Env that only overrides the
// plain read (as fault-injecting wrappers do) still sees every bounded read.
TEST(EnvTest, BoundedReadRefusesLargerFilesAndMeasuresWhatItRead) {
  TempDir dir;
  dir.write("ten", std::string(10, 'x'));
  const std::string sparse = dir.file("evicted");
  int fd = ::open(sparse.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, 4096), 0);
  ::close(fd);

  class CountingReads : public EnvWrapper {
   public:
    using EnvWrapper::EnvWrapper;
    Error readFile(const std::string& path, std::vector<uint8_t>* contents) override {
      ++reads;
      return EnvWrapper::readFile(path, contents);
    }
    using EnvWrapper::readFile;
    int reads = 0;
  } wrapped(Env::Default());

  for (Env* env : {Env::Default(), static_cast<Env*>(&wrapped)}) {
    SCOPED_TRACE(env == Env::Default() ? "POSIX" : "wrapper");
    std::vector<uint8_t> bytes{1, 2, 3};
    FileAttributes measured;
    ASSERT_FALSE(env->readFile(dir.file("ten"), 10, &bytes, &measured));
    EXPECT_EQ(bytes, std::vector<uint8_t>(10, 'x'));
    EXPECT_EQ(measured.size, 10u);
    EXPECT_TRUE(measured.isRegular());

    Error tooLarge = env->readFile(dir.file("ten"), 9, &bytes, &measured);
    EXPECT_EQ(tooLarge.code(), EFBIG);
    EXPECT_TRUE(bytes.empty());
    EXPECT_EQ(measured.size, 10u);

    EXPECT_EQ(env->readFile(dir.file("none"), 10, &bytes).code(), ENOENT);
    EXPECT_EQ(env->readFile(dir.path(), 10, &bytes).code(), EISDIR);

    ASSERT_FALSE(env->readFile(sparse, 1 << 20, &bytes, &measured));
    EXPECT_EQ(bytes.size(), 4096u);
    EXPECT_EQ(measured.allocatedSize, 0u);  // what was read is not the file's content
  }
  // The refused file was never read through the wrapper.
  EXPECT_EQ(wrapped.reads, 2);
}

std::span<const uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

TEST(EnvTest, UnflushedWritesAreAtomicAndSyncFilesFlushesFilesAndFolders) {
  TempDir dir;
  Env* env = Env::Default();
  ASSERT_FALSE(env->createDirectories(dir.file("a/b")));
  std::vector<std::string> paths;
  for (int i = 0; i < 100; ++i) {  // enough to spread over several threads
    std::string path = dir.file("a/b/" + std::to_string(i));
    ASSERT_FALSE(env->writeFileAtomicallyUnflushed(path, bytesOf(std::string(i, 'x'))));
    paths.push_back(path);
  }
  ASSERT_FALSE(env->writeFileAtomicallyUnflushed(paths[5], bytesOf("replaced")));
  EXPECT_EQ(dir.read("a/b/5"), "replaced");
  EXPECT_EQ(namesIn(env, dir.file("a/b")).size(), 100u);  // no temporary file left

  paths.push_back(dir.file("a/b"));  // folders are items too
  EXPECT_FALSE(env->syncFiles(paths));
  EXPECT_FALSE(env->syncFiles({}));

  // Every item is tried; the error names the first one that failed.
  paths.insert(paths.begin() + 3, dir.file("a/b/missing"));
  Error e = env->syncFiles(paths);
  EXPECT_EQ(e.code(), ENOENT);
  EXPECT_EQ(e.userInfo().get(kFilePathErrorKey), Value::string(dir.file("a/b/missing")));
}

}  // namespace
}  // namespace quillon
