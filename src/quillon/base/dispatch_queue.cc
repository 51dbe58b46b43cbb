#include "quillon/base/internal/dispatch_queue.h"

#include <pthread.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "quillon/base/internal/system_log.h"

namespace quillon {

DispatchQueue::DispatchQueue(std::string label) : label_(std::move(label)) {
  // Held while the thread is created so that run(), which starts by taking
  // the lock, sees worker_ assigned (isCurrent() reads it from the worker).
  std::lock_guard lock(mutex_);
  worker_ = std::thread([this] { run(); });
}

DispatchQueue::~DispatchQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  // A queue destroyed by one of its own blocks cannot join itself; that is a
  // programming error and terminates.
  worker_.join();
}

void DispatchQueue::async(std::function<void()> block) {
  {
    std::lock_guard lock(mutex_);
    blocks_.push_back(std::move(block));
  }
  wake_.notify_one();
}

void DispatchQueue::sync(const std::function<void()>& block) {
  if (isCurrent()) {
    block();
    return;
  }
  std::mutex doneMutex;
  std::condition_variable doneSignal;
  bool done = false;
  std::exception_ptr failure;
  async([&] {
    try {
      block();
    } catch (...) {
      failure = std::current_exception();
    }
    std::lock_guard lock(doneMutex);
    done = true;
    doneSignal.notify_one();
  });
  std::unique_lock lock(doneMutex);
  doneSignal.wait(lock, [&] { return done; });
  if (failure) std::rethrow_exception(failure);
}

bool DispatchQueue::isCurrent() const { return worker_.get_id() == std::this_thread::get_id(); }

void DispatchQueue::drain() {
  if (isCurrent()) return;  // everything submitted before has already run
  sync([] {});
}

void DispatchQueue::run() {
  std::unique_lock lock(mutex_);
  if (!label_.empty()) {
    // Linux limits thread names to 15 bytes; cut at a character boundary.
    size_t length = std::min<size_t>(label_.size(), 15);
    while (length > 0 && length < label_.size() &&
           (static_cast<unsigned char>(label_[length]) & 0xC0) == 0x80) {
      --length;
    }
    pthread_setname_np(pthread_self(), label_.substr(0, length).c_str());
  }
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !blocks_.empty(); });
    if (blocks_.empty()) break;  // stopping and nothing left
    std::function<void()> block = std::move(blocks_.front());
    blocks_.pop_front();
    busy_ = true;
    lock.unlock();
    try {
      block();
    } catch (const std::exception& e) {
      systemLog("uncaught exception on queue " + label_ + ": " + e.what());
    } catch (...) {
      systemLog("uncaught exception on queue " + label_);
    }
    block = nullptr;  // release captures before reporting idle
    lock.lock();
    busy_ = false;
    if (blocks_.empty()) idle_.notify_all();
  }
}

}  // namespace quillon
