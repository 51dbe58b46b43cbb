#include "quillon/base/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace quillon {
namespace {

TEST(NotificationCenterTest, DeliversByNameAndObject) {
  NotificationCenter center;
  int senderA = 0, senderB = 0;
  std::vector<std::string> seen;
  center.addObserver("Saved", &senderA, [&](const Notification& n) {
    seen.push_back("a:" + n.name + ":" + std::string(n.userInfo.get("k").str()));
  });
  center.addObserver("Saved", nullptr, [&](const Notification& n) {
    seen.push_back(n.object == &senderB ? "any:B" : "any:A");
  });
  center.addObserver("", &senderB, [&](const Notification& n) { seen.push_back("b:" + n.name); });

  center.post("Saved", &senderA, Value::dictionary({{"k", "v"}}));
  center.post("Saved", &senderB);
  center.post("Other", &senderA);
  center.post("Other", &senderB);

  EXPECT_EQ(seen, (std::vector<std::string>{"a:Saved:v", "any:A", "any:B", "b:Saved", "b:Other"}));
}

TEST(NotificationCenterTest, RemovedObserversAreNotCalled) {
  NotificationCenter center;
  int calls = 0;
  auto token = center.addObserver("N", nullptr, [&](const Notification&) { ++calls; });
  center.post("N");
  center.removeObserver(token);
  center.post("N");
  center.removeObserver(token);  // twice is harmless
  EXPECT_EQ(calls, 1);

  // An observer removed by another during a post is skipped at once.
  std::vector<std::string> seen;
  NotificationCenter::Token second = 0;
  center.addObserver("M", nullptr, [&](const Notification&) {
    seen.push_back("first");
    center.removeObserver(second);
  });
  second = center.addObserver("M", nullptr, [&](const Notification&) { seen.push_back("second"); });
  center.post("M");
  center.post("M");
  EXPECT_EQ(seen, (std::vector<std::string>{"first", "first"}));
}

TEST(NotificationCenterTest, ObserversMayPostAndRegisterFromADelivery) {
  NotificationCenter center;
  std::vector<std::string> calls;
  center.addObserver("Outer", nullptr, [&](const Notification&) {
    calls.push_back("outer");
    center.addObserver("Outer", nullptr, [&](const Notification&) { calls.push_back("late"); });
    center.post("Inner");
  });
  center.addObserver("Inner", nullptr, [&](const Notification&) { calls.push_back("inner"); });
  center.post("Outer");
  // The observer added during the first post only sees later ones.
  EXPECT_EQ(calls, (std::vector<std::string>{"outer", "inner"}));
}

TEST(NotificationCenterTest, ScopedObserverRemovesItselfAndMoves) {
  NotificationCenter center;
  int calls = 0;
  {
    ScopedObserver outer;
    {
      ScopedObserver inner(center, "N", nullptr, [&](const Notification&) { ++calls; });
      center.post("N");
      outer = std::move(inner);
    }
    center.post("N");  // still observed through `outer`
    ScopedObserver other(center, "N", nullptr, [&](const Notification&) { calls += 100; });
    other = std::move(outer);  // replaces (and removes) the +100 observer
    center.post("N");
  }
  center.post("N");
  EXPECT_EQ(calls, 3);
}

TEST(NotificationCenterTest, ConcurrentPostsAndRemovals) {
  NotificationCenter center;
  std::atomic<int> delivered{0};
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    while (!stop) {
      ScopedObserver o(center, "N", nullptr, [&](const Notification&) { ++delivered; });
    }
  });
  ScopedObserver steady(center, "N", nullptr, [&](const Notification&) { ++delivered; });
  std::vector<std::thread> posters;
  for (int t = 0; t < 3; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) center.post("N");
    });
  }
  for (auto& p : posters) p.join();
  stop = true;
  churn.join();
  EXPECT_GE(delivered.load(), 6000);
}

}  // namespace
}  // namespace quillon
