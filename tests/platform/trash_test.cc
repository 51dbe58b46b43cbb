#include "quillon/platform/internal/trash.h"

#include <gtest/gtest.h>

#include <vector>

#include "quillon/base/env.h"
#include "quillon/platform/standard_paths.h"
#include "support/private_home.h"

namespace quillon {
namespace {

std::string readAll(const std::string& path) {
  std::vector<uint8_t> bytes;
  EXPECT_FALSE(Env::Default()->readFile(path, &bytes)) << path;
  return std::string(bytes.begin(), bytes.end());
}

// Items in the private home go to the home trash under its XDG data folder.
class TrashTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = testing::privateHome() + "/Documents " + std::to_string(counter_++);
    ASSERT_FALSE(env_->createDirectories(folder_));
    trash_ = StandardPaths::userDataDirectory() + "/Trash";
  }
  static inline int counter_ = 0;
  Env* env_ = Env::Default();
  std::string folder_;
  std::string trash_;
};

TEST_F(TrashTest, TrashedFileLandsInTrashWithItsInfo) {
  ASSERT_EQ(trash_, testing::privateHome() + "/.local/share/Trash");
  std::string file = folder_ + "/Old Notes.quillon";
  ASSERT_FALSE(env_->writeFileAtomically(file, std::string_view("contents")));

  std::string trashed;
  Error error;
  ASSERT_TRUE(Trash::trashItem(file, &trashed, &error)) << error.description();
  EXPECT_FALSE(error);
  EXPECT_FALSE(env_->exists(file));
  // The first free name in the trash: "Old Notes.quillon" or a numbered variant.
  std::string prefix = trash_ + "/files/Old Notes";
  ASSERT_EQ(trashed.compare(0, prefix.size(), prefix), 0) << trashed;
  EXPECT_EQ(readAll(trashed), "contents");

  std::string name = trashed.substr(trashed.find_last_of('/') + 1);
  std::string info = readAll(trash_ + "/info/" + name + ".trashinfo");
  EXPECT_NE(info.find("[Trash Info]"), std::string::npos);
  EXPECT_NE(info.find("\nPath=" + Url::percentEncodePath(file) + "\n"), std::string::npos) << info;
  EXPECT_NE(info.find("DeletionDate="), std::string::npos);
}

TEST_F(TrashTest, SameNamesGetDistinctPlacesAndFoldersGoWhole) {
  std::string package = folder_ + "/Doc.quillon";
  ASSERT_FALSE(env_->createDirectories(package + "/Changes"));
  ASSERT_FALSE(env_->writeFileAtomically(package + "/Changes/c1", std::string_view("1")));
  std::string first;
  ASSERT_TRUE(Trash::trashItem(package, &first, nullptr));
  EXPECT_EQ(readAll(first + "/Changes/c1"), "1");

  ASSERT_FALSE(env_->createDirectories(package));
  ASSERT_FALSE(env_->writeFileAtomically(package + "/marker", std::string_view("2")));
  std::string second;
  ASSERT_TRUE(Trash::trashItem(package, &second, nullptr));
  EXPECT_NE(first, second);
  EXPECT_EQ(readAll(second + "/marker"), "2");
  EXPECT_TRUE(env_->exists(first + "/Changes/c1"));

  // A missing item is a clear error.
  std::string trashed = "stale";
  Error error;
  EXPECT_FALSE(Trash::trashItem(folder_ + "/missing", &trashed, &error));
  EXPECT_TRUE(error);
  EXPECT_EQ(error.domain(), kPosixErrorDomain);
  EXPECT_EQ(error.code(), ENOENT);
  EXPECT_TRUE(trashed.empty());
}

}  // namespace
}  // namespace quillon
