#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/graph/managed_object.h"
#include "support/private_home.h"
#include "support/sample_models.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

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

  ToolRun tool(const std::string& arguments) {
    std::string command = std::string("'") + QUILLON_TOOL_PATH + "' " + arguments + " > '" +
                          dir_.file("stdout") + "' 2> '" + dir_.file("stderr") + "'";
    ToolRun run;
    int raw = std::system(command.c_str());
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = dir_.read("stdout");
    run.err = dir_.read("stderr");
    return run;
  }

  ToolRun fetch(const std::string& arguments) {
    return tool("fetch '" + package() + "' --model '" + dir_.file("model.json") + "' " +
                arguments);
  }

  std::vector<std::string> listing(const std::string& folder) {
    std::vector<std::string> names;
    Env::Default()->listRecursively(package() + "/" + folder, &names);
    std::sort(names.begin(), names.end());
    return names;
  }

  TempDir dir_{"quillon-fetch-command"};
  std::string noteID_, folderID_, tagID_;
};

TEST_F(FetchCommandTest, PrintsObjectsWithEveryPropertyInResultOrder) {
  std::vector<std::string> entitiesBefore = listing("Entities");
  std::vector<std::string> changesBefore = listing("Changes");

  ToolRun run = fetch("Note --sort priority:desc --limit 2");
  ASSERT_EQ(run.status, 0) << run.err;
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

  EXPECT_EQ(listing("Entities"), entitiesBefore);
  EXPECT_EQ(listing("Changes"), changesBefore);
}

TEST_F(FetchCommandTest, CountPrintsTheNumberAlone) {
  ToolRun all = fetch("Note --count");
  ASSERT_EQ(all.status, 0) << all.err;
  EXPECT_EQ(all.out, "3\n");
  ToolRun some = fetch("Note --count --where 'priority > 4'");
  ASSERT_EQ(some.status, 0) << some.err;
  EXPECT_EQ(some.out, "2\n");
  ToolRun none = fetch("Tag --where 'name == \"home\"'");
  ASSERT_EQ(none.status, 0) << none.err;
  EXPECT_EQ(readJSON(none.out), Value::array());
}

TEST_F(FetchCommandTest, BadInputIsOneErrorLine) {
  for (const char* arguments : {"Note --where 'priority >'", "Nothing", "Note --sort colour",
                                "Note --sort title:sideways"}) {
    ToolRun run = fetch(arguments);
    EXPECT_EQ(run.status, 1) << arguments;
    EXPECT_EQ(run.err.rfind("error: ", 0), 0u) << arguments << ": " << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_TRUE(run.out.empty()) << arguments;
  }
}

TEST_F(FetchCommandTest, InfoPrintsKeyValueLinesThenWriters) {
  ToolRun run = tool("info '" + package() + "' --model '" + dir_.file("model.json") + "'");
  ASSERT_EQ(run.status, 0) << run.err;
  std::vector<std::string> lines;
  for (size_t start = 0, end; (end = run.out.find('\n', start)) != std::string::npos;
       start = end + 1) {
    lines.push_back(run.out.substr(start, end - start));
  }
  ASSERT_GE(lines.size(), 3u) << run.out;
  EXPECT_EQ(lines[0].rfind("Document Identifier: ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1].rfind("Checksum: ", 0), 0u) << lines[1];
  EXPECT_EQ(lines[1].size(), std::string("Checksum: ").size() + 6);
  auto has = [&](const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  };
  EXPECT_TRUE(has("Note: 3")) << run.out;
  EXPECT_TRUE(has("Tag: 1")) << run.out;
  EXPECT_TRUE(has("Book: 0")) << run.out;
  for (const std::string& line : lines) EXPECT_NE(line.rfind("Item:", 0), 0u);  // abstract
  EXPECT_EQ(lines.back().rfind("writer: ", 0), 0u) << run.out;
  EXPECT_NE(lines.back().find(" on test-machine, version "), std::string::npos) << lines.back();
}

}  // namespace
}  // namespace quillon
