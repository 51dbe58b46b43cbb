#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/value.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class DispatchQueue;
class IncrementalStoreNode;
class PersistentStoreCoordinator;
class UndoManager;

// Notification names and user-info keys of contexts.
inline constexpr std::string_view kManagedObjectContextObjectsDidChangeNotification =
    "NSManagedObjectContextObjectsDidChangeNotification";
inline constexpr std::string_view kManagedObjectContextWillSaveNotification =
    "NSManagedObjectContextWillSaveNotification";
inline constexpr std::string_view kManagedObjectContextDidSaveNotification =
    "NSManagedObjectContextDidSaveNotification";
inline constexpr std::string_view kInsertedObjectsKey = "inserted";
inline constexpr std::string_view kUpdatedObjectsKey = "updated";
inline constexpr std::string_view kDeletedObjectsKey = "deleted";
inline constexpr std::string_view kRefreshedObjectsKey = "refreshed";

enum class ConcurrencyType { MainQueue, PrivateQueue };

// A scratch pad of objects: the objects an application works with, their
// unsaved changes, and the save that hands them to the store (through a
// coordinator) or to a parent context.
//
// Ownership: made with make_shared (create()); it owns its registered objects
// and holds its coordinator or parent. Notifications name the context's
// address as their object, through NotificationCenter::defaultCenter().
//
// Threads: a context and its objects are confined. A main-queue context is
// used on the main thread; a private-queue context only inside perform() /
// performAndWait(), which run blocks on its own serial queue. A child context
// calls its parent with the parent's performAndWait().
class ManagedObjectContext : public std::enable_shared_from_this<ManagedObjectContext> {
 public:
  using ObjectFactory = std::function<ManagedObjectPtr(const EntityDescription* entity,
                                                       ManagedObjectContext* context)>;

  static std::shared_ptr<ManagedObjectContext> create(ConcurrencyType type);
  explicit ManagedObjectContext(ConcurrencyType type);
  virtual ~ManagedObjectContext();
  ManagedObjectContext(const ManagedObjectContext&) = delete;
  ManagedObjectContext& operator=(const ManagedObjectContext&) = delete;

  ConcurrencyType concurrencyType() const { return type_; }
  // perform() runs a block on the context's queue asynchronously.
  // performAndWait() runs it on the calling thread while holding the queue
  // (nothing else of the context runs meanwhile), so a child context's block
  // started on the main thread can reach a main-queue parent; it runs at once
  // when called from inside the context's own blocks.
  void perform(std::function<void()> block);
  void performAndWait(const std::function<void()>& block);

  // A context works either on a coordinator or on a parent context.
  void setPersistentStoreCoordinator(std::shared_ptr<PersistentStoreCoordinator> coordinator);
  // The context's coordinator, or its parent's.
  std::shared_ptr<PersistentStoreCoordinator> persistentStoreCoordinator() const;
  void setParentContext(std::shared_ptr<ManagedObjectContext> parent);
  const std::shared_ptr<ManagedObjectContext>& parentContext() const { return parent_; }

  // The undo manager that records inserts, deletes and property changes;
  // nullptr (the default) records nothing.
  void setUndoManager(std::shared_ptr<UndoManager> undoManager);
  const std::shared_ptr<UndoManager>& undoManager() const { return undoManager_; }
  void undo();
  void redo();

  // Makes objects of an application's class for an entity (and its
  // sub-entities unless they have their own).
  void setObjectFactory(std::string entityName, ObjectFactory factory);

  // A new object of a non-abstract entity, registered as inserted, with its
  // attributes' default values. Nullptr and *error for an unknown or
  // abstract entity.
  ManagedObjectPtr insertNewObjectForEntityForName(std::string_view entityName,
                                                   Error* error = nullptr);
  void insertObject(const ManagedObjectPtr& object);
  // Marks an object deleted and applies the delete rules of its
  // relationships (nullify, cascade; deny is checked by the save).
  void deleteObject(const ManagedObjectPtr& object);

  // The registered object for an identifier, else a new fault for it (which
  // fills from the store on first use).
  ManagedObjectPtr objectWithID(const ManagedObjectIDPtr& objectID);
  // The object with its values loaded; nullptr and *error (code 133000) when
  // the store has no such object.
  ManagedObjectPtr existingObjectWithID(const ManagedObjectIDPtr& objectID, Error* error = nullptr);
  // The registered object for an identifier, or nullptr.
  ManagedObjectPtr objectRegisteredForID(const ManagedObjectIDPtr& objectID) const;

  std::vector<ManagedObjectPtr> registeredObjects() const;
  std::vector<ManagedObjectPtr> insertedObjects() const { return inserted_.list(); }
  std::vector<ManagedObjectPtr> updatedObjects() const { return updated_.list(); }
  std::vector<ManagedObjectPtr> deletedObjects() const { return deleted_.list(); }
  bool hasChanges() const;

  // Posts "NSManagedObjectContextObjectsDidChangeNotification" with the
  // objects inserted, updated, deleted and refreshed since the last call (as
  // Sets under "inserted", "updated", "deleted", "refreshed"); nothing when
  // nothing changed.
  void processPendingChanges();

  // Validates, gives inserted objects permanent identifiers, and hands every
  // change to the store in one save request (or to the parent context). On
  // failure nothing is reset and *error says why (validation errors with
  // their codes).
  virtual bool save(Error* error = nullptr);
  // Throws away every unsaved change.
  void rollback();
  // Forgets every object; objects handed out before become detached faults.
  void reset();
  // Turns an object back into a fault, dropping its unsaved changes; with
  // `mergeChanges` an object's unsaved changes are kept and laid over the
  // store's current values.
  void refreshObject(const ManagedObjectPtr& object, bool mergeChanges);

  // Fetches through the coordinator (or parent), with the context's unsaved
  // inserts, updates and deletes laid over the store's answer. Empty and
  // *error on failure.
  std::vector<Value> executeFetchRequest(const FetchRequest& request, Error* error = nullptr);
  // The result-type-0 fetch as objects.
  std::vector<ManagedObjectPtr> fetchObjects(const FetchRequest& request, Error* error = nullptr);
  // How many objects a fetch would answer; -1 and *error on failure.
  int64_t countForFetchRequest(const FetchRequest& request, Error* error = nullptr);

  // Replaces the temporary identifiers of the given objects with permanent
  // ones from their store.
  bool obtainPermanentIDsForObjects(const std::vector<ManagedObjectPtr>& objects,
                                    Error* error = nullptr);

 private:
  friend class ManagedObject;

  // Objects in the order they were added, with constant-time membership.
  class ObjectSet {
   public:
    bool add(const ManagedObjectPtr& object);
    bool remove(const ManagedObject* object);
    bool contains(const ManagedObject* object) const { return index_.count(object) != 0; }
    bool empty() const { return index_.empty(); }
    size_t size() const { return index_.size(); }
    void clear();
    std::vector<ManagedObjectPtr> list() const;
    Value valueSet() const;

   private:
    // Removed entries leave a nullptr until the next compaction.
    std::vector<ManagedObjectPtr> objects_;
    std::unordered_map<const ManagedObject*, size_t> index_;
  };

  ManagedObjectPtr makeObject(const EntityDescription* entity);
  void registerObject(const ManagedObjectPtr& object);
  void unregisterObject(ManagedObject* object);
  void rekeyObject(ManagedObject* object, const ManagedObjectIDPtr& newID);

  // Called by objects.
  bool fulfillFault(ManagedObject& object, Error* error);
  Value loadRelationship(ManagedObject& object, const RelationshipDescription& relationship);
  void objectDidChange(ManagedObject& object, size_t index, const Value& oldValue, bool changed);

  // Values of an object for a child context's fault.
  std::shared_ptr<IncrementalStoreNode> nodeForChild(const ManagedObjectIDPtr& objectID,
                                                     Error* error);
  // Applies a child's saved changes.
  bool applyChildChanges(ManagedObjectContext& child, Error* error);
  Value valueForParent(const ManagedObjectPtr& object, size_t index, ManagedObjectContext& parent);

  void registerUndo(const void* target, std::function<void()> action);
  bool undoRegistrationEnabled() const;
  void restoreValue(const std::weak_ptr<ManagedObject>& weakObject, size_t index, Value value);
  void uninsertObject(const ManagedObjectPtr& object);
  void undeleteObject(const ManagedObjectPtr& object, bool wasInserted);
  void deleteObjectInternal(const ManagedObjectPtr& object);
  bool validateChanges(Error* error);
  std::vector<Value> mergePendingChanges(const FetchRequest& request, std::vector<Value> results);
  bool matchesRequest(const ManagedObjectPtr& object, const FetchRequest& request,
                      const EntityDescription* entity) const;
  Value executeFetchFromParent(const FetchRequest& request, Error* error);
  void clearAll();
  // Empties the pending sets reported by processPendingChanges (refreshed too).
  void clearPendingChanges();
  // Empties the saved-state sets and the pending inserted/updated/deleted sets;
  // pending refreshes survive so a rollback can still report them.
  void clearChangeTracking();

  ConcurrencyType type_;
  std::shared_ptr<PersistentStoreCoordinator> coordinator_;
  std::shared_ptr<ManagedObjectContext> parent_;
  std::shared_ptr<UndoManager> undoManager_;
  std::unordered_map<std::string, ObjectFactory> factories_;
  std::unordered_map<ManagedObjectIDPtr, ManagedObjectPtr, ManagedObjectIDHash,
                     ManagedObjectIDEqual>
      registry_;
  ObjectSet inserted_;
  ObjectSet updated_;
  ObjectSet deleted_;
  // Changes since the last processPendingChanges().
  ObjectSet pendingInserted_;
  ObjectSet pendingUpdated_;
  ObjectSet pendingDeleted_;
  ObjectSet pendingRefreshed_;
  bool saving_ = false;
  // The thread running a performAndWait() block outside the queue, if any.
  std::atomic<std::thread::id> inlineOwner_{};
  // Last, so that it is destroyed (draining its blocks) before the rest.
  std::unique_ptr<DispatchQueue> queue_;
};

}  // namespace quillon
