// Reading and writing package files: limits before parsing, the cipher, and
// typed outcomes that readers turn into their own messages.

#include "quillon/store/package_files.h"

#include <gtest/gtest.h>

#include "quillon/base/env.h"
#include "quillon/base/internal/plist.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

class PackageFilesTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(Env::Default()->createDirectories(package.path())); }
  // An encrypted package needs its "Encryption" entry before any file is sealed.
  std::unique_ptr<PackageFiles> encrypted(const std::string& password) {
    Value encryption = Value::mutableDictionary();
    encryption.set(kSeaCryptoSaltKey, SeaCrypto::generateSalt());
    encryption.set(kSeaCryptoRoundsKey, Value::integer(1000));
    Value info = Value::mutableDictionary();
    info.set(kSeaCryptoEncryptionKey, encryption);
    EXPECT_FALSE(PackageFiles::writeInfo(Env::Default(), package, info));
    return std::make_unique<PackageFiles>(Env::Default(), package, Value(password));
  }

  TempDir dir{"quillon-package-files"};
  Url package = Url::fileURL(dir.file("Doc.quillon"), true);
};

TEST_F(PackageFilesTest, ReadsAreLimitedAndTyped) {
  PackageFiles files(Env::Default(), package, Value());
  dir.write("Doc.quillon/ok.json", R"({"a":[1,2]})");
  dir.write("Doc.quillon/empty.json", "");
  dir.write("Doc.quillon/half.json", R"({"a":[1,)");
  dir.write("Doc.quillon/deep.json", std::string(65, '[') + std::string(65, ']'));
  dir.write("Doc.quillon/big.json", "[" + std::string(2000, ' ') + "]");

  PackageFileReading ok = files.readJSON(dir.file("Doc.quillon/ok.json"), kChangeFileLimits);
  ASSERT_TRUE(ok.ok());
  EXPECT_EQ(ok.value.get("a").size(), 2u);
  EXPECT_EQ(files.readJSON(dir.file("Doc.quillon/none.json"), kChangeFileLimits).status,
            PackageFileReading::kMissing);
  EXPECT_EQ(files.readJSON(dir.file("Doc.quillon/empty.json"), kChangeFileLimits).status,
            PackageFileReading::kEmpty);
  EXPECT_EQ(files.readJSON(dir.file("Doc.quillon/half.json"), kChangeFileLimits).status,
            PackageFileReading::kUnparsable);
  EXPECT_EQ(files.readJSON(dir.file("Doc.quillon/deep.json"), kChangeFileLimits).status,
            PackageFileReading::kUnparsable);
  EXPECT_TRUE(files.readJSON(dir.file("Doc.quillon/deep.json"), {1000, 65}).ok());
  PackageFileReading big = files.readJSON(dir.file("Doc.quillon/big.json"), {1000, 64});
  EXPECT_EQ(big.status, PackageFileReading::kTooLarge);
  EXPECT_EQ(big.size, 2002u);
  EXPECT_EQ(big.describe(), "2002 bytes is more than such a file may have");
}

TEST_F(PackageFilesTest, SealedFilesOpenOnlyWithTheirPassword) {
  std::unique_ptr<PackageFiles> files = encrypted("secret");
  ASSERT_TRUE(files->cipherReady());
  const std::string path = dir.file("Doc.quillon/Changes/c.json");
  ASSERT_FALSE(Env::Default()->createDirectories(dir.file("Doc.quillon/Changes")));
  ASSERT_FALSE(files->writeJSON(path, Value::dictionary({{"name", "c.json"}}), JSONStyle::Compact,
                                Durability::kFlushed));
  EXPECT_EQ(dir.read("Doc.quillon/Changes/c.json").find("c.json"), std::string::npos);
  EXPECT_EQ(files->readJSON(path, kChangeFileLimits).value.get("name"), Value("c.json"));

  PackageFiles wrong(Env::Default(), package, Value("guess"));
  EXPECT_EQ(wrong.readJSON(path, kChangeFileLimits).status, PackageFileReading::kUndecryptable);
  PackageFiles plain(Env::Default(), package, Value());
  EXPECT_EQ(plain.readJSON(path, kChangeFileLimits).status, PackageFileReading::kUnparsable);
}

TEST_F(PackageFilesTest, AnUnusableEncryptionEntryIsReported) {
  Error error;
  EXPECT_EQ(PackageFiles::makeCipher(Value(), Value("pw"), &error), nullptr);
  EXPECT_TRUE(error);
  EXPECT_EQ(PackageFiles::makeCipher(Value::dictionary({{"x", 1}}), Value("pw")), nullptr);
  // Info.plist lost its entry: nothing can be sealed or opened.
  ASSERT_FALSE(PackageFiles::writeInfo(Env::Default(), package, Value::dictionary()));
  PackageFiles files(Env::Default(), package, Value("pw"));
  EXPECT_FALSE(files.cipherReady());
  std::vector<uint8_t> out;
  EXPECT_FALSE(files.seal(std::vector<uint8_t>{1, 2, 3}, &out));
}

}  // namespace
}  // namespace quillon
