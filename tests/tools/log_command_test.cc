// `quillon log`: opens a package, applies what is new and prints the log.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "quillon/base/env.h"
#include "support/sample_models.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

using testing::ToolRun;

class LogCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("model.json", kNotesModelJSON);
    common_ = "'" + dir_.file("Doc.quillon") + "' --model '" + dir_.file("model.json") + "'";
  }
  ToolRun tool(const std::string& arguments) { return testing::runTool(dir_, arguments); }

  TempDir dir_{"quillon-log-command"};
  std::string common_;
};

TEST_F(LogCommandTest, PrintsOneTypedEntryPerLineOldestFirstWithMenus) {
  if (std::string(QUILLON_TOOL_PATH).empty()) GTEST_SKIP() << "the tool is not built";
  ASSERT_EQ(tool("new " + common_).status, 0);
  ASSERT_EQ(tool("insert " + common_ + " Note --values '{\"title\":\"x\"}'").status, 0);
  // A change file still arriving from another computer.
  const std::string late = "2031-01-01-00-00-00.000.6F9619FF-8B86-D011-B42D-00C04FC964FF.json";
  dir_.write("Doc.quillon/Changes/" + late, "{\"name\": \"" + late);

  ToolRun run = tool("log " + common_);
  ASSERT_EQ(run.status, 0) << run.err;
  std::vector<std::string> printed = run.outLines();
  ASSERT_FALSE(printed.empty());
  // "<type>\t<message>", exactly one tab, a non-empty message.
  auto wellFormed = [](const std::string& line) {
    size_t tab = line.find('\t');
    if (tab == std::string::npos || tab + 1 == line.size()) return false;
    if (line.find('\t', tab + 1) != std::string::npos) return false;
    std::string type = line.substr(0, tab);
    return type == "success" || type == "warning" || type == "error";
  };
  for (const std::string& line : printed) EXPECT_TRUE(wellFormed(line)) << line;
  auto find = [&](const std::string& text) {
    for (size_t i = 0; i < printed.size(); ++i) {
      if (printed[i].find(text) != std::string::npos) return i;
    }
    return printed.size();
  };
  size_t incomplete = find("warning\tIncomplete change file: ");
  size_t missing = find("warning\tMissing files: Abort and trying again in some seconds");
  ASSERT_LT(incomplete, printed.size()) << run.out;
  EXPECT_TRUE(printed[incomplete].ends_with(late + " [Ignore, Show in Finder]")) << printed[incomplete];
  EXPECT_LT(incomplete, missing);
  EXPECT_LT(missing, printed.size());

  // Recovery mode goes on past the problem but still cannot apply the file.
  run = tool("log " + common_ + " --recover");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("warning\tIncomplete change file: "), std::string::npos);
}

TEST_F(LogCommandTest, RefusesAMissingPackageWithoutCreatingIt) {
  if (std::string(QUILLON_TOOL_PATH).empty()) GTEST_SKIP() << "the tool is not built";
  ToolRun run = tool("log " + common_);
  EXPECT_NE(run.status, 0);
  EXPECT_TRUE(run.err.starts_with("error: ")) << run.err;
  EXPECT_FALSE(Env::Default()->exists(dir_.file("Doc.quillon")));
}

}  // namespace
}  // namespace quillon
