#include "quillon/platform/secret_store.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "support/fault_env.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

// What the keychain item tests cannot see: the file store's own file.
class FileSecretStoreTest : public ::testing::Test {
 protected:
  std::string path() const { return dir_.file("config/quillon/keychain.json"); }
  TempDir dir_;
};

TEST_F(FileSecretStoreTest, ItemsOutliveTheStoreAndMatchOnEveryQueriedAttribute) {
  {
    FileSecretStore store(path());
    ASSERT_FALSE(store.addItem({{"svce", "s"}, {"acct", "a"}}, {"svce", "acct"}, "label",
                               std::string("pw\0bytes", 8)));
    ASSERT_FALSE(store.addItem({{"svce", "s"}, {"acct", "b"}}, {"svce", "acct"}, "label", "b"));
  }
  FileSecretStore store(path());
  std::vector<SecretStoreItem> items;
  ASSERT_FALSE(store.findItems({{"svce", "s"}, {"acct", "a"}}, false, true, &items));
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].secret, std::string("pw\0bytes", 8));
  EXPECT_EQ(items[0].label, "label");
  EXPECT_GT(items[0].creationDate, 0);

  ASSERT_FALSE(store.findItems({{"svce", "s"}}, true, false, &items));
  EXPECT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].secret, "") << "secrets only when asked for";

  Error error = store.findItems({{"svce", "s"}, {"acct", "c"}}, true, true, &items);
  EXPECT_EQ(error.domain(), kOSStatusErrorDomain);
  EXPECT_EQ(error.code(), kSecretStoreItemNotFound);
  EXPECT_TRUE(items.empty());
}

TEST_F(FileSecretStoreTest, ADamagedFileIsReportedAndNeverOverwritten) {
  dir_.write("config/quillon/keychain.json", "{\"version\":1,\"items\":[{\"attributes\":3}]}");
  FileSecretStore store(path());
  std::vector<SecretStoreItem> items;
  EXPECT_EQ(store.findItems({}, true, true, &items).code(), kSecretStoreDecode);
  EXPECT_EQ(store.addItem({{"acct", "a"}}, {"acct"}, "", "x").code(), kSecretStoreDecode);
  EXPECT_EQ(store.removeItems({{"acct", "a"}}).code(), kSecretStoreDecode);
  EXPECT_EQ(dir_.read("config/quillon/keychain.json"),
            "{\"version\":1,\"items\":[{\"attributes\":3}]}");
}

TEST_F(FileSecretStoreTest, AFailedWriteChangesNothing) {
  FaultInjectingEnv env;
  FileSecretStore store(path(), &env);
  ASSERT_FALSE(store.addItem({{"acct", "a"}}, {"acct"}, "", "x"));
  env.failAfter(FaultInjectingEnv::Op::Write, "keychain.json", 0,
                FaultInjectingEnv::Fault::NoSpace);
  EXPECT_EQ(store.addItem({{"acct", "b"}}, {"acct"}, "", "y").code(), kSecretStoreIO);
  EXPECT_EQ(store.removeItems({{"acct", "a"}}).code(), kSecretStoreIO);

  std::vector<SecretStoreItem> items;
  ASSERT_FALSE(store.findItems({}, true, true, &items));
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].attributes.at("acct"), "a");
}

TEST(SecretStoreTest, TheFileStoreIsUsedOnlyWhenChosen) {
  ::unsetenv("QUILLON_SECRET_STORE");
  SecretStore::setShared(nullptr);
  EXPECT_NE(dynamic_cast<SecretServiceStore*>(SecretStore::shared().get()), nullptr);

  ::setenv("QUILLON_SECRET_STORE", "file", 1);
  SecretStore::setShared(nullptr);
  auto* file = dynamic_cast<FileSecretStore*>(SecretStore::shared().get());
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->path(), FileSecretStore::defaultPath());

  auto chosen = std::make_shared<FileSecretStore>("/nowhere/keychain.json");
  SecretStore::setShared(chosen);
  EXPECT_EQ(SecretStore::shared(), chosen);
  ::unsetenv("QUILLON_SECRET_STORE");
  SecretStore::setShared(nullptr);
}

}  // namespace
}  // namespace quillon
