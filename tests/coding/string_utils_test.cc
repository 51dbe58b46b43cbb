#include "quillon/coding/internal/string_utils.h"

#include <gtest/gtest.h>

namespace quillon {
namespace {

TEST(StringUtilsTest, StoreUidAndEntityNameComeFromThePathsEnds) {
  EXPECT_EQ(storeUID("/Entity/p12"), "12");
  EXPECT_EQ(storeUID("t1A2B"), "1A2B");
  EXPECT_EQ(storeUID("abc"), "abc");
  EXPECT_EQ(storeUID("x-quillon://DOC-ID/Note/p0F3A"), "0F3A");
  EXPECT_EQ(storeUID("Note/ptA"), "tA");  // only one prefix character goes
  EXPECT_EQ(storeUID("Note/"), "");
  EXPECT_EQ(storeUID("p"), "");
  EXPECT_EQ(storeUID(""), "");
  EXPECT_EQ(storeUIDOff("/Entity/p12"), "12");
  // The entity name is the first non-empty component.
  EXPECT_EQ(storeEntityName("/Entity/p12"), "Entity");
  EXPECT_EQ(storeEntityName("///Tag//x"), "Tag");
  EXPECT_EQ(storeEntityName("Folder"), "Folder");
  EXPECT_EQ(storeEntityName("///"), "");
  EXPECT_EQ(storeEntityName(""), "");
}

TEST(StringUtilsTest, DigestsAreUpperCaseOverUtf8Bytes) {
  EXPECT_EQ(storeSHA256String("Note"),
            "D8DA2C49DF39D91DF7ECD199B92DA7BF264F026242CCC69B08DAEADFE587C45B");
  EXPECT_EQ(storeMD5String("\u00e9"), "66DDCD97CFDEABB2F6FB8A999B4BC76F");
}

TEST(StringUtilsTest, AnonymizeKeepsFirstAndLastCodePoints) {
  EXPECT_EQ(anonymize("Hello"), "H\u2026o");
  EXPECT_EQ(anonymize("Hi"), "\u2026");
  EXPECT_EQ(anonymize(""), "\u2026");
  // Characters, not bytes: two accented letters are three bytes but two characters.
  EXPECT_EQ(anonymize("\u00e9x"), "\u2026");
  EXPECT_EQ(anonymize("\u00dcn\u00efc\u00f6d\u00e9"), "\u00dc\u2026\u00e9");
  EXPECT_EQ(anonymize("\U0001F600ab\U0001F603"), "\U0001F600\u2026\U0001F603");
  // Bytes that are not UTF-8 count one each and are kept as they are.
  EXPECT_EQ(anonymize("\xff\xfe\xfd"), "\xff\u2026\xfd");
  EXPECT_EQ(anonymize("a\xe2\x80"), "a\u2026\x80");  // a cut-off sequence

  EXPECT_EQ(anonymize(Value("Hello")), Value("H\u2026o"));
  EXPECT_TRUE(anonymize(Value(42)).isNil());
  EXPECT_TRUE(anonymize(Value::null()).isNil());
  EXPECT_TRUE(anonymize(Value::array({"Hello"})).isNil());
}

}  // namespace
}  // namespace quillon
