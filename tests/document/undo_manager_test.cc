#include "quillon/document/undo_manager.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/internal/uuid.h"
#include "support/log_capture.h"

namespace quillon {
namespace {

// A manager whose groups are opened and closed by the test, as a document
// does around each user action.
class QuillonUndoManagerTest : public ::testing::Test {
 protected:
  QuillonUndoManagerTest() { undo_.setGroupsByEvent(false); }

  void inGroup(const std::function<void()>& body) {
    undo_.beginUndoGrouping();
    body();
    undo_.endUndoGrouping();
  }
  void registerGroup(std::function<void()> action) {
    inGroup([&] { undo_.registerUndoWithTarget(this, std::move(action)); });
  }

  QuillonUndoManager undo_;
};

TEST_F(QuillonUndoManagerTest, KeepsTheTwoHundredNewestTargetsNewestFirst) {
  std::vector<std::weak_ptr<int>> watched;
  inGroup([&] {
    for (int i = 0; i < 250; ++i) {
      auto target = std::make_shared<int>(i);
      watched.push_back(target);
      undo_.registerUndoWithTarget(std::shared_ptr<const void>(target), [] {});
    }
  });
  ASSERT_EQ(undo_.targets().size(), 200u);
  for (size_t i = 0; i < 200; ++i) {
    EXPECT_EQ(*static_cast<const int*>(undo_.targets()[i].get()), 249 - static_cast<int>(i));
  }
  for (int i = 0; i < 250; ++i) EXPECT_EQ(watched[i].expired(), i < 50) << i;
}

TEST_F(QuillonUndoManagerTest, RawTargetsKeepWhatTheirActionsHoldAfterTheStackLetsGo) {
  auto captured = std::make_shared<int>(7);
  std::weak_ptr<int> watched = captured;
  int target = 0;
  inGroup([&] { undo_.registerUndoWithTarget(&target, [captured] {}); });
  captured.reset();
  undo_.removeAllActions();
  EXPECT_FALSE(watched.expired());
  EXPECT_EQ(undo_.targets().front().get(), &target);

  for (int i = 0; i < 200; ++i) registerGroup([] {});
  EXPECT_TRUE(watched.expired());
}

TEST_F(QuillonUndoManagerTest, KeepsAHundredLevelsOfUndo) {
  EXPECT_EQ(undo_.levelsOfUndo(), 100u);
  std::vector<int> undone;
  for (int i = 0; i < 150; ++i) registerGroup([&undone, i] { undone.push_back(i); });
  while (undo_.canUndo()) undo_.undo();
  ASSERT_EQ(undone.size(), 100u);
  EXPECT_EQ(undone.front(), 149);
  EXPECT_EQ(undone.back(), 50);
}

TEST_F(QuillonUndoManagerTest, RegistrationSwitchesDoNotNest) {
  undo_.disableUndoRegistration();
  undo_.disableUndoRegistration();
  registerGroup([] {});
  EXPECT_FALSE(undo_.canUndo());
  undo_.enableUndoRegistration();
  EXPECT_TRUE(undo_.isUndoRegistrationEnabled());

  undo_.enableUndoRegistration();  // already enabled: no exception, no change
  EXPECT_TRUE(undo_.isUndoRegistrationEnabled());
  registerGroup([] {});
  EXPECT_TRUE(undo_.canUndo());
}

TEST_F(QuillonUndoManagerTest, FrameworkExceptionsAreDroppedAndTheManagerGoesOn) {
  testing::LogCapture log;
  bool later = false;
  registerGroup([] { throw Exception("NSInternalInconsistencyException", "object is gone"); });
  EXPECT_NO_THROW(undo_.undo());
  EXPECT_FALSE(undo_.isUndoing());
  EXPECT_EQ(undo_.groupingLevel(), 0);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("object is gone"), std::string::npos);

  EXPECT_NO_THROW(undo_.endUndoGrouping());  // no group is open

  registerGroup([&] { later = true; });
  undo_.undo();
  EXPECT_TRUE(later);

  // A redo that raises is dropped the same way.
  registerGroup([this] {
    undo_.registerUndoWithTarget(this, [] { throw Exception("MergeException", "redo"); });
  });
  undo_.undo();
  ASSERT_TRUE(undo_.canRedo());
  EXPECT_NO_THROW(undo_.redo());
  EXPECT_FALSE(undo_.isRedoing());
}

TEST_F(QuillonUndoManagerTest, OtherExceptionsPropagate) {
  registerGroup([] { throw std::runtime_error("a bug"); });
  EXPECT_THROW(undo_.undo(), std::runtime_error);
  EXPECT_FALSE(undo_.isUndoing());
}

TEST_F(QuillonUndoManagerTest, RedoIsIgnoredWhileUndoing) {
  testing::LogCapture log;
  bool actionFinished = false;
  bool redone = false;
  registerGroup([&] {
    undo_.redo();
    actionFinished = true;
  });
  registerGroup([&] { undo_.registerUndoWithTarget(this, [&] { redone = true; }); });
  undo_.undo();  // the second group, which leaves its inverse to redo
  undo_.undo();  // the first, whose action asks for a redo
  EXPECT_TRUE(actionFinished);
  EXPECT_FALSE(redone);
  EXPECT_TRUE(log.lines().empty()) << "ignored, not attempted and dropped: " << log.lines()[0];
  EXPECT_TRUE(undo_.canRedo());
  undo_.redo();
  EXPECT_TRUE(redone);
}

TEST_F(QuillonUndoManagerTest, DiagnosticRegistrationRecordsWhereTheActionWent) {
  EXPECT_TRUE(undo_.myUndoStack().isNil());
  auto storage = std::make_shared<GenericObject>("NSTextStorage", Value::dictionary());
  testing::LogCapture log;
  inGroup([&] {
    undo_.registerUndoWithTargetOff(storage, "replaceCharacters:", Value("text"), [&] {
      undo_.registerUndoWithTargetOff(storage, "replaceCharacters:", Value("text"), [] {});
    });
  });
  ASSERT_EQ(undo_.myUndoStack().size(), 1u);
  const Value& record = undo_.myUndoStack()[0];
  EXPECT_EQ(record.get("class"), Value("NSTextStorage"));
  EXPECT_EQ(record.get("selector"), Value("replaceCharacters:"));
  EXPECT_EQ(record.get("object"), Value(Value::kindName(Value::Kind::String)));
  EXPECT_TRUE(isUUIDString(record.get("uid").str()));
  EXPECT_EQ(record.get("target").objectValue(), storage);
  EXPECT_EQ(log.lines().size(), 2u);  // the text storage, then the undo stack

  undo_.undo();  // the inverse is recorded on the redo side
  ASSERT_EQ(undo_.myRedoStack().size(), 1u);
  EXPECT_EQ(undo_.myUndoStack().size(), 1u);
  EXPECT_TRUE(undo_.canRedo());

  undo_.disableUndoRegistration();
  inGroup([&] { undo_.registerUndoWithTargetOff(storage, "x", Value(), [] {}); });
  EXPECT_EQ(undo_.myUndoStack().size(), 1u);
  EXPECT_EQ(undo_.myRedoStack().size(), 1u);
}

}  // namespace
}  // namespace quillon
