#include "quillon/cache/internal/cache.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <thread>

#include "quillon/base/env.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/cache/internal/cache_collection.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/graph/entity_description.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/standard_paths.h"
#include "quillon/store/package_files.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"
#include "support/fault_env.h"
#include "support/manual_clock.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

Value entry(Value value) { return Value::dictionary({{"value", std::move(value)}}); }

Value record(Value payload) {
  return Value::dictionary({{"version", "3"}, {"type", "update"}, {"payload", std::move(payload)}});
}

Value sections(Value inserts, Value updates = Value::dictionary(),
               Value deletes = Value::dictionary()) {
  return Value::dictionary({{"insert", std::move(inserts)},
                            {"update", std::move(updates)},
                            {"delete", std::move(deletes)}});
}

Value uids(std::initializer_list<const char*> list) {
  Value result = Value::mutableDictionary();
  for (const char* uid : list) result.set(Value(uid), Value::dictionary());
  return result;
}

class CacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    cacheHome_ = std::make_unique<ScopedCacheHome>(dir_.file("caches"));
    stack_ = std::make_unique<StoreStack>(dir_.file("Notes.quillon"), options());
    ASSERT_TRUE(stack_->waitUntilReady());
    store_ = stack_->store.get();
    cache_ = &store_->cache();
    note_ = store_->entityNamed("Note");
    ASSERT_NE(note_, nullptr);
  }
  void TearDown() override {
    stack_.reset();
    cacheHome_.reset();
  }
  virtual Value options() { return Value(); }

  ManagedObjectIDPtr noteID(const std::string& uid) {
    return store_->newObjectIDForEntity(note_, Value(uid));
  }
  void cacheNote(const std::string& uid, const std::string& title) {
    cache_->updateCacheForObjectID(noteID(uid),
                                   record(Value::dictionary({{"title", entry(title)}})), Url());
  }
  void saveCache() {
    cache_->save();
    cache_->saveQueue().waitUntilAllOperationsAreFinished();
  }
  // Waits for indexing started by identifier bookkeeping, so that it does
  // not race the test's own expectations.
  void waitForIndexing() {
    MainQueue::runUntil(
        [&] {
          OperationQueue* queue = cache_->indexQueue();
          return !queue || queue->operationCount() == 0;
        },
        10);
  }

  TempDir dir_{"quillon-cache"};
  std::unique_ptr<ScopedCacheHome> cacheHome_;
  std::unique_ptr<StoreStack> stack_;
  QuillonStore* store_ = nullptr;
  QuillonCache* cache_ = nullptr;
  const EntityDescription* note_ = nullptr;
};

TEST_F(CacheTest, CacheFolderIsKeyedByThePackageURLWithoutTrailingSlash) {
  Url plain = Url::fileURL("/data/Notes.quillon");
  Url slashed = Url::fileURL("/data/Notes.quillon", true);
  auto a = QuillonCache::cacheURLForStoreURL(plain);
  auto b = QuillonCache::cacheURLForStoreURL(slashed);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->path(), b->path());
  EXPECT_EQ(a->lastPathComponent(), storeMD5String("file:///data/Notes.quillon"));
  EXPECT_EQ(a->deletingLastPathComponent().path(),
            dir_.file("caches") + "/" + Quillon::applicationIdentifier() + "/LocalDatabaseCache");
  EXPECT_TRUE(Env::Default()->isDirectory(a->path()));
  EXPECT_NE(QuillonCache::cacheURLForStoreURL(Url::fileURL("/data/Other.quillon"))->path(),
            a->path());
}

TEST_F(CacheTest, ValuesAreShardedByFirstCharacterAndWrittenOnlyWhenDirty) {
  cacheNote("7ABC", "seven");
  cacheNote("A001", "a");
  auto item = cache_->cacheItemForObjectID(noteID("7ABC"));
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->attributes().get("title"), Value("seven"));
  EXPECT_EQ(cache_->cacheForObjectID(noteID("7FFF")), cache_->cacheForObjectID(noteID("7ABC")));

  saveCache();
  std::string shardFile = cache_->URLForKey("Note_7")->path() + ".fast";
  EXPECT_TRUE(Env::Default()->exists(shardFile));
  EXPECT_TRUE(Env::Default()->exists(cache_->URLForKey("Note_A")->path() + ".fast"));
  EXPECT_FALSE(cache_->cacheForObjectID(noteID("7ABC"))->invalid());

  // An unchanged shard is not written again.
  ASSERT_FALSE(Env::Default()->removeItem(shardFile));
  saveCache();
  EXPECT_FALSE(Env::Default()->exists(shardFile));
}

TEST_F(CacheTest, ConcurrentUpdatesReadsAndSavesOfOneShard) {
  // Writers, readers and saves of the same shard at once: every save must
  // see a whole shard and nothing may be lost.
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        std::string uid = fmt::format("D{}{:03}", t, i);
        cacheNote(uid, uid);
        cache_->allValuesForObjectID(noteID(uid), nullptr);
      }
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 20; ++i) cache_->save();
  });
  for (auto& thread : threads) thread.join();
  saveCache();

  auto shard = QuillonCacheDictionary::dictionaryWithStore(store_->packageFilesPointer(),
                                                           *cache_->URLForKey("Note_D"));
  Value stored = shard->content();
  ASSERT_EQ(stored.size(), 600u);
  auto* item = stored.get("D2199").objectAs<QuillonCacheItem>();
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->attributes().get("title"), Value("D2199"));
}

TEST_F(CacheTest, ExtraDataNeedsACachedItem) {
  ManagedObjectIDPtr absent = noteID("B0B0");
  cache_->setExtraData(Value("x"), "key", absent);
  EXPECT_EQ(cache_->cacheItemForObjectID(absent), nullptr);
  EXPECT_TRUE(cache_->extraDataForKey("key", absent).isNil());
  EXPECT_FALSE(cache_->cacheForObjectID(absent)->invalid());

  cacheNote("C0C0", "c");
  ManagedObjectIDPtr cached = noteID("C0C0");
  saveCache();
  Value mutableValue = Value::mutableArray();
  cache_->setExtraData(mutableValue, "key", cached);
  mutableValue.append(Value(1));
  EXPECT_EQ(cache_->extraDataForKey("key", cached), Value::array()) << "a copy is stored";
  EXPECT_TRUE(cache_->cacheForObjectID(cached)->invalid());
  cache_->resetExtraDataForObjectID(cached);
  EXPECT_TRUE(cache_->extraDataForKey("key", cached).isNil());
}

TEST_F(CacheTest, AddAndRemoveChangeKeepTheirAsymmetry) {
  Value change =
      Value::dictionary({{"name", "2026-01-01-00-00-00.000.A"},
                         {"changes", sections(Value::dictionary({{"Note", uids({"N1", "N2"})}}))}});
  cache_->addChange(change, false);
  waitForIndexing();
  EXPECT_EQ(cache_->objectUIDsForEntity(*note_), Value::set({"N1", "N2"}));
  EXPECT_TRUE(cache_->changeNames().contains(Value("2026-01-01-00-00-00.000.A")));

  // removeChange reads the top-level "inserts", which addChange's
  // dictionaries do not have: no identifier goes.
  cache_->removeChange(change, false);
  EXPECT_EQ(cache_->objectUIDsForEntity(*note_), Value::set({"N1", "N2"}));
  EXPECT_FALSE(cache_->changes().contains(change));
  EXPECT_FALSE(cache_->changeNames().contains(Value("2026-01-01-00-00-00.000.A")));

  cache_->removeChange(
      Value::dictionary({{"inserts", Value::dictionary({{"Note", uids({"N1"})}})}}), false);
  EXPECT_EQ(cache_->objectUIDsForEntity(*note_), Value::set({"N2"}));

  // Recovery changes are logged but not named.
  cache_->addChange(Value::dictionary({{"name", "R"}, {"type", "recovery"}}), false);
  EXPECT_FALSE(cache_->changeNames().contains(Value("R")));
  EXPECT_TRUE(cache_->changes().contains(Value::dictionary({{"name", "R"}, {"type", "recovery"}})));
}

TEST_F(CacheTest, ExternalChangesInvalidateUntilAnUnknownEntity) {
  cacheNote("E1", "e1");
  cacheNote("E2", "e2");
  cache_->invalidateObjectUIDs(
      Value::dictionary({{"Unknown", uids({"X"})}, {"Note", uids({"E1"})}}));
  EXPECT_NE(cache_->cacheItemForObjectID(noteID("E1")), nullptr);

  cache_->addChange(
      Value::dictionary({{"name", "n"},
                         {"changes", sections(Value::dictionary(),
                                              Value::dictionary({{"Note", uids({"E1"})}}))}}),
      true);
  EXPECT_EQ(cache_->cacheItemForObjectID(noteID("E1")), nullptr);
  EXPECT_NE(cache_->cacheItemForObjectID(noteID("E2")), nullptr);
  EXPECT_FALSE(cache_->removeObjectID(noteID("E1")));
  EXPECT_TRUE(cache_->removeObjectID(noteID("E2")));
}

TEST_F(CacheTest, ChangeNoticesArriveOnTheMainQueue) {
  int will = 0, did = 0;
  ScopedObserver willObserver(NotificationCenter::defaultCenter(),
                              kQuillonWillChangeValueNotification, cache_,
                              [&](const Notification& n) {
                                if (n.userInfo.get("key") == Value("changes")) ++will;
                              });
  ScopedObserver didObserver(NotificationCenter::defaultCenter(),
                             kQuillonDidChangeValueNotification, cache_,
                             [&](const Notification& n) {
                               if (n.userInfo.get("key") == Value("changes")) ++did;
                             });
  cache_->addChange(Value::dictionary({{"name", "x"}}), false);
  EXPECT_EQ(did, 0) << "posted asynchronously";
  MainQueue::runUntil([&] { return did == 1; }, 5);
  EXPECT_EQ(will, 1);
  EXPECT_EQ(did, 1);
}

TEST_F(CacheTest, ResetForgetsEverythingOnDisk) {
  cacheNote("F1", "f");
  saveCache();
  ASSERT_TRUE(Env::Default()->exists(cache_->URL().path()));
  cache_->reset();
  EXPECT_FALSE(Env::Default()->exists(cache_->URL().path()));
  EXPECT_EQ(cache_->cacheItemForObjectID(noteID("F1")), nullptr);
  EXPECT_TRUE(cache_->changes().empty());
}

TEST_F(CacheTest, AFirstChangeFromThePackageCopyIsValidatedAndRetried) {
  testing::ManualClock clock;
  QuillonCache* cache = &store_->cache();
  cache->installChangeLog(nullptr);  // as before the first load
  auto log = QuillonCacheArray::arrayWithStore(store_->packageFilesPointer(),
                                               Url::fileURL(dir_.file("copy/Changes")));
  // Light-weight validation looks at data files only: this one never arrived.
  Value missing = uids({"MISSING"});
  Value blob = Value::dictionary({{"name", "blob"}, {"length", 4}});
  missing.set("MISSING", Value::dictionary({{"data", Value::array({blob})}}));
  log->setContent(Value::array(
      {Value::dictionary({{"name", "2020-01-01-00-00-00.000.0000"},
                          {"changes", sections(Value::dictionary({{"Note", missing}}))}})}));
  log->setFromBundle(true);
  store_->loadChangeLog(log);
  EXPECT_EQ(cache->changeLog(), nullptr) << "a change whose files are missing is not trusted";

  clock.advance(10);
  ASSERT_TRUE(MainQueue::runUntil([&] { return cache->changeLog() != nullptr; }, 5));
  EXPECT_NE(cache->changeLog(), log) << "the retry starts from a fresh log";
}

TEST_F(CacheTest, WriteProtectedCacheFolderTellsTheUserOnce) {
  std::vector<std::pair<std::string, std::string>> alerts;
  Quillon::setAlertHandler([&](const std::string& message, const std::string& informative) {
    alerts.emplace_back(message, informative);
  });
  // The cache writes through its own package files' Env.
  FaultInjectingEnv env;
  env.failAfter(FaultInjectingEnv::Op::Write, "LocalDatabaseCache", 0,
                FaultInjectingEnv::Fault::IoError);
  auto cache = QuillonCache::cacheForSource(
      store_, std::make_shared<PackageFiles>(&env, store_->url(), Value()));
  cache->setStoreURL(store_->url());
  Quillon::setAlertHandler(nullptr);

  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_EQ(alerts[0].first, "The cache folder is write protected");
  EXPECT_EQ(alerts[0].second,
            "Please delete the contents of the Folder that is beeing opened after closing this "
            "window");
  EXPECT_EQ(env.count(FaultInjectingEnv::Op::Write, "LocalDatabaseCache"), 3u);
  EXPECT_FALSE(cache->URL().isEmpty()) << "opening goes on";
}

class EncryptedCacheTest : public CacheTest {
 protected:
  Value options() override { return Value::dictionary({{"password", "secret"}}); }
};

TEST_F(EncryptedCacheTest, CacheFilesAreEncryptedWithThePackage) {
  cacheNote("9A", "hidden title");
  saveCache();
  std::vector<uint8_t> stored;
  ASSERT_FALSE(Env::Default()->readFile(cache_->URLForKey("Note_9")->path() + ".fast", &stored));
  EXPECT_TRUE(DenseCoder::objectWithData(stored).isNil());
  std::string text(stored.begin(), stored.end());
  EXPECT_EQ(text.find("hidden title"), std::string::npos);

  auto shard = QuillonCacheDictionary::dictionaryWithStore(store_->packageFilesPointer(),
                                                           *cache_->URLForKey("Note_9"));
  auto* item = shard->valueForKey("9A").objectAs<QuillonCacheItem>();
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->attributes().get("title"), Value("hidden title"));
}

}  // namespace
}  // namespace quillon
