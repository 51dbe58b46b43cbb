// The tool's verify command on packages that the tool itself wrote, then
// damaged the ways a synchronisation service or a disk can damage them.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "support/sample_models.h"
#include "support/temp_dir.h"
#include "support/tool_run.h"

namespace quillon {
namespace {

using testing::expectOneErrorLine;
using testing::ToolRun;

class VerifyCommandTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_.write("model.json", kNotesModelJSON); }

  ToolRun tool(const std::string& arguments) { return testing::runTool(dir_, arguments); }
  std::string passwordOption() const {
    return password_.empty() ? "" : " --password " + password_;
  }
  std::string common() const {
    return "Doc.quillon --model model.json" + passwordOption();
  }
  ToolRun verify() { return tool("verify Doc.quillon" + passwordOption()); }

  // Three saves: a folder, a note with binary data (one data file), and an
  // update of the note. Remembers the note's uid.
  void makePackage() {
    ASSERT_EQ(tool("new " + common()).status, 0);
    ToolRun folder = tool("insert " + common() + " Folder --values '{\"name\": \"Inbox\"}'");
    ASSERT_EQ(folder.status, 0) << folder.err;
    ToolRun note = tool("insert " + common() +
                        " Note --values '{\"title\": \"a\", \"data\": {\"$base64\": \"aGVsbG8=\"}}'");
    ASSERT_EQ(note.status, 0) << note.err;
    Value paths = readJSON(note.out);
    ASSERT_TRUE(paths.isArray() && paths.size() == 1) << note.out;
    noteUID_ = std::string(paths[0].str().substr(5));  // after "Note/"
    ToolRun update = tool("update " + common() + " Note/" + noteUID_ + " --values '{\"title\": \"b\"}'");
    ASSERT_EQ(update.status, 0) << update.err;
    ASSERT_EQ(changes().size(), 3u);
  }

  std::vector<std::string> list(const std::string& relative) {
    std::vector<std::string> names;
    EXPECT_FALSE(Env::Default()->listDirectory(dir_.file(relative), &names)) << relative;
    std::sort(names.begin(), names.end());
    return names;
  }
  std::vector<std::string> changes() { return list("Doc.quillon/Changes"); }
  std::string noteFolder() const { return "Doc.quillon/Entities/Note/" + noteUID_; }

  // The finding lines, without the summary line (which must be last).
  static std::vector<std::string> findings(const ToolRun& run) {
    std::vector<std::string> lines = run.outLines();
    EXPECT_FALSE(lines.empty());
    if (lines.empty()) return lines;
    EXPECT_TRUE(lines.back().starts_with("verify: ")) << run.out;
    lines.pop_back();
    return lines;
  }

  TempDir dir_{"quillon-verify"};
  std::string password_;
  std::string noteUID_;
};

TEST_F(VerifyCommandTest, CleanPackagesPassPlainAndEncrypted) {
  makePackage();
  ToolRun plain = verify();
  EXPECT_EQ(plain.status, 0) << plain.out << plain.err;
  EXPECT_EQ(plain.out, "verify: no problems (3 change files, 3 records, 1 data file)\n");
  EXPECT_EQ(plain.err, "");

  dir_.write("Secret/model.json", kNotesModelJSON);
  std::string secret = "Secret/Doc.quillon --model Secret/model.json --password pw";
  ASSERT_EQ(tool("new " + secret).status, 0);
  ToolRun note = tool("insert " + secret +
                      " Note --values '{\"title\": \"a\", \"data\": {\"$base64\": \"aGk=\"}}'");
  ASSERT_EQ(note.status, 0) << note.err;
  ToolRun encrypted = tool("verify Secret/Doc.quillon --password pw");
  EXPECT_EQ(encrypted.status, 0) << encrypted.out << encrypted.err;
  EXPECT_EQ(encrypted.out, "verify: no problems (1 change file, 1 record, 1 data file)\n");

  // A wrong or missing password is one clear error, not a list of files
  // that cannot be decrypted.
  expectOneErrorLine(tool("verify Secret/Doc.quillon --password nope"), "wrong password");
  expectOneErrorLine(tool("verify Secret/Doc.quillon"), "password");
  expectOneErrorLine(tool("verify model.json"), "not a Quillon package");
}

TEST_F(VerifyCommandTest, EachDamageHasItsOwnLineAndOnlyBlockingOnesFail) {
  makePackage();
  const std::vector<std::string> names = changes();
  // The second save inserted the note; its record and data file.
  const std::string noteRecord = "Entities/Note/" + noteUID_ + "/" + names[1];
  const std::vector<std::string> data = list(noteFolder() + "/Data");
  ASSERT_EQ(data.size(), 1u);
  const std::string dataFile = "Entities/Note/" + noteUID_ + "/Data/" + data[0];

  // Orphans alone are warnings.
  const std::string orphanRecord =
      "Entities/Note/ORPHAN/2020-01-01-00-00-00.000.AAAAAAAA-AAAA-AAAA-AAAA-AAAAAAAAAAAA.json";
  dir_.write("Doc.quillon/" + orphanRecord, "{}");
  dir_.write(noteFolder() + "/Data/stray", "x");
  ToolRun orphans = verify();
  EXPECT_EQ(orphans.status, 0) << orphans.out;
  EXPECT_EQ(findings(orphans),
            (std::vector<std::string>{"orphan data file " + noteFolder().substr(12) + "/Data/stray",
                                      "orphan record " + orphanRecord}));
  EXPECT_EQ(orphans.outLines().back(),
            "verify: 0 problems, 2 warnings (3 change files, 3 records, 1 data file)");

  // A flipped byte keeps the length and changes the hash.
  std::string bytes = dir_.read("Doc.quillon/" + dataFile);
  ASSERT_FALSE(bytes.empty());
  bytes[bytes.size() / 2] ^= 0x01;
  dir_.write("Doc.quillon/" + dataFile, bytes);
  ToolRun flipped = verify();
  EXPECT_EQ(flipped.status, 1);
  std::vector<std::string> lines = findings(flipped);
  ASSERT_EQ(lines.size(), 3u) << flipped.out;
  EXPECT_EQ(lines[0], "data file hash mismatch " + dataFile);

  // A truncated one is caught by its length first.
  dir_.write("Doc.quillon/" + dataFile, bytes.substr(1));
  lines = findings(verify());
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(lines[0].starts_with("data file length mismatch " + dataFile + ": ")) << lines[0];

  // A deleted record.
  ASSERT_FALSE(Env::Default()->removeItem(dir_.file("Doc.quillon/" + noteRecord)));
  ToolRun missing = verify();
  EXPECT_EQ(missing.status, 1);
  lines = findings(missing);
  ASSERT_EQ(lines.size(), 4u) << missing.out;
  EXPECT_EQ(lines[0], "missing record " + noteRecord + " (insert Note/" + noteUID_ + ")");
  EXPECT_EQ(missing.outLines().back(),
            "verify: 2 problems, 2 warnings (3 change files, 3 records, 1 data file)");
}

TEST_F(VerifyCommandTest, APreviousNameThatIsNotThereBreaksTheChain) {
  makePackage();
  const std::vector<std::string> names = changes();
  const std::string last = "Doc.quillon/Changes/" + names[2];
  Value change = readJSON(dir_.read(last)).mutableCopy();
  ASSERT_EQ(change.get("previousName"), Value(names[1]));
  EXPECT_EQ(verify().status, 0);

  const std::string gone = "2020-01-01-00-00-00.000.BBBBBBBB-BBBB-BBBB-BBBB-BBBBBBBBBBBB.json";
  change.set(Value("previousName"), Value(gone));
  dir_.write(last, writeJSON(change));
  ToolRun broken = verify();
  EXPECT_EQ(broken.status, 1);
  EXPECT_EQ(findings(broken), (std::vector<std::string>{"broken chain Changes/" + names[2] +
                                                        ": its previous change " + gone +
                                                        " is not in Changes"}));

  // A change that names a later one as its previous is out of order, which
  // another computer reports but still applies.
  Value second = readJSON(dir_.read("Doc.quillon/Changes/" + names[1])).mutableCopy();
  second.set(Value("previousName"), Value(names[2]));
  dir_.write("Doc.quillon/Changes/" + names[1], writeJSON(second));
  change.set(Value("previousName"), Value(names[1]));
  dir_.write(last, writeJSON(change));
  ToolRun disordered = verify();
  EXPECT_EQ(disordered.status, 0) << disordered.out;
  EXPECT_EQ(findings(disordered),
            (std::vector<std::string>{"date inconsistency Changes/" + names[1] +
                                      ": it sorts before its previous change " + names[2]}));
}

TEST_F(VerifyCommandTest, UnreadableChangeFilesAreProblems) {
  makePackage();
  const std::vector<std::string> names = changes();
  dir_.write("Doc.quillon/Changes/" + names[0], "{\"name\": ");
  Value renamed = readJSON(dir_.read("Doc.quillon/Changes/" + names[1])).mutableCopy();
  renamed.set(Value("name"), Value("other.json"));
  dir_.write("Doc.quillon/Changes/" + names[1], writeJSON(renamed));
  dir_.write("Doc.quillon/Changes/2024-01-01.json", "{}");
  ToolRun run = verify();
  EXPECT_EQ(run.status, 1);
  std::vector<std::string> lines = findings(run);
  ASSERT_GE(lines.size(), 3u) << run.out;
  EXPECT_EQ(lines[0], "not a change file name Changes/2024-01-01.json");
  EXPECT_EQ(lines[1], "incomplete change file Changes/" + names[0] + ": not JSON");
  EXPECT_TRUE(lines[2].starts_with("invalid change file Changes/" + names[1] + ": its name"))
      << lines[2];
}

}  // namespace
}  // namespace quillon
