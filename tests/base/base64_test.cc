#include "quillon/base/internal/base64.h"

#include <gtest/gtest.h>

namespace quillon {
namespace {

std::string decodeToString(std::string_view text) {
  auto bytes = base64Decode(text);
  EXPECT_TRUE(bytes) << text;
  return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

TEST(Base64Test, KnownVectorsAndRefusals) {
  // RFC 4648 test vectors.
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(base64Encode(plain), encoded);
    EXPECT_EQ(decodeToString(encoded), plain);
  }
  EXPECT_EQ(base64Encode(std::string("\xFB\xFF\xBF", 3)), "+/+/");

  // Anything but canonical, padded text is refused.
  for (std::string_view bad :
       {"Zg", "Zg=", "Zm9", "Z===", "====", "Zg==Zg==", "Zm9v Yg==", "Zm9v\nYg==", "Zm-v", "Zm_v",
        "Zh==", "Zm9=", "=Zm9", "Zm=v", "Zm9vY\xC3\xA9=="}) {
    EXPECT_FALSE(base64Decode(bad)) << bad;
  }
}

}  // namespace
}  // namespace quillon
