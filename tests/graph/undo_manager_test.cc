#include "quillon/graph/undo_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/notification_center.h"
#include "quillon/platform/main_queue.h"

namespace quillon {
namespace {

// Lets the test end main-queue turns.
class RecordingUndoManager : public UndoManager {
 public:
  RecordingUndoManager() {
    setEndOfTurnHook([this](std::function<void()> endOfTurn) {
      pendingTurnEnds.push_back(std::move(endOfTurn));
    });
  }
  void endTurn() {
    auto ends = std::move(pendingTurnEnds);
    pendingTurnEnds.clear();
    for (auto& end : ends) end();
  }
  std::vector<std::function<void()>> pendingTurnEnds;
};

// A document value whose setter registers its own inverse, the usual pattern.
struct Counter {
  UndoManager* undo;
  int value = 0;
  void set(int v) {
    int old = value;
    undo->registerUndoWithTarget(this, [this, old] { set(old); });
    value = v;
  }
};

std::string exceptionName(const std::function<void()>& f) {
  try {
    f();
  } catch (const Exception& e) {
    EXPECT_FALSE(e.reason().empty());
    return e.name();
  }
  return "";
}

TEST(UndoManagerTest, UndoAndRedoAlternateThroughTheStacks) {
  RecordingUndoManager undo;
  undo.setGroupsByEvent(false);
  Counter c{&undo};
  undo.beginUndoGrouping();
  c.set(1);
  undo.setActionName("First");
  undo.endUndoGrouping();
  undo.beginUndoGrouping();
  c.set(2);
  c.set(3);
  undo.endUndoGrouping();
  EXPECT_TRUE(undo.canUndo());
  EXPECT_FALSE(undo.canRedo());

  undo.undo();  // one group: both sets of the second step
  EXPECT_EQ(c.value, 1);
  EXPECT_TRUE(undo.canRedo());
  EXPECT_EQ(undo.undoActionName(), "First");
  undo.undo();
  EXPECT_EQ(c.value, 0);
  EXPECT_FALSE(undo.canUndo());
  EXPECT_EQ(undo.redoActionName(), "First");
  undo.undo();  // nothing left: no change
  EXPECT_EQ(c.value, 0);

  undo.redo();
  EXPECT_EQ(c.value, 1);
  undo.redo();
  EXPECT_EQ(c.value, 3);
  EXPECT_FALSE(undo.canRedo());
  undo.undo();
  EXPECT_EQ(c.value, 1);

  // A new change clears what could be redone.
  undo.beginUndoGrouping();
  c.set(7);
  undo.endUndoGrouping();
  EXPECT_FALSE(undo.canRedo());
  undo.undo();
  EXPECT_EQ(c.value, 1);
}

TEST(UndoManagerTest, UndoingAndRedoingAreVisibleToActions) {
  UndoManager undo;
  undo.setGroupsByEvent(false);
  std::vector<std::string> seen;
  undo.beginUndoGrouping();
  std::function<void()> action = [&] {
    seen.push_back(undo.isUndoing() ? "undoing" : (undo.isRedoing() ? "redoing" : "neither"));
    undo.registerUndoWithTarget(&seen, action);
  };
  undo.registerUndoWithTarget(&seen, action);
  undo.endUndoGrouping();
  undo.undo();
  undo.redo();
  undo.undo();
  EXPECT_EQ(seen, (std::vector<std::string>{"undoing", "redoing", "undoing"}));
  EXPECT_FALSE(undo.isUndoing());
  EXPECT_TRUE(undo.canRedo());
}

TEST(UndoManagerTest, NestedGroupsUndoTogetherInReverseOrder) {
  RecordingUndoManager undo;
  std::vector<int> order;
  undo.beginUndoGrouping();
  undo.registerUndoWithTarget(nullptr, [&] { order.push_back(1); });
  undo.beginUndoGrouping();
  EXPECT_EQ(undo.groupingLevel(), 2);
  undo.registerUndoWithTarget(nullptr, [&] { order.push_back(2); });
  undo.registerUndoWithTarget(nullptr, [&] { order.push_back(3); });
  undo.endUndoGrouping();
  undo.beginUndoGrouping();  // empty nested groups leave no trace
  undo.endUndoGrouping();
  undo.registerUndoWithTarget(nullptr, [&] { order.push_back(4); });
  EXPECT_EQ(exceptionName([&] { undo.undo(); }), "");  // level 1: undo closes the group
  EXPECT_EQ(order, (std::vector<int>{4, 3, 2, 1}));
  EXPECT_EQ(undo.groupingLevel(), 0);
}

TEST(UndoManagerTest, GroupsByEventCloseAtTheEndOfTheTurn) {
  RecordingUndoManager undo;
  Counter c{&undo};
  c.set(1);
  c.set(2);
  EXPECT_EQ(undo.groupingLevel(), 1);
  undo.endTurn();
  EXPECT_EQ(undo.groupingLevel(), 0);
  c.set(3);
  undo.endTurn();
  undo.undo();
  EXPECT_EQ(c.value, 2);
  undo.undo();
  EXPECT_EQ(c.value, 0);

  // undo() inside the turn closes the automatic group itself; the late
  // end of turn then leaves the next group alone.
  c.set(5);
  undo.undo();
  EXPECT_EQ(c.value, 0);
  undo.beginUndoGrouping();
  undo.endTurn();
  EXPECT_EQ(undo.groupingLevel(), 1);
  undo.endUndoGrouping();

  // Without groupsByEvent a registration outside a group is misuse.
  undo.setGroupsByEvent(false);
  EXPECT_EQ(exceptionName([&] { c.set(9); }), "NSInternalInconsistencyException");

  // An end of turn that comes after its manager is gone does nothing.
  std::vector<std::function<void()>> pending;
  {
    UndoManager gone;
    gone.setEndOfTurnHook([&](std::function<void()> f) { pending.push_back(std::move(f)); });
    gone.registerUndoWithTarget(nullptr, [] {});
  }
  ASSERT_EQ(pending.size(), 1u);
  pending[0]();
}

TEST(UndoManagerTest, TheMainQueueClosesTheAutomaticGroup) {
  MainQueue::setMainThreadToCurrent();
  MainQueue::drain();
  UndoManager undo;
  std::vector<std::string> names;
  ScopedObserver observer(NotificationCenter::defaultCenter(), "", &undo,
                          [&](const Notification& n) { names.push_back(n.name); });
  Counter c{&undo};
  c.set(1);
  c.set(2);
  EXPECT_EQ(undo.groupingLevel(), 1);
  MainQueue::drain();
  EXPECT_EQ(undo.groupingLevel(), 0);
  c.set(3);
  MainQueue::drain();
  undo.undo();
  EXPECT_EQ(c.value, 2);
  EXPECT_EQ(std::count(names.begin(), names.end(), "NSUndoManagerDidCloseUndoGroupNotification"),
            3);
  EXPECT_EQ(names.back(), "NSUndoManagerDidUndoChangeNotification");
}

TEST(UndoManagerTest, LevelsOfUndoDropTheOldestGroups) {
  UndoManager undo;
  Counter c{&undo};
  undo.setGroupsByEvent(false);
  for (int i = 1; i <= 5; ++i) {
    undo.beginUndoGrouping();
    c.set(i);
    undo.endUndoGrouping();
  }
  undo.setLevelsOfUndo(3);
  EXPECT_EQ(undo.levelsOfUndo(), 3u);
  int undos = 0;
  while (undo.canUndo()) {
    undo.undo();
    ++undos;
  }
  EXPECT_EQ(undos, 3);
  EXPECT_EQ(c.value, 2);
  undo.beginUndoGrouping();
  c.set(10);
  undo.endUndoGrouping();
  for (int i = 0; i < 4; ++i) {
    undo.beginUndoGrouping();
    c.set(20 + i);
    undo.endUndoGrouping();
  }
  for (int i = 0; i < 5; ++i) undo.undo();
  EXPECT_EQ(c.value, 20);  // only the last three steps were kept
}

TEST(UndoManagerTest, DisablingRegistrationNests) {
  UndoManager undo;
  Counter c{&undo};
  undo.disableUndoRegistration();
  undo.disableUndoRegistration();
  undo.enableUndoRegistration();
  EXPECT_FALSE(undo.isUndoRegistrationEnabled());
  c.set(1);
  undo.enableUndoRegistration();
  EXPECT_TRUE(undo.isUndoRegistrationEnabled());
  EXPECT_FALSE(undo.canUndo());
  EXPECT_EQ(exceptionName([&] { undo.enableUndoRegistration(); }),
            "NSInternalInconsistencyException");
  // removeAllActions re-enables registration.
  undo.disableUndoRegistration();
  undo.removeAllActions();
  EXPECT_TRUE(undo.isUndoRegistrationEnabled());
}

TEST(UndoManagerTest, MisuseRaisesInternalInconsistency) {
  UndoManager undo;
  EXPECT_EQ(exceptionName([&] { undo.endUndoGrouping(); }), "NSInternalInconsistencyException");
  undo.beginUndoGrouping();
  undo.beginUndoGrouping();
  EXPECT_EQ(exceptionName([&] { undo.undo(); }), "NSInternalInconsistencyException");
  EXPECT_EQ(exceptionName([&] { undo.undoNestedGroup(); }), "NSInternalInconsistencyException");
  undo.endUndoGrouping();
  undo.endUndoGrouping();
  EXPECT_EQ(undo.groupingLevel(), 0);
  // Redo from inside an undo action.
  std::string nested;
  undo.beginUndoGrouping();
  undo.registerUndoWithTarget(nullptr, [&] { nested = exceptionName([&] { undo.redo(); }); });
  undo.endUndoGrouping();
  undo.undo();
  EXPECT_EQ(nested, "NSInternalInconsistencyException");
}

TEST(UndoManagerTest, AThrowingActionLeavesTheManagerUsable) {
  UndoManager undo;
  Counter c{&undo};
  undo.setGroupsByEvent(false);
  undo.beginUndoGrouping();
  c.set(1);
  undo.endUndoGrouping();
  undo.beginUndoGrouping();
  undo.registerUndoWithTarget(nullptr, [] { throw std::runtime_error("vanished object"); });
  undo.endUndoGrouping();
  EXPECT_THROW(undo.undo(), std::runtime_error);
  EXPECT_FALSE(undo.isUndoing());
  EXPECT_EQ(undo.groupingLevel(), 0);
  undo.undo();
  EXPECT_EQ(c.value, 0);
}

TEST(UndoManagerTest, RemovingActionsByTarget) {
  UndoManager undo;
  undo.setGroupsByEvent(false);
  Counter a{&undo}, b{&undo};
  undo.beginUndoGrouping();
  a.set(1);
  b.set(1);
  undo.endUndoGrouping();
  undo.beginUndoGrouping();
  a.set(2);
  undo.endUndoGrouping();
  undo.removeAllActionsWithTarget(&a);
  undo.undo();  // the group that held only a's action is gone
  EXPECT_EQ(a.value, 2);
  EXPECT_EQ(b.value, 0);
  EXPECT_FALSE(undo.canUndo());
  undo.redo();
  EXPECT_EQ(b.value, 1);
  undo.removeAllActions();
  EXPECT_FALSE(undo.canUndo());
  EXPECT_FALSE(undo.canRedo());
}

}  // namespace
}  // namespace quillon
