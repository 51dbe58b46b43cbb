#pragma once

#include <optional>
#include <string>

namespace quillon::testing {

// Sets the process's time zone (TZ) for one test and restores it afterwards.
// POSIX zone texts such as "UTC0" or "CET-1CEST,M3.5.0,M10.5.0/3" need no tz
// database. Not thread-safe: use on the test's own thread while no other
// thread reads the local time.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone);
  ~ScopedTimeZone();
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  std::optional<std::string> old_;
};

}  // namespace quillon::testing
