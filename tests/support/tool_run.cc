#include "support/tool_run.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>

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
