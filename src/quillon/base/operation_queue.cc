#include "quillon/base/internal/operation_queue.h"

#include <pthread.h>

#include <algorithm>
#include <exception>
#include <map>
#include <thread>
#include <unordered_map>
#include <utility>

#include "quillon/base/error.h"
#include "quillon/base/internal/system_log.h"

namespace quillon {
namespace {

int defaultConcurrency() {
  unsigned cores = std::thread::hardware_concurrency();
  return cores == 0 ? 1 : static_cast<int>(cores);
}

void runLogged(const std::function<void()>& block, const char* what) {
  try {
    block();
  } catch (const std::exception& e) {
    systemLog(std::string("uncaught exception in ") + what + ": " + e.what());
  } catch (...) {
    systemLog(std::string("uncaught exception in ") + what);
  }
}

}  // namespace

namespace detail {

// What an OperationQueue shares with its workers and with the operations it
// holds, so that workers and late dependency notifications never touch a
// destroyed queue. Lock order: this mutex before an operation's mutex, and
// an operation never calls in here while holding its own.
struct OperationQueueState : std::enable_shared_from_this<OperationQueueState> {
  // Ready operations, highest priority first, then in the order added.
  using ReadyKey = std::pair<int, uint64_t>;

  mutable std::mutex mutex;
  std::condition_variable changed;  // an operation finished or a worker left
  std::string name;
  int maxConcurrent = defaultConcurrency();
  bool suspended = false;
  bool closing = false;
  uint64_t nextSequence = 0;
  std::unordered_map<Operation*, std::shared_ptr<Operation>> waiting;
  std::map<ReadyKey, std::shared_ptr<Operation>> ready;
  std::unordered_map<Operation*, std::shared_ptr<Operation>> running;
  size_t workers = 0;
  size_t unfinished = 0;

  static ReadyKey keyFor(const Operation& op) {
    return {-static_cast<int>(op.queuePriority()), op.sequence_};
  }

  void add(const std::shared_ptr<Operation>& op) {
    std::lock_guard lock(mutex);
    if (closing) throw Exception("NSInvalidArgumentException", "the queue is being destroyed");
    bool isReady;
    {
      std::lock_guard opLock(op->mutex_);
      if (op->started_ || op->finished_ || !op->queue_.expired() || op->sequence_ != 0) {
        throw Exception("NSInvalidArgumentException",
                        "an operation can be added to a queue only once, before it starts");
      }
      op->queue_ = weak_from_this();
      op->sequence_ = ++nextSequence;
      isReady = op->unfinishedDependencies_ == 0 || op->cancelled_;
    }
    ++unfinished;
    if (isReady) {
      ready.emplace(keyFor(*op), op);
      spawnWorkersLocked();
    } else {
      waiting.emplace(op.get(), op);
    }
  }

  // An operation's last dependency finished, or it was cancelled.
  void becameReady(Operation* op) {
    std::lock_guard lock(mutex);
    auto it = waiting.find(op);
    if (it == waiting.end()) return;
    ready.emplace(keyFor(*op), std::move(it->second));
    waiting.erase(it);
    spawnWorkersLocked();
  }

  void spawnWorkersLocked() {
    if (suspended || closing) return;
    while (workers < static_cast<size_t>(maxConcurrent) &&
           ready.size() > workers - running.size()) {
      ++workers;
      try {
        std::thread([self = shared_from_this()] { self->work(); }).detach();
      } catch (...) {
        --workers;
        throw;
      }
    }
  }

  void work() {
    std::unique_lock lock(mutex);
    if (!name.empty()) {
      pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    }
    while (!suspended && !closing && !ready.empty() &&
           running.size() < static_cast<size_t>(maxConcurrent)) {
      std::shared_ptr<Operation> op = std::move(ready.begin()->second);
      ready.erase(ready.begin());
      running.emplace(op.get(), op);
      lock.unlock();
      op->start();
      op->waitUntilFinished();  // in case someone else started it first
      lock.lock();
      running.erase(op.get());
      --unfinished;
      changed.notify_all();
      lock.unlock();
      op.reset();  // outside the lock: an operation's destructor may be anything
      lock.lock();
    }
    --workers;
    changed.notify_all();
  }

  std::vector<std::shared_ptr<Operation>> allLocked() const {
    std::vector<std::shared_ptr<Operation>> all;
    all.reserve(waiting.size() + ready.size() + running.size());
    for (const auto& [key, op] : waiting) all.push_back(op);
    for (const auto& [key, op] : ready) all.push_back(op);
    for (const auto& [key, op] : running) all.push_back(op);
    return all;
  }
};

}  // namespace detail

// ---------------------------------------------------------------------------
// Operation

Operation::Operation(std::function<void()> block) : block_(std::move(block)) {}

Operation::~Operation() = default;

void Operation::main() {
  if (block_) block_();
}

void Operation::addDependency(std::shared_ptr<Operation> operation) {
  if (!operation || operation.get() == this) return;
  // Both locks at once, so the dependency cannot finish between the check
  // and the count.
  std::scoped_lock lock(mutex_, operation->mutex_);
  if (started_) return;
  dependencies_.push_back(operation);
  if (!operation->finished_) {
    operation->dependents_.push_back(weak_from_this());
    ++unfinishedDependencies_;
  }
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
  std::lock_guard lock(mutex_);
  return dependencies_;
}

void Operation::setCompletionBlock(std::function<void()> block) {
  std::lock_guard lock(mutex_);
  completionBlock_ = std::move(block);
}

bool Operation::isReady() const {
  std::lock_guard lock(mutex_);
  return unfinishedDependencies_ == 0 || cancelled_;
}

void Operation::cancel() {
  std::shared_ptr<detail::OperationQueueState> queue;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_ || finished_) return;
    cancelled_ = true;
    if (!started_) queue = queue_.lock();
  }
  if (queue) queue->becameReady(this);
}

void Operation::dependencyFinished() {
  std::shared_ptr<detail::OperationQueueState> queue;
  {
    std::lock_guard lock(mutex_);
    if (unfinishedDependencies_ > 0 && --unfinishedDependencies_ == 0 && !started_) {
      queue = queue_.lock();
    }
  }
  if (queue) queue->becameReady(this);
}

void Operation::waitUntilFinished() {
  std::unique_lock lock(mutex_);
  finishedSignal_.wait(lock, [this] { return finished_.load(); });
}

void Operation::start() {
  std::function<void()> completion;
  {
    std::lock_guard lock(mutex_);
    if (started_) return;
    started_ = true;
  }
  if (!cancelled_) {
    executing_ = true;
    runLogged([this] { main(); }, "an operation");
    executing_ = false;
  }
  {
    std::lock_guard lock(mutex_);
    completion = std::move(completionBlock_);
  }
  if (completion) runLogged(completion, "an operation's completion block");

  std::vector<std::weak_ptr<Operation>> dependents;
  {
    std::lock_guard lock(mutex_);
    finished_ = true;
    dependents.swap(dependents_);
    finishedSignal_.notify_all();
  }
  for (const auto& weak : dependents) {
    if (auto dependent = weak.lock()) dependent->dependencyFinished();
  }
}

// ---------------------------------------------------------------------------
// OperationQueue

OperationQueue::OperationQueue(std::string name)
    : state_(std::make_shared<detail::OperationQueueState>()) {
  state_->name = std::move(name);
}

OperationQueue::~OperationQueue() {
  std::vector<std::shared_ptr<Operation>> abandoned;
  {
    std::lock_guard lock(state_->mutex);
    state_->closing = true;
    for (auto& [key, op] : state_->waiting) abandoned.push_back(std::move(op));
    for (auto& [key, op] : state_->ready) abandoned.push_back(std::move(op));
    state_->waiting.clear();
    state_->ready.clear();
    state_->unfinished -= abandoned.size();
  }
  // Finished without running, so that nothing waiting for them hangs.
  for (auto& op : abandoned) {
    op->cancel();
    op->start();
  }
  std::unique_lock lock(state_->mutex);
  state_->changed.wait(lock, [this] { return state_->workers == 0; });
}

std::string OperationQueue::name() const {
  std::lock_guard lock(state_->mutex);
  return state_->name;
}

void OperationQueue::setName(std::string name) {
  std::lock_guard lock(state_->mutex);
  state_->name = std::move(name);
}

int OperationQueue::maxConcurrentOperationCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->maxConcurrent;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
  std::lock_guard lock(state_->mutex);
  state_->maxConcurrent = count < 1 ? defaultConcurrency() : count;
  state_->spawnWorkersLocked();
}

bool OperationQueue::isSuspended() const {
  std::lock_guard lock(state_->mutex);
  return state_->suspended;
}

void OperationQueue::setSuspended(bool suspended) {
  std::lock_guard lock(state_->mutex);
  state_->suspended = suspended;
  state_->spawnWorkersLocked();
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
  if (!operation) throw Exception("NSInvalidArgumentException", "no operation");
  state_->add(operation);
}

std::shared_ptr<Operation> OperationQueue::addOperationWithBlock(std::function<void()> block) {
  auto op = Operation::withBlock(std::move(block));
  addOperation(op);
  return op;
}

void OperationQueue::addOperations(const std::vector<std::shared_ptr<Operation>>& operations,
                                   bool waitUntilFinished) {
  for (const auto& op : operations) addOperation(op);
  if (waitUntilFinished) {
    for (const auto& op : operations) op->waitUntilFinished();
  }
}

size_t OperationQueue::operationCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->unfinished;
}

void OperationQueue::cancelAllOperations() {
  std::vector<std::shared_ptr<Operation>> all;
  {
    std::lock_guard lock(state_->mutex);
    all = state_->allLocked();
  }
  for (const auto& op : all) op->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(state_->mutex);
  state_->changed.wait(lock, [this] { return state_->unfinished == 0; });
}

}  // namespace quillon
