#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "coding/dense_test_util.h"
#include "quillon/base/error.h"
#include "quillon/coding/internal/dense_coder.h"

namespace quillon {
namespace {

using testing::Bytes;
using testing::LogCapture;

// Version 2 words: everything is 32-bit units, nothing is aligned.
Bytes v2(uint32_t objects, uint16_t minor = 0) {
  Bytes b;
  b.raw<uint32_t>(0x46415354).raw<uint16_t>(2).raw<uint16_t>(minor).raw<uint32_t>(objects);
  return b;
}

Bytes& word(Bytes& b, uint32_t w) { return b.raw<uint32_t>(w); }

// A version 2 string: code 2, UTF-8, a zero, padding to a multiple of 4.
Bytes& str(Bytes& b, std::string_view s, uint32_t code = 2) {
  word(b, code);
  b.cstr(s);
  for (size_t n = s.size() + 1; n % 4; ++n) b.u8(0);
  return b;
}

std::string reasonOf(const std::vector<uint8_t>& bytes) {
  try {
    DenseCoder::objectWithData(bytes);
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "DenseCodingException");
    return e.reason();
  }
  return "no exception";
}

TEST(DenseLegacyTest, TheTwoLetterStringFileIsTwentyBytes) {
  Bytes b = v2(1);
  str(b, "ab");
  auto bytes = b.vec();
  ASSERT_EQ(bytes.size(), 20u);
  EXPECT_EQ(bytes[12], 2);
  EXPECT_EQ(bytes[19], 0);
  EXPECT_EQ(DenseCoder::objectWithData(bytes), Value("ab"));
}

TEST(DenseLegacyTest, OneTableHoldsStringsNumbersAndContainers) {
  Bytes b = v2(5, 7);
  word(b, 17);  // mutable array, entered first (0)
  word(b, 6);
  str(b, "hello");                  // 1
  word(b, 1), word(b, 1);           // alias to the string
  word(b, 9), word(b, 0xfffffff9);  // int32 -7 (2)
  word(b, 1), word(b, 2);           // alias to the number
  word(b, 1), word(b, 0);           // the array itself
  word(b, 12).raw<double>(0.5);     // float64 (3)
  Value back = DenseCoder::objectWithData(b.vec());
  ASSERT_TRUE(back.isArray());
  ASSERT_EQ(back.size(), 6u);
  EXPECT_TRUE(back.isMutable());
  EXPECT_EQ(back[0], Value("hello"));
  EXPECT_TRUE(Value::identical(back[0], back[1]));
  EXPECT_EQ(back[2], Value(-7));
  EXPECT_EQ(back[3], Value(-7));
  EXPECT_TRUE(Value::identical(back[4], back));
  EXPECT_EQ(back[5], Value(0.5));
  DenseCoder::breakCycles(back);
}

TEST(DenseLegacyTest, ErrorsReachTheCallerUnlogged) {
  LogCapture log;
  Bytes truncated = v2(1);
  word(truncated, 2);
  truncated.u8('a');
  EXPECT_EQ(reasonOf(truncated.vec()), "Unexpected EOF when parsing object starting at 16");
  Bytes unpadded = v2(1);
  word(unpadded, 2);
  unpadded.cstr("ab");
  EXPECT_EQ(reasonOf(unpadded.vec()), "Unexpected EOF when parsing object starting at 16");
  Bytes unknown = v2(0);
  word(unknown, 34);
  EXPECT_EQ(reasonOf(unknown.vec()), "DenseCoding cannot decode object of type: 34");
  Bytes high = v2(0);
  word(high, 272);
  EXPECT_EQ(reasonOf(high.vec()), "DenseCoding cannot decode object of type: 272");
  Bytes alias = v2(0);
  word(alias, 1), word(alias, 3);
  EXPECT_EQ(reasonOf(alias.vec()),
            "Attempted to read cache object at index 3, but cache object count is 0");
  Bytes huge = v2(0xffffffff);
  word(huge, 4), word(huge, 0x7fffffff);
  EXPECT_EQ(reasonOf(huge.vec()), "Unexpected EOF when parsing object starting at 16");
  Bytes instance = v2(1);
  word(instance, 4), word(instance, 2), word(instance, 9), word(instance, 1);
  word(instance, 22), word(instance, 0);  // index 0 holds a number, not a definition
  EXPECT_EQ(reasonOf(instance.vec()), "DenseCoding cannot decode object of type: 22");
  Bytes header = Bytes().raw<uint32_t>(0x46415354).raw<uint16_t>(2).raw<uint16_t>(0);
  EXPECT_EQ(reasonOf(header.vec()), "Unexpected EOF when parsing object starting at 8");
  EXPECT_TRUE(log.lines().empty());
}

TEST(DenseLegacyTest, PropertyListReadingRefusesObjects) {
  Bytes b = v2(1);
  word(b, 33);
  str(b, "Legacy");
  word(b, 23);
  EXPECT_THROW(DenseCoder::propertyListWithData(b.vec()), Exception);
  Bytes plain = v2(1);
  word(plain, 5), word(plain, 1), word(plain, 7);  // a set holding true
  EXPECT_EQ(DenseCoder::propertyListWithData(plain.vec()), Value::set({Value(true)}));
}

}  // namespace
}  // namespace quillon
