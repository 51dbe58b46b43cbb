#include "quillon/base/internal/uuid.h"

#include <gtest/gtest.h>

#include <set>

namespace quillon {
namespace {

TEST(UUIDTest, MakesAndRecognisesCanonicalText) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    std::string u = makeUUIDString();
    ASSERT_TRUE(isUUIDString(u)) << u;
    EXPECT_EQ(u.find_first_of("abcdef"), std::string::npos) << u;
    EXPECT_EQ(u[14], '4') << u;
    EXPECT_NE(std::string("89AB").find(u[19]), std::string::npos) << u;
    seen.insert(u);
  }
  EXPECT_EQ(seen.size(), 200u);

  // Recognition takes either case, and nothing but the canonical layout.
  EXPECT_TRUE(isUUIDString("6F9619FF-8B86-D011-B42D-00C04FC964FF"));
  EXPECT_TRUE(isUUIDString("6f9619ff-8b86-d011-b42d-00c04fc964ff"));
  for (std::string_view bad :
       {"", "6F9619FF8B86D011B42D00C04FC964FF", "6F9619FF-8B86-D011-B42D-00C04FC964F",
        "6F9619FF-8B86-D011-B42D-00C04FC964FFF", "{6F9619FF-8B86-D011-B42D-00C04FC964FF}",
        "6F9619FF-8B86-D011-B42D_00C04FC964FF", "6F9619FF-8B86-D011-B42D-00C04FC964FG",
        "6F9619F-F8B86-D011-B42D-00C04FC964FF"}) {
    EXPECT_FALSE(isUUIDString(bad)) << bad;
  }
}

}  // namespace
}  // namespace quillon
