#pragma once

#include <cstdint>
#include <memory>

#include "quillon/base/value.h"
#include "quillon/graph/incremental_store_node.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class FetchRequest;
class ManagedObjectContext;
class QuillonCache;
class QuillonCacheSource;
class RelationshipDescription;

// The values of one object handed to the object graph; the store never sets
// valueCount.
class TessIncrementalStoreNode : public IncrementalStoreNode {
 public:
  using IncrementalStoreNode::IncrementalStoreNode;
  uint64_t valueCount() const { return valueCount_; }
  void setValueCount(uint64_t count) { valueCount_ = count; }

 private:
  uint64_t valueCount_ = 0;
};

// Answers the object graph's reads from the local cache: fetch requests
// (the cache's uid lists and items, filtered, sorted and cut to the limit
// over request items, so that candidates need no faults), the values of
// one object for a fault, and one relationship when the graph first uses it.
// An object the cache's shards lack yet comes from its records through the
// cache's source. Until the cache knows which changes it reflects, the
// document reads as empty rather than blocking the caller.
//
// Owned by the store; called on the requesting context's thread. It keeps
// no state of its own; the cache does its own locking.
class QuillonFetcher {
 public:
  QuillonFetcher(QuillonCacheSource& source, std::shared_ptr<QuillonCache> cache);

  Value execute(const FetchRequest& request, ManagedObjectContext* context) const;
  // To-many relations are not among these values: the graph asks for them
  // through valueForRelationship. A fault never fails; values the cache
  // cannot provide are absent.
  std::shared_ptr<IncrementalStoreNode> valuesForObjectWithID(const ManagedObjectIDPtr& objectID,
                                                              ManagedObjectContext* context) const;
  Value valueForRelationship(const RelationshipDescription& relationship,
                             const ManagedObjectIDPtr& objectID,
                             ManagedObjectContext* context) const;

 private:
  QuillonCacheSource& source_;
  std::shared_ptr<QuillonCache> cache_;
};

}  // namespace quillon
