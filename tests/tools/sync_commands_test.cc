// The tool's status and watch commands against another computer (a store in
// the test process with its own cache and machine name) writing into the
// same package.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "quillon/base/json.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/object_uid.h"
#include "quillon/store/quillon_package.h"
#include "support/sample_models.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

using testing::ToolProcess;
using testing::ToolRun;

class SyncCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string(QUILLON_TOOL_PATH).empty()) GTEST_SKIP() << "the tool is not built";
    dir_.write("model.json", kNotesModelJSON);
    ASSERT_EQ(tool("new " + common()).status, 0);
  }

  ToolRun tool(const std::string& arguments) { return testing::runTool(dir_, arguments); }
  static std::string common() { return "Doc.quillon --model model.json"; }

  // The other computer, "laptop".
  std::unique_ptr<QuillonPackage> laptop() {
    QuillonPackage::Options options;
    options.cacheDirectory = dir_.file("cache-laptop");
    options.machineName = "laptop";
    Error error;
    auto package = QuillonPackage::open(dir_.file("Doc.quillon"), notesModel(), options, &error);
    EXPECT_TRUE(package) << error.localizedDescription();
    if (package) {
      EXPECT_TRUE(package->waitUntilReady(10));
    }
    return package;
  }
  // Inserts a note with binary data and saves; answers its uid.
  static std::string insertNote(QuillonPackage& package, const std::string& title) {
    ManagedObjectPtr note = package.context().insertNewObjectForEntityForName("Note");
    note->setValue("title", Value(title));
    note->setValue("data", Value::data(std::string(5000, 'q')));
    Error failed = package.save();
    EXPECT_FALSE(failed) << failed.localizedDescription();
    return storeUID(*note);
  }
  static std::string lastChangeName(QuillonPackage& package) {
    Value changes = package.store().cache().changes();
    return changes.empty() ? "" : std::string(changes[changes.size() - 1].get("name").str());
  }
  // The record a change wrote for an object: Entities/<key>/<uid>/<change>.
  std::string recordOf(const std::string& uid, const std::string& change) {
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(dir_.file("Doc.quillon/Entities"))) {
      if (entry.path().filename() == change && entry.path().parent_path().filename() == uid) {
        return entry.path().string();
      }
    }
    ADD_FAILURE() << "no record of " << uid << " in " << change;
    return "";
  }

  TempDir dir_{"quillon-sync-tool"};
};

TEST_F(SyncCommandsTest, StatusNamesTheChangeAndComputerASaveWaitsOn) {
  ToolRun fresh = tool("status " + common());
  EXPECT_EQ(fresh.status, 0) << fresh.err;
  EXPECT_EQ(fresh.out, "up to date (no changes yet)\n");

  auto other = laptop();
  ASSERT_TRUE(other);
  insertNote(*other, "first");
  const std::string first = lastChangeName(*other);
  ToolRun one = tool("status " + common());
  EXPECT_EQ(one.status, 0) << one.err;
  EXPECT_TRUE(one.out.starts_with("up to date (1 change, last from laptop at 20")) << one.out;

  // The second save's record has not arrived: the tool waits on it, names
  // the change, the computer and the missing file, and says so by its status.
  const std::string uid = insertNote(*other, "second");
  const std::string second = lastChangeName(*other);
  const std::string record = recordOf(uid, second);
  ASSERT_FALSE(record.empty());
  std::filesystem::rename(record, dir_.file("held-back"));
  ToolRun waiting = tool("status " + common());
  EXPECT_EQ(waiting.status, 1) << waiting.err;
  std::vector<std::string> lines = waiting.outLines();
  ASSERT_GE(lines.size(), 3u) << waiting.out;
  EXPECT_TRUE(lines[0].starts_with("waiting for change " + second + " from laptop (saved 20"))
      << lines[0];
  EXPECT_NE(lines[0].find("here since 20"), std::string::npos) << lines[0];
  EXPECT_EQ(lines[1], "  1 of 2 changes applied");
  EXPECT_NE(waiting.out.find("Missing file: Entities/"), std::string::npos) << waiting.out;
  EXPECT_NE(waiting.out.find(uid + "/" + second), std::string::npos) << waiting.out;

  // An online-only placeholder in its place (size, but no bytes stored
  // here) is still something to wait for, and is named as one.
  {
    std::ofstream placeholder(record);
  }
  std::filesystem::resize_file(record, std::filesystem::file_size(dir_.file("held-back")));
  ToolRun placeholder = tool("status " + common());
  EXPECT_EQ(placeholder.status, 1) << placeholder.err;
  EXPECT_NE(placeholder.out.find("File not on disk: Entities/"), std::string::npos)
      << placeholder.out;
  const std::string relative = record.substr(dir_.file("Doc.quillon/").size());
  EXPECT_NE(placeholder.out.find("\nnot downloaded " + relative + "\n"), std::string::npos)
      << placeholder.out;
  std::filesystem::remove(record);

  // Once it arrives, the package is up to date again; a sync service's
  // conflict copy is reported but is no reason to wait.
  std::filesystem::rename(dir_.file("held-back"), record);
  const std::string stem = first.substr(0, first.size() - 5);
  dir_.write("Doc.quillon/Changes/" + stem + ".sync-conflict-20261123-084814-DXILLWC.json", "{}");
  ToolRun caughtUp = tool("status " + common());
  EXPECT_EQ(caughtUp.status, 0) << caughtUp.err;
  lines = caughtUp.outLines();
  ASSERT_EQ(lines.size(), 2u) << caughtUp.out;
  EXPECT_TRUE(lines[0].starts_with("up to date (2 changes, last from laptop at ")) << lines[0];
  EXPECT_EQ(lines[1], "conflict copy Changes/" + stem + ".sync-conflict-20261123-084814-DXILLWC.json");

  testing::expectOneErrorLine(tool("status Missing.quillon --model model.json"));
}

TEST_F(SyncCommandsTest, WatchPrintsEachChangeOfAnotherComputerAndStopsCleanly) {
  auto other = laptop();
  ASSERT_TRUE(other);
  insertNote(*other, "before");  // history: not printed
  ToolProcess watch(dir_, "watch " + common());
  auto waitFor = [&](auto predicate, double seconds) {
    return MainQueue::runUntil([&] { return predicate(); }, seconds);
  };
  ASSERT_TRUE(waitFor([&] { return watch.err().find("watching") != std::string::npos; }, 30))
      << watch.err();

  auto lines = [&] {
    std::vector<Value> parsed;
    std::string out = watch.out();
    for (size_t start = 0, end; (end = out.find('\n', start)) != std::string::npos; start = end + 1) {
      parsed.push_back(readJSON(out.substr(start, end - start)));
    }
    return parsed;
  };
  const auto saved = std::chrono::steady_clock::now();
  const std::string uid = insertNote(*other, "arrives");
  const std::string inserted = lastChangeName(*other);
  ASSERT_TRUE(waitFor([&] { return lines().size() >= 1; }, 15)) << watch.err();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - saved).count();
  EXPECT_LT(seconds, 10.0);

  Value first = lines()[0];
  EXPECT_EQ(first.get("change"), Value(inserted));
  EXPECT_EQ(first.get("computer"), Value("laptop"));
  EXPECT_EQ(first.get("inserted"), Value::array({Value("Note/" + uid)}));
  EXPECT_EQ(first.get("updated"), Value::array());
  EXPECT_EQ(first.get("deleted"), Value::array());

  // Two saves in a row (an update, then the delete) arrive as two lines.
  FetchRequest request("Note");
  Error error;
  ManagedObjectPtr note;
  for (const Value& v : other->context().executeFetchRequest(request, &error)) {
    auto object = std::dynamic_pointer_cast<ManagedObject>(v.objectValue());
    if (object && storeUID(*object) == uid) note = object;
  }
  ASSERT_TRUE(note);
  note->setValue("title", Value("renamed"));
  ASSERT_FALSE(other->save());
  const std::string updated = lastChangeName(*other);
  other->context().deleteObject(note);
  ASSERT_FALSE(other->save());
  const std::string deleted = lastChangeName(*other);
  ASSERT_TRUE(waitFor([&] { return lines().size() >= 3; }, 15)) << watch.out() << watch.err();
  std::vector<Value> all = lines();
  EXPECT_EQ(all[1].get("change"), Value(updated));
  EXPECT_EQ(all[1].get("updated"), Value::array({Value("Note/" + uid)}));
  EXPECT_EQ(all[2].get("change"), Value(deleted));
  EXPECT_EQ(all[2].get("deleted"), Value::array({Value("Note/" + uid)}));
  EXPECT_EQ(all[2].get("inserted"), Value::array());

  EXPECT_EQ(watch.stop(SIGTERM), 0) << watch.err();
  EXPECT_EQ(watch.err().find("error"), std::string::npos) << watch.err();
  EXPECT_EQ(lines().size(), 3u) << watch.out();
}

}  // namespace
}  // namespace quillon
