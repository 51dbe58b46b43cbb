// Two computers on one package, end to end: folder events, the quiet period
// and the update on the real clock, first as two stores in this process, then
// with the other computer being the `quillon` tool in another process.

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "changes/two_computers.h"
#include "quillon/base/json.h"
#include "quillon/platform/main_queue.h"
#include "support/sample_models.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

using testing::ExternalChanges;
using testing::fetchNotes;
using testing::insertNote;
using Strings = std::vector<std::string>;

constexpr double kArrivalSeconds = 15.0;

class TwoStoresTest : public ::testing::Test {
 protected:
  void SetUp() override { QuillonStore::setObservationLatency(0.2); }
  void TearDown() override { QuillonStore::setObservationLatency(2.0); }

  std::unique_ptr<StoreStack> open(const std::string& machine) {
    std::unique_ptr<StoreStack> stack;
    {
      ScopedCacheHome home(dir.file("cache-" + machine));
      stack = std::make_unique<StoreStack>(package, Value(), machine);
    }
    EXPECT_TRUE(stack->waitUntilReady());
    fetchNotes(*stack);  // the context now takes part in external updates
    return stack;
  }
  static bool arrives(const ExternalChanges& seen, int before) {
    return MainQueue::runUntil([&] { return seen.count() > before; }, kArrivalSeconds);
  }

  TempDir dir{"quillon-e2e"};
  std::string package = dir.file("Doc.quillon");
};

TEST_F(TwoStoresTest, EachStoreSeesTheOthersSavesWhileOpen) {
  auto a = open("A");
  auto b = open("B");
  ExternalChanges seenByA(a->context.get());
  ExternalChanges seenByB(b->context.get());

  ManagedObjectPtr note = insertNote(*a, "from A");
  ASSERT_TRUE(a->saveAndWait());
  const std::string uid = storeUID(*note);
  ASSERT_TRUE(arrives(seenByB, 0));
  EXPECT_EQ(seenByB.uids("inserted"), Strings{uid});

  auto inB = fetchNotes(*b);
  ASSERT_EQ(inB.size(), 1u);
  inB[0].objectAs<ManagedObject>()->setValue("title", Value("edited on B"));
  ASSERT_TRUE(b->saveAndWait());
  ASSERT_TRUE(arrives(seenByA, 0));
  EXPECT_EQ(seenByA.uids("updated"), Strings{uid});
  EXPECT_EQ(note->value("title"), Value("edited on B"));

  const int before = seenByB.count();
  a->context->deleteObject(note);
  ASSERT_TRUE(a->saveAndWait());
  ASSERT_TRUE(arrives(seenByB, before));
  EXPECT_EQ(seenByB.uids("deleted"), Strings{uid});
  EXPECT_TRUE(fetchNotes(*b).empty());

  MainQueue::runFor(0.3);
  EXPECT_EQ(a->store->checkSum(), b->store->checkSum());
}

#ifdef QUILLON_TOOL_PATH
// Runs the tool with its own cache folder and answers its standard output;
// fails the test when it exits non-zero.
std::string runTool(const TempDir& dir, const std::string& arguments) {
  std::string command = "XDG_CACHE_HOME='" + dir.file("cache-tool") + "' '" +
                        std::string(QUILLON_TOOL_PATH) + "' " + arguments;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << "cannot run " << command;
    return "";
  }
  std::string output;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  int status = pclose(pipe);
  EXPECT_EQ(status, 0) << command << "\n" << output;
  return output;
}

TEST_F(TwoStoresTest, AnotherProcessesSavesArriveWhileOpen) {
  if (std::string(QUILLON_TOOL_PATH).empty()) GTEST_SKIP() << "the tool is not built";
  dir.write("model.json", kNotesModelJSON);
  const std::string common = "'" + package + "' --model '" + dir.file("model.json") + "' ";
  runTool(dir, "new " + common);
  auto b = open("B");
  ExternalChanges seen(b->context.get());

  Value inserted = readJSON(runTool(dir, "insert " + common + "Note --values '{\"title\":\"x\"}'"));
  ASSERT_TRUE(inserted.isArray() && inserted.size() == 1) << inserted.description();
  const std::string path(inserted[0].str());
  const std::string uid = path.substr(path.find('/') + 1);
  ASSERT_TRUE(arrives(seen, 0));
  EXPECT_EQ(seen.uids("inserted"), Strings{uid});

  runTool(dir, "update " + common + path + " --values '{\"title\":\"y\"}'");
  ASSERT_TRUE(arrives(seen, 1));
  EXPECT_EQ(seen.uids("updated"), Strings{uid});
  auto notes = fetchNotes(*b);
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].objectAs<ManagedObject>()->value("title"), Value("y"));

  runTool(dir, "delete " + common + path);
  ASSERT_TRUE(arrives(seen, 2));
  EXPECT_EQ(seen.uids("deleted"), Strings{uid});

  // The tool's own view of the history ends with the same checksum.
  std::string log = runTool(dir, "log " + common);
  size_t at = log.rfind("Checksum: ");
  ASSERT_NE(at, std::string::npos) << log;
  std::string toolSum = log.substr(at + 10, log.find('\n', at) - at - 10);
  EXPECT_EQ(toolSum, b->store->checkSum());
}
#endif

}  // namespace
}  // namespace quillon
