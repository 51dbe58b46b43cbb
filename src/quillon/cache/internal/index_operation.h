#pragma once

#include <memory>
#include <string>

#include "quillon/base/internal/operation_queue.h"

namespace quillon {

class EntityDescription;
class QuillonCache;

// Schedules the loading of every known object of one entity that its shard
// does not hold yet: one QuillonIndexLoadOperation per such uid on the same
// queue. On the main queue it then adds the number of uids to the cache's
// maxItemsToIndex and the number already cached to itemsToIndex.
//
// Made by QuillonCache::cacheMissingItems and owned by the index queue. The
// cache owns that queue and cancels and waits for it before it goes, so the
// operation points at the cache and the queue without owning them. Runs on
// the index queue.
class QuillonIndexOperation final : public Operation {
 public:
  QuillonIndexOperation(QuillonCache* cache, const EntityDescription* entity,
                        OperationQueue* queue);

  const EntityDescription* entity() const { return entity_; }

 protected:
  void main() override;

 private:
  QuillonCache* cache_;
  const EntityDescription* entity_;
  OperationQueue* queue_;
};

// Loads one object into its value shard unless it is cached already, then
// adds one to the cache's itemsToIndex on the main queue.
//
// Made by a QuillonIndexOperation and owned by the index queue; points at the
// cache as its maker does. Runs on the index queue.
class QuillonIndexLoadOperation final : public Operation {
 public:
  QuillonIndexLoadOperation(QuillonCache* cache, const EntityDescription* entity, std::string uid);

  const std::string& uid() const { return uid_; }

 protected:
  void main() override;

 private:
  QuillonCache* cache_;
  const EntityDescription* entity_;
  std::string uid_;
};

}  // namespace quillon
