#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/graph/incremental_store.h"

namespace quillon {

class PersistentStoreCoordinator;

// A store that keeps its objects in memory, for testing the object-graph
// layer through the real store contract. It counts the calls the layer makes,
// lets a test change stored values behind the layer's back (as another
// computer would) and can be told to fail.
//
// Options: "lazyToMany" (true: fault values leave to-many relationships out,
// so they load through newValueForRelationship), "failLoad" (true: refuse in
// loadMetadata).
//
// Called by its coordinator under the coordinator's lock; the counters and
// test hooks are for the test's thread.
class InMemoryStore : public IncrementalStore {
 public:
  static constexpr std::string_view kType = "InMemoryStore";
  // Registers kType with the coordinator's registry (idempotent).
  static void registerType();

  InMemoryStore(PersistentStoreCoordinator* coordinator, std::string configurationName, Url url,
                Value options);

  bool loadMetadata(Error* error) override;
  Value executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                       Error* error) override;
  std::shared_ptr<IncrementalStoreNode> newValuesForObjectWithID(const ManagedObjectIDPtr& objectID,
                                                                 ManagedObjectContext* context,
                                                                 Error* error) override;
  Value newValueForRelationship(const RelationshipDescription& relationship,
                                const ManagedObjectIDPtr& objectID, ManagedObjectContext* context,
                                Error* error) override;
  std::vector<ManagedObjectIDPtr> obtainPermanentIDsForObjects(
      const std::vector<std::shared_ptr<ManagedObject>>& objects, Error* error) override;
  void willRemoveFromPersistentStoreCoordinator(
      PersistentStoreCoordinator* /*coordinator*/) override {
    ++removeCalls;
  }

  // What the layer asked for.
  int valuesCalls = 0;
  int relationshipCalls = 0;
  int saveCalls = 0;
  int removeCalls = 0;
  // The last save request's objects, by uid.
  std::vector<std::string> lastInserted, lastUpdated, lastDeleted;

  // The next save fails with this error.
  void failNextSave(Error error) { saveFailure_ = std::move(error); }
  // Test access to stored objects: values by property name (relationships as
  // "Entity/uid" strings, to-many as arrays of them).
  Value storedValues(const ManagedObjectIDPtr& objectID) const;
  void setStoredValue(const ManagedObjectIDPtr& objectID, std::string_view key, Value value);
  size_t objectCount() const;
  // Adds an object directly, answering its identifier.
  ManagedObjectIDPtr addStoredObject(std::string_view entityName, Value values);

 private:
  struct Record {
    Value values;  // mutable dictionary
    uint64_t version = 1;
  };
  using Key = std::pair<std::string, std::string>;  // entity name, uid

  static Key keyOf(const ManagedObjectID& objectID);
  ManagedObjectIDPtr idFor(std::string_view reference);
  Value fetch(const class FetchRequest& request, ManagedObjectContext* context, Error* error);
  bool save(const class SaveChangesRequest& request, Error* error);
  Value recordFor(const std::shared_ptr<ManagedObject>& object) const;
  // Stored values as the layer sees them: references become identifiers.
  Value toLayer(const Value& stored, const class EntityDescription* entity, bool withToMany);

  std::map<Key, Record> records_;
  uint64_t nextUID_ = 1;
  Error saveFailure_;
};

}  // namespace quillon
