#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/value.h"

namespace quillon {

class Operation;
class OperationQueue;

// The store's queue of record and change-file writes, and what saving
// reports back: the first write that failed since someone last asked, and
// the progress of the save being made.
//
// A save's record writes run in parallel; its change file's write depends
// on every write added before it, so that the change file is the last file
// of its save to reach the disk. Owned by the store and destroyed before
// the cache and the package files its operations use (the queue's
// destruction waits for running operations). Thread-safe; wait() must not
// be called from one of its own operations.
class QuillonSaveQueue {
 public:
  QuillonSaveQueue();
  ~QuillonSaveQueue();
  QuillonSaveQueue(const QuillonSaveQueue&) = delete;
  QuillonSaveQueue& operator=(const QuillonSaveQueue&) = delete;

  // The queue itself, made on first use.
  OperationQueue& operations();
  // With `afterEverything` the operation first depends on every operation
  // added before it that has not finished.
  void enqueue(const std::shared_ptr<Operation>& operation, bool afterEverything);
  // Waits until every operation added so far has finished, then answers
  // the first failure recorded since the last call (and forgets it), or no
  // error when everything is on disk.
  [[nodiscard]] Error wait();
  // Keeps `failure` unless an earlier one is still unanswered.
  void recordFailure(const Error& failure);

  // ---- Progress of the save being made ----
  // A save of `count` objects begins.
  void beginSave(int64_t count);
  // One more object of it was handed to the queue; tells the progress
  // dictionary, when there is one, on the main queue.
  void objectSaved();
  int64_t count() const { return count_.load(); }
  int64_t done() const { return done_.load(); }
  // A mutable dictionary that receives "progressMax" and "progressValue" on
  // the main thread, or nil.
  void setProgressInfo(Value progressInfo);
  Value progressInfo() const;

 private:
  std::once_flag queueOnce_;
  std::unique_ptr<OperationQueue> queue_;

  std::mutex mutex_;  // guards what follows
  std::vector<std::weak_ptr<Operation>> pending_;
  size_t pruneAt_ = 64;
  Error firstFailure_;

  std::atomic<int64_t> count_{0};
  std::atomic<int64_t> done_{0};
  mutable std::mutex progressMutex_;
  Value progressInfo_;
};

}  // namespace quillon
