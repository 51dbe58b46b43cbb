#include "quillon/cache/internal/index_operation.h"

#include "quillon/base/error.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/cache/cache_source.h"
#include "quillon/graph/entity_description.h"
#include "quillon/platform/main_queue.h"

namespace quillon {

QuillonIndexOperation::QuillonIndexOperation(QuillonCache* cache, const EntityDescription* entity,
                                             OperationQueue* queue)
    : cache_(cache), entity_(entity), queue_(queue) {}

void QuillonIndexOperation::main() {
  if (isCancelled() || cache_->stopping_.load()) return;
  // Objects whose shard already holds their item are counted as indexed at
  // once: an operation of their own would only find them there.
  std::vector<QuillonCache::CachedItem> items =
      cache_->cachedItemsForEntity(*entity_, QuillonCache::Lookup::kPresence);
  uint64_t cached = 0;
  for (const QuillonCache::CachedItem& entry : items) {
    if (entry.cached) {
      ++cached;
      continue;
    }
    auto load =
        std::make_shared<QuillonIndexLoadOperation>(cache_, entity_, std::string(entry.uid.str()));
    load->setQueuePriority(QueuePriority::VeryLow);
    queue_->addOperation(std::move(load));
  }
  MainQueue::async([weak = cache_->weak_from_this(), total = uint64_t{items.size()}, cached] {
    if (auto cache = weak.lock()) {
      cache->addMaxItemsToIndex(total);
      cache->addItemsToIndex(cached);
    }
  });
}

QuillonIndexLoadOperation::QuillonIndexLoadOperation(QuillonCache* cache,
                                                     const EntityDescription* entity,
                                                     std::string uid)
    : cache_(cache), entity_(entity), uid_(std::move(uid)) {}

void QuillonIndexLoadOperation::main() {
  if (!isCancelled() && !cache_->stopping_.load()) {
    try {
      ManagedObjectIDPtr objectID = cache_->source()->newObjectIDForEntity(entity_, Value(uid_));
      if (objectID && !cache_->cacheItemForObjectID(objectID)) {
        cache_->cacheItemForObjectID(objectID, nullptr);
      }
    } catch (const Exception& exception) {
      // A model problem (an attribute type without transformer) must not
      // take the application down from a background queue.
      systemLog("Indexing " + entity_->name() + "/" + uid_ + " failed: " + exception.reason());
    }
  }
  MainQueue::async([weak = cache_->weak_from_this()] {
    if (auto cache = weak.lock()) cache->addItemsToIndex(1);
  });
}

}  // namespace quillon
