#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/value.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class ManagedObjectContext;

// One object of the object graph: an instance of an entity, registered in
// exactly one context, which owns it (through shared_ptr) for as long as it
// is registered. An object read from a store starts as a fault and fills its
// values from the store the first time a property is read; to-many
// relationships that the store did not hand over fill on their own first use.
//
// Key-value access: value()/setValue() are the public accessors (setValue
// checks the value against the attribute type and keeps inverse
// relationships consistent); primitiveValue()/setPrimitiveValue() read and
// write the stored value without change tracking; willChangeValueForKey()/
// didChangeValueForKey() bracket a primitive change so that the context
// records it (updated objects, undo).
//
// Relationship values are Value::object(ManagedObject) or nil for a to-one
// relationship, a Set for a to-many and an OrderedSet for an ordered to-many
// relationship; the collections handed out are copies.
//
// Confined to its context's thread (see ManagedObjectContext), like the
// context itself. Applications may subclass it and make the context create
// their class through ManagedObjectContext::setObjectFactory.
class ManagedObject : public Object, public std::enable_shared_from_this<ManagedObject> {
 public:
  // Objects are made by their context; subclasses forward these arguments.
  ManagedObject(const EntityDescription* entity, ManagedObjectContext* context);
  ~ManagedObject() override;
  ManagedObject(const ManagedObject&) = delete;
  ManagedObject& operator=(const ManagedObject&) = delete;

  const EntityDescription* entity() const { return entity_; }
  // Nullptr once the object left its context (deleted and saved, reset).
  ManagedObjectContext* managedObjectContext() const { return context_; }
  const ManagedObjectIDPtr& objectID() const { return objectID_; }

  bool isInserted() const { return inserted_; }
  bool isUpdated() const;
  bool isDeleted() const { return deleted_; }
  bool isFault() const { return fault_; }
  bool hasChanges() const { return inserted_ || deleted_ || isUpdated(); }
  // The properties whose values differ from the committed ones: a dictionary
  // name → current value, in property order.
  Value changedValues();
  // The last saved (or fetched) values of the given keys, every property when
  // `keys` is empty. An inserted object has none yet (an empty dictionary).
  Value committedValuesForKeys(const std::vector<std::string>& keys = {});

  // Key-value access. An unknown key reads nil and refuses to be set.
  Value value(std::string_view key);
  bool setValue(std::string_view key, Value value, Error* error = nullptr);
  Value primitiveValue(std::string_view key);
  // No change tracking, no inverse maintenance and no type check beyond the
  // shape of relationship values; false for an unknown key or a value that is
  // not a relationship value.
  bool setPrimitiveValue(std::string_view key, Value value);
  void willAccessValueForKey(std::string_view key);
  void didAccessValueForKey(std::string_view /*key*/) {}
  void willChangeValueForKey(std::string_view key);
  void didChangeValueForKey(std::string_view key);

  // To-many conveniences, with the same checks and inverse maintenance as
  // setValue. insertObject places a member of an ordered relationship.
  bool addObject(std::string_view key, const std::shared_ptr<ManagedObject>& object,
                 Error* error = nullptr);
  bool removeObject(std::string_view key, const std::shared_ptr<ManagedObject>& object,
                    Error* error = nullptr);
  bool insertObject(std::string_view key, const std::shared_ptr<ManagedObject>& object,
                    size_t index, Error* error = nullptr);

  // Validation with the classic codes (see validation_error.h): mandatory
  // properties, value limits, relationship counts and relations that point at
  // deleted objects or at objects outside this context. Several failures come
  // back as one error with code 1560 and the single errors under
  // "NSDetailedErrors".
  virtual bool validateForInsert(Error* error = nullptr);
  virtual bool validateForUpdate(Error* error = nullptr);
  // Refuses while a relationship with the deny rule holds objects (1600).
  virtual bool validateForDelete(Error* error = nullptr);
  // The checks of one property's current value.
  bool validateValueForKey(std::string_view key, Error* error = nullptr);
  // False once the store lost the saved object (another computer deleted
  // it) while this context still holds it; true for objects not saved yet
  // and for a store that cannot tell. A relation to such an object fails
  // validation with 1550 naming the relation.
  bool existsInStore() const;

  // Hooks for subclasses.
  virtual void awakeFromInsert() {}
  virtual void awakeFromFetch() {}
  virtual void willSave() {}
  virtual void didSave() {}
  virtual void prepareForDeletion() {}
  virtual void didTurnIntoFault() {}

  // Object: key-value access for predicates and sort descriptors (fires the
  // fault). Keys that are not properties answer the object's state:
  // "objectID", "entity" (its name), "changedValues", "isInserted",
  // "isUpdated", "isDeleted", "isFault", "hasChanges". The class name is the
  // entity name.
  std::string className() const override;
  Value valueForKey(std::string_view key) const override;
  std::string description() const override;

 private:
  friend class ManagedObjectContext;

  // Fires the fault, loading values from the context's store.
  void fireFault();
  // Makes sure a to-many relationship's value is loaded.
  void loadRelationship(size_t index);
  Value storedValue(size_t index);
  // The value that is current for change comparison: nil for an unloaded
  // to-many.
  bool valueDiffers(size_t index) const;
  bool normalizeRelationshipValue(const RelationshipDescription& relationship, const Value& value,
                                  Value* normalized, Error* error) const;
  // Sets a relationship, with change notices, maintaining the inverse.
  void setRelationship(size_t index, const RelationshipDescription& relationship, Value value);
  // Inverse maintenance: `other` leaves or joins this object's relationship.
  void inverseRemove(const RelationshipDescription& relationship, ManagedObject* other);
  void inverseAdd(const RelationshipDescription& relationship, ManagedObject* other);
  void changePrimitive(size_t index, Value value);
  void collectErrors(bool forInsert, std::vector<Error>* errors);
  Error validationError(int64_t code, std::string_view key, std::string description,
                        const Value& value) const;
  // Drops every value (breaking reference cycles) and turns into a fault.
  void turnIntoFault();
  void detach();

  const EntityDescription* entity_;
  ManagedObjectContext* context_;
  ManagedObjectIDPtr objectID_;
  bool fault_ = true;
  bool inserted_ = false;
  bool deleted_ = false;
  bool hasCommitted_ = false;
  uint64_t version_ = 0;
  // By property index; a to-many relationship not loaded yet is nil.
  std::vector<Value> values_;
  std::vector<Value> committed_;
  // Old values between willChangeValueForKey and didChangeValueForKey.
  std::vector<std::pair<size_t, Value>> pendingChanges_;
};

using ManagedObjectPtr = std::shared_ptr<ManagedObject>;

// The managed object a Value holds (Value::object), or nullptr.
ManagedObjectPtr managedObjectFromValue(const Value& value);

}  // namespace quillon
