#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string_view>

#include "quillon/base/value.h"
#include "quillon/graph/undo_manager.h"

namespace quillon {

// The undo manager every QuillonDocument installs. Objects of a document can
// change or vanish under it when another computer's change is applied, so it
// is more forgiving than UndoManager:
//   - it keeps the targets of the 200 most recent registrations alive, with
//     whatever their actions hold;
//   - an undo, redo or endUndoGrouping that raises quillon::Exception (an
//     action on a vanished object, an unbalanced group) is logged to the
//     system log and dropped; other exceptions propagate;
//   - redo does nothing while an undo or redo is running;
//   - disabling and enabling registration do not nest: one enable undoes any
//     number of disables, and an enable while enabled is harmless.
// It keeps 100 levels of undo.
//
// Owned by its document; like UndoManager, used on the main thread only.
class QuillonUndoManager : public UndoManager {
 public:
  static constexpr size_t kLevelsOfUndo = 100;
  static constexpr size_t kMaximumTargets = 200;

  QuillonUndoManager();

  // Registers with UndoManager, then puts the target first in targets().
  // The raw-pointer form keeps the action (and what it captured) alive; the
  // shared form also keeps the target itself.
  void registerUndoWithTarget(const void* target, std::function<void()> action) override;
  void registerUndoWithTarget(std::shared_ptr<const void> target, std::function<void()> action);

  // The targets of the most recent registrations, newest first, at most
  // kMaximumTargets; each points at its target.
  const std::deque<std::shared_ptr<const void>>& targets() const { return targets_; }

  void undo() override;
  void redo() override;
  void endUndoGrouping() override;
  void disableUndoRegistration() override;
  void enableUndoRegistration() override;

  // A diagnostic registration that the framework does not use itself: when
  // registration is enabled it registers `action` and records
  // {"target", "class" (the target's class name), "selector", "object" (the
  // class name of `object`), "uid" (a new UUID)} on myRedoStack() while
  // undoing, else on myUndoStack(), then writes the undo records to the
  // system log. A target whose class is a text storage is logged too.
  void registerUndoWithTargetOff(std::shared_ptr<Object> target, std::string_view selector,
                                 const Value& object, std::function<void()> action);
  // Arrays of the records above; nil until the first diagnostic registration.
  const Value& myUndoStack() const { return myUndoStack_; }
  const Value& myRedoStack() const { return myRedoStack_; }

 private:
  void remember(std::shared_ptr<const void> target);
  // Runs one of the base* calls, dropping the framework's exceptions.
  void forgiving(std::string_view operation, void (QuillonUndoManager::*call)());
  // UndoManager's own operations, called without virtual dispatch.
  void baseUndo() { UndoManager::undo(); }
  void baseRedo() { UndoManager::redo(); }
  void baseEndUndoGrouping() { UndoManager::endUndoGrouping(); }

  std::deque<std::shared_ptr<const void>> targets_;
  Value myUndoStack_;
  Value myRedoStack_;
};

}  // namespace quillon
