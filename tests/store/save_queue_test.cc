#include "quillon/store/save_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "quillon/base/internal/operation_queue.h"
#include "quillon/platform/main_queue.h"

namespace quillon {
namespace {

// The change file's write is enqueued "after everything": it may only run
// once every record write enqueued before it has finished, however long
// those take and however many the queue runs in parallel.
TEST(SaveQueueTest, AWriteAfterEverythingWaitsForEveryEarlierWrite) {
  QuillonSaveQueue saves;
  std::promise<void> release;
  std::shared_future<void> gate = release.get_future().share();
  std::atomic<int> recordsDone{0};
  constexpr int kRecords = 150;  // more than the batch after which finished writes are forgotten
  for (int i = 0; i < kRecords; ++i) {
    saves.enqueue(Operation::withBlock([gate, &recordsDone] {
                    gate.wait();
                    ++recordsDone;
                  }),
                  /*afterEverything=*/false);
  }
  std::atomic<int> seenByChangeFile{-1};
  saves.enqueue(Operation::withBlock([&] { seenByChangeFile = recordsDone.load(); }),
                /*afterEverything=*/true);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(seenByChangeFile.load(), -1);
  release.set_value();
  EXPECT_FALSE(saves.wait());
  EXPECT_EQ(seenByChangeFile.load(), kRecords);
}

// Whoever waits hears of the first failure since they last asked, once.
TEST(SaveQueueTest, WaitAnswersTheFirstFailureOnceAndThenNothing) {
  QuillonSaveQueue saves;
  EXPECT_FALSE(saves.wait());
  saves.enqueue(Operation::withBlock([&] {
                  saves.recordFailure(Error::withDescription("Test", 28, "no space left"));
                }),
                false);
  saves.enqueue(Operation::withBlock([&] {
                  saves.recordFailure(Error::withDescription("Test", 5, "input/output error"));
                }),
                true);
  Error first = saves.wait();
  ASSERT_TRUE(first);
  EXPECT_EQ(first.code(), 28);
  EXPECT_FALSE(saves.wait());
  saves.recordFailure(Error::withDescription("Test", 5, "input/output error"));
  EXPECT_EQ(saves.wait().code(), 5);
}

TEST(SaveQueueTest, ProgressReachesTheDictionaryOnTheMainQueue) {
  MainQueue::setMainThreadToCurrent();
  QuillonSaveQueue saves;
  saves.objectSaved();  // without a dictionary nothing is told
  Value info = Value::mutableDictionary();
  saves.setProgressInfo(info);
  saves.beginSave(3);
  EXPECT_EQ(saves.done(), 0);
  std::thread([&] {
    saves.objectSaved();
    saves.objectSaved();
  }).join();
  EXPECT_TRUE(info.get("progressValue").isNil());  // not before the main queue ran
  MainQueue::drain();
  EXPECT_EQ(info.get("progressMax"), Value::integer(3));
  EXPECT_EQ(info.get("progressValue"), Value::integer(2));
  EXPECT_EQ(saves.done(), 2);
}

}  // namespace
}  // namespace quillon
