// The tool's history commands (discard, history, export), healing through
// the tool, and passwords remembered in a real gnome-keyring.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "quillon/base/json.h"
#include "quillon/coding/keychain_item.h"
#include "support/package_reader.h"
#include "support/sample_models.h"
#include "support/secret_service_fixture.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;
using testing::ToolRun;

const std::vector<std::string> kEntities{"Folder", "Note", "Tag", "Person", "Pet",
                                         "Item", "Book", "Album"};

class HistoryCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_.write("model.json", kNotesModelJSON); }

  ToolRun tool(const std::string& arguments) { return testing::runTool(dir_, arguments); }
  std::string path(const std::string& name) const { return dir_.file(name); }
  std::string open(const std::string& package, const std::string& password = "") const {
    return "'" + path(package) + "' --model '" + path("model.json") + "'" +
           (password.empty() ? "" : " --password '" + password + "'");
  }
  // Runs a command that must succeed and answers its output.
  std::string ok(const std::string& arguments) {
    ToolRun run = tool(arguments);
    EXPECT_EQ(run.status, 0) << arguments << "\n" << run.err;
    return run.out;
  }
  std::string insert(const std::string& package, const std::string& entity,
                     const std::string& values, const std::string& password = "") {
    Value paths = readJSON(ok("insert " + open(package, password) + " " + entity + " --values '" +
                              values + "'"));
    EXPECT_EQ(paths.size(), 1u);
    return paths.size() == 1 ? std::string(paths[0].str()) : std::string();
  }
  void update(const std::string& package, const std::string& object, const std::string& values,
              const std::string& password = "") {
    ok("update " + open(package, password) + " " + object + " --values '" + values + "'");
  }
  // Every note (and folder) as fetch prints them: the state of a document.
  std::string state(const std::string& package, const std::string& password = "") {
    return ok("fetch " + open(package, password) + " Note --sort title") +
           ok("fetch " + open(package, password) + " Folder");
  }
  // The change file names of a package, in order.
  std::vector<std::string> changes(const std::string& package) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path(package) + "/Changes")) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TempDir dir_{"quillon-history-tool"};
};

TEST_F(HistoryCommandsTest, DiscardLeavesThreeFilesAndTheHistoryGoesOnWithoutIt) {
  ok("new " + open("Doc.quillon"));
  const std::string note = insert("Doc.quillon", "Note", R"({"title": "one"})");
  update("Doc.quillon", note, R"({"title": "two"})");
  const std::string discarded = changes("Doc.quillon").back();
  update("Doc.quillon", note, R"({"priority": 5})");

  // The object's history: root entry, then one entry per change, newest first.
  Value history = readJSON(ok("history " + open("Doc.quillon") + " " + note));
  ASSERT_EQ(history.size(), 4u) << writeJSON(history);
  EXPECT_EQ(history[0].get("name"), Value("Object"));
  EXPECT_EQ(history[0].get("paths").size(), 3u);
  EXPECT_TRUE(history[2].get("URL").str().ends_with("/Changes/" + discarded));
  EXPECT_EQ(history[2].get("children"),
            Value::array({Value::dictionary({{"name", "title"},
                                             {"value", Value::dictionary({{"value", "two"}})}})}));
  EXPECT_TRUE(history[1].get("date").str() >= history[2].get("date").str());
  EXPECT_EQ(history[1].get("date").str().size(), 28u);  // yyyy-MM-dd'T'HH:mm:ss.SSSZ

  const std::string name = discarded.substr(0, discarded.size() - 5);  // without ".json"
  std::vector<std::string> lines = tool("discard " + open("Doc.quillon") + " " + name).outLines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], path("Doc.quillon/InvalidChanges/" + discarded));
  EXPECT_EQ(lines[1], path("Doc.quillon/Changes/" + discarded));
  EXPECT_TRUE(lines[2].starts_with(path("Doc.quillon/Changes/"))) << lines[2];
  for (const std::string& file : lines) EXPECT_TRUE(fs::exists(file)) << file;

  Value notes = readJSON(ok("fetch " + open("Doc.quillon") + " Note"));
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].get("title"), Value("one"));
  EXPECT_EQ(notes[0].get("priority"), Value(5));
  history = readJSON(ok("history " + open("Doc.quillon") + " " + note));
  EXPECT_EQ(history.size(), 3u) << "the discarded change's record no longer counts";

  PackageReader reader(path("Doc.quillon"), kEntities);
  EXPECT_TRUE(reader.problems().empty()) << reader.problemsText();
}

TEST_F(HistoryCommandsTest, BadChangeNamesAndPasswordsAreOneErrorLineAndWriteNothing) {
  ok("new " + open("Doc.quillon", "pw"));
  const std::string note = insert("Doc.quillon", "Note", R"({"title": "one"})", "pw");
  const std::string change = changes("Doc.quillon").back();
  const std::string before = testing::folderSnapshot(path("Doc.quillon"));

  const std::string unknown = "2001-01-01-00-00-00.000.00000000-0000-0000-0000-000000000001";
  testing::expectOneErrorLine(tool("discard " + open("Doc.quillon", "pw") + " " + unknown),
                              "no change");
  testing::expectOneErrorLine(tool("discard " + open("Doc.quillon", "pw") + " '../Info.plist'"),
                              "not a change name");
  testing::expectOneErrorLine(tool("discard " + open("Doc.quillon", "pw") + " '..'"),
                              "not a change name");
  testing::expectOneErrorLine(tool("discard " + open("Doc.quillon", "pw") + " 'x/" + change + "'"),
                              "not a change name");
  testing::expectOneErrorLine(tool("discard " + open("Doc.quillon", "wrong") + " " + change),
                              "wrong password");
  testing::expectOneErrorLine(tool("history " + open("Doc.quillon", "wrong") + " " + note),
                              "wrong password");
  testing::expectOneErrorLine(
      tool("export " + open("Doc.quillon", "wrong") + " '" + path("Copy.quillon") + "'"),
      "wrong password");
  testing::expectOneErrorLine(tool("export " + open("Doc.quillon", "pw") + " '" +
                                   path("Doc.quillon/Inside.quillon") + "'"),
                              "inside the package");
  testing::expectOneErrorLine(tool("export " + open("Doc.quillon", "pw") + " '" +
                                   path("Copy.quillon") + "' --up-to '../" + change + "'"),
                              "not a change name");
  testing::expectOneErrorLine(tool("export " + open("Doc.quillon", "pw") + " '" +
                                   path("Copy.quillon") + "' --up-to " + unknown),
                              "no change");
  dir_.write("Taken/file", "mine");
  testing::expectOneErrorLine(
      tool("export " + open("Doc.quillon", "pw") + " '" + path("Taken") + "'"), "already exists");
  EXPECT_EQ(dir_.read("Taken/file"), "mine");
  EXPECT_FALSE(fs::exists(path("Copy.quillon")));
  EXPECT_EQ(testing::folderSnapshot(path("Doc.quillon")), before);
}

TEST_F(HistoryCommandsTest, AnExportUpToAChangeHoldsTheDocumentAsItStoodThen) {
  ok("new " + open("Doc.quillon", "old"));
  const std::string folder = insert("Doc.quillon", "Folder", R"({"name": "Inbox"})", "old");
  const std::string first =
      insert("Doc.quillon", "Note", R"({"title": "a", "folder": ")" + folder + "\"}", "old");
  const std::string second = insert(
      "Doc.quillon", "Note", R"({"title": "b", "data": {"$base64": "aGVsbG8="}})", "old");
  update("Doc.quillon", first, R"({"priority": 4})", "old");
  const std::string upTo = changes("Doc.quillon").back();
  const std::string then = state("Doc.quillon", "old");

  // Later changes: an update, a deletion and an insertion.
  update("Doc.quillon", second, R"({"title": "b2"})", "old");
  ok("delete " + open("Doc.quillon", "old") + " " + first);
  insert("Doc.quillon", "Note", R"({"title": "c"})", "old");
  const std::string now = state("Doc.quillon", "old");
  ASSERT_NE(now, then);

  ok("export " + open("Doc.quillon", "old") + " '" + path("Then.quillon") + "' --up-to " + upTo +
     " --new-password new");
  EXPECT_EQ(state("Then.quillon", "new"), then);
  EXPECT_EQ(changes("Then.quillon").size(), 1u) << "every object in one change";
  testing::expectOneErrorLine(tool("fetch " + open("Then.quillon", "old") + " Note"),
                              "wrong password");
  PackageReader copy(path("Then.quillon"), kEntities, std::string("new"));
  EXPECT_TRUE(copy.problems().empty()) << copy.problemsText();
  ASSERT_EQ(copy.records().size(), 3u);
  for (const PackageReader::Record& record : copy.records()) {
    EXPECT_EQ(record.content.get("type"), Value("insert"));
  }

  // The whole document, under its own password; the original still opens
  // as it is now.
  ok("export " + open("Doc.quillon", "old") + " '" + path("Now.quillon") + "'");
  EXPECT_EQ(state("Now.quillon", "old"), now);
  EXPECT_EQ(state("Doc.quillon", "old"), now);
}

// Copies every file of `from` that `to` lacks: what a sync service delivers.
void deliver(const fs::path& from, const fs::path& to) {
  for (const auto& entry : fs::recursive_directory_iterator(from)) {
    fs::path target = to / fs::relative(entry.path(), from);
    if (entry.is_directory()) {
      fs::create_directories(target);
    } else if (!fs::exists(target) && entry.path().filename() != "Info.plist") {
      fs::copy_file(entry.path(), target);
    }
  }
}

TEST_F(HistoryCommandsTest, ANoteWhoseFolderWasDeletedElsewhereIsHealedOnItsNextEdit) {
  ok("new " + open("Doc.quillon"));
  const std::string folder = insert("Doc.quillon", "Folder", R"({"name": "Inbox"})");
  const std::string note = insert("Doc.quillon", "Note", R"({"title": "n"})");
  // Another computer's copy, which deletes the folder while this one files
  // the note in it.
  fs::copy(path("Doc.quillon"), path("Other.quillon"), fs::copy_options::recursive);
  update("Doc.quillon", note, "{\"folder\": \"" + folder + "\"}");
  ok("delete " + open("Other.quillon") + " " + folder);
  deliver(path("Other.quillon"), path("Doc.quillon"));

  update("Doc.quillon", note, R"({"title": "edited"})");
  Value notes = readJSON(ok("fetch " + open("Doc.quillon") + " Note"));
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].get("title"), Value("edited"));
  EXPECT_TRUE(notes[0].get("folder").isNull());
  EXPECT_EQ(readJSON(ok("fetch " + open("Doc.quillon") + " Folder")).size(), 0u);
}

TEST_F(HistoryCommandsTest, ARememberedPasswordOpensThePackageWithoutOne) {
  ASSERT_EQ(quillon::testing::SecretServiceFixture::start(), "");
  const std::string id = ok("new " + open("Doc.quillon", "secret")).substr(0, 36);
  insert("Doc.quillon", "Note", R"({"title": "n"})", "secret");
  testing::expectOneErrorLine(tool("fetch " + open("Doc.quillon") + " Note"),
                              "is encrypted: give --password");
  testing::expectOneErrorLine(
      tool("password remember '" + path("Doc.quillon") + "' --password wrong"), "wrong password");

  ok("password remember '" + path("Doc.quillon") + "' --password secret");
  ok("password remember '" + path("Doc.quillon") + "' --password secret");  // again: fine
  // Kept as applications keep document passwords: service, then document identifier.
  Error error;
  auto item = OrdoStoreGenericKeychainItem::genericKeychainItemForService("org.quillon.cli", id,
                                                                          Value(), &error);
  ASSERT_TRUE(item) << error.description();
  EXPECT_EQ(item->password(), "secret");
  EXPECT_EQ(readJSON(ok("fetch " + open("Doc.quillon") + " Note")).size(), 1u);
  insert("Doc.quillon", "Note", R"({"title": "m"})");
  EXPECT_EQ(ok("changes '" + path("Doc.quillon") + "'").empty(), false);

  ok("password forget '" + path("Doc.quillon") + "'");
  testing::expectOneErrorLine(tool("fetch " + open("Doc.quillon") + " Note"),
                              "is encrypted: give --password");
  testing::expectOneErrorLine(tool("password forget '" + path("Doc.quillon") + "'"),
                              "no password is remembered");
}

}  // namespace
}  // namespace quillon
