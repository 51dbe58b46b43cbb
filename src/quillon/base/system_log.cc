#include "quillon/base/internal/system_log.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace quillon {
namespace {
std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}
SystemLogSink& sink() {
  static SystemLogSink s;
  return s;
}
}  // namespace

void systemLog(std::string_view message) {
  std::lock_guard lock(sinkMutex());
  if (sink()) {
    sink()(message);
    return;
  }
  std::string line = "Quillon: " + std::string(message) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

SystemLogSink setSystemLogSink(SystemLogSink s) {
  std::lock_guard lock(sinkMutex());
  SystemLogSink old = std::move(sink());
  sink() = std::move(s);
  return old;
}

}  // namespace quillon
