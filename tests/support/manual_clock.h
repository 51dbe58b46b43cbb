#pragma once

#include <mutex>

#include "quillon/platform/main_queue.h"

namespace quillon::testing {

// A clock that moves only when a test advances it. Constructing one installs
// it as the main queue's clock and destroying it restores the monotonic clock, so
// a test's delayed calls fire when the test says. Thread-safe.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(double start = 1000.0);
  ~ManualClock() override;
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  double now() override;
  // Moves time forward and wakes the main loop; calls that became due run on
  // its next iteration (drain() or runUntil()).
  void advance(double seconds);

 private:
  std::mutex mutex_;
  double now_;
};

}  // namespace quillon::testing
