#include "quillon/platform/main_queue.h"

#include <glib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <deque>
#include <exception>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "quillon/base/internal/system_log.h"

namespace quillon {
namespace {

class MonotonicClock final : public Clock {
 public:
  double now() override {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  bool tracksRealTime() const override { return true; }
};

struct DelayedCall {
  std::function<void()> block;
  const void* target;
  std::string selector;
};

// Delayed calls are keyed by due time, then by submission number, so equal
// due times keep submission order.
using TimerKey = std::pair<double, uint64_t>;

struct QueueState {
  std::mutex mutex;
  std::deque<std::function<void()>> blocks;
  std::map<TimerKey, DelayedCall> timers;
  uint64_t nextSequence = 0;
  MonotonicClock monotonic;
  Clock* clock = &monotonic;
  std::atomic<std::thread::id> mainThread{};
  GSource* source = nullptr;
};

QueueState& state() {
  static QueueState* s = new QueueState;  // lives for the process; never destroyed
  return *s;
}

void runGuarded(const std::function<void()>& block) {
  try {
    block();
  } catch (const std::exception& e) {
    systemLog(std::string("Uncaught exception in a main-queue block: ") + e.what());
  } catch (...) {
    systemLog("Uncaught exception in a main-queue block");
  }
}

// Whether something is ready; fills the poll timeout the loop may sleep for.
bool ready(gint* timeoutMs) {
  QueueState& s = state();
  std::lock_guard lock(s.mutex);
  if (!s.blocks.empty()) {
    if (timeoutMs) *timeoutMs = 0;
    return true;
  }
  if (s.timers.empty()) {
    if (timeoutMs) *timeoutMs = -1;
    return false;
  }
  double remaining = s.timers.begin()->first.first - s.clock->now();
  if (remaining <= 0) {
    if (timeoutMs) *timeoutMs = 0;
    return true;
  }
  if (timeoutMs) {
    if (s.clock->tracksRealTime()) {
      double ms = std::ceil(remaining * 1000.0);
      *timeoutMs = ms >= INT_MAX ? INT_MAX : static_cast<gint>(ms);
    } else {
      *timeoutMs = -1;  // the clock wakes us when it moves
    }
  }
  return false;
}

gboolean sourcePrepare(GSource*, gint* timeout) { return ready(timeout) ? TRUE : FALSE; }

gboolean sourceCheck(GSource*) { return ready(nullptr) ? TRUE : FALSE; }

void claimMainThreadIfUnset() {
  std::thread::id none;
  state().mainThread.compare_exchange_strong(none, std::this_thread::get_id());
}

gboolean sourceDispatch(GSource*, GSourceFunc, gpointer) {
  QueueState& s = state();
  claimMainThreadIfUnset();
  std::deque<std::function<void()>> blocks;
  uint64_t lastSequence;
  {
    std::lock_guard lock(s.mutex);
    blocks.swap(s.blocks);
    lastSequence = s.nextSequence;
  }
  for (auto& block : blocks) runGuarded(block);
  // Calls scheduled while we run wait for the next iteration, so a call that
  // reschedules itself with no delay cannot starve the loop.
  for (;;) {
    std::function<void()> block;
    {
      std::lock_guard lock(s.mutex);
      double now = s.clock->now();
      auto due = s.timers.begin();
      while (due != s.timers.end() && due->first.first <= now &&
             due->first.second >= lastSequence) {
        ++due;
      }
      if (due == s.timers.end() || due->first.first > now) break;
      block = std::move(due->second.block);
      s.timers.erase(due);
    }
    runGuarded(block);
  }
  return G_SOURCE_CONTINUE;
}

GSourceFuncs kSourceFuncs = {sourcePrepare, sourceCheck, sourceDispatch, nullptr, nullptr, nullptr};

void ensureSource() {
  static std::once_flag once;
  std::call_once(once, [] {
    GSource* source = g_source_new(&kSourceFuncs, sizeof(GSource));
    g_source_set_name(source, "quillon main queue");
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    // A block may itself run the loop (runUntil inside a block).
    g_source_set_can_recurse(source, TRUE);
    g_source_attach(source, g_main_context_default());
    state().source = source;
  });
}

}  // namespace

void MainQueue::async(std::function<void()> block) {
  ensureSource();
  {
    QueueState& s = state();
    std::lock_guard lock(s.mutex);
    s.blocks.push_back(std::move(block));
  }
  g_main_context_wakeup(g_main_context_default());
}

void MainQueue::sync(std::function<void()> block) {
  if (isMainThread()) {
    block();
    return;
  }
  std::promise<void> done;
  std::future<void> finished = done.get_future();
  async([&block, &done] {
    try {
      block();
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  finished.get();
}

bool MainQueue::isMainThread() {
  std::thread::id main = state().mainThread.load();
  if (main == std::thread::id()) {
    // Before any loop ran, the process's initial thread is the main one.
    return static_cast<pid_t>(::syscall(SYS_gettid)) == ::getpid();
  }
  return main == std::this_thread::get_id();
}

void MainQueue::setMainThreadToCurrent() { state().mainThread.store(std::this_thread::get_id()); }

void MainQueue::afterDelay(double seconds, std::function<void()> block, const void* target,
                           std::string selector) {
  ensureSource();
  {
    QueueState& s = state();
    std::lock_guard lock(s.mutex);
    double due = s.clock->now() + (seconds > 0 ? seconds : 0);
    s.timers.emplace(TimerKey{due, s.nextSequence++},
                     DelayedCall{std::move(block), target, std::move(selector)});
  }
  wakeUp();
}

void MainQueue::cancelPreviousPerformRequests(const void* target, std::string_view selector) {
  if (!target) return;
  std::vector<std::function<void()>> cancelled;  // destroyed outside the lock
  QueueState& s = state();
  std::lock_guard lock(s.mutex);
  for (auto it = s.timers.begin(); it != s.timers.end();) {
    if (it->second.target == target && (selector.empty() || it->second.selector == selector)) {
      cancelled.push_back(std::move(it->second.block));
      it = s.timers.erase(it);
    } else {
      ++it;
    }
  }
}

size_t MainQueue::pendingDelayedCallCount() {
  QueueState& s = state();
  std::lock_guard lock(s.mutex);
  return s.timers.size();
}

void MainQueue::setClock(Clock* clock) {
  {
    QueueState& s = state();
    std::lock_guard lock(s.mutex);
    s.clock = clock ? clock : &s.monotonic;
  }
  wakeUp();
}

double MainQueue::now() {
  QueueState& s = state();
  std::lock_guard lock(s.mutex);
  return s.clock->now();
}

void MainQueue::wakeUp() { g_main_context_wakeup(g_main_context_default()); }

bool MainQueue::runUntil(const std::function<bool()>& predicate, double timeoutSeconds) {
  ensureSource();
  claimMainThreadIfUnset();
  if (predicate()) return true;
  using Steady = std::chrono::steady_clock;
  auto deadline = Steady::now() + std::chrono::duration_cast<Steady::duration>(
                                      std::chrono::duration<double>(std::max(0.0, timeoutSeconds)));
  GMainContext* context = g_main_context_default();
  // Wakes the blocking iteration now and then, so that a predicate made true
  // by another thread without waking the loop is noticed, and the deadline
  // is met.
  double ms = std::ceil(std::max(0.0, timeoutSeconds) * 1000.0);
  guint interval = ms < 10 ? static_cast<guint>(std::max(1.0, ms)) : 10;
  GSource* timeout = g_timeout_source_new(interval);
  g_source_set_callback(
      timeout, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(timeout, context);
  bool held = false;
  for (;;) {
    g_main_context_iteration(context, TRUE);
    if (predicate()) {
      held = true;
      break;
    }
    if (Steady::now() >= deadline) break;
  }
  g_source_destroy(timeout);
  g_source_unref(timeout);
  return held;
}

void MainQueue::runFor(double seconds) {
  runUntil([] { return false; }, seconds);
}

void MainQueue::drain() {
  ensureSource();
  claimMainThreadIfUnset();
  GMainContext* context = g_main_context_default();
  while (g_main_context_iteration(context, FALSE)) {
  }
}

}  // namespace quillon
