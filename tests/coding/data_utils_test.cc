#include "quillon/coding/internal/data_utils.h"

#include <gtest/gtest.h>

#include <vector>

namespace quillon {
namespace {

TEST(DataUtilsTest, HexadecimalStringIsUpperCaseAndDigestLowerCase) {
  const std::vector<uint8_t> bytes{0x0a, 0xff};
  EXPECT_EQ(quillonHexadecimalString(bytes), "0AFF");
  EXPECT_EQ(quillonHexadecimalString(std::vector<uint8_t>{0x00, 0x01, 0x10, 0x9c}), "0001109C");
  EXPECT_EQ(quillonHexadecimalString(std::span<const uint8_t>()), "");
  EXPECT_EQ(quillonHexadecimalString(std::string_view("\0a", 2)), "0061");
  // The SHA-256 digest, by contrast, is lower case.
  EXPECT_EQ(quillonSHA256HexDigest(std::span<const uint8_t>()),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  // Bytes past a zero byte count too.
  EXPECT_NE(quillonSHA256HexDigest(std::string_view("a\0b", 3)),
            quillonSHA256HexDigest(std::string_view("a")));
}

}  // namespace
}  // namespace quillon
