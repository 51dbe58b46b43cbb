#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "quillon/base/json.h"
#include "support/package_reader.h"
#include "support/sample_models.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

const std::vector<std::string> kEntities{"Folder", "Note", "Tag", "Person", "Pet",
                                         "Item", "Book", "Album"};

using testing::ToolRun;

class EditCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_.write("model.json", kNotesModelJSON); }

  ToolRun tool(const std::string& arguments) { return testing::runTool(dir_, arguments); }
  std::string common() const {
    return "'" + package() + "' --model '" + dir_.file("model.json") + "'" +
           (password_.empty() ? "" : " --password " + password_);
  }
  std::string package() const { return dir_.file("Doc.quillon"); }
  ToolRun edit(const std::string& command, const std::string& rest) {
    return tool(command + " " + common() + " " + rest);
  }
  void create() {
    ToolRun run = tool("new " + common());
    ASSERT_EQ(run.status, 0) << run.err;
  }
  // The uids printed by insert.
  std::vector<std::string> inserted(const ToolRun& run) {
    std::vector<std::string> paths;
    Value array = readJSON(run.out);
    EXPECT_TRUE(array.isArray()) << run.out << run.err;
    for (const Value& path : array.elements()) paths.emplace_back(path.str());
    return paths;
  }
  PackageReader read() {
    PackageReader reader(package(), kEntities,
                         password_.empty() ? std::nullopt : std::optional<std::string>(password_));
    EXPECT_TRUE(reader.problems().empty()) << reader.problemsText();
    return reader;
  }
  static std::string errorLine(const ToolRun& run) {
    std::vector<std::string> errors = run.errorLines();
    EXPECT_EQ(errors.size(), 1u) << run.err;
    return errors.empty() ? "" : errors[0];
  }
  static std::string uidOf(const std::string& path) { return path.substr(path.find('/') + 1); }

  TempDir dir_{"quillon-edit"};
  std::string password_;
};

TEST_F(EditCommandsTest, InsertUpdateDeleteRoundTrip) {
  create();
  ToolRun folder = edit("insert", "Folder --values '{\"name\": \"Inbox\"}'");
  ASSERT_EQ(folder.status, 0) << folder.err;
  EXPECT_EQ(folder.out.find("\\/"), std::string::npos) << "paths are printed as they are";
  auto folders = inserted(folder);
  ASSERT_EQ(folders.size(), 1u);
  EXPECT_TRUE(folders[0].starts_with("Folder/"));

  ToolRun notes = edit("insert", "Note --values '[{\"title\": \"a\", \"priority\": 3, "
                                 "\"created\": \"2024-01-31T12:00:00.000+0000\", "
                                 "\"data\": {\"$base64\": \"aGk=\"}, \"folder\": \"" +
                                     folders[0] + "\"}, {\"title\": \"b\"}]'");
  ASSERT_EQ(notes.status, 0) << notes.err;
  auto paths = inserted(notes);
  ASSERT_EQ(paths.size(), 2u);
  {
    PackageReader reader = read();
    ASSERT_EQ(reader.changes().size(), 2u);  // one save per command
    const auto* a = reader.record("Note", uidOf(paths[0]), reader.changes()[1].fileName);
    ASSERT_NE(a, nullptr);
    const Value& payload = a->content.get("payload");
    EXPECT_EQ(payload.get("title").get("value"), Value::string("a"));  // input order kept
    EXPECT_EQ(payload.get("created").get("value"), Value::string("2024-01-31T12:00:00.000+0000"));
    EXPECT_EQ(payload.get("folder").get("value"), Value::array({Value::string(folders[0])}));
    EXPECT_EQ(payload.get("data").get("length"), Value::integer(2));
  }

  ToolRun update = edit("update", paths[0] + " --values '{\"title\": \"renamed\", \"folder\": null}'");
  ASSERT_EQ(update.status, 0) << update.err;
  ToolRun remove = edit("delete", paths[1]);
  ASSERT_EQ(remove.status, 0) << remove.err;

  PackageReader reader = read();
  ASSERT_EQ(reader.changes().size(), 4u);
  const auto* renamed = reader.record("Note", uidOf(paths[0]), reader.changes()[2].fileName);
  ASSERT_NE(renamed, nullptr);
  EXPECT_EQ(renamed->content.get("payload").get("title").get("value"), Value::string("renamed"));
  EXPECT_EQ(renamed->content.get("payload").get("folder"), Value::dictionary());
  const auto* deleted = reader.record("Note", uidOf(paths[1]), reader.changes()[3].fileName);
  ASSERT_NE(deleted, nullptr);
  EXPECT_EQ(deleted->content.get("type"), Value::string("delete"));
}

TEST_F(EditCommandsTest, BadInputIsOneLineErrorAndLeavesThePackageAsItWas) {
  password_ = "pw";
  create();
  ToolRun first = edit("insert", "Tag --values '{\"name\": \"x\"}'");
  ASSERT_EQ(first.status, 0) << first.err;
  const std::string tag = inserted(first).at(0);
  const std::string before = testing::folderSnapshot(package());

  struct Case {
    std::string command, rest, message;
  };
  const std::vector<Case> cases{
      {"insert", "Nope --values '{}'", "unknown entity"},
      {"insert", "Item --values '{}'", "abstract"},
      {"insert", "Tag --values '{\"colour\": 1}'", "no property \"colour\""},
      {"insert", "Tag --values '{\"name\": 7}'", "Tag.name: expected a string"},
      {"insert", "Note --values '{\"title\": \"t\", \"priority\": \"high\"}'", "Note.priority"},
      {"insert", "Note --values '{\"title\": \"t\", \"created\": \"yesterday\"}'", "Note.created"},
      {"insert", "Note --values '{\"title\": \"t\", \"data\": \"aGk=\"}'", "Note.data"},
      {"insert", "Note --values '{\"title\": \"t\", \"link\": \"http://x\"}'", "Note.link"},
      {"insert", "Note --values '[{\"title\": \"ok\"}, {\"folder\": \"" + tag + "\"}]'", "Note.folder"},
      {"insert", "Note --values '{\"title\": \"t\", \"folder\": \"Folder/MISSING\"}'", "MISSING"},
      {"insert", "Tag --values '{nope'", "not valid JSON"},
      {"update", "Tag/MISSING --values '{\"name\": \"y\"}'", "MISSING"},
      {"update", tag + " --values '[1]'", "JSON object"},
      {"delete", tag + " Tag/MISSING", "MISSING"},
  };
  for (const auto& c : cases) {
    ToolRun run = edit(c.command, c.rest);
    EXPECT_EQ(run.status, 1) << c.rest << "\n" << run.err;
    // Diagnostics of the framework may precede it; the error is one line.
    std::string line = errorLine(run);
    EXPECT_NE(line.find(c.message), std::string::npos) << c.rest << " → " << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
  }
  // A required title missing is refused by the save's validation.
  ToolRun invalid = edit("insert", "Note --values '{\"priority\": 2}'");
  EXPECT_EQ(invalid.status, 1);
  password_ = "wrong";
  ToolRun wrong = edit("insert", "Tag --values '{\"name\": \"y\"}'");
  EXPECT_EQ(wrong.status, 1);
  EXPECT_NE(errorLine(wrong).find("wrong password"), std::string::npos) << wrong.err;

  EXPECT_EQ(testing::folderSnapshot(package()), before);
  password_ = "pw";
  EXPECT_EQ(read().changes().size(), 1u);
}

// A save whose files cannot be written is an error, not a success: the tool
// says what could not be written where, exits 1, publishes no change, and the
// package holds every save that succeeded.
TEST_F(EditCommandsTest, ASaveThatCannotBeWrittenIsAnErrorAndPublishesNothing) {
  create();
  ToolRun first = edit("insert", "Tag --values '{\"name\": \"kept\"}'");
  ASSERT_EQ(first.status, 0) << first.err;
  // Where the notes' folders would go stands a file.
  dir_.write("Doc.quillon/Entities/Note", "in the way");

  ToolRun blocked = edit("insert", "Note --values '{\"title\": \"lost\"}'");
  EXPECT_EQ(blocked.status, 1) << blocked.err;
  EXPECT_TRUE(blocked.out.empty()) << blocked.out;
  const std::string line = errorLine(blocked);
  EXPECT_EQ(line.rfind("error: could not write " + package() + "/Entities/Note", 0), 0u) << line;
  EXPECT_NE(line.find("nothing of this save was published"), std::string::npos) << line;
  const auto changeFiles = [&] {
    return std::distance(std::filesystem::directory_iterator(dir_.file("Doc.quillon/Changes")),
                         std::filesystem::directory_iterator());
  };
  EXPECT_EQ(changeFiles(), 1);

  std::filesystem::remove(dir_.file("Doc.quillon/Entities/Note"));
  ToolRun after = edit("insert", "Note --values '{\"title\": \"saved\"}'");
  EXPECT_EQ(after.status, 0) << after.err;
  EXPECT_EQ(read().changes().size(), 2u);
  ToolRun count = tool("fetch " + common() + " Note --count");
  EXPECT_EQ(count.out, "1\n") << count.err;
}

}  // namespace
}  // namespace quillon
