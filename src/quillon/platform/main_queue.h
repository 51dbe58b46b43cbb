#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace quillon {

// The time source of the main queue's delayed calls, in seconds from an
// arbitrary origin. The default is the monotonic clock; tests install a
// manual one so that delayed calls fire when the test says, not after real
// seconds. Implementations must be thread-safe.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual double now() = 0;
  // Whether now() follows real time, so that the main loop may sleep until
  // the next due call. A clock that does not must call MainQueue::wakeUp()
  // whenever its time moves.
  virtual bool tracksRealTime() const { return false; }
};

// The process's main queue: the GLib default main context, which GTK and Qt
// (with the GLib event dispatcher) applications already run. Blocks submitted
// here run on the main thread, one at a time, in submission order. Delayed
// calls go through the queue's own timer list, ordered by due time and then
// by submission, measured on an injectable Clock.
//
// Every member is static and thread-safe unless its comment says otherwise.
// The queue's state lives for the whole process.
class MainQueue {
 public:
  using Clock = quillon::Clock;

  // Runs the block on the main thread, after every block submitted before it.
  static void async(std::function<void()> block);
  // Runs the block on the main thread and waits for it; runs it inline when
  // called on the main thread. The main thread must be running its loop (or
  // about to), or this never returns.
  static void sync(std::function<void()> block);

  // Whether the caller is the main thread: the one set with
  // setMainThreadToCurrent(), else the first thread that ran the default
  // main context through this queue.
  static bool isMainThread();
  static void setMainThreadToCurrent();

  // Runs the block on the main thread once `seconds` have passed on the
  // clock. A call with a target can later be cancelled by target and
  // selector; the target is only compared, never dereferenced.
  static void afterDelay(double seconds, std::function<void()> block, const void* target = nullptr,
                         std::string selector = {});
  // Cancels every pending delayed call with this target and selector; with
  // an empty selector, every pending call of the target. A null target
  // cancels nothing.
  static void cancelPreviousPerformRequests(const void* target, std::string_view selector = {});
  // Delayed calls not yet run (cancelled ones excluded).
  static size_t pendingDelayedCallCount();

  // Replaces the clock; nullptr restores the monotonic clock. The clock is
  // not owned and must outlive its installation. Calls already pending keep
  // their due times, which are then read on the new clock.
  static void setClock(Clock* clock);
  static double now();
  // Makes the main loop look at its timers again (a manual clock moved).
  static void wakeUp();

  // Main thread only. Iterates the default main context until the predicate
  // holds or `timeoutSeconds` of real time have passed; answers whether the
  // predicate held. The predicate is checked before the first iteration and
  // then at least every 10 ms, so it may depend on other threads' work.
  static bool runUntil(const std::function<bool()>& predicate, double timeoutSeconds);
  // Main thread only. Iterates the default main context for real seconds.
  static void runFor(double seconds);
  // Main thread only. Runs everything that is ready now (submitted blocks,
  // due delayed calls, other ready sources) without waiting.
  static void drain();
};

}  // namespace quillon
