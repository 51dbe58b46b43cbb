#include "quillon/platform/internal/file_viewer.h"

#include <gtest/gtest.h>

#include "quillon/base/env.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

TEST(FileViewerTest, NearestExistingItemWalksUpToWhatExists) {
  TempDir dir;
  ASSERT_FALSE(Env::Default()->writeFileAtomically(dir.file("file"), std::string_view("x")));
  EXPECT_EQ(FileViewer::nearestExistingItem(dir.file("file")), dir.file("file"));
  EXPECT_EQ(FileViewer::nearestExistingItem(dir.path() + "/"), dir.path());
  EXPECT_EQ(FileViewer::nearestExistingItem(dir.file("gone/deeper/doc.quillon")), dir.path());
  EXPECT_EQ(FileViewer::nearestExistingItem("relative/path"), "");
  EXPECT_EQ(FileViewer::nearestExistingItem(""), "");

  class NothingExists : public EnvWrapper {
   public:
    NothingExists() : EnvWrapper(Env::Default()) {}
    bool exists(const std::string&) override { return false; }
  } nothing;
  EXPECT_EQ(FileViewer::nearestExistingItem("/a/b/c", &nothing), "/");
}

}  // namespace
}  // namespace quillon
