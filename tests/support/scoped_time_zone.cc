#include "support/scoped_time_zone.h"

#include <cstdlib>
#include <ctime>

namespace quillon::testing {

ScopedTimeZone::ScopedTimeZone(const char* zone) {
  if (const char* old = std::getenv("TZ")) old_ = old;
  setenv("TZ", zone, 1);
  tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
  if (old_) {
    setenv("TZ", old_->c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

}  // namespace quillon::testing
