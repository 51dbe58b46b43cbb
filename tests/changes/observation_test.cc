// Folder observation: the real folder monitor delivers events, the one-second
// quiet period runs on a manual clock.

#include <gtest/gtest.h>

#include <fmt/format.h>

#include <memory>
#include <string>

#include "changes/two_computers.h"
#include "quillon/platform/main_queue.h"
#include "support/manual_clock.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

using testing::logContains;
using testing::loggedChangeNames;

class ObservationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QuillonStore::setObservationLatency(0.2);
    ScopedCacheHome home(dir.file("cache"));
    stack = std::make_unique<StoreStack>(dir.file("Doc.quillon"));
    ASSERT_TRUE(stack->waitUntilReady());
    MainQueue::drain();
  }
  void TearDown() override {
    stack.reset();
    QuillonStore::setObservationLatency(2.0);
  }
  // Runs the real main loop until the monitor has handed a burst to the
  // store, which then waits for quiet on the manual clock.
  bool deliveryArrives(double seconds) {
    const size_t before = MainQueue::pendingDelayedCallCount();
    return MainQueue::runUntil([&] { return MainQueue::pendingDelayedCallCount() > before; },
                               seconds);
  }
  void writeRecoveryChange(int i) {
    std::string name = fmt::format("2031-01-01-00-00-{:02}.000.6F9619FF-8B86-D011-B42D-00C04FC964FF.json", i);
    dir.write("Doc.quillon/Changes/" + name,
              "{\"name\": \"" + name + "\", \"type\": \"recovery\"}");
  }

  testing::ManualClock clock;
  TempDir dir{"quillon-observe"};
  std::unique_ptr<StoreStack> stack;
};

TEST_F(ObservationTest, ABurstOfFilesCausesOneUpdateAboutASecondAfterDelivery) {
  EXPECT_TRUE(stack->store->isObservingDirectory());
  EXPECT_TRUE(logContains(*stack->store, "Added listener to: file://"));
  for (int i = 0; i < 10; ++i) writeRecoveryChange(i);
  ASSERT_TRUE(deliveryArrives(5.0));
  MainQueue::runFor(0.5);  // any straggling delivery only restarts the quiet period

  clock.advance(0.9);
  EXPECT_FALSE(stack->waitUntilReady(0.2));
  clock.advance(0.2);
  ASSERT_TRUE(stack->waitUntilReady());
  MainQueue::drain();
  EXPECT_EQ(loggedChangeNames(*stack->store).size(), 10u);
  clock.advance(2.0);
  EXPECT_FALSE(stack->waitUntilReady(0.3));
}

TEST_F(ObservationTest, TheStoresOwnSaveCausesNoUpdateAndClosingStopsObservation) {
  testing::insertNote(*stack, "mine");
  ASSERT_TRUE(stack->saveAndWait());
  EXPECT_FALSE(deliveryArrives(1.0));
  clock.advance(1.5);
  EXPECT_FALSE(stack->waitUntilReady(0.2));

  // Closing stops observation altogether.
  stack->store->setClosed(false);  // whatever the value
  EXPECT_FALSE(stack->store->isObservingDirectory());
  writeRecoveryChange(1);
  EXPECT_FALSE(deliveryArrives(1.0));
  clock.advance(1.5);
  EXPECT_FALSE(stack->waitUntilReady(0.2));
}

}  // namespace
}  // namespace quillon
