#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/graph/incremental_store_node.h"
#include "quillon/graph/managed_object_id.h"
#include "quillon/graph/persistent_store_request.h"

namespace quillon {

class EntityDescription;
class ManagedObject;
class ManagedObjectContext;
class PersistentStoreCoordinator;
class RelationshipDescription;

// The base class of stores that plug into the object graph. A store is made
// by the factory registered for its type (PersistentStoreCoordinator::
// registerStoreClass), owned by the coordinator through shared_ptr, and called
// by the coordinator with the coordinator's lock held, so one request runs at
// a time; calls come from the thread of the context that asked. Metadata
// accessors are thread-safe.
//
// A subclass implements loadMetadata, executeRequest, newValuesForObjectWithID,
// newValueForRelationship and obtainPermanentIDsForObjects, and makes its
// identifiers with newObjectIDForEntity.
class IncrementalStore : public std::enable_shared_from_this<IncrementalStore> {
 public:
  IncrementalStore(PersistentStoreCoordinator* coordinator, std::string configurationName, Url url,
                   Value options);
  virtual ~IncrementalStore();
  IncrementalStore(const IncrementalStore&) = delete;
  IncrementalStore& operator=(const IncrementalStore&) = delete;

  // Nullptr once the store was removed from its coordinator.
  PersistentStoreCoordinator* persistentStoreCoordinator() const { return coordinator_; }
  const std::string& configurationName() const { return configurationName_; }
  // The type the store was added as.
  const std::string& type() const { return type_; }
  Url url() const;
  virtual void setURL(const Url& url);
  // The options given when the store was added (a dictionary, maybe empty).
  const Value& options() const { return options_; }

  // The store's identifier, the host of its objects' URIs: by default the
  // metadata's "NSStoreUUIDKey".
  virtual std::string identifier() const;
  // A dictionary; "NSStoreType" and "NSStoreUUIDKey" are always present once
  // the store was added.
  virtual Value metadata() const;
  virtual void setMetadata(Value metadata);

  // Called once when the store is added, before any request; a store reads
  // (or creates) its metadata here. False and *error refuse the store.
  virtual bool loadMetadata(Error* error) = 0;

  // Executes a fetch or save request for `context`. A fetch answers an array
  // in the form the request's result type asks (objects made with
  // context->objectWithID, identifiers, dictionaries, or one count); a save
  // writes the request's inserted, updated and deleted objects and answers an
  // empty array. Nil and *error on failure.
  virtual Value executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                               Error* error) = 0;

  // The stored values of an object, used to fill its fault. Nullptr and
  // *error when the store has no such object.
  virtual std::shared_ptr<IncrementalStoreNode> newValuesForObjectWithID(
      const ManagedObjectIDPtr& objectID, ManagedObjectContext* context, Error* error) = 0;

  // The destination of a relationship of a stored object: for a to-many
  // relationship a collection (array, set or ordered set) of identifiers, for
  // a to-one relationship an identifier or nil. Nil with *error on failure.
  virtual Value newValueForRelationship(const RelationshipDescription& relationship,
                                        const ManagedObjectIDPtr& objectID,
                                        ManagedObjectContext* context, Error* error) = 0;

  // Whether the store still has a saved object: false once it is gone from
  // the store (another computer deleted it, say) while contexts may still
  // hold it. Validation asks this of every object a relation names. A store
  // that cannot tell answers true, as the default does.
  virtual bool hasObjectWithID(const ManagedObjectIDPtr& /*objectID*/) { return true; }

  // Permanent identifiers for newly inserted objects, one per object in the
  // same order. An empty vector and *error on failure.
  virtual std::vector<ManagedObjectIDPtr> obtainPermanentIDsForObjects(
      const std::vector<std::shared_ptr<ManagedObject>>& objects, Error* error) = 0;

  // A permanent identifier of this store. Subclasses may refuse (nullptr).
  virtual ManagedObjectIDPtr newObjectIDForEntity(const EntityDescription* entity,
                                                  Value referenceObject);
  // The reference object an identifier of this store was made with.
  Value referenceObjectForObjectID(const ManagedObjectID& objectID) const;

  // The coordinator added the store (after loadMetadata succeeded).
  virtual void didAddToPersistentStoreCoordinator(PersistentStoreCoordinator* /*coordinator*/) {}
  // The coordinator is about to drop the store: the last moment to finish
  // pending writes. The coordinator pointer is cleared right after.
  virtual void willRemoveFromPersistentStoreCoordinator(
      PersistentStoreCoordinator* /*coordinator*/) {}

 private:
  friend class PersistentStoreCoordinator;
  PersistentStoreCoordinator* coordinator_;
  std::string configurationName_;
  std::string type_;
  Value options_;
  mutable std::mutex mutex_;
  Url url_;
  Value metadata_;
};

}  // namespace quillon
