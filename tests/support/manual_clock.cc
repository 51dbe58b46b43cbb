#include "support/manual_clock.h"

namespace quillon::testing {

ManualClock::ManualClock(double start) : now_(start) { MainQueue::setClock(this); }

ManualClock::~ManualClock() { MainQueue::setClock(nullptr); }

double ManualClock::now() {
  std::lock_guard lock(mutex_);
  return now_;
}

void ManualClock::advance(double seconds) {
  {
    std::lock_guard lock(mutex_);
    now_ += seconds;
  }
  MainQueue::wakeUp();
}

}  // namespace quillon::testing
