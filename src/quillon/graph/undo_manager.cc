#include "quillon/graph/undo_manager.h"

#include <algorithm>

#include "quillon/base/error.h"
#include "quillon/base/notification_center.h"
#include "quillon/platform/main_queue.h"

namespace quillon {

UndoManager::UndoManager()
    : endOfTurnHook_(
          [](std::function<void()> endOfTurn) { MainQueue::async(std::move(endOfTurn)); }),
      self_(std::make_shared<UndoManager*>(this)) {}

UndoManager::~UndoManager() = default;

void UndoManager::raise(std::string reason) const {
  throw Exception(std::string(kInternalInconsistencyException), std::move(reason));
}

void UndoManager::postNotification(std::string_view name) {
  NotificationCenter::defaultCenter().post(name, this);
}

void UndoManager::trim(Stack& stack) const {
  if (levelsOfUndo_ == 0) return;
  while (stack.size() > levelsOfUndo_ && !stack.front()->open) stack.pop_front();
}

void UndoManager::setLevelsOfUndo(size_t levels) {
  levelsOfUndo_ = levels;
  trim(undoStack_);
  trim(redoStack_);
}

void UndoManager::beginUndoGrouping() {
  if (!undoing_ && !redoing_) postNotification(kUndoManagerCheckpointNotification);
  auto group = std::make_unique<Group>();
  group->open = true;
  group->parent = openGroup_;
  Group* raw = group.get();
  if (openGroup_) {
    Item item;
    item.group = std::move(group);
    openGroup_->items.push_back(std::move(item));
  } else {
    registrationStack().push_back(std::move(group));
  }
  openGroup_ = raw;
  ++groupingLevel_;
  postNotification(kUndoManagerDidOpenUndoGroupNotification);
}

void UndoManager::endUndoGrouping() {
  if (groupingLevel_ == 0 || !openGroup_) {
    raise("endUndoGrouping called with no matching beginUndoGrouping");
  }
  postNotification(kUndoManagerCheckpointNotification);
  Group* group = openGroup_;
  group->open = false;
  openGroup_ = group->parent;
  --groupingLevel_;
  Stack& stack = registrationStack();
  if (group->items.empty()) {
    // An empty group is not worth an undo step; it is the newest entry of its
    // parent or its stack, since nothing can be added beside an open group.
    if (openGroup_) {
      openGroup_->items.pop_back();
    } else if (!stack.empty() && stack.back().get() == group) {
      stack.pop_back();
    }
  }
  if (groupingLevel_ == 0) {
    automaticGroupOpen_ = false;
    ++automaticGroupGeneration_;
    trim(stack);
  }
  postNotification(kUndoManagerDidCloseUndoGroupNotification);
}

void UndoManager::registerUndoWithTarget(const void* target, std::function<void()> action) {
  if (disableCount_ > 0) return;
  if (groupingLevel_ == 0) {
    if (!groupsByEvent_) {
      raise("registerUndoWithTarget called without an open undo group while groupsByEvent is off");
    }
    beginUndoGrouping();
    closeAutomaticGroupAtEndOfTurn();
  }
  if (!undoing_ && !redoing_) redoStack_.clear();
  Item item;
  item.target = target;
  item.action = std::move(action);
  openGroup_->items.push_back(std::move(item));
}

void UndoManager::closeAutomaticGroupAtEndOfTurn() {
  automaticGroupOpen_ = true;
  if (!endOfTurnHook_) return;
  std::weak_ptr<UndoManager*> weakSelf = self_;
  uint64_t generation = automaticGroupGeneration_;
  endOfTurnHook_([weakSelf, generation] {
    auto self = weakSelf.lock();
    if (!self) return;
    UndoManager* manager = *self;
    if (manager->automaticGroupOpen_ && manager->automaticGroupGeneration_ == generation &&
        manager->groupingLevel_ == 1) {
      manager->endUndoGrouping();
    }
  });
}

void UndoManager::setActionName(std::string_view name) {
  Stack& stack = registrationStack();
  if (!stack.empty()) stack.back()->actionName = std::string(name);
}

std::string UndoManager::undoActionName() const {
  return undoStack_.empty() ? std::string() : undoStack_.back()->actionName;
}

std::string UndoManager::redoActionName() const {
  return redoStack_.empty() ? std::string() : redoStack_.back()->actionName;
}

bool UndoManager::canUndo() const {
  return std::any_of(undoStack_.rbegin(), undoStack_.rend(),
                     [](const auto& group) { return !group->items.empty(); });
}

bool UndoManager::canRedo() const {
  return std::any_of(redoStack_.rbegin(), redoStack_.rend(),
                     [](const auto& group) { return !group->items.empty(); });
}

void UndoManager::undo() {
  if (groupingLevel_ > 1) raise("undo called with too many nested undo groups");
  if (groupingLevel_ == 1) endUndoGrouping();
  undoNestedGroup();
}

void UndoManager::undoNestedGroup() {
  if (groupingLevel_ != 0) raise("undoNestedGroup called with an open undo group");
  if (undoing_ || redoing_) raise("undo called while an undo or redo is in progress");
  postNotification(kUndoManagerCheckpointNotification);
  replay(undoStack_, &undoing_, kUndoManagerDidUndoChangeNotification);
}

void UndoManager::redo() {
  if (undoing_ || redoing_) raise("redo called while an undo or redo is in progress");
  if (groupingLevel_ > 1) raise("redo called with too many nested undo groups");
  if (groupingLevel_ == 1) endUndoGrouping();
  postNotification(kUndoManagerCheckpointNotification);
  replay(redoStack_, &redoing_, kUndoManagerDidRedoChangeNotification);
}

void UndoManager::replay(Stack& from, bool* flag, std::string_view didChangeNotification) {
  if (from.empty()) return;
  std::unique_ptr<Group> group = std::move(from.back());
  from.pop_back();
  *flag = true;
  // The replayed actions register their inverses into a group of the same
  // name on the other stack.
  beginUndoGrouping();
  setActionName(group->actionName);
  const int level = groupingLevel_;
  auto finish = [&] {
    // An action may have left groups open or cleared everything; close only
    // what is still ours.
    while (groupingLevel_ >= level && groupingLevel_ > 0) endUndoGrouping();
    *flag = false;
  };
  try {
    perform(*group);
  } catch (...) {
    finish();
    throw;
  }
  finish();
  postNotification(didChangeNotification);
}

void UndoManager::perform(Group& group) {
  for (auto it = group.items.rbegin(); it != group.items.rend(); ++it) {
    if (it->group) {
      perform(*it->group);
    } else if (it->action) {
      it->action();
    }
  }
}

void UndoManager::disableUndoRegistration() { ++disableCount_; }

void UndoManager::enableUndoRegistration() {
  if (disableCount_ == 0) {
    raise("enableUndoRegistration called without a matching disableUndoRegistration");
  }
  --disableCount_;
}

void UndoManager::removeAllActions() {
  undoStack_.clear();
  redoStack_.clear();
  openGroup_ = nullptr;
  groupingLevel_ = 0;
  disableCount_ = 0;
  automaticGroupOpen_ = false;
  ++automaticGroupGeneration_;
}

bool UndoManager::removeTarget(Group& group, const void* target) {
  auto& items = group.items;
  items.erase(std::remove_if(items.begin(), items.end(),
                             [&](Item& item) {
                               if (item.group) {
                                 removeTarget(*item.group, target);
                                 return item.group->items.empty() && !item.group->open;
                               }
                               return item.target == target;
                             }),
              items.end());
  return items.empty();
}

void UndoManager::removeAllActionsWithTarget(const void* target) {
  for (Stack* stack : {&undoStack_, &redoStack_}) {
    stack->erase(std::remove_if(stack->begin(), stack->end(),
                                [&](std::unique_ptr<Group>& group) {
                                  return removeTarget(*group, target) && !group->open;
                                }),
                 stack->end());
  }
}

}  // namespace quillon
