#pragma once

#include <functional>
#include <string_view>

namespace quillon {

// Developer messages that go to the system log rather than a store's log
// (the user never sees them). They are written to standard error with a
// "Quillon: " prefix; a process may install a sink to route them elsewhere
// (tests capture them this way). Thread-safe.
void systemLog(std::string_view message);

// Replaces the sink; an empty function restores standard error. Answers the
// previous sink.
using SystemLogSink = std::function<void(std::string_view message)>;
SystemLogSink setSystemLogSink(SystemLogSink sink);

}  // namespace quillon
