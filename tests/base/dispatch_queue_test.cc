#include "quillon/base/internal/dispatch_queue.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace quillon {
namespace {

std::string currentThreadName() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST(DispatchQueueTest, RunsBlocksInOrderOnOneNamedThread) {
  DispatchQueue queue("org.quillon.Quillon.ReadQueue");
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  std::string name;
  for (int i = 0; i < 50; ++i) {
    queue.async([&, i] {
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
      if (i == 0) name = currentThreadName();
    });
  }
  queue.drain();
  ASSERT_EQ(order.size(), 50u);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(order[i], i);
  for (auto id : threads) EXPECT_EQ(id, threads[0]);
  EXPECT_NE(threads[0], std::this_thread::get_id());
  EXPECT_EQ(name, "org.quillon.Qui");  // cut to the 15 bytes Linux allows
  EXPECT_EQ(queue.label(), "org.quillon.Quillon.ReadQueue");
}

TEST(DispatchQueueTest, SyncWaitsAndRunsInlineFromItsOwnQueue) {
  DispatchQueue queue("REBUILDCACHE");
  EXPECT_FALSE(queue.isCurrent());
  std::vector<std::string> steps;
  queue.async([&] { steps.push_back("async"); });
  queue.sync([&] {
    EXPECT_TRUE(queue.isCurrent());
    steps.push_back("sync");
    queue.sync([&] { steps.push_back("nested"); });  // would deadlock if queued
    queue.drain();
  });
  EXPECT_EQ(steps, (std::vector<std::string>{"async", "sync", "nested"}));
}

TEST(DispatchQueueTest, SyncPassesExceptionsToTheCaller) {
  DispatchQueue queue(".CacheQueue");
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
  // A throwing async block does not stop the queue.
  queue.async([] { throw std::runtime_error("ignored"); });
  int ran = 0;
  queue.sync([&] { ran = 1; });
  EXPECT_EQ(ran, 1);
}

TEST(DispatchQueueTest, DestructorFinishesQueuedBlocks) {
  std::atomic<int> ran{0};
  {
    DispatchQueue queue("q");
    for (int i = 0; i < 100; ++i) queue.async([&] { ++ran; });
  }
  EXPECT_EQ(ran.load(), 100);
}

TEST(DispatchQueueTest, ManyProducersStaySerial) {
  DispatchQueue queue("q");
  int counter = 0;  // unsynchronised on purpose: the queue is the lock
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t) {
    producers.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        queue.async([&] {
          if (inside.fetch_add(1) != 0) ++overlaps;
          ++counter;
          inside.fetch_sub(1);
        });
      }
    });
  }
  for (auto& p : producers) p.join();
  queue.drain();
  EXPECT_EQ(counter, 2000);
  EXPECT_EQ(overlaps.load(), 0);
}

}  // namespace
}  // namespace quillon
