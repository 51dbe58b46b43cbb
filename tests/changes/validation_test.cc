#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quillon/base/json.h"
#include "quillon/changes/change_validator.h"
#include "quillon/coding/internal/data_utils.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"
#include "support/fault_env.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

constexpr std::string_view kName =
    "2026-03-05-17-42-09.318.6F9619FF-8B86-D011-B42D-00C04FC964FF.json";
constexpr std::string_view kRecord = R"({"version":1,"type":"full","payload":{"title":"t"}})";

struct Line {
  std::string message;
  std::string type;
  Value menu;
};

class ValidationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousEnv_ = QuillonStore::defaultEnv();
    QuillonStore::setDefaultEnv(&env_);
    cacheHome_ = std::make_unique<ScopedCacheHome>(dir_.file("caches"));
    stack_ = std::make_unique<StoreStack>(dir_.file("Doc.quillon"));
    ASSERT_TRUE(stack_->waitUntilReady());
    MainQueue::drain();
  }
  void TearDown() override {
    stack_.reset();
    QuillonStore::setDefaultEnv(previousEnv_);
  }

  QuillonStore& store() { return *stack_->store; }
  std::string objectFolder(std::string_view uid) {
    return fmt::format("Doc.quillon/Entities/Note/{}/", uid);
  }
  void writeRecord(std::string_view uid, std::string_view contents = kRecord) {
    dir_.write(objectFolder(uid) + std::string(kName), contents);
  }
  std::string shortPath(std::string_view relative) {
    return store().shortURL(Url::fileURL(dir_.file(fmt::format("Doc.quillon/{}", relative))));
  }
  std::string recordText(std::string_view uid) {
    return shortPath(fmt::format("Entities/Note/{}/{}", uid, kName));
  }
  static Value change(std::string_view changesJSON) {
    return Value::dictionary({{"name", Value(kName)}, {"changes", readJSON(changesJSON)}});
  }

  // Validates and answers the log lines it wrote, oldest first.
  Value validate(const Value& c, std::vector<Line>* lines, bool lightWeight = false) {
    const size_t before = store().logEntries().size();
    // The validator itself, with the open store as its host.
    QuillonChangeValidator validator(store(), store().packageFilesPointer());
    Value result = validator.validate(c, lightWeight, nullptr, store().recover());
    MainQueue::drain();
    Value entries = store().logEntries();
    lines->clear();
    for (size_t i = entries.size() - before; i-- > 0;) {
      const Value& e = entries[i];
      lines->push_back({std::string(e.get("message").str()),
                        std::string(e.get(kQuillonLogType).str()), e.get("menu")});
    }
    return result;
  }
  static std::vector<std::string> messages(const std::vector<Line>& lines) {
    std::vector<std::string> out;
    for (const Line& l : lines) out.push_back(l.message);
    return out;
  }

  FaultInjectingEnv env_;
  Env* previousEnv_ = nullptr;
  TempDir dir_;
  std::unique_ptr<ScopedCacheHome> cacheHome_;
  std::unique_ptr<StoreStack> stack_;
};

TEST_F(ValidationTest, DeletesOnlyAndNamelessChanges) {
  std::vector<Line> lines;
  Value result = validate(change(R"({"delete": {"Note": {"D1": {}}}})"), &lines);
  ASSERT_TRUE(result.isDictionary());
  EXPECT_TRUE(result.empty());
  const std::string changeText = shortPath(fmt::format("Changes/{}", kName));
  EXPECT_TRUE(changeText == fmt::format("Changes/{}", kName) ||
              changeText == fmt::format("/Changes/{}", kName))
      << changeText;
  EXPECT_EQ(messages(lines), (std::vector<std::string>{"Begin validation " + changeText,
                                                       "Completed validation " + changeText}));
  EXPECT_EQ(store().errorLevel(), kQuillonLogTypeSuccess);

  // No name: one error, whose text stays short however large the change is.
  Value nameless = Value::dictionary({{"filler", Value(std::string(100000, 'x'))}});
  EXPECT_TRUE(validate(nameless, &lines).isNil());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].message.starts_with("Change incomplete {"));
  EXPECT_LT(lines[0].message.size(), 2000u);
  EXPECT_EQ(lines[0].type, kQuillonLogTypeError);
  EXPECT_TRUE(validate(Value("not a change"), &lines).isNil());
}

TEST_F(ValidationTest, DataFilesByDigestOrSizeIncludingSuffixedCopies) {
  writeRecord("U1");
  dir_.write(objectFolder("U1") + "Data/blob 2", "hello");  // a conflict copy's name
  const std::string digest = quillonSHA256HexDigest(std::string_view("hello"));
  std::vector<Line> lines;
  Value ok = change(fmt::format(
      R"({{"update": {{"Note": {{"U1": {{"data": [{{"name": "blob", "length": 5, "hash": "{}"}}]}}}}}}}})",
      digest));
  Value result = validate(ok, &lines);
  ASSERT_FALSE(result.isNil()) << lines.back().message;
  EXPECT_TRUE(result.get("Note").find("U1"));

  // A wrong digest fails the full check but not the light-weight one,
  // which compares sizes only.
  Value wrongHash = change(
      R"({"update": {"Note": {"U1": {"data": [{"name": "blob", "length": 5, "hash": "00"}]}}}})");
  EXPECT_TRUE(validate(wrongHash, &lines).isNil());
  EXPECT_TRUE(lines.back().message.starts_with("Missing or incomplete data file: "));
  EXPECT_TRUE(lines.back().message.ends_with("Data/blob%202"));
  EXPECT_EQ(lines.back().type, kQuillonLogTypeWarning);
  EXPECT_FALSE(validate(wrongHash, &lines, /*lightWeight=*/true).isNil());

  // Length 0 and no file: nothing to download, yet no size to compare.
  Value empty =
      change(R"({"update": {"Note": {"U1": {"data": [{"name": "none", "length": 0}]}}}})");
  EXPECT_TRUE(validate(empty, &lines).isNil());
  EXPECT_TRUE(lines.back().message.starts_with("Missing or incomplete data file: "));
  EXPECT_EQ(store().errorLevel(), kQuillonLogTypeWarning);
}

TEST_F(ValidationTest, RecordProblemsAndRecoveryMode) {
  std::vector<Line> lines;
  Value missing = change(R"({"update": {"Note": {"U1": {}}}})");
  EXPECT_TRUE(validate(missing, &lines).isNil());
  ASSERT_EQ(lines.size(), 3u);  // begin, begin of Note, the problem
  EXPECT_EQ(lines[2].message, "Missing file: " + recordText("U1"));
  EXPECT_EQ(lines[2].type, kQuillonLogTypeWarning);
  ASSERT_EQ(lines[2].menu.size(), 2u);
  EXPECT_EQ(lines[2].menu[0].get("action"), Value("discardChangeFromMenu:"));
  EXPECT_EQ(lines[1].message, "Begin validation of Note");
  EXPECT_EQ(lines[2].menu[1].get("title"), Value("Show in Finder"));
  EXPECT_EQ(
      lines[2].menu[1].get("URL"),
      Value(Url::fileURL(dir_.file(objectFolder("U1") + std::string(kName))).absoluteString()));

  store().setRecover(true);
  Value result = validate(missing, &lines);
  ASSERT_TRUE(result.isDictionary());
  EXPECT_TRUE(result.get("Note").find("U1"));
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[2].message, "Missing file: " + recordText("U1"));
  EXPECT_EQ(lines[3].message, "Empty file: " + recordText("U1"));
  EXPECT_TRUE(lines[4].message.starts_with("Failed validation "));
  MainQueue::drain();
  EXPECT_EQ(store().errorLevel(), kQuillonLogTypeError);
  store().setRecover(false);

  // A record still being synchronised, a placeholder without blocks, and a
  // record that is not JSON.
  writeRecord("U1", R"({"version":1,"ty)");
  EXPECT_TRUE(validate(missing, &lines).isNil());
  EXPECT_EQ(lines[2].message, "Incomplete file: " + recordText("U1"));
  const std::string placeholder = dir_.file(objectFolder("U2") + std::string(kName));
  dir_.write(objectFolder("U2") + "x", "");
  int fd = ::open(placeholder.c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, 4096), 0);
  ::close(fd);
  EXPECT_TRUE(validate(change(R"({"update": {"Note": {"U2": {}}}})"), &lines).isNil());
  EXPECT_EQ(lines[2].message, "File not on disk: " + recordText("U2"));
  EXPECT_EQ(lines[2].type, kQuillonLogTypeError);
}

TEST_F(ValidationTest, AnEntityBothUpdatedAndInsertedIsCheckedForItsUpdatesOnly) {
  writeRecord("U1");
  std::vector<Line> lines;
  Value both = change(
      R"({"update": {"Note": {"U1": {}}}, "insert": {"Note": {"NEW": {}}, "Ghost": {"G": {}}}})");
  Value result = validate(both, &lines);
  ASSERT_FALSE(result.isNil()) << lines.back().message;
  EXPECT_EQ(result.get("Note").size(), 1u);
  EXPECT_TRUE(result.get("Note").find("U1"));
  EXPECT_TRUE(result.find("Ghost"));  // not in the model: listed, never looked at

  // Inserted alone, the same object is checked and its record is missing.
  EXPECT_TRUE(validate(change(R"({"insert": {"Note": {"NEW": {}}}})"), &lines).isNil());
}

TEST_F(ValidationTest, HostileNamesAndShapesAreLoggedAndNeverReachAPath) {
  std::string deep(900, '[');
  deep += std::string(900, ']');
  const std::string hugeEntity(100000, 'E');
  Value hostile = change(fmt::format(R"({{
    "update": {{"Note": {{"../x": {{}}, "/abs": {{}}, "a\u0000b": {{}},
                          "U1": {{"data": [{{"name": "../../../../x", "length": 1}},
                                            {{"name": "ok", "length": "ten"}}, "not a record"]}},
                          "U2": {{"data": "not an array"}}, "U3": [1, 2]}},
                "Tag": "not a dictionary", "{}": {{"deep": {}}}}},
    "insert": [1], "delete": {{"Note": {{"..": {{}}}}}}}})",
                                     hugeEntity, deep));
  ASSERT_TRUE(hostile.get("changes").isDictionary());
  writeRecord("U1");
  writeRecord("U2");
  writeRecord("U3");
  std::vector<Line> lines;
  env_.resetCounts();

  EXPECT_TRUE(validate(hostile, &lines).isNil());
  EXPECT_EQ(lines.back().message, R"(Invalid name in change file: "../x")");
  EXPECT_EQ(lines.back().type, kQuillonLogTypeError);

  store().setRecover(true);
  EXPECT_FALSE(validate(hostile, &lines).isNil());
  store().setRecover(false);
  std::vector<std::string> problems;
  for (const Line& l : lines) {
    if (l.message.starts_with("Invalid")) problems.push_back(l.message);
    EXPECT_LT(l.message.size(), 1000u);
  }
  EXPECT_EQ(
      problems,
      (std::vector<std::string>{
          R"(Invalid name in change file: "../x")", R"(Invalid name in change file: "/abs")",
          R"(Invalid name in change file: "a\u0000b")",
          R"(Invalid content in change file: changes/update/Tag)",
          R"(Invalid content in change file: changes/insert)",
          R"(Invalid name in change file: "..")", R"(Invalid name in change file: "../../../../x")",
          R"(Invalid content in change file: Note/U1/data/1)",
          R"(Invalid content in change file: Note/U1/data/2)",
          R"(Invalid content in change file: Note/U2/data)",
          R"(Invalid content in change file: Note/U3)"}));

  for (int op = 0; op <= static_cast<int>(FaultInjectingEnv::Op::Exists); ++op) {
    auto kind = static_cast<FaultInjectingEnv::Op>(op);
    EXPECT_EQ(env_.count(kind, ".."), 0u) << op;
    EXPECT_EQ(env_.count(kind, "/abs"), 0u) << op;
    EXPECT_EQ(env_.count(kind, std::string_view("a\0b", 3)), 0u) << op;
    EXPECT_EQ(env_.count(kind, "EEEE"), 0u) << op;
  }
  EXPECT_GT(env_.count(FaultInjectingEnv::Op::Read, "/Entities/Note/U1/"), 0u);

  Value badName = Value::dictionary({{"name", "../Info.plist"}});
  EXPECT_TRUE(validate(badName, &lines).isNil());
  EXPECT_EQ(lines.back().message, R"(Invalid name in change file: "../Info.plist")");
}

}  // namespace
}  // namespace quillon
