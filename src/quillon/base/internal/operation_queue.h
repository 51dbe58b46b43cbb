#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quillon {

// Relative start order of ready operations in one queue.
enum class QueuePriority : int {
  VeryLow = -8,
  Low = -4,
  Normal = 0,
  High = 4,
  VeryHigh = 8,
};

namespace detail {
struct OperationQueueState;
}

// A unit of work for an OperationQueue: a block (or an override of main()),
// dependencies on other operations, a priority, cancellation and a completion
// block. Shared by whoever holds it (the queue holds it until it finishes).
// Thread-safe; configure dependencies, priority and completion block before
// adding the operation to a queue.
class Operation : public std::enable_shared_from_this<Operation> {
 public:
  explicit Operation(std::function<void()> block = {});
  virtual ~Operation();
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  static std::shared_ptr<Operation> withBlock(std::function<void()> block) {
    return std::make_shared<Operation>(std::move(block));
  }

  // This operation starts only after `operation` has finished (or was
  // cancelled and so finished without running). The dependency may belong
  // to another queue. Adding a dependency once this operation has started
  // has no effect.
  void addDependency(std::shared_ptr<Operation> operation);
  std::vector<std::shared_ptr<Operation>> dependencies() const;

  QueuePriority queuePriority() const { return priority_.load(); }
  // Read when the operation becomes ready in its queue.
  void setQueuePriority(QueuePriority priority) { priority_.store(priority); }

  // Runs on the thread that ran the operation, after main() returns (or in
  // place of it for a cancelled operation) and before isFinished() turns
  // true, so whoever waits for the operation also sees its effects.
  void setCompletionBlock(std::function<void()> block);

  // A cancelled operation that has not started finishes without running;
  // one that is running is only flagged (main() may poll isCancelled()).
  void cancel();
  bool isCancelled() const { return cancelled_.load(); }
  bool isExecuting() const { return executing_.load(); }
  bool isFinished() const { return finished_.load(); }
  // Every dependency has finished, or the operation was cancelled.
  bool isReady() const;

  // Blocks until the operation has finished. Never call it from the
  // operation itself.
  void waitUntilFinished();

  // Runs the operation on the calling thread (what a queue's worker does).
  // Does nothing when it has already started.
  void start();

 protected:
  // The work; the default runs the block given at construction.
  virtual void main();

 private:
  friend struct detail::OperationQueueState;
  void dependencyFinished();

  std::function<void()> block_;
  std::atomic<QueuePriority> priority_{QueuePriority::Normal};
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};

  mutable std::mutex mutex_;
  std::condition_variable finishedSignal_;
  bool started_ = false;
  int unfinishedDependencies_ = 0;
  std::vector<std::shared_ptr<Operation>> dependencies_;
  std::vector<std::weak_ptr<Operation>> dependents_;
  std::function<void()> completionBlock_;
  // The queue that holds the operation, told when it becomes ready.
  std::weak_ptr<detail::OperationQueueState> queue_;
  uint64_t sequence_ = 0;  // position in its queue, for FIFO among equals
};

// Runs operations on worker threads: ready operations start highest priority
// first, then in the order they were added, never more at once than
// maxConcurrentOperationCount(). Workers are created on demand and exit when
// idle. The destructor cancels the operations that have not started and
// waits for the running ones. Thread-safe, except that no method that waits
// may be called from one of this queue's own operations.
class OperationQueue {
 public:
  explicit OperationQueue(std::string name = {});
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  std::string name() const;
  void setName(std::string name);

  // Defaults to the number of cores; a value below 1 restores the default.
  int maxConcurrentOperationCount() const;
  void setMaxConcurrentOperationCount(int count);

  // A suspended queue starts no operation; running ones go on.
  bool isSuspended() const;
  void setSuspended(bool suspended);

  // An operation belongs to one queue, once; adding one that is already
  // queued, started or finished throws Exception "NSInvalidArgumentException".
  void addOperation(std::shared_ptr<Operation> operation);
  std::shared_ptr<Operation> addOperationWithBlock(std::function<void()> block);
  void addOperations(const std::vector<std::shared_ptr<Operation>>& operations,
                     bool waitUntilFinished);

  // Operations added and not yet finished (waiting, ready or running).
  size_t operationCount() const;
  void cancelAllOperations();
  void waitUntilAllOperationsAreFinished();

 private:
  std::shared_ptr<detail::OperationQueueState> state_;
};

}  // namespace quillon
