#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "quillon/base/json.h"
#include "quillon/graph/managed_object.h"
#include "support/private_home.h"
#include "support/sample_models.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

using testing::ToolRun;

// A package with three notes (priorities 2, 7, 5; the second in a folder
// and tagged) written by the framework, then read by the tool.
class FetchCommandTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { testing::privateHome(); }

  void SetUp() override {
    dir_.write("model.json", kNotesModelJSON);
    StoreStack stack(package());
    ASSERT_TRUE(stack.waitUntilReady());
    auto& context = *stack.context;
    ManagedObjectPtr folder = context.insertNewObjectForEntityForName("Folder");
    folder->setValue("name", Value::string("inbox"));
    ManagedObjectPtr tag = context.insertNewObjectForEntityForName("Tag");
    tag->setValue("name", Value::string("work"));
    int priorities[] = {2, 7, 5};
    ManagedObjectPtr tagged;
    for (int i = 0; i < 3; ++i) {
      ManagedObjectPtr note = context.insertNewObjectForEntityForName("Note");
      note->setValue("title", Value::string("note " + std::to_string(i)));
      note->setValue("priority", Value::integer(priorities[i]));
      if (i == 1) {
        note->setValue("folder", Value::object(folder));
        note->addObject("tags", tag);
        tagged = note;
      }
    }
    Error error;
    ASSERT_TRUE(stack.saveAndWait(&error)) << error.localizedDescription();
    noteID_ = "Note/" + storeUID(*tagged);
    folderID_ = "Folder/" + storeUID(*folder);
    tagID_ = "Tag/" + storeUID(*tag);
  }

  std::string package() const { return dir_.file("Doc.quillon"); }

  ToolRun fetch(const std::string& arguments) {
    return testing::runTool(
        dir_, "fetch '" + package() + "' --model '" + dir_.file("model.json") + "' " + arguments);
  }

  TempDir dir_{"quillon-fetch-command"};
  std::string noteID_, folderID_, tagID_;
};

TEST_F(FetchCommandTest, PrintsObjectsWithEveryPropertyInResultOrderOrTheirCount) {
  const std::string entitiesBefore = testing::folderSnapshot(package() + "/Entities");
  const std::string changesBefore = testing::folderSnapshot(package() + "/Changes");

  ToolRun run = fetch("Note --sort priority:desc --limit 2");
  ASSERT_EQ(run.status, 0) << run.err;
  // The framework's developer messages show only when asked for.
  EXPECT_EQ(run.err, "");
  ToolRun verbose = testing::runTool(
      dir_, "-v fetch '" + package() + "' --model '" + dir_.file("model.json") + "' Note");
  ASSERT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_NE(verbose.err.find("Quillon: "), std::string::npos);
  Error error;
  Value results = readJSON(run.out, &error);
  ASSERT_TRUE(results.isArray()) << error.localizedDescription() << run.out;
  ASSERT_EQ(results.size(), 2u);

  const Value& first = results[0];
  EXPECT_EQ(first.get("$id"), Value::string(noteID_));
  EXPECT_EQ(first.get("title"), Value::string("note 1"));
  EXPECT_EQ(first.get("priority"), Value::integer(7));
  EXPECT_EQ(first.get("folder"), Value::string(folderID_));
  EXPECT_EQ(first.get("tags"), Value::array({Value::string(tagID_)}));
  EXPECT_EQ(results[1].get("title"), Value::string("note 2"));
  EXPECT_TRUE(results[1].get("folder").isNull());
  // "$id" and one member per property of Note, absent values as null.
  EXPECT_EQ(first.size(), 11u);
  EXPECT_TRUE(first.get("body").isNull());

  // A count is the number alone; nothing found is an empty array.
  ToolRun all = fetch("Note --count");
  ASSERT_EQ(all.status, 0) << all.err;
  EXPECT_EQ(all.out, "3\n");
  ToolRun some = fetch("Note --count --where 'priority > 4'");
  ASSERT_EQ(some.status, 0) << some.err;
  EXPECT_EQ(some.out, "2\n");
  ToolRun none = fetch("Tag --where 'name == \"home\"'");
  ASSERT_EQ(none.status, 0) << none.err;
  EXPECT_EQ(readJSON(none.out), Value::array());

  EXPECT_EQ(testing::folderSnapshot(package() + "/Entities"), entitiesBefore);
  EXPECT_EQ(testing::folderSnapshot(package() + "/Changes"), changesBefore);
}

TEST_F(FetchCommandTest, BadInputIsOneErrorLine) {
  for (const char* arguments : {"Note --where 'priority >'", "Nothing", "Note --sort colour",
                                "Note --sort title:sideways"}) {
    SCOPED_TRACE(arguments);
    testing::expectOneErrorLine(fetch(arguments));
  }
}

}  // namespace
}  // namespace quillon
