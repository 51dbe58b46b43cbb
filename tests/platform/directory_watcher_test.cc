#include "quillon/platform/internal/directory_watcher.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/platform/main_queue.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

constexpr double kLatency = 0.2;

// A real inotify-backed watcher on a temporary folder, recording each
// delivered burst.
class DirectoryWatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MainQueue::setMainThreadToCurrent();
    watcher_ = std::make_unique<DirectoryWatcher>(
        dir_.path(), kLatency,
        [this](std::vector<std::string> paths) { bursts_.push_back(std::move(paths)); });
    ASSERT_TRUE(watcher_->start());
  }

  void write(const std::string& relative, std::string_view contents = "x") {
    ASSERT_FALSE(Env::Default()->writeFileAtomically(dir_.file(relative), contents));
  }

  bool waitForBursts(size_t count) {
    return MainQueue::runUntil([&] { return bursts_.size() >= count; }, 10.0);
  }

  // Long enough for a burst that should not come to have come.
  void settle() { MainQueue::runFor(kLatency + 0.4); }

  TempDir dir_;
  std::unique_ptr<DirectoryWatcher> watcher_;
  std::vector<std::vector<std::string>> bursts_;
};

TEST_F(DirectoryWatcherTest, ABurstOfFilesIsDeliveredOnceInArrivalOrder) {
  std::vector<std::string> expected;
  for (int i = 0; i < 6; ++i) {
    std::string name = "2026-01-01-00-00-0" + std::to_string(i) + ".000.change";
    write(name);
    expected.push_back(dir_.file(name));
  }
  write(expected[2].substr(dir_.path().size() + 1), "rewritten");  // a duplicate path
  ASSERT_TRUE(waitForBursts(1));
  settle();
  ASSERT_EQ(bursts_.size(), 1u);
  // The temporary files of the atomic writes are not reported.
  EXPECT_EQ(bursts_[0], expected);
}

TEST_F(DirectoryWatcherTest, IgnoredOwnWritesAreDropped) {
  watcher_->ignorePath(dir_.file("mine"));
  write("mine");
  write("theirs");
  ASSERT_TRUE(waitForBursts(1));
  EXPECT_EQ(bursts_[0], std::vector<std::string>{dir_.file("theirs")});

  // A burst made only of ignored paths delivers nothing at all.
  watcher_->ignorePath(dir_.file("only-mine") + "/");
  write("only-mine");
  settle();
  EXPECT_EQ(bursts_.size(), 1u);

  // The watcher still reports what others write afterwards.
  write("later");
  ASSERT_TRUE(waitForBursts(2));
  EXPECT_EQ(bursts_[1], std::vector<std::string>{dir_.file("later")});
}

TEST_F(DirectoryWatcherTest, AnIgnoredPathCountsAgainOnceItsRegistrationExpires) {
  watcher_->ignorePath(dir_.file("soon"), 0.0);
  MainQueue::runFor(0.01);
  write("soon");
  ASSERT_TRUE(waitForBursts(1));
  EXPECT_EQ(bursts_[0], std::vector<std::string>{dir_.file("soon")});
}

TEST_F(DirectoryWatcherTest, FoldersCreatedLaterAreWatchedToo) {
  ASSERT_FALSE(Env::Default()->createDirectories(dir_.file("Entities/Note")));
  ASSERT_TRUE(waitForBursts(1));
  write("Entities/Note/A1.json");
  ASSERT_TRUE(waitForBursts(2));
  EXPECT_EQ(bursts_[1], std::vector<std::string>{dir_.file("Entities/Note/A1.json")});
}

TEST_F(DirectoryWatcherTest, DeletingOrMovingTheWatchedFolderIsReported) {
  ASSERT_FALSE(Env::Default()->removeItem(dir_.path()));
  ASSERT_TRUE(waitForBursts(1));
  EXPECT_NE(std::find(bursts_[0].begin(), bursts_[0].end(), dir_.path()), bursts_[0].end());

  TempDir other;
  std::string moved = other.file("Changes");
  ASSERT_FALSE(Env::Default()->createDirectories(moved));
  DirectoryWatcher watcher(moved, kLatency,
                           [this](std::vector<std::string> paths) { bursts_.push_back(paths); });
  ASSERT_TRUE(watcher.start());
  ASSERT_FALSE(Env::Default()->moveItem(moved, other.file("Renamed")));
  ASSERT_TRUE(waitForBursts(2));
  EXPECT_NE(std::find(bursts_[1].begin(), bursts_[1].end(), moved), bursts_[1].end());
}

TEST_F(DirectoryWatcherTest, StoppedWatchersAndMissingFoldersReportNothing) {
  watcher_->stop();
  EXPECT_FALSE(watcher_->isWatching());
  write("unseen");
  settle();
  EXPECT_TRUE(bursts_.empty());

  DirectoryWatcher missing(dir_.file("no/such/folder"), kLatency, [](std::vector<std::string>) {});
  EXPECT_FALSE(missing.start());
  write("a-file");
  DirectoryWatcher notAFolder(dir_.file("a-file"), kLatency, [](std::vector<std::string>) {});
  EXPECT_FALSE(notAFolder.start());
}

TEST_F(DirectoryWatcherTest, TheCallbackMayDestroyTheWatcher) {
  bool delivered = false;
  std::unique_ptr<DirectoryWatcher> watcher;
  watcher =
      std::make_unique<DirectoryWatcher>(dir_.path(), kLatency, [&](std::vector<std::string>) {
        delivered = true;
        watcher.reset();
      });
  ASSERT_TRUE(watcher->start());
  write("file");
  ASSERT_TRUE(MainQueue::runUntil([&] { return delivered; }, 10.0));
  EXPECT_EQ(watcher, nullptr);
  settle();
}

}  // namespace
}  // namespace quillon
