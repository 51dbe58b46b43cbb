// Change files arrive from other computers and may be damaged or hostile:
// they must be refused with a logged problem, never reach a path outside the
// package, and never crash the store.

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "changes/two_computers.h"
#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/changes/change_file_check.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

using testing::logContains;
using testing::loggedChangeNames;

constexpr std::string_view kName = "2031-01-01-00-00-00.000.6F9619FF-8B86-D011-B42D-00C04FC964FF.json";

std::string change(std::string_view body) {
  return "{\"name\":\"" + std::string(kName) + "\"" + std::string(body) + "}";
}

TEST(ChangeFileProblemTest, AcceptsWellFormedChangesAndNamesTheFirstProblemOfOthers) {
  const std::vector<std::string> accepted = {
      change(""),
      change(R"(,"type":"recovery","refreshes":{"update":{"Note":{"A1":{}}}})"),
      change(R"(,"previousName":"2030.json","session":{"userInfo":[1]},"changes":{"insert":{"Note":)"
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

// Records every path the store touches; reports one file as huge.
class RecordingEnv : public EnvWrapper {
 public:
  RecordingEnv() : EnvWrapper(Env::Default()) {}
  Error readFile(const std::string& path, std::vector<uint8_t>* contents) override {
    note(path);
    if (path.ends_with(kHuge)) ++hugeReads;
    return EnvWrapper::readFile(path, contents);
  }
  Error writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes) override {
    note(path);
    return EnvWrapper::writeFileAtomically(path, bytes);
  }
  Error listDirectory(const std::string& path, std::vector<std::string>* names) override {
    note(path);
    return EnvWrapper::listDirectory(path, names);
  }
  Error createDirectories(const std::string& path) override {
    note(path);
    return EnvWrapper::createDirectories(path);
  }
  Error removeItem(const std::string& path) override {
    note(path);
    return EnvWrapper::removeItem(path);
  }
  Error attributes(const std::string& path, FileAttributes* attributes) override {
    note(path);
    Error error = EnvWrapper::attributes(path, attributes);
    if (!error && path.ends_with(kHuge)) attributes->size = kMaximumChangeFileSize + 1;
    return error;
  }
  bool exists(const std::string& path) override {
    note(path);
    return EnvWrapper::exists(path);
  }
  // Paths built from the hostile names: "..", or the names' targets.
  std::vector<std::string> escapingPaths() {
    std::lock_guard lock(mutex_);
    std::vector<std::string> escaping;
    for (const std::string& path : paths_) {
      if (path.find("/../") != std::string::npos || path.ends_with("/..") ||
          path.find("outside-") != std::string::npos) {
        escaping.push_back(path);
      }
    }
    return escaping;
  }

  static constexpr std::string_view kHuge = "2031-01-01-00-00-00.000.HUGE.json";
  std::atomic<int> hugeReads{0};

 private:
  void note(const std::string& path) {
    std::lock_guard lock(mutex_);
    paths_.push_back(path);
  }
  std::mutex mutex_;
  std::vector<std::string> paths_;
};

TEST(HostileChangeFileTest, IsRefusedWithoutTouchingAnythingOutsideThePackage) {
  struct Case {
    std::string fileName;
    std::string contents;
  };
  std::string deep = change(",\"session\":{\"userInfo\":" + std::string(5000, '[') +
                            std::string(5000, ']') + "}");
  const std::vector<Case> cases = {
      {std::string(kName), change(R"(,"changes":{"insert":{"Note":{"../../../outside-uid":{}}}})")},
      {std::string(kName),
       change(R"(,"changes":{"update":{"Note":{"A1":{"data":[{"name":"../../../../outside-data","length":1,)"
              R"("hash":"00"}]}}}})")},
      {std::string(kName), R"({"name":"2031-01-01-00-00-00.000.SOMETHING-ELSE.json"})"},
      {std::string(kName), deep},
      {std::string(kName), "{\"name\": \"" + std::string(kName)},  // still arriving
      {std::string(RecordingEnv::kHuge), R"({"name":"2031-01-01-00-00-00.000.HUGE.json"})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.contents.substr(0, 120));
    TempDir dir("quillon-hostile");
    RecordingEnv env;
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
    EXPECT_EQ(env.escapingPaths(), std::vector<std::string>());
    EXPECT_EQ(env.hugeReads.load(), 0);
  }
}

}  // namespace
}  // namespace quillon
