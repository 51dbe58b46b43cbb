#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace quillon {

// A serial queue with its own worker thread and a label (".ReadQueue",
// ".CacheQueue", "REBUILDCACHE"). Blocks run one at a time in submission
// order. The destructor finishes the queued blocks and joins the worker.
// Thread-safe.
class DispatchQueue {
 public:
  explicit DispatchQueue(std::string label);
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  const std::string& label() const { return label_; }
  void async(std::function<void()> block);
  // Runs the block on the queue and waits for it; runs it inline when called
  // from the queue itself, so a block may call sync() on its own queue.
  void sync(const std::function<void()>& block);
  // Whether the calling thread is this queue's worker.
  bool isCurrent() const;
  // Waits until every block submitted before this call has run.
  void drain();

 private:
  void run();

  std::string label_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> blocks_;
  bool busy_ = false;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace quillon
