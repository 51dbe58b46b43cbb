#pragma once

#include <string>
#include <vector>

namespace quillon::testing {

// One run of the `quillon` tool as a child process, which the test may kill
// with SIGKILL after a delay: a computer that stops in the middle of a save.
struct ToolProcess {
  bool exited = false;  // ended by itself (not killed)
  int status = -1;      // its exit status when it exited
  std::string out, err;
};

// Runs the tool at `tool` in `dir`, with XDG_CACHE_HOME set to
// `cacheHome` (one folder per computer), and waits for it. With
// `killAfterMicroseconds` >= 0 it is sent SIGKILL that long after it started,
// unless it ended before. Test thread only.
ToolProcess runToolProcess(const std::string& tool, const std::string& dir,
                           const std::string& cacheHome, const std::vector<std::string>& arguments,
                           long killAfterMicroseconds = -1);

#ifdef QUILLON_TOOL_PATH
// The same with the `quillon` binary built beside the test program.
inline ToolProcess runToolProcess(const std::string& dir, const std::string& cacheHome,
                                  const std::vector<std::string>& arguments,
                                  long killAfterMicroseconds = -1) {
  return runToolProcess(QUILLON_TOOL_PATH, dir, cacheHome, arguments, killAfterMicroseconds);
}
#endif

}  // namespace quillon::testing
