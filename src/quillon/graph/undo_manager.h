#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {

// Names of the notifications an UndoManager posts (object: the manager).
inline constexpr std::string_view kUndoManagerCheckpointNotification =
    "NSUndoManagerCheckpointNotification";
inline constexpr std::string_view kUndoManagerDidUndoChangeNotification =
    "NSUndoManagerDidUndoChangeNotification";
inline constexpr std::string_view kUndoManagerDidRedoChangeNotification =
    "NSUndoManagerDidRedoChangeNotification";
inline constexpr std::string_view kUndoManagerDidOpenUndoGroupNotification =
    "NSUndoManagerDidOpenUndoGroupNotification";
inline constexpr std::string_view kUndoManagerDidCloseUndoGroupNotification =
    "NSUndoManagerDidCloseUndoGroupNotification";
// The name of the exception raised on misuse (unbalanced groups, enabling
// registration that was never disabled, undoing inside a nested group).
inline constexpr std::string_view kInternalInconsistencyException =
    "NSInternalInconsistencyException";

// Records undo actions in groups and replays them backwards. Each undo or
// redo replays one top-level group; actions registered while undoing land on
// the redo stack and those registered while redoing on the undo stack, so
// undo and redo alternate without limit (up to levelsOfUndo groups each).
//
// With groupsByEvent (the default) the first registration outside a group
// opens one that closes at the end of the current main-queue turn: the
// end-of-turn hook (by default MainQueue::async) is handed the closing call.
// Tests may install a hook they drive by hand; with an empty hook the
// automatic group stays open until undo() closes it.
//
// Notifications go to NotificationCenter::defaultCenter().
//
// Main operations are virtual so that a document's undo manager can make them
// more forgiving. Misuse raises quillon::Exception named
// "NSInternalInconsistencyException". Not thread-safe: used on the main thread
// by whoever owns the document or context.
class UndoManager {
 public:
  // Called with a closure to run once the current turn of the main queue has
  // finished.
  using EndOfTurnHook = std::function<void(std::function<void()> endOfTurn)>;

  UndoManager();
  virtual ~UndoManager();
  UndoManager(const UndoManager&) = delete;
  UndoManager& operator=(const UndoManager&) = delete;

  // Groups.
  virtual void beginUndoGrouping();
  virtual void endUndoGrouping();
  int groupingLevel() const { return groupingLevel_; }
  bool groupsByEvent() const { return groupsByEvent_; }
  void setGroupsByEvent(bool groupsByEvent) { groupsByEvent_ = groupsByEvent; }
  void setEndOfTurnHook(EndOfTurnHook hook) { endOfTurnHook_ = std::move(hook); }
  const EndOfTurnHook& endOfTurnHook() const { return endOfTurnHook_; }

  // The most groups kept on each stack, oldest dropped first; 0 is no limit.
  size_t levelsOfUndo() const { return levelsOfUndo_; }
  virtual void setLevelsOfUndo(size_t levels);

  // Records `action` to be run by the next undo (or redo, while undoing).
  // `target` identifies the object the action works on, for
  // removeAllActionsWithTarget; it is never dereferenced.
  virtual void registerUndoWithTarget(const void* target, std::function<void()> action);
  // Names the current top-level group ("Typing", "Delete Note").
  virtual void setActionName(std::string_view name);
  std::string undoActionName() const;
  std::string redoActionName() const;

  virtual void undo();
  virtual void redo();
  // Undoes the most recent top-level group; the grouping level must be 0.
  virtual void undoNestedGroup();
  bool canUndo() const;
  bool canRedo() const;
  bool isUndoing() const { return undoing_; }
  bool isRedoing() const { return redoing_; }

  // Registration nests: every disable needs its enable.
  virtual void disableUndoRegistration();
  virtual void enableUndoRegistration();
  bool isUndoRegistrationEnabled() const { return disableCount_ == 0; }

  // Clears both stacks, closes open groups and enables registration.
  virtual void removeAllActions();
  virtual void removeAllActionsWithTarget(const void* target);

 protected:
  // Posts one of the notifications above with this manager as object.
  virtual void postNotification(std::string_view name);

 private:
  struct Group;
  struct Item {
    const void* target = nullptr;
    std::function<void()> action;
    std::unique_ptr<Group> group;  // a nested group instead of an action
  };
  struct Group {
    std::string actionName;
    std::vector<Item> items;
    Group* parent = nullptr;
    bool open = false;
  };
  using Stack = std::deque<std::unique_ptr<Group>>;

  [[noreturn]] void raise(std::string reason) const;
  Stack& registrationStack() { return undoing_ ? redoStack_ : undoStack_; }
  void trim(Stack& stack) const;
  void perform(Group& group);
  // Replays the top group of `from` with undoing_ or redoing_ set.
  void replay(Stack& from, bool* flag, std::string_view didChangeNotification);
  void closeAutomaticGroupAtEndOfTurn();
  static bool removeTarget(Group& group, const void* target);

  Stack undoStack_;
  Stack redoStack_;
  Group* openGroup_ = nullptr;  // innermost open group
  int groupingLevel_ = 0;
  int disableCount_ = 0;
  size_t levelsOfUndo_ = 0;
  bool groupsByEvent_ = true;
  bool undoing_ = false;
  bool redoing_ = false;
  bool automaticGroupOpen_ = false;
  uint64_t automaticGroupGeneration_ = 0;
  EndOfTurnHook endOfTurnHook_;
  std::shared_ptr<UndoManager*> self_;  // lets a late end-of-turn call see we are gone
};

}  // namespace quillon
