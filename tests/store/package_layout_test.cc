// The package's names and paths: the change-name grammar, conflict copies,
// and paths built from untrusted names.

#include "quillon/store/package_layout.h"

#include <gtest/gtest.h>

#include "quillon/base/env.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

constexpr std::string_view kChange =
    "2026-11-23-08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964FF.json";

TEST(PackageLayoutTest, OnlyTheChangeNameGrammarNamesAChangeFile) {
  EXPECT_TRUE(isChangeFileName(kChange));
  EXPECT_TRUE(
      isChangeFileName("2026-11-23-08-48-14.123.6f9619ff-8b86-d011-b42d-00c04fc964ff.json"));
  for (std::string_view other : {
           "2026-11-23-08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964FF",       // no extension
           "2026-11-23-08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964FF.JSON",  // not ours
           "2026-11-23-08-48-14.12.6F9619FF-8B86-D011-B42D-00C04FC964FF.json",   // short millis
           "2026-11-23-08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964F.json",   // short UUID
           "2026-11-23-08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964FG.json",  // not hex
           "2026-11-23T08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964FF.json",
           ".2026-11-23-08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964FF.json.tmp",
           ".syncthing.2026-11-23-08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964FF.json.tmp",
           "2026-11-23-08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964FF.json~",
           "2026-11-23-08-48-14.123.6F9619FF-8B86-D011-B42D-00C04FC964FF (1).json",
           "",
           ".json",
       }) {
    EXPECT_FALSE(isChangeFileName(other)) << other;
  }
}

TEST(PackageLayoutTest, ConflictCopiesNameTheChangeTheyCopy) {
  const std::string stem(kChange.substr(0, kChange.size() - 5));
  for (const std::string& copy : {
           stem + ".sync-conflict-20261123-084814-DXILLWC.json",  // Syncthing
           stem + " (conflicted copy 2026-11-23 084814).json",    // Nextcloud, ownCloud
           stem + " (Ann's conflicted copy 2026-11-23).json",     // Dropbox
           stem + " (1).json",                                    // a plain duplicate
       }) {
    EXPECT_EQ(conflictCopyOf(copy), std::string(kChange)) << copy;
  }
  EXPECT_EQ(conflictCopyOf(kChange), std::nullopt);
  EXPECT_EQ(conflictCopyOf(stem + ".json.tmp"), std::nullopt);
  EXPECT_EQ(conflictCopyOf("notes (1).json"), std::nullopt);
  EXPECT_EQ(conflictCopyOf(stem + "x.json"), std::nullopt);
}

TEST(PackageLayoutTest, ListsOnlyChangeFilesInHistoryOrder) {
  TempDir dir("quillon-layout");
  const std::string later = "2026-11-23-08-48-14.124.00000000-0000-0000-0000-000000000001.json";
  const std::string earlier = "2026-11-23-08-48-14.123.FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF.json";
  const std::string copy =
      earlier.substr(0, earlier.size() - 5) + ".sync-conflict-20261123-084814-DXILLWC.json";
  for (const std::string& name : {later, earlier, copy, std::string(".~quillon-1"),
                                  std::string("readme.txt"), std::string(".hidden.json")}) {
    dir.write("Changes/" + name, "{}");
  }
  std::vector<std::string> names, copies;
  ASSERT_FALSE(
      listChangeFiles(Env::Default(), Url::fileURL(dir.file("Changes"), true), &names, &copies));
  EXPECT_EQ(names, (std::vector<std::string>{earlier, later}));
  EXPECT_EQ(copies, std::vector<std::string>{copy});

  // A package without a "Changes" folder has no history yet.
  ASSERT_FALSE(listChangeFiles(Env::Default(), Url::fileURL(dir.file("None"), true), &names));
  EXPECT_TRUE(names.empty());
}

TEST(PackageLayoutTest, PathsFromUntrustedNamesStayInsideThePackage) {
  PackageLayout layout(Url::fileURL("/p/Doc.quillon", true));
  EXPECT_EQ(layout.record("Note", "U1", kChange)->path(),
            "/p/Doc.quillon/Entities/Note/U1/" + std::string(kChange));
  EXPECT_EQ(layout.dataFile("Note", "U1", "blob")->path(),
            "/p/Doc.quillon/Entities/Note/U1/Data/blob");
  EXPECT_EQ(layout.changeFile(kChange)->path(), "/p/Doc.quillon/Changes/" + std::string(kChange));
  using namespace std::string_view_literals;
  for (std::string_view bad : {""sv, "."sv, ".."sv, "../x"sv, "a/b"sv, "a\0b"sv}) {
    EXPECT_FALSE(layout.entityFolder(bad)) << bad;
    EXPECT_FALSE(layout.objectFolder("Note", bad)) << bad;
    EXPECT_FALSE(layout.record("Note", "U1", bad)) << bad;
    EXPECT_FALSE(layout.dataFile("Note", "U1", bad)) << bad;
    EXPECT_FALSE(layout.changeFile(bad)) << bad;
  }
  EXPECT_EQ(layout.shortText(layout.changes().appending("x.json")), "Changes/x.json");
}

TEST(PackageLayoutTest, EncryptedPackagesHideEntityNames) {
  EXPECT_EQ(PackageLayout::entityKey("Note", false), "Note");
  std::string key = PackageLayout::entityKey("Note", true);
  EXPECT_EQ(key.size(), 64u);
  EXPECT_EQ(key.find("Note"), std::string::npos);
  EXPECT_EQ(key, PackageLayout::entityKey("Note", true));
  EXPECT_NE(key, PackageLayout::entityKey("Folder", true));
}

}  // namespace
}  // namespace quillon
