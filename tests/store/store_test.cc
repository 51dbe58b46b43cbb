#include "quillon/store/store.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/internal/plist.h"
#include "quillon/base/internal/user_defaults.h"
#include "quillon/base/internal/uuid.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/graph/save_changes_request.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "support/private_home.h"
#include "support/sample_models.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

std::vector<uint8_t> readBytes(const std::string& path) {
  std::vector<uint8_t> bytes;
  EXPECT_FALSE(Env::Default()->readFile(path, &bytes)) << path;
  return bytes;
}

Value readInfo(const std::string& package) {
  return readPropertyList(readBytes(package + "/Info.plist"));
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override { UserDefaults::standard().reload(); }
  std::string package(const std::string& name) const { return dir_.file(name); }
  Url url(const std::string& name) const { return Url::fileURL(package(name), true); }

  TempDir dir_{"quillon-store"};
};

TEST_F(StoreTest, OpeningAnEmptyLocationCreatesThePackage) {
  StoreStack stack(package("New.quillon"));
  ASSERT_TRUE(stack.store);
  Value info = readInfo(package("New.quillon"));
  ASSERT_TRUE(info.isDictionary());

  std::string identifier(info.get("DocumentIdentifier").str());
  EXPECT_TRUE(isUUIDString(identifier)) << identifier;
  EXPECT_EQ(identifier, stack.store->documentIdentifier());
  EXPECT_EQ(identifier, stack.store->identifier());
  EXPECT_EQ(info.get("Quillon").get("CFBundleIdentifier"), Value("org.quillon.Quillon"));
  EXPECT_EQ(info.get("Application").get("CFBundleIdentifier"),
            Quillon::applicationInfo().get("CFBundleIdentifier"));
  EXPECT_TRUE(info.get("Application").find("CFBundleVersion"));
  EXPECT_TRUE(info.get("DateCreation").isDate());
  EXPECT_FALSE(info.find("Encryption"));
  EXPECT_FALSE(info.find("DocumentInfo"));
  EXPECT_TRUE(Env::Default()->isDirectory(package("New.quillon/Errors")));
  EXPECT_TRUE(QuillonStore::isCorrectFormat(package("New.quillon")));
  EXPECT_EQ(QuillonStore::documentIdentifierForURL(url("New.quillon")), Value(identifier));

  // Object URIs name the document.
  auto note = stack.context->insertNewObjectForEntityForName("Note");
  ASSERT_TRUE(stack.context->obtainPermanentIDsForObjects({note}));
  EXPECT_EQ(note->objectID()->uriString(),
            "x-quillon://" + identifier + "/Note/p" + storeUID(*note));
}

TEST_F(StoreTest, CreationOptionsAreRecordedAndReopeningNeverRewritesInfo) {
  Value documentInfo = Value::dictionary({{"kind", "journal"}});
  {
    StoreStack first(package("Doc.quillon"), Value::dictionary({{"DocumentIdentifier", "DOC-1"},
                                                                {"DocumentInfo", documentInfo}}));
    EXPECT_EQ(first.store->identifier(), "DOC-1");
  }
  Value info = readInfo(package("Doc.quillon"));
  EXPECT_EQ(info.get("DocumentIdentifier"), Value("DOC-1"));
  EXPECT_EQ(info.get("DocumentInfo"), documentInfo);
  std::vector<uint8_t> before = readBytes(package("Doc.quillon/Info.plist"));

  StoreStack again(package("Doc.quillon"),
                   Value::dictionary({{"password", "pw"}, {"DocumentIdentifier", "OTHER"}}));
  EXPECT_EQ(readBytes(package("Doc.quillon/Info.plist")), before);
  EXPECT_EQ(again.store->identifier(), "DOC-1");
}

TEST_F(StoreTest, PasswordCheckValueAndCanOpen) {
  {
    StoreStack stack(package("Secret.quillon"), Value::dictionary({{"password", "pâss wörd"}}));
    Value encryption = readInfo(package("Secret.quillon")).get("Encryption");
    ASSERT_TRUE(encryption.isDictionary());
    Value plain = stack.store->decrypt(encryption.get("Info"));
    ASSERT_TRUE(plain.isData());
    EXPECT_EQ(std::string(plain.bytes().begin(), plain.bytes().end()), "pâss wörd");

    // The store seals its files with the package's keys (the envelope itself
    // is the crypto test's business).
    Value sealed = stack.store->encrypt(Value::data(std::string_view("{\"a\":1}")));
    EXPECT_EQ(stack.store->decrypt(sealed), Value::data(std::string_view("{\"a\":1}")));
  }
  Url secret = url("Secret.quillon");
  EXPECT_TRUE(QuillonStore::canOpenURL(secret, Value("pâss wörd")));
  EXPECT_FALSE(QuillonStore::canOpenURL(secret, Value("pâss wörd ")));
  EXPECT_FALSE(QuillonStore::canOpenURL(secret, Value()));

  {
    StoreStack plain(package("Plain.quillon"));
    Value data = Value::data(std::string_view("bytes"));
    EXPECT_TRUE(Value::identical(plain.store->encrypt(data), data));
  }
  EXPECT_TRUE(QuillonStore::canOpenURL(url("Plain.quillon"), Value()));
  EXPECT_FALSE(QuillonStore::canOpenURL(url("Plain.quillon"), Value("pw")));
}

TEST_F(StoreTest, FormatNeedsTheFrameworkIdentifier) {
  EXPECT_FALSE(QuillonStore::isCorrectFormat(package("Missing.quillon")));
  dir_.write("Other/Info.plist",
             writePropertyListXML(
                 Value::dictionary({{"DocumentIdentifier", "X"},
                                    {"Quillon", Value::dictionary({{"CFBundleVersion", "1"}})}})));
  EXPECT_FALSE(QuillonStore::isCorrectFormat(package("Other")));
  EXPECT_EQ(QuillonStore::documentIdentifierForURL(url("Other")), Value("X"));
  dir_.write("Garbage/Info.plist", "<plist><dict><key>");
  EXPECT_FALSE(QuillonStore::isCorrectFormat(package("Garbage")));
  EXPECT_TRUE(QuillonStore::documentIdentifierForURL(url("Garbage")).isNil());
  EXPECT_TRUE(QuillonStore::infoDictionaryForURL(url("Garbage")).isNil());
}

TEST_F(StoreTest, PreparingANewPackageTrashesAndForgetsTheCache) {
  std::string home = testing::privateHome() + "/Documents";
  ASSERT_FALSE(Env::Default()->createDirectories(home));
  Url empty = Url::fileURL(home + "/Empty.quillon", true);
  Url taken = Url::fileURL(home + "/Taken.quillon", true);
  UserDefaults::standard().removeObject(kQuillonOverwrittenFilesKey);

  auto plantCache = [](const Url& location) {
    std::optional<Url> cache = QuillonCache::cacheURLForStoreURL(location);
    EXPECT_TRUE(cache);
    EXPECT_FALSE(Env::Default()->createDirectories(cache->path()));
    EXPECT_FALSE(Env::Default()->writeFileAtomically(cache->path() + "/Changes.fast",
                                                     std::string_view("stale")));
    return cache->path();
  };

  std::string emptyCache = plantCache(empty);
  QuillonStore::prepareNewStoreAtURL(empty);
  EXPECT_FALSE(Env::Default()->exists(emptyCache));
  EXPECT_TRUE(UserDefaults::standard().objectForKey(kQuillonOverwrittenFilesKey).isNil());

  ASSERT_FALSE(Env::Default()->createDirectories(taken.path()));
  ASSERT_FALSE(
      Env::Default()->writeFileAtomically(taken.path() + "/Info.plist", std::string_view("old")));
  std::string takenCache = plantCache(taken);
  QuillonStore::prepareNewStoreAtURL(taken);
  EXPECT_FALSE(Env::Default()->exists(taken.path()));
  EXPECT_FALSE(Env::Default()->exists(takenCache));
  Value records = UserDefaults::standard().objectForKey(kQuillonOverwrittenFilesKey);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].get("originalPath"), Value(taken.path()));
  EXPECT_TRUE(records[0].get("date").isDate());
  std::string trashPath(records[0].get("trashPath").str());
  std::vector<uint8_t> trashed = readBytes(trashPath + "/Info.plist");
  EXPECT_EQ(std::string(trashed.begin(), trashed.end()), "old");
}

TEST_F(StoreTest, CorrectedDataURLFindsASuffixedFile) {
  StoreStack stack(package("Data.quillon"));
  dir_.write("Data.quillon/Entities/Note/A/Data/exact", "1");
  dir_.write("Data.quillon/Entities/Note/A/Data/blob.json (conflict 2)", "2");
  dir_.write("Data.quillon/Entities/Note/A/Data/blob.json (conflict 1)", "3");
  dir_.write("Data.quillon/Entities/Note/A/Data/other", "4");
  Url folder = Url::fileURL(package("Data.quillon/Entities/Note/A/Data"), true);

  EXPECT_EQ(stack.store->correctedDataURL(folder.appending("exact")), folder.appending("exact"));
  EXPECT_EQ(stack.store->correctedDataURL(folder.appending("blob.json")).lastPathComponent(),
            "blob.json (conflict 1)");
  EXPECT_EQ(stack.store->correctedDataURL(folder.appending("missing")),
            folder.appending("missing"));
  Url elsewhere = Url::fileURL(package("Data.quillon/Nowhere/x"));
  EXPECT_EQ(stack.store->correctedDataURL(elsewhere), elsewhere);
}

TEST_F(StoreTest, EntityKeysWithAndWithoutPassword) {
  StoreStack plain(package("Plain.quillon"));
  EXPECT_EQ(plain.store->fileNameForEntityName("Note"), "Note");
  EXPECT_EQ(plain.store->entityNameForFileName("Note"), "Note");
  EXPECT_EQ(plain.store->entityNameForFileName("Nope"), std::nullopt);
  EXPECT_EQ(plain.store->fileNameForEntityName("Nope"), std::nullopt);
  EXPECT_EQ(plain.store->entityKeys().size(), notesModel()->entities().size());
  EXPECT_NE(plain.store->entityNamed("Book"), nullptr);

  StoreStack one(package("One.quillon"), Value::dictionary({{"password", "a"}}));
  StoreStack two(package("Two.quillon"), Value::dictionary({{"password", "b"}}));
  // The established on-disk name of Note in every encrypted package.
  const std::string key = "738756fc633923e4dc30c2c48119c068d5a7db18873c2c6fe84b1cc1c54083c5";
  EXPECT_EQ(one.store->fileNameForEntityName("Note"), key);
  EXPECT_EQ(two.store->fileNameForEntityName("Note"), key);
  EXPECT_EQ(one.store->entityNameForFileName(key), "Note");
  EXPECT_EQ(one.store->entityNameForFileName("Note"), std::nullopt);
}

TEST_F(StoreTest, IdentityOfObjects) {
  StoreStack stack(package("Ids.quillon"));
  const EntityDescription* note = notesModel()->entity("Note");
  auto id = stack.store->newObjectIDForEntity(note, Value("ABC"));
  ASSERT_TRUE(id);
  EXPECT_EQ(storeUID(*id), "ABC");
  EXPECT_EQ(storeSavePath(*id), "Note/ABC");
  EXPECT_EQ(stack.store->newObjectIDForEntity(nullptr, Value("ABC")), nullptr);

  // A reference that is no text gets a fresh uid, kept with the identifier.
  auto odd = std::make_shared<ManagedObjectID>(note, Value(42), nullptr, false);
  std::string uid = storeUID(*odd);
  EXPECT_TRUE(isUUIDString(uid));
  EXPECT_EQ(storeUID(*odd), uid);

  // A new object becomes permanent when its uid is asked for.
  auto object = stack.context->insertNewObjectForEntityForName("Note");
  ASSERT_TRUE(object->objectID()->isTemporaryID());
  std::string fresh = stack.store->uidForObjectID(object->objectID(), stack.context.get());
  EXPECT_TRUE(isUUIDString(fresh)) << fresh;
  EXPECT_FALSE(object->objectID()->isTemporaryID());
  EXPECT_EQ(storeUID(*object), fresh);

  stack.store->setClosed(true);
  EXPECT_EQ(stack.store->newObjectIDForEntity(note, Value("ABC")), nullptr);
  stack.store->setClosed(false);
}

TEST(StoreHelpersTest, ArrayForStoreAndSafeNames) {
  EXPECT_EQ(arrayForStore(Value()), Value::array());
  EXPECT_EQ(arrayForStore(Value("x")), Value::array({Value("x")}));
  EXPECT_EQ(arrayForStore(Value::orderedSet({Value(2), Value(1)})),
            Value::array({Value(2), Value(1)}));
  EXPECT_TRUE(arrayForStore(Value::set({Value(1)})).isArray());
  Value array = Value::array({Value(1)});
  EXPECT_TRUE(Value::identical(arrayForStore(array), array));

  EXPECT_TRUE(isSafePathComponent("3F2A-11"));
  for (std::string_view bad : std::initializer_list<std::string_view>{
           "", ".", "..", "a/b", "/", std::string_view("a\0b", 3)}) {
    EXPECT_FALSE(isSafePathComponent(bad)) << bad;
  }
  EXPECT_TRUE(isSafePathComponent("..."));
}

TEST_F(StoreTest, SavesAreRefusedAfterPreventFromSaving) {
  StoreStack stack(package("Newer.quillon"));
  stack.waitUntilReady();
  auto& cache = stack.store->cache();
  cache.addChange(Value::dictionary({{"name", "2020-01-01-00-00-00.000.A.json"},
                                     {"session", Value::dictionary({{"version", "1.5"}})}}),
                  true);
  cache.addChange(Value::dictionary({{"name", "2020-01-02-00-00-00.000.B.json"},
                                     {"session", Value::dictionary({{"version", "2.0"}})}}),
                  true);
  stack.store->preventFromSaving();

  auto note = stack.context->insertNewObjectForEntityForName("Note");
  note->setValue("title", Value("kept"));
  Error error;
  EXPECT_FALSE(stack.context->save(&error));
  EXPECT_EQ(error.domain(), "org.quillon.Quillon");
  EXPECT_EQ(error.code(), -1);
  EXPECT_EQ(error.userInfo().get("NSLocalizedFailureReason"),
            Value("Because it was created with a newer version of " +
                  std::string(Quillon::applicationInfo().get("CFBundleName").str()) + "."));
  // The newest writer's version, compared as text: "2.0" sorts above "1.5".
  // Without session records (a log that keeps none) the version is absent.
  EXPECT_EQ(error.userInfo().get("NSLocalizedRecoverySuggestion"),
            Value(stack.store->sessionInfo().empty() ? "Please update to version (null)."
                                                     : "Please update to version 2.0."));
  stack.store->saveOperationQueue().waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(Env::Default()->exists(package("Newer.quillon/Changes")));
  std::vector<std::string> records;
  Env::Default()->listRecursively(package("Newer.quillon/Entities"), &records);
  EXPECT_TRUE(records.empty());

  // Reading still works.
  FetchRequest request("Note");
  Error fetchError;
  stack.context->fetchObjects(request, &fetchError);
  EXPECT_FALSE(fetchError) << fetchError.description();
}

TEST_F(StoreTest, ResettingTheCacheAndTouchingThePackage) {
  StoreStack stack(package("Info.quillon"));
  stack.waitUntilReady();
  dir_.write("Info.quillon/Cache/x.fast", "x");
  stack.store->resetCache();
  EXPECT_FALSE(Env::Default()->exists(package("Info.quillon/Cache")));

  FileAttributes before;
  ASSERT_FALSE(Env::Default()->setModificationDate(package("Info.quillon"), 0));
  stack.store->updatePackageDate();
  ASSERT_FALSE(Env::Default()->attributes(package("Info.quillon"), &before));
  EXPECT_GT(before.modificationDate, 1e8);
}

}  // namespace
}  // namespace quillon
