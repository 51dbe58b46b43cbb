#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/internal/system_log.h"

namespace quillon::testing {

// Collects the system-log lines written while it lives, in place of the sink
// that was installed, which it restores. Used on the test's thread; lines
// logged from other threads meanwhile must be joined before reading.
class LogCapture {
 public:
  LogCapture() {
    previous_ = setSystemLogSink([this](std::string_view m) { lines_.emplace_back(m); });
  }
  ~LogCapture() { setSystemLogSink(std::move(previous_)); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::vector<std::string> lines_;
  SystemLogSink previous_;
};

}  // namespace quillon::testing
