// Change files arrive from other computers and may be damaged or hostile:
// they must be refused with a logged problem, never reach a path outside the
// package, and never crash the store.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "changes/two_computers.h"
#include "quillon/base/internal/dispatch_queue.h"
#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/changes/internal/change_file_check.h"
#include "quillon/graph/managed_object.h"
#include "support/fault_env.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

using testing::logContains;
using testing::loggedChangeNames;

constexpr std::string_view kName =
    "2031-01-01-00-00-00.000.6F9619FF-8B86-D011-B42D-00C04FC964FF.json";

std::string change(std::string_view body) {
  return "{\"name\":\"" + std::string(kName) + "\"" + std::string(body) + "}";
}

TEST(ChangeFileProblemTest, AcceptsWellFormedChangesAndNamesTheFirstProblemOfOthers) {
  const std::vector<std::string> accepted = {
      change(""),
      change(R"(,"type":"recovery","refreshes":{"update":{"Note":{"A1":{}}}})"),
      change(
          R"(,"previousName":"2030.json","session":{"userInfo":[1]},"changes":{"insert":{"Note":)"
          R"({"A1":{"data":[{"name":"D.bin","length":3,"hash":"ab"}]}}},"delete":{"Tag":{"B":{}}}})"),
  };
  for (const std::string& text : accepted) {
    EXPECT_EQ(changeFileProblem(readJSON(text), kName), "") << text;
  }
  const std::vector<std::string> refused = {
      "[1,2]",
      R"({"name":"2030-01-01.other.json"})",
      R"({"changes":{}})",
      change(R"(,"previousName":"../../etc/passwd")"),
      change(R"(,"previousName":7)"),
      change(R"(,"type":["recovery"])"),
      change(R"(,"session":"me")"),
      change(R"(,"changes":[1,2])"),
      change(R"(,"changes":{"insert":[]})"),
      change(R"(,"changes":{"insert":{"Note":{"../../../outside":{}}}})"),
      change(R"(,"changes":{"update":{"../x":{"A1":{}}}})"),
      change(R"(,"changes":{"update":{"Note":{"A\u0000B":{}}}})"),
      change(R"(,"changes":{"update":{"Note":{"..":{}}}})"),
      change(R"(,"changes":{"update":{"Note":{"A1":"text"}}})"),
      change(R"(,"changes":{"update":{"Note":{"A1":{"data":{"name":"x"}}}}})"),
      change(R"(,"changes":{"update":{"Note":{"A1":{"data":[{"name":"../../x","length":1}]}}}})"),
      change(R"(,"changes":{"update":{"Note":{"A1":{"data":[{"name":"x","length":"3"}]}}}})"),
      change(R"(,"refreshes":{"delete":{"Note":{"/abs":{}}}})"),
      change(R"(,"inserts":{"Note":["A1"]})"),
  };
  for (const std::string& text : refused) {
    Value parsed = readJSON(text);
    ASSERT_FALSE(parsed.isNil()) << text;
    EXPECT_NE(changeFileProblem(parsed, kName), "") << text;
  }
}

// Counts every file operation; reports one change file as huge.
class HugeFileEnv : public FaultInjectingEnv {
 public:
  static constexpr std::string_view kHuge =
      "2031-01-01-00-00-00.000.00000000-0000-0000-0000-00000000FFFF.json";
  Error attributes(const std::string& path, FileAttributes* attributes) override {
    Error error = FaultInjectingEnv::attributes(path, attributes);
    if (!error && path.ends_with(huge)) attributes->size = kMaximumChangeFileSize + 1;
    return error;
  }
  std::string huge = std::string(kHuge);
  // Operations on paths built from the hostile names.
  size_t escapes() const {
    size_t n = 0;
    for (Op op : {Op::Read, Op::Write, Op::List, Op::CreateDirectories, Op::Remove, Op::Move,
                  Op::Copy, Op::Attributes, Op::Exists}) {
      n += count(op, "/../") + count(op, "outside-");
    }
    return n;
  }
};

TEST(HostileChangeFileTest, IsRefusedWithoutTouchingAnythingOutsideThePackage) {
  struct Case {
    std::string fileName;
    std::string contents;
  };
  std::string deep =
      change(",\"session\":{\"userInfo\":" + std::string(5000, '[') + std::string(5000, ']') + "}");
  const std::vector<Case> cases = {
      {std::string(kName), change(R"(,"changes":{"insert":{"Note":{"../../../outside-uid":{}}}})")},
      {std::string(kName),
       change(
           R"(,"changes":{"update":{"Note":{"A1":{"data":[{"name":"../../../../outside-data","length":1,)"
           R"("hash":"00"}]}}}})")},
      {std::string(kName), R"({"name":"2031-01-01-00-00-00.000.SOMETHING-ELSE.json"})"},
      {std::string(kName), deep},
      {std::string(kName), "{\"name\": \"" + std::string(kName)},  // still arriving
      {std::string(HugeFileEnv::kHuge), "{\"name\":\"" + std::string(HugeFileEnv::kHuge) + "\"}"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.contents.substr(0, 120));
    TempDir dir("quillon-hostile");
    HugeFileEnv env;
    QuillonStore::setDefaultEnv(&env);
    {
      ScopedCacheHome cacheHome(dir.file("cache"));
      StoreStack stack(dir.file("Doc.quillon"));
      ASSERT_TRUE(stack.waitUntilReady());
      dir.write("Doc.quillon/Changes/" + c.fileName, c.contents);
      stack.store->updateChanges();
      ASSERT_TRUE(stack.waitUntilReady());
      EXPECT_TRUE(logContains(*stack.store, "Incomplete change file: "));
      EXPECT_TRUE(loggedChangeNames(*stack.store).empty());
    }
    QuillonStore::setDefaultEnv(Env::Default());
    EXPECT_GT(env.count(FaultInjectingEnv::Op::Read), 0u);  // the env was in use
    EXPECT_EQ(env.escapes(), 0u);
    EXPECT_EQ(env.count(FaultInjectingEnv::Op::Read, HugeFileEnv::kHuge), 0u);
  }
}

// A change file already applied can turn hostile later (a sync service
// replaces it): the other readers of change files meet the same limits.
TEST(HostileChangeFileTest, EveryOtherReaderOfChangeFilesRefusesIt) {
  TempDir dir("quillon-hostile");
  HugeFileEnv env;
  QuillonStore::setDefaultEnv(&env);
  {
    ScopedCacheHome cacheHome(dir.file("cache"));
    StoreStack stack(dir.file("Doc.quillon"));
    ASSERT_TRUE(stack.waitUntilReady());
    ManagedObjectPtr note = testing::insertNote(stack, "one");
    ASSERT_TRUE(stack.saveAndWait());
    const std::string name = loggedChangeNames(*stack.store).at(0);
    ASSERT_EQ(stack.store->cache().changesHistoryForObjectID(note->objectID()).size(), 2u);

    // Nested too deeply: the history leaves the change out, the tool says so.
    const std::string uid = storeUID(*note);
    dir.write("Doc.quillon/Changes/" + name,
              "{\"name\":\"" + name + "\",\"changes\":{\"insert\":{\"Note\":{\"" + uid +
                  "\":{}}}},\"x\":" + std::string(100, '[') + std::string(100, ']') + "}");
    EXPECT_EQ(stack.store->cache().changesHistoryForObjectID(note->objectID()).size(), 1u);
    testing::ToolRun listed = testing::runTool(dir, "changes Doc.quillon");
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, name + "\t-\tnot a change file\t-\n");

    // Too large: never read at all.
    env.huge = name;
    const size_t readsBefore = env.count(FaultInjectingEnv::Op::Read, "Changes/" + name);
    EXPECT_EQ(stack.store->cache().changesHistoryForObjectID(note->objectID()).size(), 1u);
    stack.store->checkAllFiles();
    stack.store->cache().queue().drain();
    EXPECT_EQ(env.count(FaultInjectingEnv::Op::Read, "Changes/" + name), readsBefore);
  }
  QuillonStore::setDefaultEnv(Env::Default());
  EXPECT_EQ(env.escapes(), 0u);
}

}  // namespace
}  // namespace quillon
