#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "quillon/base/url.h"
#include "quillon/base/value.h"

namespace quillon {

class EntityDescription;
class IncrementalStore;

// The identity of one object of the object graph: its entity, the reference
// object its store knows it by (a store's uid string) and that store. A
// temporary identifier belongs to an inserted object that has not been given
// its store identity yet; it has no store.
//
// Identifiers are immutable values held by shared_ptr (ManagedObjectIDPtr)
// and may be passed between threads. Equality and hashing are by value
// (entity, store, reference, temporary flag), so an identifier can be a key
// of containers and of Value sets. The one mutable part is a cached uid slot
// that the framework fills lazily; it is guarded by its own lock.
class ManagedObjectID final : public Object {
 public:
  ManagedObjectID(const EntityDescription* entity, Value referenceObject,
                  std::shared_ptr<IncrementalStore> store, bool temporary);

  // A new temporary identifier with a fresh unique reference.
  static std::shared_ptr<ManagedObjectID> temporaryID(const EntityDescription* entity);

  const EntityDescription* entity() const { return entity_; }
  const Value& referenceObject() const { return reference_; }
  // The store, or nullptr for temporary identifiers and after the store is gone.
  std::shared_ptr<IncrementalStore> persistentStore() const { return store_.lock(); }
  // The store's address, for identity checks even after the store is gone.
  const IncrementalStore* persistentStoreAddress() const { return storeAddress_; }
  bool isTemporaryID() const { return temporary_; }

  // "x-quillon://<store identifier>/<Entity>/p<reference>"; temporary
  // identifiers have "t" instead of "p" and an empty store identifier.
  Url uriRepresentation() const;
  std::string uriString() const;

  // A uid that the framework computed for this identifier, kept with it.
  std::optional<std::string> cachedUID() const;
  void setCachedUID(std::string uid) const;

  // Object.
  std::string className() const override { return "NSManagedObjectID"; }
  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  std::string description() const override { return uriString(); }

  bool operator==(const ManagedObjectID& other) const { return isEqual(other); }

 private:
  const EntityDescription* entity_;
  Value reference_;
  std::weak_ptr<IncrementalStore> store_;
  const IncrementalStore* storeAddress_;
  bool temporary_;
  std::string storeIdentifier_;
  mutable std::mutex uidMutex_;
  mutable std::optional<std::string> cachedUID_;
};

using ManagedObjectIDPtr = std::shared_ptr<ManagedObjectID>;

// Hash and equality by value, for unordered containers keyed by identifier.
struct ManagedObjectIDHash {
  size_t operator()(const ManagedObjectIDPtr& id) const { return id ? id->hash() : 0; }
};
struct ManagedObjectIDEqual {
  bool operator()(const ManagedObjectIDPtr& a, const ManagedObjectIDPtr& b) const {
    if (!a || !b) return a == b;
    return a->isEqual(*b);
  }
};

// The identifier held by a Value (Value::object of a ManagedObjectID), or nullptr.
ManagedObjectIDPtr objectIDFromValue(const Value& value);

}  // namespace quillon
