// The tool's new, cat and changes commands, run as a user runs them.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/base/internal/plist.h"
#include "quillon/base/internal/uuid.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "support/sample_models.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

using testing::expectOneErrorLine;
using testing::ToolRun;

class PackageCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_.write("model.json", kNotesModelJSON); }

  ToolRun tool(const std::string& arguments) { return testing::runTool(dir_, arguments); }
  std::string snapshot(const std::string& relative) {
    return testing::folderSnapshot(dir_.file(relative));
  }

  TempDir dir_{"quillon-package-commands"};
};

TEST_F(PackageCommandsTest, NewCreatesAPackageAndRefusesOverwritesAndBadInput) {
  ToolRun made = tool("new Doc.quillon --model model.json --document-id DOC-7");
  ASSERT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(made.out, "DOC-7\n");
  std::string text = dir_.read("Doc.quillon/Info.plist");
  Value info = readPropertyList(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
  EXPECT_EQ(info.get("DocumentIdentifier"), Value("DOC-7"));
  EXPECT_EQ(info.get("Application").get("CFBundleIdentifier"), Value("org.quillon.cli"));

  std::string before = snapshot("Doc.quillon");
  expectOneErrorLine(tool("new Doc.quillon --model model.json"), "already exists");
  EXPECT_EQ(snapshot("Doc.quillon"), before);

  ToolRun fresh = tool("new Other.quillon --model model.json");
  ASSERT_EQ(fresh.status, 0) << fresh.err;
  EXPECT_TRUE(isUUIDString(fresh.out.substr(0, fresh.out.size() - 1))) << fresh.out;

  // Bad input creates nothing.
  dir_.write("bad-model.json",
             R"({"entities": [{"name": "A", "attributes": [{"name": "x", "type": "nope"}]}]})");
  expectOneErrorLine(tool("new A.quillon --model bad-model.json"), "cannot load model");
  expectOneErrorLine(tool("new B.quillon --model missing.json"), "missing.json");
  expectOneErrorLine(tool("new C.quillon --model model.json --password ''"), "password");
  EXPECT_FALSE(Env::Default()->exists(dir_.file("A.quillon")));
  EXPECT_FALSE(Env::Default()->exists(dir_.file("B.quillon")));
  EXPECT_FALSE(Env::Default()->exists(dir_.file("C.quillon")));
}

TEST_F(PackageCommandsTest, CatDecryptsAndPrettyPrints) {
  ASSERT_EQ(tool("new Secret.quillon --model model.json --password pw").status, 0);
  ToolRun info = tool("cat Secret.quillon Info.plist");
  ASSERT_EQ(info.status, 0) << info.err;
  EXPECT_NE(info.out.find("<key>Encryption</key>"), std::string::npos);

  // A file sealed with the package's keys, as the store writes them.
  Value plist = readPropertyList(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(info.out.data()), info.out.size()));
  const Value& encryption = plist.get("Encryption");
  SeaCrypto crypto;
  crypto.setSalt(encryption.get("Salt"));
  crypto.setRounds(encryption.get("Rounds"));
  ASSERT_TRUE(crypto.setPassword(Value("pw")));
  Value sealed =
      crypto.encryptData(Value::data(std::string_view(R"({"name":"x.json","n":[1,2]})")));
  ASSERT_FALSE(Env::Default()->createDirectories(dir_.file("Secret.quillon/Changes")));
  ASSERT_FALSE(Env::Default()->writeFileAtomically(dir_.file("Secret.quillon/Changes/x.json"),
                                                   sealed.bytes()));

  ToolRun shown = tool("cat Secret.quillon Changes/x.json --password pw");
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_EQ(shown.out, writeJSON(readJSON(std::string_view(R"({"name":"x.json","n":[1,2]})")),
                                 JSONStyle::Pretty) +
                           "\n");

  std::string before = snapshot("Secret.quillon");
  expectOneErrorLine(tool("cat Secret.quillon Changes/x.json"), "give --password");
  expectOneErrorLine(tool("cat Secret.quillon Changes/x.json --password nope"), "wrong password");
  expectOneErrorLine(tool("cat Secret.quillon ../model.json --password pw"), "inside the package");
  expectOneErrorLine(tool("cat Secret.quillon /etc/hostname --password pw"), "inside the package");
  expectOneErrorLine(tool("cat Secret.quillon Changes/none.json --password pw"), "no such file");
  expectOneErrorLine(tool("cat Secret.quillon Changes --password pw"), "not a file");
  expectOneErrorLine(tool("cat model.json Info.plist"), "not a Quillon package");
  EXPECT_EQ(snapshot("Secret.quillon"), before);
  ASSERT_EQ(std::system(
                ("ln -s '" + dir_.path() + "' '" + dir_.file("Secret.quillon/Out") + "'").c_str()),
            0);
  expectOneErrorLine(tool("cat Secret.quillon Out/model.json --password pw"), "symbolic link");
}

TEST_F(PackageCommandsTest, ChangesListsNewestFirst) {
  ASSERT_EQ(tool("new Doc.quillon --model model.json").status, 0);
  ToolRun empty = tool("changes Doc.quillon");
  ASSERT_EQ(empty.status, 0) << empty.err;
  EXPECT_EQ(empty.out, "");

  dir_.write(
      "Doc.quillon/Changes/2024-01-01-10-00-00.000.AAAAAAAA-AAAA-AAAA-AAAA-AAAAAAAAAAAA.json",
      R"({"name":"2024-01-01-10-00-00.000.AAAAAAAA-AAAA-AAAA-AAAA-AAAAAAAAAAAA.json","date":"2024-01-01T10:00:00.000+0000",)"
      R"("session":{"machineName":"desk","userName":"ann"},)"
      R"("changes":{"insert":{"Note":{"U1":{},"U2":{}},"Tag":{"U3":{}}},"delete":{"Note":{"U4":{}}}}})");
  dir_.write(
      "Doc.quillon/Changes/2024-01-02-10-00-00.000.BBBBBBBB-BBBB-BBBB-BBBB-BBBBBBBBBBBB.json",
      R"({"name":"2024-01-02-10-00-00.000.BBBBBBBB-BBBB-BBBB-BBBB-BBBBBBBBBBBB.json","type":"recovery",)"
      R"("refreshes":{"update":{"Note":{"U1":{}}}}})");
  dir_.write(
      "Doc.quillon/Changes/2024-01-03-10-00-00.000.CCCCCCCC-CCCC-CCCC-CCCC-CCCCCCCCCCCC.json",
      "{half a file");
  dir_.write("Doc.quillon/Changes/.hidden.json", "{}");
  dir_.write("Doc.quillon/Changes/notes.txt", "{}");
  dir_.write(
      "Doc.quillon/Changes/2024-01-02-10-00-00.000.BBBBBBBB-BBBB-BBBB-BBBB-BBBBBBBBBBBB"
      ".sync-conflict-20240102-100001-DXILLWC.json",
      "{}");

  ToolRun listed = tool("changes Doc.quillon");
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_EQ(
      listed.out,
      "2024-01-03-10-00-00.000.CCCCCCCC-CCCC-CCCC-CCCC-CCCCCCCCCCCC.json\t-\tnot a change file\t-\n"
      "2024-01-02-10-00-00.000.BBBBBBBB-BBBB-BBBB-BBBB-BBBBBBBBBBBB.json\t-\trecovery\t+0 ~1 -0\n"
      "2024-01-01-10-00-00.000.AAAAAAAA-AAAA-AAAA-AAAA-AAAAAAAAAAAA.json\t2024-01-01T10:00:00.000+"
      "0000\tdesk/ann\t+3 ~0 -1\n");

  expectOneErrorLine(tool("changes Doc.quillon --password pw"), "not encrypted");
  expectOneErrorLine(tool("changes Nowhere.quillon"), "does not exist");
}

TEST_F(PackageCommandsTest, ChangesOfAnEncryptedPackage) {
  ASSERT_EQ(tool("new Secret.quillon --model model.json --password pw").status, 0);
  dir_.write(
      "Secret.quillon/Changes/2024-01-01-10-00-00.000.AAAAAAAA-AAAA-AAAA-AAAA-AAAAAAAAAAAA.json",
      "{\"plain\": true}");
  ToolRun listed = tool("changes Secret.quillon --password pw");
  ASSERT_EQ(listed.status, 0) << listed.err;
  EXPECT_EQ(
      listed.out,
      "2024-01-01-10-00-00.000.AAAAAAAA-AAAA-AAAA-AAAA-AAAAAAAAAAAA.json\t-\tcannot decrypt\t-\n");
  expectOneErrorLine(tool("changes Secret.quillon"), "give --password");
  expectOneErrorLine(tool("changes Secret.quillon --password wrong"), "wrong password for");
}

}  // namespace
}  // namespace quillon
