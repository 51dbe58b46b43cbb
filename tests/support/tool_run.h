#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "support/temp_dir.h"

namespace quillon::testing {

// What one run of the command-line tool printed and how it ended. A plain
// value owned by the test that ran the tool.
struct ToolRun {
  int status = -1;  // the exit status; -1 when the tool did not exit normally
  std::string out;
  std::string err;

  // Standard output split into lines, without their newlines.
  std::vector<std::string> outLines() const;
  // The lines of standard error that start with "error: ".
  std::vector<std::string> errorLines() const;
};

// Runs the tool at `tool` through the shell and waits for it. It runs inside
// `dir`, so relative paths name files there, with XDG_CACHE_HOME and
// XDG_CONFIG_HOME pointed into `dir` so that its caches and settings never
// reach the user's; its keychain is the private Secret Service when the test
// started SecretServiceFixture, else a file store in `dir`. `arguments` is shell
// text: quote paths yourself. Call from the test's thread.
ToolRun runTool(const TempDir& dir, std::string_view arguments, std::string_view tool);

#ifdef QUILLON_TOOL_PATH
// The same, with the `quillon` binary built beside the test program.
inline ToolRun runTool(const TempDir& dir, std::string_view arguments) {
  return runTool(dir, arguments, QUILLON_TOOL_PATH);
}
#endif

// The tool running in the background (`quillon watch`, say), with the same
// surroundings as runTool; its standard output and error go to files in
// `dir` that the test reads while it runs. The destructor kills it if the
// test did not stop it.
class ToolProcess {
 public:
  ToolProcess(const TempDir& dir, std::string_view arguments, std::string_view tool);
#ifdef QUILLON_TOOL_PATH
  ToolProcess(const TempDir& dir, std::string_view arguments)
      : ToolProcess(dir, arguments, QUILLON_TOOL_PATH) {}
#endif
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  bool running() const { return pid_ > 0; }
  std::string out() const;
  std::string err() const;
  // Sends `signal` and waits up to `timeoutSeconds` for the exit status
  // (-1 when it did not exit normally in time; it is then killed).
  int stop(int signal, double timeoutSeconds = 30);

 private:
  std::string outPath_, errPath_;
  int pid_ = -1;
};

// Fails the current test unless the run exited with status 1, printed nothing
// on standard output and exactly one line, "error: …" containing `fragment`,
// on standard error.
void expectOneErrorLine(const ToolRun& run, std::string_view fragment = {});

// Every item below the folder `path`, with the contents of its files, as one
// text: compare two snapshots to prove a refused command changed nothing.
std::string folderSnapshot(const std::string& path);

}  // namespace quillon::testing
