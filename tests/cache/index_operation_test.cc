#include "quillon/cache/internal/index_operation.h"

#include <gtest/gtest.h>

#include "quillon/cache/internal/cache.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/graph/entity_description.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/store.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

Value uids(std::initializer_list<const char*> list) {
  Value result = Value::mutableDictionary();
  for (const char* uid : list) result.set(Value(uid), Value::dictionary());
  return result;
}

// A cache of its own over a real store, unbound (in memory only), so that
// the test decides when indexing starts.
class IndexOperationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    cacheHome_ = std::make_unique<ScopedCacheHome>(dir_.file("caches"));
    stack_ = std::make_unique<StoreStack>(dir_.file("Notes.quillon"));
    ASSERT_TRUE(stack_->waitUntilReady());
    store_ = stack_->store.get();
    cache_ = QuillonCache::cacheForSource(store_, store_->packageFilesPointer());
  }
  void TearDown() override {
    cache_.reset();
    stack_.reset();
    cacheHome_.reset();
  }

  // The operations tell their counts on the main queue before they finish:
  // once the queue is empty, draining the main queue delivers every count.
  bool waitUntilIndexed() {
    const bool finished = MainQueue::runUntil(
        [&] {
          OperationQueue* queue = cache_->indexQueue();
          return queue && queue->operationCount() == 0;
        },
        10);
    MainQueue::drain();
    return finished && cache_->itemsToIndex() == cache_->maxItemsToIndex();
  }

  TempDir dir_{"quillon-index"};
  std::unique_ptr<ScopedCacheHome> cacheHome_;
  std::unique_ptr<StoreStack> stack_;
  QuillonStore* store_ = nullptr;
  std::shared_ptr<QuillonCache> cache_;
};

TEST_F(IndexOperationTest, IndexesEveryConcreteEntityOnce) {
  // One Note is cached already, one is not; the abstract Item gets no
  // operation even though identifiers are listed under its name.
  const EntityDescription* note = store_->entityNamed("Note");
  cache_->updateCacheForObjectID(
      store_->newObjectIDForEntity(note, Value("N1")),
      Value::dictionary(
          {{"version", "3"},
           {"payload", Value::dictionary({{"title", Value::dictionary({{"value", "one"}})}})}}),
      Url());
  cache_->addObjectUIDs(
      Value::dictionary(
          {{"Note", uids({"N1", "N2"})}, {"Item", uids({"I1"})}, {"Tag", uids({"T1"})}}),
      false);
  EXPECT_TRUE(cache_->cachedMissingItems());
  OperationQueue* first = cache_->indexQueue();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->maxConcurrentOperationCount(), 1);
  ASSERT_TRUE(waitUntilIndexed());
  EXPECT_EQ(cache_->maxItemsToIndex(), 3u);
  EXPECT_EQ(cache_->itemsToIndex(), 3u);
  auto kept = cache_->cacheItemForObjectID(store_->newObjectIDForEntity(note, Value("N1")));
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->attributes().get("title"), Value("one"));

  // Indexing runs at most once per cache.
  cache_->addObjectUIDs(Value::dictionary({{"Note", uids({"N3"})}}), false);
  cache_->cacheMissingItems();
  EXPECT_EQ(cache_->indexQueue(), first);
  EXPECT_EQ(first->operationCount(), 0u);
  MainQueue::drain();
  EXPECT_EQ(cache_->maxItemsToIndex(), 3u);
}

}  // namespace
}  // namespace quillon
