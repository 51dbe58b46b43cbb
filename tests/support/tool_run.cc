#include "support/tool_run.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "quillon/base/env.h"
#include "support/secret_service_fixture.h"

namespace quillon::testing {
namespace {

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace

std::vector<std::string> ToolRun::outLines() const { return splitLines(out); }

std::vector<std::string> ToolRun::errorLines() const {
  std::vector<std::string> errors;
  for (std::string& line : splitLines(err)) {
    if (line.starts_with("error: ")) errors.push_back(std::move(line));
  }
  return errors;
}

ToolRun runTool(const TempDir& dir, std::string_view arguments, std::string_view tool) {
  // The tool's keychain is the private Secret Service when the test started
  // one, else a file store inside `dir`: never the user's keyring.
  const std::string keychain = SecretServiceFixture::running()
                                   ? std::string()
                                   : "QUILLON_SECRET_STORE=file ";
  const std::string command = "cd '" + dir.path() + "' && " + keychain + "XDG_CONFIG_HOME='" +
                              dir.file("tool-config") + "' XDG_CACHE_HOME='" +
                              dir.file("tool-cache") + "' '" + std::string(tool) + "' " +
                              std::string(arguments) + " > '" + dir.file("stdout") + "' 2> '" +
                              dir.file("stderr") + "'";
  ToolRun run;
  int raw = std::system(command.c_str());
  run.status = raw != -1 && WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  run.out = dir.read("stdout");
  run.err = dir.read("stderr");
  return run;
}

ToolProcess::ToolProcess(const TempDir& dir, std::string_view arguments, std::string_view tool)
    : outPath_(dir.file("background-stdout")), errPath_(dir.file("background-stderr")) {
  const std::string keychain = SecretServiceFixture::running()
                                   ? std::string()
                                   : "QUILLON_SECRET_STORE=file ";
  // exec: the shell becomes the tool, so signals reach the tool itself.
  const std::string command = "cd '" + dir.path() + "' && " + keychain + "XDG_CONFIG_HOME='" +
                              dir.file("tool-config") + "' XDG_CACHE_HOME='" +
                              dir.file("tool-cache") + "' exec '" + std::string(tool) + "' " +
                              std::string(arguments) + " > '" + outPath_ + "' 2> '" + errPath_ +
                              "'";
  pid_t pid = ::fork();
  if (pid == 0) {
    ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  pid_ = pid;
}

ToolProcess::~ToolProcess() {
  if (pid_ > 0) stop(SIGKILL, 10);
}

std::string ToolProcess::out() const {
  std::vector<uint8_t> bytes;
  (void)Env::Default()->readFile(outPath_, &bytes);  // not written yet reads as nothing
  return std::string(bytes.begin(), bytes.end());
}

std::string ToolProcess::err() const {
  std::vector<uint8_t> bytes;
  (void)Env::Default()->readFile(errPath_, &bytes);  // not written yet reads as nothing
  return std::string(bytes.begin(), bytes.end());
}

int ToolProcess::stop(int signal, double timeoutSeconds) {
  if (pid_ <= 0) return -1;
  ::kill(pid_, signal);
  int raw = 0;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  pid_t done = 0;
  while ((done = ::waitpid(pid_, &raw, WNOHANG)) == 0 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (done == 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &raw, 0);
    pid_ = -1;
    return -1;
  }
  pid_ = -1;
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

void expectOneErrorLine(const ToolRun& run, std::string_view fragment) {
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_TRUE(run.err.starts_with("error: ")) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  EXPECT_NE(run.err.find(fragment), std::string::npos)
      << "expected \"" << fragment << "\" in " << run.err;
  EXPECT_TRUE(run.out.empty()) << run.out;
}

std::string folderSnapshot(const std::string& path) {
  Env* env = Env::Default();
  std::vector<std::string> items;
  EXPECT_FALSE(env->listRecursively(path, &items)) << path;
  std::string all;
  for (const std::string& item : items) {
    all += item + "\n";
    std::vector<uint8_t> bytes;
    if (!env->isDirectory(path + "/" + item) && !env->readFile(path + "/" + item, &bytes)) {
      all.append(bytes.begin(), bytes.end());
      all += "\n";
    }
  }
  return all;
}

}  // namespace quillon::testing
