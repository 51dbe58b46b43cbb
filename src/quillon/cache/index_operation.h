#pragma once

#include <memory>
#include <string>

#include "quillon/base/operation_queue.h"

namespace quillon {

class EntityDescription;
class QuillonCache;

// Schedules the loading of every known object of one entity: one
// QuillonIndexLoadOperation per uid on the same queue, then adds the count to
// the cache's maxItemsToIndex on the main queue.
//
// Made by QuillonCache::cacheMissingItems and owned by the index queue; holds
// the cache, not the queue (the cache owns the queue and waits for it in its
// destructor). Runs on the index queue.
class QuillonIndexOperation final : public Operation {
 public:
  QuillonIndexOperation(std::shared_ptr<QuillonCache> cache, const EntityDescription* entity,
                        OperationQueue* queue);

  const EntityDescription* entity() const { return entity_; }

 protected:
  void main() override;

 private:
  std::shared_ptr<QuillonCache> cache_;
  const EntityDescription* entity_;
  OperationQueue* queue_;
};

// Loads one object into its value shard unless it is cached already, then
// adds one to the cache's itemsToIndex on the main queue.
//
// Made by a QuillonIndexOperation and owned by the index queue. Runs on the
// index queue.
class QuillonIndexLoadOperation final : public Operation {
 public:
  QuillonIndexLoadOperation(std::shared_ptr<QuillonCache> cache, const EntityDescription* entity,
                            std::string uid);

  const std::string& uid() const { return uid_; }

 protected:
  void main() override;

 private:
  std::shared_ptr<QuillonCache> cache_;
  const EntityDescription* entity_;
  std::string uid_;
};

}  // namespace quillon
