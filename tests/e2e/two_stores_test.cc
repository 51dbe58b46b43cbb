// Two computers on one package, end to end: folder events, the quiet period
// and the update on the real clock, with the other computer being the
// `quillon` tool in another process.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "changes/two_computers.h"
#include "quillon/base/json.h"
#include "quillon/platform/main_queue.h"
#include "support/sample_models.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

using testing::ExternalChanges;
using testing::fetchNotes;
using Strings = std::vector<std::string>;

constexpr double kArrivalSeconds = 15.0;

class TwoStoresTest : public ::testing::Test {
 protected:
  void SetUp() override { QuillonStore::setObservationLatency(0.2); }
  void TearDown() override { QuillonStore::setObservationLatency(2.0); }

  // The computer that keeps the package open, with a cache of its own.
  std::unique_ptr<StoreStack> open() {
    std::unique_ptr<StoreStack> stack;
    {
      ScopedCacheHome home(dir.file("cache-B"));
      stack = std::make_unique<StoreStack>(package, Value(), "B");
    }
    EXPECT_TRUE(stack->waitUntilReady());
    fetchNotes(*stack);  // the context now takes part in external updates
    return stack;
  }
  // Runs the tool and answers its standard output; fails the test when it fails.
  std::string tool(const std::string& arguments) {
    testing::ToolRun run = testing::runTool(dir, arguments);
    EXPECT_EQ(run.status, 0) << arguments << "\n" << run.err;
    return run.out;
  }
  static bool arrives(const ExternalChanges& seen, int before) {
    return MainQueue::runUntil([&] { return seen.count() > before; }, kArrivalSeconds);
  }

  TempDir dir{"quillon-e2e"};
  std::string package = dir.file("Doc.quillon");
};

TEST_F(TwoStoresTest, AnotherProcessesSavesArriveWhileOpen) {
  if (std::string(QUILLON_TOOL_PATH).empty()) GTEST_SKIP() << "the tool is not built";
  dir.write("model.json", kNotesModelJSON);
  const std::string common = "'" + package + "' --model '" + dir.file("model.json") + "' ";
  tool("new " + common);
  auto b = open();
  ExternalChanges seen(b->context.get());

  Value inserted = readJSON(tool("insert " + common + "Note --values '{\"title\":\"x\"}'"));
  ASSERT_TRUE(inserted.isArray() && inserted.size() == 1) << inserted.description();
  const std::string path(inserted[0].str());
  const std::string uid = path.substr(path.find('/') + 1);
  ASSERT_TRUE(arrives(seen, 0));
  EXPECT_EQ(seen.uids("inserted"), Strings{uid});

  tool("update " + common + path + " --values '{\"title\":\"y\"}'");
  ASSERT_TRUE(arrives(seen, 1));
  EXPECT_EQ(seen.uids("updated"), Strings{uid});
  auto notes = fetchNotes(*b);
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].objectAs<ManagedObject>()->value("title"), Value("y"));

  tool("delete " + common + path);
  ASSERT_TRUE(arrives(seen, 2));
  EXPECT_EQ(seen.uids("deleted"), Strings{uid});

  // The tool's own view of the history ends with the same checksum.
  std::string log = tool("log " + common);
  size_t at = log.rfind("Checksum: ");
  ASSERT_NE(at, std::string::npos) << log;
  std::string toolSum = log.substr(at + 10, log.find('\n', at) - at - 10);
  EXPECT_EQ(toolSum, b->store->checkSum());
}

}  // namespace
}  // namespace quillon
