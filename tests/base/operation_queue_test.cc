#include "quillon/base/internal/operation_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "quillon/base/error.h"

namespace quillon {
namespace {

// Records the order in which blocks ran, from any thread.
class Journal {
 public:
  void add(int v) {
    std::lock_guard lock(mutex_);
    entries_.push_back(v);
  }
  std::vector<int> entries() {
    std::lock_guard lock(mutex_);
    return entries_;
  }

 private:
  std::mutex mutex_;
  std::vector<int> entries_;
};

TEST(OperationQueueTest, DependenciesAreRespectedAcrossQueues) {
  OperationQueue records("records");
  OperationQueue changes("changes");
  records.setMaxConcurrentOperationCount(4);
  Journal journal;
  records.setSuspended(true);  // so the change operation is queued first

  std::vector<std::shared_ptr<Operation>> writes;
  auto changeFile = Operation::withBlock([&] { journal.add(100); });
  for (int i = 0; i < 20; ++i) {
    auto write = Operation::withBlock([&journal, i] { journal.add(i); });
    writes.push_back(write);
    changeFile->addDependency(write);
  }
  EXPECT_FALSE(changeFile->isReady());
  changes.addOperation(changeFile);
  for (auto& w : writes) records.addOperation(w);
  EXPECT_EQ(changes.operationCount(), 1u);
  EXPECT_EQ(records.operationCount(), 20u);
  EXPECT_FALSE(changeFile->isFinished());

  records.setSuspended(false);
  changes.waitUntilAllOperationsAreFinished();
  auto entries = journal.entries();
  ASSERT_EQ(entries.size(), 21u);
  EXPECT_EQ(entries.back(), 100);
  for (auto& w : writes) EXPECT_TRUE(w->isFinished());
}

TEST(OperationQueueTest, PrioritiesThenFifoWithOneAtATime) {
  OperationQueue queue("index");
  queue.setMaxConcurrentOperationCount(1);
  queue.setSuspended(true);
  Journal journal;
  struct Spec {
    int id;
    QueuePriority priority;
  };
  const Spec specs[] = {{1, QueuePriority::Normal},   {2, QueuePriority::VeryLow},
                        {3, QueuePriority::High},     {4, QueuePriority::Normal},
                        {5, QueuePriority::VeryHigh}, {6, QueuePriority::Low},
                        {7, QueuePriority::High}};
  for (const auto& s : specs) {
    auto op = Operation::withBlock([&journal, id = s.id] { journal.add(id); });
    op->setQueuePriority(s.priority);
    queue.addOperation(op);
  }
  queue.setSuspended(false);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(journal.entries(), (std::vector<int>{5, 3, 7, 1, 4, 6, 2}));
}

TEST(OperationQueueTest, MaxConcurrencyIsNeverExceeded) {
  EXPECT_EQ(OperationQueue().maxConcurrentOperationCount(),
            static_cast<int>(std::max(1u, std::thread::hardware_concurrency())));
  for (int limit : {1, 3}) {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(limit);
    std::atomic<int> running{0};
    std::atomic<int> peak{0};
    std::atomic<int> done{0};
    for (int i = 0; i < 60; ++i) {
      queue.addOperationWithBlock([&] {
        int now = ++running;
        int seen = peak.load();
        while (now > seen && !peak.compare_exchange_weak(seen, now)) {
        }
        // Long enough for the others to pile up behind the limit.
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        --running;
        ++done;
      });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(done.load(), 60);
    EXPECT_LE(peak.load(), limit);
    EXPECT_GE(peak.load(), 1);
    EXPECT_EQ(queue.operationCount(), 0u);
  }
}

TEST(OperationQueueTest, OperationCountAndCompletionBlock) {
  OperationQueue queue;
  queue.setSuspended(true);
  std::atomic<bool> ran{false};
  std::atomic<bool> completionSawRun{false};
  auto op = Operation::withBlock([&] { ran = true; });
  op->setCompletionBlock([&] { completionSawRun = ran.load(); });
  queue.addOperation(op);
  queue.addOperationWithBlock([] {});
  EXPECT_EQ(queue.operationCount(), 2u);
  EXPECT_FALSE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
  queue.setSuspended(false);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(queue.operationCount(), 0u);
  EXPECT_TRUE(op->isFinished());
  EXPECT_TRUE(completionSawRun.load());  // completion ran before waiters woke
}

TEST(OperationQueueTest, CancelledOperationsFinishWithoutRunning) {
  OperationQueue queue;
  queue.setMaxConcurrentOperationCount(1);
  std::atomic<int> ran{0};
  std::atomic<int> completions{0};

  // A cancelled operation that waits for a dependency that will never run
  // (its queue stays suspended) still finishes.
  OperationQueue stalled;
  stalled.setSuspended(true);
  auto never = Operation::withBlock([&] { ++ran; });
  stalled.addOperation(never);
  auto blocked = Operation::withBlock([&] { ++ran; });
  blocked->addDependency(never);
  blocked->setCompletionBlock([&] { ++completions; });
  queue.addOperation(blocked);
  EXPECT_EQ(queue.operationCount(), 1u);
  blocked->cancel();
  blocked->waitUntilFinished();
  EXPECT_TRUE(blocked->isCancelled());
  EXPECT_EQ(completions.load(), 1);

  // cancelAllOperations on a suspended queue: nothing runs once resumed.
  queue.setSuspended(true);
  for (int i = 0; i < 5; ++i) queue.addOperationWithBlock([&] { ++ran; });
  queue.cancelAllOperations();
  queue.setSuspended(false);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran.load(), 0);
  stalled.cancelAllOperations();
  stalled.setSuspended(false);
  stalled.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran.load(), 0);
}

TEST(OperationQueueTest, CancelFlagsARunningOperation) {
  OperationQueue queue;
  std::atomic<bool> started{false};
  std::shared_ptr<Operation> op;
  op = Operation::withBlock([&] {
    started = true;
    while (!op->isCancelled()) std::this_thread::yield();
  });
  queue.addOperation(op);
  while (!started) std::this_thread::yield();
  EXPECT_TRUE(op->isExecuting());
  queue.cancelAllOperations();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
}

TEST(OperationQueueTest, AnOperationJoinsOneQueueOnceAndAThrowingOneStillFinishes) {
  OperationQueue a, b;
  a.setSuspended(true);
  auto op = Operation::withBlock([] {});
  a.addOperation(op);
  EXPECT_THROW(a.addOperation(op), Exception);
  EXPECT_THROW(b.addOperation(op), Exception);
  a.setSuspended(false);
  a.waitUntilAllOperationsAreFinished();
  EXPECT_THROW(b.addOperation(op), Exception);

  // A throwing operation still finishes and releases its dependents.
  OperationQueue queue;
  auto bad = Operation::withBlock([] { throw std::runtime_error("disk on fire"); });
  std::atomic<bool> after{false};
  auto next = Operation::withBlock([&] { after = true; });
  next->addDependency(bad);
  queue.addOperations({next, bad}, true);
  EXPECT_TRUE(bad->isFinished());
  EXPECT_TRUE(after.load());
}

TEST(OperationQueueTest, DestructorWaitsForRunningAndAbandonsTheRest) {
  std::atomic<int> ran{0};
  std::atomic<bool> started{false};
  std::atomic<bool> release{false};
  std::shared_ptr<Operation> pending;
  std::thread releaser;
  {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    queue.addOperationWithBlock([&] {
      started = true;
      while (!release) std::this_thread::yield();
      ++ran;
    });
    pending = queue.addOperationWithBlock([&] { ran += 100; });
    while (!started) std::this_thread::yield();
    releaser = std::thread([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      release = true;
    });
  }
  releaser.join();
  EXPECT_EQ(ran.load(), 1);  // the running block completed before the destructor returned
  EXPECT_TRUE(pending->isFinished());
  EXPECT_TRUE(pending->isCancelled());
}

}  // namespace
}  // namespace quillon
