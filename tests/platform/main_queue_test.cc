#include "quillon/platform/main_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/manual_clock.h"

namespace quillon {
namespace {

using testing::ManualClock;

class MainQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MainQueue::setMainThreadToCurrent();
    MainQueue::drain();
  }
  void TearDown() override {
    MainQueue::cancelPreviousPerformRequests(this);
    MainQueue::drain();
  }
  // Schedules `block` with this test as the target.
  void after(double delay, const char* selector, std::function<void()> block) {
    MainQueue::afterDelay(delay, std::move(block), this, selector);
  }
};

TEST_F(MainQueueTest, AsyncBlocksRunInOrderOnTheMainThreadWhenTheLoopRuns) {
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) MainQueue::async([&order, i] { order.push_back(i); });
  EXPECT_TRUE(order.empty());
  MainQueue::drain();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));

  std::atomic<bool> ran{false};
  std::atomic<bool> onMain{false};
  std::atomic<bool> workerSawMain{true};
  std::thread worker([&] {
    workerSawMain = MainQueue::isMainThread();
    MainQueue::async([&] {
      onMain = MainQueue::isMainThread();
      ran = true;
    });
  });
  EXPECT_TRUE(MainQueue::runUntil([&] { return ran.load(); }, 5.0));
  worker.join();
  EXPECT_TRUE(onMain);
  EXPECT_FALSE(workerSawMain);
}

TEST_F(MainQueueTest, SyncRunsInlineOnMainAndWaitsFromElsewhere) {
  int value = 0;
  MainQueue::sync([&] { value = 1; });
  EXPECT_EQ(value, 1);

  std::atomic<bool> returned{false};
  std::thread worker([&] {
    MainQueue::sync([&] { value = 2; });
    returned = true;
  });
  EXPECT_TRUE(MainQueue::runUntil([&] { return returned.load(); }, 5.0));
  worker.join();
  EXPECT_EQ(value, 2);

  // An exception travels back to the waiting caller.
  std::atomic<bool> caught{false};
  std::thread thrower([&] {
    try {
      MainQueue::sync([] { throw std::runtime_error("boom"); });
    } catch (const std::runtime_error&) {
      caught = true;
    }
  });
  EXPECT_TRUE(MainQueue::runUntil([&] { return caught.load(); }, 5.0));
  thrower.join();
}

TEST_F(MainQueueTest, DelayedCallsFireWhenTheManualClockReachesThemInDueOrder) {
  ManualClock clock;
  std::vector<std::string> fired;
  after(2.0, "late", [&] { fired.push_back("late"); });
  after(1.0, "early", [&] { fired.push_back("early"); });
  after(1.0, "early", [&] { fired.push_back("early2"); });
  MainQueue::drain();
  EXPECT_TRUE(fired.empty());

  clock.advance(0.999);
  MainQueue::drain();
  EXPECT_TRUE(fired.empty());

  clock.advance(0.001);
  MainQueue::drain();
  EXPECT_EQ(fired, (std::vector<std::string>{"early", "early2"}));

  clock.advance(5.0);
  MainQueue::drain();
  EXPECT_EQ(fired, (std::vector<std::string>{"early", "early2", "late"}));
  EXPECT_EQ(MainQueue::pendingDelayedCallCount(), 0u);
}

TEST_F(MainQueueTest, RescheduledDebounceFiresOnceAfterTheLastReschedule) {
  ManualClock clock;
  int processed = 0;
  auto invalidate = [&] {
    MainQueue::cancelPreviousPerformRequests(this, "processChanges");
    after(1.0, "processChanges", [&] { ++processed; });
  };
  for (int i = 0; i < 10; ++i) {
    invalidate();
    clock.advance(0.5);
    MainQueue::drain();
  }
  EXPECT_EQ(processed, 0);
  clock.advance(0.5);
  MainQueue::drain();
  EXPECT_EQ(processed, 1);
  clock.advance(10.0);
  MainQueue::drain();
  EXPECT_EQ(processed, 1);
}

TEST_F(MainQueueTest, CancelMatchesTargetAndSelectorOnly) {
  ManualClock clock;
  int other = 0;
  int same = 0;
  int otherSelector = 0;
  int otherTarget = 0;
  after(1.0, "save", [&] { ++same; });
  after(1.0, "retry", [&] { ++otherSelector; });
  MainQueue::afterDelay(
      1.0, [&] { ++otherTarget; }, &other, "save");
  MainQueue::cancelPreviousPerformRequests(this, "save");
  EXPECT_EQ(MainQueue::pendingDelayedCallCount(), 2u);
  clock.advance(1.0);
  MainQueue::drain();
  EXPECT_EQ(same, 0);
  EXPECT_EQ(otherSelector, 1);
  EXPECT_EQ(otherTarget, 1);

  // An empty selector cancels every call of the target; a null target nothing.
  after(1.0, "save", [&] { ++same; });
  after(1.0, "retry", [&] { ++same; });
  MainQueue::afterDelay(1.0, [&] { ++otherTarget; });
  MainQueue::cancelPreviousPerformRequests(this);
  MainQueue::cancelPreviousPerformRequests(nullptr);
  clock.advance(1.0);
  MainQueue::drain();
  EXPECT_EQ(same, 0);
  EXPECT_EQ(otherTarget, 2);
}

TEST_F(MainQueueTest, RealClockDelayedCallFiresAfterItsDelay) {
  bool fired = false;
  double start = MainQueue::now();
  after(0.05, "real", [&] { fired = true; });
  EXPECT_TRUE(MainQueue::runUntil([&] { return fired; }, 5.0));
  EXPECT_GE(MainQueue::now() - start, 0.05);
}

TEST_F(MainQueueTest, LoopIterationsTimeoutsAndThrowingBlocks) {
  ManualClock clock;
  int runs = 0;
  std::function<void()> again = [&] {
    ++runs;
    if (runs < 3) MainQueue::afterDelay(0, again, this, "again");
  };
  MainQueue::afterDelay(0, again, this, "again");
  MainQueue::drain();
  EXPECT_EQ(runs, 3);

  // runUntil times out, and a throwing block does not stop the queue.
  EXPECT_FALSE(MainQueue::runUntil([] { return false; }, 0.02));
  bool after = false;
  MainQueue::async([] { throw std::runtime_error("bad block"); });
  MainQueue::async([&] { after = true; });
  MainQueue::drain();
  EXPECT_TRUE(after);
}

}  // namespace
}  // namespace quillon
