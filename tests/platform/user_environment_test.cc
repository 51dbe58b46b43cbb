#include <gtest/gtest.h>
#include <stdlib.h>

#include "quillon/platform/standard_paths.h"
#include "quillon/platform/internal/user_info.h"
#include "support/private_home.h"

namespace quillon {
namespace {

TEST(StandardPathsTest, FollowTheXdgVariables) {
  const std::string& home = testing::privateHome();
  EXPECT_EQ(StandardPaths::homeDirectory(), home);
  EXPECT_EQ(StandardPaths::userDataDirectory(), home + "/.local/share");
  EXPECT_EQ(StandardPaths::userConfigDirectory(), home + "/.config");
  EXPECT_EQ(StandardPaths::userCacheDirectory(), home + "/.cache");
  std::string temp = StandardPaths::temporaryDirectory();
  ASSERT_FALSE(temp.empty());
  EXPECT_EQ(temp[0], '/');
  EXPECT_NE(temp.back(), '/');
}

TEST(UserInfoTest, PrettyNameOfOsRelease) {
  EXPECT_EQ(UserInfo::prettyNameFromOsRelease(
                "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"),
            "Debian GNU/Linux 12 (bookworm)");
  EXPECT_EQ(UserInfo::prettyNameFromOsRelease("PRETTY_NAME='Single Quoted'"), "Single Quoted");
  EXPECT_EQ(UserInfo::prettyNameFromOsRelease("PRETTY_NAME=Bare"), "Bare");
  EXPECT_EQ(UserInfo::prettyNameFromOsRelease("PRETTY_NAME=\"Say \\\"hi\\\"\""), "Say \"hi\"");
  EXPECT_EQ(UserInfo::prettyNameFromOsRelease("PRETTY_NAME=\"unterminated"), "unterminated");
  EXPECT_EQ(UserInfo::prettyNameFromOsRelease("NAME=Only\nPRETTY_NAME=\"\"\n"), std::nullopt);
  EXPECT_EQ(UserInfo::prettyNameFromOsRelease("# PRETTY_NAME=commented"), std::nullopt);
}

}  // namespace
}  // namespace quillon
