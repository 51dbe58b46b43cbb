#include "quillon/store/save_queue.h"

#include <algorithm>
#include <string>
#include <utility>

#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/version.h"
#include "quillon/platform/main_queue.h"

namespace quillon {

QuillonSaveQueue::QuillonSaveQueue() = default;
QuillonSaveQueue::~QuillonSaveQueue() = default;

OperationQueue& QuillonSaveQueue::operations() {
  std::call_once(queueOnce_, [this] {
    queue_ =
        std::make_unique<OperationQueue>(std::string(kQuillonFrameworkIdentifier) + ".SaveQueue");
  });
  return *queue_;
}

void QuillonSaveQueue::enqueue(const std::shared_ptr<Operation>& operation, bool afterEverything) {
  OperationQueue& queue = operations();
  {
    std::lock_guard lock(mutex_);
    // Finished operations are forgotten in batches, so that a long session
    // neither keeps them all nor scans the list on every save.
    if (pending_.size() >= pruneAt_) {
      std::erase_if(pending_, [](const std::weak_ptr<Operation>& weak) {
        auto op = weak.lock();
        return !op || op->isFinished();
      });
      pruneAt_ = std::max<size_t>(64, pending_.size() * 2);
    }
    if (afterEverything) {
      for (const auto& weak : pending_) {
        if (auto op = weak.lock()) operation->addDependency(op);
      }
    }
    pending_.push_back(operation);
  }
  queue.addOperation(operation);
}

Error QuillonSaveQueue::wait() {
  operations().waitUntilAllOperationsAreFinished();
  std::lock_guard lock(mutex_);
  return std::exchange(firstFailure_, Error());
}

void QuillonSaveQueue::recordFailure(const Error& failure) {
  std::lock_guard lock(mutex_);
  if (!firstFailure_) firstFailure_ = failure;
}

void QuillonSaveQueue::beginSave(int64_t count) {
  count_.store(count);
  done_.store(0);
}

void QuillonSaveQueue::objectSaved() {
  const int64_t done = ++done_;
  Value info = progressInfo();
  if (!info.isDictionary()) return;
  MainQueue::async([info, max = count_.load(), done]() mutable {
    info.set(Value::string("progressMax"), Value::integer(max));
    info.set(Value::string("progressValue"), Value::integer(done));
  });
}

void QuillonSaveQueue::setProgressInfo(Value progressInfo) {
  std::lock_guard lock(progressMutex_);
  progressInfo_ = std::move(progressInfo);
}

Value QuillonSaveQueue::progressInfo() const {
  std::lock_guard lock(progressMutex_);
  return progressInfo_;
}

}  // namespace quillon
