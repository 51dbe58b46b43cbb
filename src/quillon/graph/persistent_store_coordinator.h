#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/graph/incremental_store.h"
#include "quillon/graph/managed_object_model.h"

namespace quillon {

// Error codes of the coordinator, the classic ones.
inline constexpr int64_t kPersistentStoreInvalidTypeError = 134000;
inline constexpr int64_t kPersistentStoreIncompatibleSchemaError = 134020;
inline constexpr int64_t kPersistentStoreOperationError = 134070;
inline constexpr int64_t kManagedObjectReferentialIntegrityError = 133000;

// Connects contexts to stores: owns the stores added to it, knows the model,
// routes requests to the right store and serialises them (one request at a
// time across all stores, under a recursive lock, so a store may call back
// into the coordinator). Held by shared_ptr by the contexts that use it;
// every member is thread-safe.
class PersistentStoreCoordinator {
 public:
  using StoreFactory = std::function<std::shared_ptr<IncrementalStore>(
      PersistentStoreCoordinator* coordinator, const std::string& configurationName, const Url& url,
      const Value& options)>;

  // The process-wide registry of store types; registering a type again
  // replaces its factory.
  static void registerStoreClass(std::string typeName, StoreFactory factory);
  static bool isStoreTypeRegistered(std::string_view typeName);

  explicit PersistentStoreCoordinator(std::shared_ptr<const ManagedObjectModel> model);
  virtual ~PersistentStoreCoordinator();
  PersistentStoreCoordinator(const PersistentStoreCoordinator&) = delete;
  PersistentStoreCoordinator& operator=(const PersistentStoreCoordinator&) = delete;

  const std::shared_ptr<const ManagedObjectModel>& managedObjectModel() const { return model_; }

  // Makes a store of a registered type, lets it load its metadata and adds
  // it. Nullptr and *error for an unknown type or a store that refuses.
  std::shared_ptr<IncrementalStore> addPersistentStore(std::string_view type,
                                                       const std::string& configurationName,
                                                       const Url& url, const Value& options,
                                                       Error* error = nullptr);
  std::shared_ptr<IncrementalStore> addPersistentStore(std::string_view type, const Url& url,
                                                       const Value& options,
                                                       Error* error = nullptr) {
    return addPersistentStore(type, std::string(), url, options, error);
  }
  // Tells the store (willRemoveFromPersistentStoreCoordinator) and drops it.
  bool removePersistentStore(const std::shared_ptr<IncrementalStore>& store,
                             Error* error = nullptr);
  std::vector<std::shared_ptr<IncrementalStore>> persistentStores() const;
  std::shared_ptr<IncrementalStore> persistentStoreForURL(const Url& url) const;

  // The identifier that a URI of uriRepresentation() names: the store whose
  // identifier is the URI's host (the first store when none is), the entity
  // named by the second-to-last path component, the reference after its "p"
  // (or "t" for a temporary identifier). Nullptr when nothing fits.
  virtual ManagedObjectIDPtr managedObjectIDForURIRepresentation(const Url& uri) const;

  // Routing, used by contexts. A fetch goes to every store and the answers
  // are joined; a save is split by the stores of the objects' identifiers
  // (inserted objects with temporary identifiers go to the first store).
  Value executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                       Error* error);
  std::shared_ptr<IncrementalStoreNode> newValuesForObjectWithID(const ManagedObjectIDPtr& objectID,
                                                                 ManagedObjectContext* context,
                                                                 Error* error);
  Value newValueForRelationship(const RelationshipDescription& relationship,
                                const ManagedObjectIDPtr& objectID, ManagedObjectContext* context,
                                Error* error);
  // The object's store still has it (IncrementalStore::hasObjectWithID);
  // true when no store of this coordinator owns the identifier.
  bool hasObjectWithID(const ManagedObjectIDPtr& objectID);
  // Permanent identifiers from the objects' stores (the first store for new
  // objects), one per object. False and *error on failure.
  bool obtainPermanentIDsForObjects(const std::vector<std::shared_ptr<ManagedObject>>& objects,
                                    std::vector<ManagedObjectIDPtr>* objectIDs, Error* error);

  // Runs `block` while holding the coordinator's lock.
  void performAndWait(const std::function<void()>& block);

 private:
  std::shared_ptr<IncrementalStore> storeFor(const ManagedObjectIDPtr& objectID,
                                             Error* error) const;

  std::shared_ptr<const ManagedObjectModel> model_;
  mutable std::recursive_mutex mutex_;
  std::vector<std::shared_ptr<IncrementalStore>> stores_;
};

}  // namespace quillon
