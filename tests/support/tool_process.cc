#include "support/tool_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

namespace quillon::testing {
namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

ToolProcess runToolProcess(const std::string& tool, const std::string& dir,
                           const std::string& cacheHome, const std::vector<std::string>& arguments,
                           long killAfterMicroseconds) {
  const std::string outPath = dir + "/process.out";
  const std::string errPath = dir + "/process.err";
  std::vector<std::string> argv{tool};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::vector<char*> raw;
  for (std::string& argument : argv) raw.push_back(argument.data());
  raw.push_back(nullptr);

  pid_t pid = ::fork();
  if (pid == 0) {
    // Only async-signal-safe calls from here on: the test program has threads.
    int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0 || ::chdir(dir.c_str()) != 0) ::_exit(127);
    ::dup2(out, 1);
    ::dup2(err, 2);
    ::setenv("XDG_CACHE_HOME", cacheHome.c_str(), 1);
    ::execv(raw[0], raw.data());
    ::_exit(127);
  }
  ToolProcess run;
  if (pid < 0) return run;
  if (killAfterMicroseconds >= 0) {
    ::usleep(static_cast<useconds_t>(killAfterMicroseconds));
    ::kill(pid, SIGKILL);  // a process that already ended is a zombie: nothing happens
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  run.exited = WIFEXITED(status);
  run.status = run.exited ? WEXITSTATUS(status) : -1;
  run.out = slurp(outPath);
  run.err = slurp(errPath);
  return run;
}

}  // namespace quillon::testing
