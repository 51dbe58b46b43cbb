#include "quillon/coding/keychain_item.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "quillon/base/internal/uuid.h"
#include "quillon/platform/secret_store.h"
#include "quillon/store/quillon.h"
#include "support/secret_service_fixture.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

enum class Backend { SecretService, File };

// Every case runs against a real gnome-keyring on a private bus and against
// the file-backed store: callers must not be able to tell them apart. The
// keyring lives as long as the test program, so each case works under
// names of its own.
class KeychainItemTest : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
    if (GetParam() == Backend::SecretService) {
      std::string why = testing::SecretServiceFixture::start();
      ASSERT_EQ(why, "") << "the private Secret Service did not start";
      SecretStore::setShared(std::make_shared<SecretServiceStore>());
    } else {
      SecretStore::setShared(std::make_shared<FileSecretStore>(dir_.file("keychain.json")));
    }
    service_ = "org.quillon.test." + makeUUIDString();
  }
  void TearDown() override { SecretStore::setShared(nullptr); }

  static const Value& query(const Error& error) {
    return error.userInfo().get(kOrdoKeychainItemQueryKey);
  }

  TempDir dir_;
  std::string service_;
};

TEST_P(KeychainItemTest, PasswordNeverSavedIsNilWithNotFoundAndTheQuery) {
  Error error;
  auto item = OrdoStoreGenericKeychainItem::genericKeychainItemForService(service_, "DOC-1",
                                                                          Value(), &error);
  EXPECT_EQ(item, nullptr);
  EXPECT_EQ(error.domain(), kOSStatusErrorDomain);
  EXPECT_EQ(error.code(), kSecretStoreItemNotFound);
  EXPECT_EQ(query(error).get(kKeychainClass), Value(kKeychainClassGenericPassword));
  EXPECT_EQ(query(error).get(kKeychainAttrService), Value(service_));
  EXPECT_EQ(query(error).get(kKeychainAttrAccount), Value("DOC-1"));
  EXPECT_EQ(query(error).get(kKeychainMatchLimit), Value(kKeychainMatchLimitOne));

  EXPECT_EQ(OrdoStoreGenericKeychainItem::genericKeychainItemForService(service_, "DOC-1", Value(),
                                                                        nullptr),
            nullptr);
  EXPECT_TRUE(
      OrdoStoreGenericKeychainItem::genericKeychainItemsForService(service_, Value(), &error)
          .empty());
  EXPECT_EQ(error.code(), kSecretStoreItemNotFound);
}

TEST_P(KeychainItemTest, SavedPasswordComesBackAsUTF8WithItsAttributes) {
  const std::string password = "p\xC3\xA4ssw\xC3\xB6rd \xE2\x9C\x93";
  Error error;
  auto saved = OrdoStoreGenericKeychainItem::genericKeychainItemWithService(
      service_, "DOC-1", Value::dictionary({{kKeychainAttrLabel, "My document"}}), password,
      &error);
  ASSERT_NE(saved, nullptr) << error.description();
  EXPECT_EQ(saved->password(), password);

  auto found = OrdoStoreGenericKeychainItem::genericKeychainItemForService(service_, "DOC-1",
                                                                           Value(), &error);
  ASSERT_NE(found, nullptr) << error.description();
  EXPECT_EQ(found->password(), password);
  EXPECT_EQ(found->service(), service_);
  EXPECT_EQ(found->account(), "DOC-1");
  EXPECT_EQ((*found)[kKeychainAttrService], Value(service_));
  EXPECT_EQ((*found)[kKeychainAttrLabel], Value("My document"));
  EXPECT_TRUE((*found)[kKeychainAttrCreationDate].isDate());
  EXPECT_TRUE((*found)["xdg:schema"].isNil());
  EXPECT_EQ(found->description(),
            "OrdoStoreGenericKeychainItem service:" + service_ + " account:DOC-1");

  // Values a keychain cannot hold are refused before anything is stored.
  EXPECT_EQ(OrdoStoreGenericKeychainItem::genericKeychainItemWithService(
                service_, "DOC-2", Value::dictionary({{"gena", Value::data("\x01")}}), "x", &error),
            nullptr);
  EXPECT_EQ(error.code(), kSecretStoreParam);
}

TEST_P(KeychainItemTest, SavingTheSameServiceAndAccountTwiceFailsAsDuplicate) {
  Error error;
  ASSERT_NE(OrdoStoreGenericKeychainItem::genericKeychainItemWithService(service_, "DOC-1", Value(),
                                                                         "first", &error),
            nullptr)
      << error.description();
  EXPECT_EQ(OrdoStoreGenericKeychainItem::genericKeychainItemWithService(service_, "DOC-1", Value(),
                                                                         "second", &error),
            nullptr);
  EXPECT_EQ(error.domain(), kOSStatusErrorDomain);
  EXPECT_EQ(error.code(), kSecretStoreDuplicateItem);
  EXPECT_EQ(query(error).get(kKeychainAttrAccount), Value("DOC-1"));
  EXPECT_TRUE(query(error).get(kKeychainValueData).isNil()) << "the password must not leak";

  // The first password stays; another account of the service is no duplicate.
  auto found = OrdoStoreGenericKeychainItem::genericKeychainItemForService(service_, "DOC-1",
                                                                           Value(), &error);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->password(), "first");
  EXPECT_NE(OrdoStoreGenericKeychainItem::genericKeychainItemWithService(service_, "DOC-2", Value(),
                                                                         "other", &error),
            nullptr)
      << error.description();
}

TEST_P(KeychainItemTest, ItemsOfAServiceAreListedAndRemovedOneByOne) {
  Error error;
  for (const char* account : {"DOC-1", "DOC-2"}) {
    ASSERT_NE(OrdoStoreGenericKeychainItem::genericKeychainItemWithService(
                  service_, account, Value(), std::string("pw-") + account, &error),
              nullptr)
        << error.description();
  }
  auto items =
      OrdoStoreGenericKeychainItem::genericKeychainItemsForService(service_, Value(), &error);
  ASSERT_EQ(items.size(), 2u);
  std::sort(items.begin(), items.end(),
            [](const auto& a, const auto& b) { return a->account() < b->account(); });
  EXPECT_EQ(items[0]->password(), "pw-DOC-1");
  EXPECT_EQ(items[1]->password(), "pw-DOC-2");

  EXPECT_TRUE(items[0]->removeFromKeychainWithError(&error)) << error.description();
  EXPECT_EQ(OrdoStoreGenericKeychainItem::genericKeychainItemForService(service_, "DOC-1", Value(),
                                                                        &error),
            nullptr);
  EXPECT_EQ(error.code(), kSecretStoreItemNotFound);
  EXPECT_FALSE(items[0]->removeFromKeychainWithError(&error));
  EXPECT_EQ(error.code(), kSecretStoreItemNotFound);
  EXPECT_EQ(query(error).get(kKeychainAttrAccount), Value("DOC-1"));

  items = OrdoStoreGenericKeychainItem::genericKeychainItemsForService(service_, Value(), &error);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0]->account(), "DOC-2");
}

TEST_P(KeychainItemTest, InternetItemsAreIdentifiedByEveryGivenAttribute) {
  const std::string server = service_ + ".example";
  Error error;
  auto saved = OrdoStoreInternetKeychainItem::internetKeychainItemWithServer(
      server, "Realm", "alice", "/sync", 443, "htps", "dflt", Value(), "secret", &error);
  ASSERT_NE(saved, nullptr) << error.description();
  EXPECT_EQ(saved->port(), 443u);
  EXPECT_EQ((*saved)[kKeychainAttrPort], Value::integer(443));
  EXPECT_EQ(saved->protocol(), "htps");
  EXPECT_EQ(saved->description(), "OrdoStoreInternetKeychainItem server:" + server +
                                      " securityDomain:Realm account:alice path:/sync port:443");

  // The same in every identifying attribute is a duplicate; another port,
  // or no port at all, is another item.
  EXPECT_EQ(OrdoStoreInternetKeychainItem::internetKeychainItemWithServer(
                server, "Realm", "alice", "/sync", 443, "htps", "dflt", Value(), "x", &error),
            nullptr);
  EXPECT_EQ(error.code(), kSecretStoreDuplicateItem);
  EXPECT_EQ(query(error).get(kKeychainAttrPort), Value::integer(443));
  EXPECT_NE(OrdoStoreInternetKeychainItem::internetKeychainItemWithServer(
                server, "Realm", "alice", "/sync", 8443, "htps", "dflt", Value(), "y", &error),
            nullptr)
      << error.description();
  EXPECT_NE(OrdoStoreInternetKeychainItem::internetKeychainItemWithServer(
                server, "Realm", "alice", "/sync", 0, "htps", "dflt", Value(), "z", &error),
            nullptr)
      << error.description();

  auto found = OrdoStoreInternetKeychainItem::internetKeychainItemForServer(
      server, "", "alice", "", 8443, "", "", Value(), &error);
  ASSERT_NE(found, nullptr) << error.description();
  EXPECT_EQ(found->password(), "y");
  EXPECT_EQ(found->securityDomain(), "Realm");
  EXPECT_EQ(OrdoStoreInternetKeychainItem::internetKeychainItemsForServer(
                server, "Realm", "/sync", 0, "htps", "dflt", Value(), &error)
                .size(),
            3u);
}

TEST_P(KeychainItemTest, ApplicationUUIDIsMadeOnceAndAnsweredEveryTime) {
  Quillon::setApplicationInfo(Value::dictionary({{"CFBundleIdentifier", service_}}));
  Error error;
  EXPECT_EQ(OrdoStoreApplicationUUIDKeychainItem::applicationUUIDKeychainItem(&error), nullptr);
  EXPECT_EQ(error.code(), kSecretStoreItemNotFound);

  const std::string uuid = OrdoStoreApplicationUUIDKeychainItem::applicationUUID(&error);
  EXPECT_FALSE(error) << error.description();
  EXPECT_TRUE(isUUIDString(uuid)) << uuid;
  EXPECT_FALSE(std::any_of(uuid.begin(), uuid.end(), ::islower)) << uuid;
  EXPECT_EQ(OrdoStoreApplicationUUIDKeychainItem::applicationUUID(), uuid);
  EXPECT_EQ(OrdoStoreApplicationUUIDKeychainItem::applicationUUID(), uuid);

  auto item = OrdoStoreApplicationUUIDKeychainItem::applicationUUIDKeychainItem(&error);
  ASSERT_NE(item, nullptr) << error.description();
  EXPECT_EQ(item->UUID(), uuid);
  EXPECT_EQ(item->description(), "OrdoStoreApplicationUUIDKeychainItem service:" +
                                     std::string(kOrdoApplicationUUIDService) +
                                     " account:" + service_ + " uuid:" + uuid);
  // It is an ordinary generic item that anyone can find.
  auto generic = OrdoStoreGenericKeychainItem::genericKeychainItemForService(
      kOrdoApplicationUUIDService, service_, Value(), &error);
  ASSERT_NE(generic, nullptr);
  EXPECT_EQ(generic->password(), uuid);

  EXPECT_EQ(OrdoStoreApplicationUUIDKeychainItem::generateApplicationUUIDKeychainItem(&error),
            nullptr);
  EXPECT_EQ(error.code(), kSecretStoreDuplicateItem);
  Quillon::setApplicationInfo(Value());
}

INSTANTIATE_TEST_SUITE_P(Backends, KeychainItemTest,
                         ::testing::Values(Backend::SecretService, Backend::File),
                         [](const auto& info) {
                           return info.param == Backend::File ? "File" : "SecretService";
                         });

}  // namespace
}  // namespace quillon
