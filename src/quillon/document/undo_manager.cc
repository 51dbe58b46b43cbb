#include "quillon/document/undo_manager.h"

#include <fmt/format.h>

#include <utility>

#include "quillon/base/error.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/base/internal/uuid.h"

namespace quillon {
namespace {

std::string classNameOf(const Value& value) {
  if (value.isObject() && value.objectValue()) return value.objectValue()->className();
  return Value::kindName(value.kind());
}

bool isTextStorage(std::string_view className) { return className.ends_with("TextStorage"); }

std::string describeRecords(const Value& records) {
  std::string text = "undo stack:";
  for (const Value& record : records.elements()) {
    text += fmt::format(" [{} {} {} {}]", record.get("class").str(), record.get("selector").str(),
                        record.get("object").str(), record.get("uid").str());
  }
  return text;
}

}  // namespace

QuillonUndoManager::QuillonUndoManager() { setLevelsOfUndo(kLevelsOfUndo); }

void QuillonUndoManager::registerUndoWithTarget(const void* target, std::function<void()> action) {
  // The action is shared between the stack and targets(), so what it holds
  // lives on even once the stack has let go of it.
  auto held = std::make_shared<std::function<void()>>(std::move(action));
  UndoManager::registerUndoWithTarget(target, [held] { (*held)(); });
  remember(std::shared_ptr<const void>(held, target));
}

void QuillonUndoManager::registerUndoWithTarget(std::shared_ptr<const void> target,
                                                std::function<void()> action) {
  UndoManager::registerUndoWithTarget(target.get(), std::move(action));
  remember(std::move(target));
}

void QuillonUndoManager::remember(std::shared_ptr<const void> target) {
  targets_.push_front(std::move(target));
  if (targets_.size() > kMaximumTargets) targets_.resize(kMaximumTargets);
}

void QuillonUndoManager::forgiving(std::string_view operation, void (QuillonUndoManager::*call)()) {
  try {
    (this->*call)();
  } catch (const Exception& e) {
    systemLog(fmt::format("{} dropped {}: {}", operation, e.name(), e.reason()));
  }
}

void QuillonUndoManager::undo() { forgiving("undo", &QuillonUndoManager::baseUndo); }

void QuillonUndoManager::redo() {
  if (isUndoing() || isRedoing()) return;
  forgiving("redo", &QuillonUndoManager::baseRedo);
}

void QuillonUndoManager::endUndoGrouping() {
  forgiving("endUndoGrouping", &QuillonUndoManager::baseEndUndoGrouping);
}

void QuillonUndoManager::disableUndoRegistration() {
  if (isUndoRegistrationEnabled()) UndoManager::disableUndoRegistration();
}

void QuillonUndoManager::enableUndoRegistration() {
  if (!isUndoRegistrationEnabled()) UndoManager::enableUndoRegistration();
}

void QuillonUndoManager::registerUndoWithTargetOff(std::shared_ptr<Object> target,
                                                   std::string_view selector, const Value& object,
                                                   std::function<void()> action) {
  if (myUndoStack_.isNil()) myUndoStack_ = Value::mutableArray();
  if (myRedoStack_.isNil()) myRedoStack_ = Value::mutableArray();
  if (!isUndoRegistrationEnabled()) return;
  UndoManager::registerUndoWithTarget(target.get(), std::move(action));
  Value targetValue = target ? Value::object(target) : Value();
  std::string className = classNameOf(targetValue);
  Value record = Value::dictionary({{"target", targetValue},
                                    {"class", className},
                                    {"selector", selector},
                                    {"object", classNameOf(object)},
                                    {"uid", makeUUIDString()}});
  if (target && isTextStorage(className)) systemLog("undo target: " + target->description());
  Value& onto = isUndoing() ? myRedoStack_ : myUndoStack_;
  Value& other = isUndoing() ? myUndoStack_ : myRedoStack_;
  onto.append(record);
  other.remove(record);
  systemLog(describeRecords(myUndoStack_));
}

}  // namespace quillon
