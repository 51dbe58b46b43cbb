// The folder observer on its own: the real folder monitor, the quiet period on
// a manual clock, no store.

#include "quillon/changes/internal/folder_observer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "support/manual_clock.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

class FolderObserverTest : public ::testing::Test {
 protected:
  void SetUp() override { QuillonFolderObserver::setLatency(0.1); }
  void TearDown() override { QuillonFolderObserver::setLatency(2.0); }

  // Runs the real main loop until a burst was handed over (the quiet period
  // then waits on the manual clock), or `seconds` passed.
  bool burstArrives(double seconds) {
    const size_t before = MainQueue::pendingDelayedCallCount();
    return MainQueue::runUntil([&] { return MainQueue::pendingDelayedCallCount() > before; },
                               seconds);
  }
  // Lets the quiet period end.
  void quiet() {
    clock.advance(1.0);
    MainQueue::drain();
  }

  testing::ManualClock clock;
  TempDir dir{"quillon-folder-observer"};
  std::vector<std::string> logged;
  int changed = 0;
  QuillonFolderObserver observer{
      Env::Default(),
      [this](const std::string& message, std::string_view) { logged.push_back(message); },
      [this] { ++changed; }};
};

TEST_F(FolderObserverTest, WatchesTheFolderFromBeforeItExistsAndIgnoresOurOwnFiles) {
  const Url changes = Url::fileURL(dir.file("Doc.quillon/Changes"), true);
  ASSERT_FALSE(Env::Default()->createDirectories(dir.file("Doc.quillon")));
  observer.observe(changes);
  ASSERT_TRUE(observer.isObserving());
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0], "Added listener to: " + changes.absoluteString());

  // The folder appearing is no change by itself; a file in it is.
  ASSERT_FALSE(Env::Default()->createDirectories(changes.path()));
  EXPECT_FALSE(burstArrives(1.0));
  dir.write("Doc.quillon/Changes/theirs.json", "{}");
  ASSERT_TRUE(burstArrives(5.0));
  EXPECT_EQ(changed, 0);  // not before the quiet period ends
  quiet();
  EXPECT_EQ(changed, 1);

  // Our own change file is announced before it is written: no update.
  observer.observe(changes);  // now on the folder itself
  observer.willWriteChangeFile(changes.appending("mine.json").path());
  dir.write("Doc.quillon/Changes/mine.json", "{}");
  EXPECT_FALSE(burstArrives(1.0));
  quiet();
  EXPECT_EQ(changed, 1);
}

TEST_F(FolderObserverTest, UnobservingDropsAQuietPeriodAlreadyRunning) {
  ASSERT_FALSE(Env::Default()->createDirectories(dir.file("Changes")));
  observer.observe(Url::fileURL(dir.file("Changes"), true));
  dir.write("Changes/theirs.json", "{}");
  ASSERT_TRUE(burstArrives(5.0));
  observer.unobserve();
  EXPECT_FALSE(observer.isObserving());
  quiet();
  EXPECT_EQ(changed, 0);
  dir.write("Changes/later.json", "{}");
  EXPECT_FALSE(burstArrives(0.5));
}

}  // namespace
}  // namespace quillon
