#include "quillon/graph/managed_object_context.h"

#include <fmt/format.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "quillon/base/internal/dispatch_queue.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/graph/incremental_store_node.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/graph/save_changes_request.h"
#include "quillon/graph/undo_manager.h"
#include "quillon/graph/validation_error.h"
#include "quillon/platform/main_queue.h"

namespace quillon {

namespace {

Error contextError(int64_t code, std::string text) {
  return Error::withDescription(std::string(kCocoaErrorDomain), code, text);
}

bool isToMany(const PropertyDescription* property) {
  return property->isRelationship() &&
         static_cast<const RelationshipDescription*>(property)->isToMany();
}

}  // namespace

// ---- ObjectSet ---------------------------------------------------------------

bool ManagedObjectContext::ObjectSet::add(const ManagedObjectPtr& object) {
  if (index_.count(object.get())) return false;
  index_[object.get()] = objects_.size();
  objects_.push_back(object);
  return true;
}

bool ManagedObjectContext::ObjectSet::remove(const ManagedObject* object) {
  auto it = index_.find(object);
  if (it == index_.end()) return false;
  objects_[it->second] = nullptr;
  index_.erase(it);
  if (objects_.size() > 32 && index_.size() * 2 < objects_.size()) {
    std::erase(objects_, nullptr);
    for (size_t i = 0; i < objects_.size(); ++i) index_[objects_[i].get()] = i;
  }
  return true;
}

void ManagedObjectContext::ObjectSet::clear() {
  objects_.clear();
  index_.clear();
}

std::vector<ManagedObjectPtr> ManagedObjectContext::ObjectSet::list() const {
  std::vector<ManagedObjectPtr> out;
  out.reserve(index_.size());
  for (const auto& o : objects_) {
    if (o) out.push_back(o);
  }
  return out;
}

Value ManagedObjectContext::ObjectSet::valueSet() const {
  Value set = Value::set();
  for (const auto& o : objects_) {
    if (o) set.append(Value::object(o));
  }
  return set;
}

// ---- Life cycle ----------------------------------------------------------------

std::shared_ptr<ManagedObjectContext> ManagedObjectContext::create(ConcurrencyType type) {
  return std::make_shared<ManagedObjectContext>(type);
}

ManagedObjectContext::ManagedObjectContext(ConcurrencyType type) : type_(type) {
  if (type_ == ConcurrencyType::PrivateQueue) {
    queue_ = std::make_unique<DispatchQueue>("org.quillon.ManagedObjectContext");
  }
}

ManagedObjectContext::~ManagedObjectContext() {
  // Finish the blocks already queued while the context is still whole.
  queue_.reset();
  if (undoManager_) {
    for (const auto& [id, object] : registry_)
      undoManager_->removeAllActionsWithTarget(object.get());
    undoManager_->removeAllActionsWithTarget(this);
  }
  clearAll();
}

void ManagedObjectContext::perform(std::function<void()> block) {
  if (queue_) {
    queue_->async(std::move(block));
  } else {
    MainQueue::async(std::move(block));
  }
}

void ManagedObjectContext::performAndWait(const std::function<void()>& block) {
  if (queue_) {
    std::thread::id self = std::this_thread::get_id();
    if (queue_->isCurrent() || inlineOwner_.load() == self) {
      block();
      return;
    }
    // Park the queue's worker, run the block here, then let the worker go.
    struct Gate {
      std::mutex mutex;
      std::condition_variable changed;
      bool parked = false;
      bool released = false;
    };
    auto gate = std::make_shared<Gate>();
    queue_->async([gate] {
      std::unique_lock<std::mutex> lock(gate->mutex);
      gate->parked = true;
      gate->changed.notify_all();
      gate->changed.wait(lock, [&] { return gate->released; });
    });
    {
      std::unique_lock<std::mutex> lock(gate->mutex);
      gate->changed.wait(lock, [&] { return gate->parked; });
    }
    struct Release {
      ManagedObjectContext* context;
      std::shared_ptr<Gate> gate;
      ~Release() {
        context->inlineOwner_.store(std::thread::id());
        std::lock_guard<std::mutex> lock(gate->mutex);
        gate->released = true;
        gate->changed.notify_all();
      }
    } release{this, gate};
    inlineOwner_.store(self);
    block();
  } else if (MainQueue::isMainThread()) {
    block();
  } else {
    MainQueue::sync(block);
  }
}

void ManagedObjectContext::setPersistentStoreCoordinator(
    std::shared_ptr<PersistentStoreCoordinator> coordinator) {
  coordinator_ = std::move(coordinator);
  if (coordinator_) parent_.reset();
}

std::shared_ptr<PersistentStoreCoordinator> ManagedObjectContext::persistentStoreCoordinator()
    const {
  if (coordinator_) return coordinator_;
  return parent_ ? parent_->persistentStoreCoordinator() : nullptr;
}

void ManagedObjectContext::setParentContext(std::shared_ptr<ManagedObjectContext> parent) {
  parent_ = std::move(parent);
  if (parent_) coordinator_.reset();
}

void ManagedObjectContext::setUndoManager(std::shared_ptr<UndoManager> undoManager) {
  undoManager_ = std::move(undoManager);
}

void ManagedObjectContext::undo() {
  processPendingChanges();
  if (undoManager_) undoManager_->undo();
  processPendingChanges();
}

void ManagedObjectContext::redo() {
  processPendingChanges();
  if (undoManager_) undoManager_->redo();
  processPendingChanges();
}

void ManagedObjectContext::setObjectFactory(std::string entityName, ObjectFactory factory) {
  factories_[std::move(entityName)] = std::move(factory);
}

// ---- Registry ---------------------------------------------------------------------

ManagedObjectPtr ManagedObjectContext::makeObject(const EntityDescription* entity) {
  for (const EntityDescription* e = entity; e; e = e->superentity()) {
    auto it = factories_.find(e->name());
    if (it != factories_.end()) {
      if (ManagedObjectPtr object = it->second(entity, this)) return object;
    }
  }
  return std::make_shared<ManagedObject>(entity, this);
}

void ManagedObjectContext::registerObject(const ManagedObjectPtr& object) {
  registry_[object->objectID_] = object;
}

void ManagedObjectContext::unregisterObject(ManagedObject* object) {
  ManagedObjectPtr keep = object->shared_from_this();
  auto it = registry_.find(object->objectID_);
  if (it != registry_.end() && it->second.get() == object) registry_.erase(it);
  inserted_.remove(object);
  updated_.remove(object);
  deleted_.remove(object);
}

void ManagedObjectContext::rekeyObject(ManagedObject* object, const ManagedObjectIDPtr& newID) {
  ManagedObjectPtr keep = object->shared_from_this();
  auto it = registry_.find(object->objectID_);
  if (it != registry_.end() && it->second.get() == object) registry_.erase(it);
  object->objectID_ = newID;
  registry_[newID] = keep;
}

ManagedObjectPtr ManagedObjectContext::objectRegisteredForID(
    const ManagedObjectIDPtr& objectID) const {
  if (!objectID) return nullptr;
  auto it = registry_.find(objectID);
  return it == registry_.end() ? nullptr : it->second;
}

std::vector<ManagedObjectPtr> ManagedObjectContext::registeredObjects() const {
  std::vector<ManagedObjectPtr> out;
  out.reserve(registry_.size());
  for (const auto& [id, object] : registry_) out.push_back(object);
  return out;
}

bool ManagedObjectContext::hasChanges() const {
  return !inserted_.empty() || !updated_.empty() || !deleted_.empty();
}

ManagedObjectPtr ManagedObjectContext::objectWithID(const ManagedObjectIDPtr& objectID) {
  if (!objectID || !objectID->entity()) return nullptr;
  if (ManagedObjectPtr object = objectRegisteredForID(objectID)) return object;
  // A temporary identifier names an unsaved object, which only a parent can hold.
  if (objectID->isTemporaryID() && !parent_) return nullptr;
  ManagedObjectPtr object = makeObject(objectID->entity());
  object->objectID_ = objectID;
  registerObject(object);
  return object;
}

ManagedObjectPtr ManagedObjectContext::existingObjectWithID(const ManagedObjectIDPtr& objectID,
                                                            Error* error) {
  ManagedObjectPtr object = objectRegisteredForID(objectID);
  if (object && !object->fault_) return object;
  bool created = !object;
  if (!object) object = objectWithID(objectID);
  if (object) {
    object->fault_ = false;
    Error fillError;
    if (fulfillFault(*object, &fillError)) return object;
    object->fault_ = true;
    if (created) unregisterObject(object.get());
  }
  if (error) {
    *error = contextError(kManagedObjectReferentialIntegrityError,
                          fmt::format("There is no object for {}.",
                                      objectID ? objectID->uriString() : std::string("nil")));
  }
  return nullptr;
}

// ---- Faults -------------------------------------------------------------------------

bool ManagedObjectContext::fulfillFault(ManagedObject& object, Error* error) {
  std::shared_ptr<IncrementalStoreNode> node;
  if (parent_) {
    parent_->performAndWait([&] { node = parent_->nodeForChild(object.objectID_, error); });
  } else if (coordinator_) {
    node = coordinator_->newValuesForObjectWithID(object.objectID_, this, error);
  } else if (error) {
    *error = contextError(kPersistentStoreOperationError, "The context has no store to read from.");
  }
  const auto& properties = object.entity_->properties();
  if (!node) {
    systemLog(fmt::format("Could not fill the fault of {}: {}", object.objectID_->uriString(),
                          error ? error->localizedDescription() : std::string("no values")));
    // The object reads as empty rather than retrying the store on every access.
    for (size_t i = 0; i < properties.size(); ++i) {
      object.values_[i] =
          isToMany(properties[i])
              ? (static_cast<const RelationshipDescription*>(properties[i])->isOrdered()
                     ? Value::orderedSet()
                     : Value::set())
              : Value();
    }
    object.committed_ = object.values_;
    object.hasCommitted_ = true;
    return false;
  }
  const Value& values = node->values();
  for (size_t i = 0; i < properties.size(); ++i) {
    const PropertyDescription* property = properties[i];
    Value v = values.get(property->name());
    if (v.isNull()) v = Value();
    if (property->isAttribute()) {
      object.values_[i] = v;
      continue;
    }
    const auto* relationship = static_cast<const RelationshipDescription*>(property);
    if (!relationship->isToMany()) {
      ManagedObjectPtr target;
      if (auto id = objectIDFromValue(v))
        target = objectWithID(id);
      else if (auto o = managedObjectFromValue(v))
        target = objectWithID(o->objectID());
      object.values_[i] = target ? Value::object(target) : Value();
    } else if (v.isSequence()) {
      Value collection = relationship->isOrdered() ? Value::orderedSet() : Value::set();
      for (const Value& e : v.elements()) {
        ManagedObjectIDPtr id = objectIDFromValue(e);
        if (!id) {
          if (auto o = managedObjectFromValue(e)) id = o->objectID();
        }
        if (ManagedObjectPtr target = objectWithID(id)) collection.append(Value::object(target));
      }
      object.values_[i] = collection;
    } else {
      object.values_[i] = Value();  // loaded on first use
    }
  }
  object.committed_ = object.values_;
  object.hasCommitted_ = true;
  object.version_ = node->version();
  object.awakeFromFetch();
  return true;
}

Value ManagedObjectContext::loadRelationship(ManagedObject& object,
                                             const RelationshipDescription& relationship) {
  Value ids;
  Error error;
  if (parent_) {
    parent_->performAndWait([&] {
      ManagedObjectPtr inParent = parent_->objectWithID(object.objectID_);
      if (!inParent) return;
      Value members = inParent->value(relationship.name());
      ids = Value::array();
      for (const Value& e : members.elements()) {
        if (auto o = managedObjectFromValue(e)) ids.append(Value::object(o->objectID()));
      }
    });
  } else if (coordinator_) {
    ids = coordinator_->newValueForRelationship(relationship, object.objectID_, this, &error);
  }
  Value collection = relationship.isOrdered() ? Value::orderedSet() : Value::set();
  if (ids.isNil() && error) {
    systemLog(fmt::format("Could not load {} of {}: {}", relationship.name(),
                          object.objectID_->uriString(), error.localizedDescription()));
  }
  auto add = [&](const Value& e) {
    ManagedObjectIDPtr id = objectIDFromValue(e);
    if (!id) {
      if (auto o = managedObjectFromValue(e)) id = o->objectID();
    }
    if (ManagedObjectPtr target = objectWithID(id)) collection.append(Value::object(target));
  };
  if (ids.isSequence()) {
    for (const Value& e : ids.elements()) add(e);
  } else if (ids.isObject()) {
    add(ids);
  }
  return collection;
}

std::shared_ptr<IncrementalStoreNode> ManagedObjectContext::nodeForChild(
    const ManagedObjectIDPtr& objectID, Error* error) {
  ManagedObjectPtr object = objectRegisteredForID(objectID);
  bool created = false;
  if (!object) {
    object = objectWithID(objectID);
    created = true;
  }
  if (!object) {
    if (error) {
      *error = contextError(kManagedObjectReferentialIntegrityError,
                            fmt::format("There is no object for {}.", objectID->uriString()));
    }
    return nullptr;
  }
  if (object->fault_) {
    object->fault_ = false;
    if (!fulfillFault(*object, error)) {
      object->fault_ = true;
      if (created) unregisterObject(object.get());
      return nullptr;
    }
  }
  Value values = Value::mutableDictionary();
  const auto& properties = object->entity_->properties();
  for (size_t i = 0; i < properties.size(); ++i) {
    Value v = object->storedValue(i);
    if (properties[i]->isAttribute()) {
      if (!v.isNil()) values.set(properties[i]->name(), v);
    } else if (v.isSequence()) {
      Value ids = Value::array();
      for (const Value& e : v.elements()) {
        if (auto o = managedObjectFromValue(e)) ids.append(Value::object(o->objectID()));
      }
      values.set(properties[i]->name(), ids);
    } else if (auto o = managedObjectFromValue(v)) {
      values.set(properties[i]->name(), Value::object(o->objectID()));
    }
  }
  return std::make_shared<IncrementalStoreNode>(objectID, values, object->version_);
}

// ---- Changes ---------------------------------------------------------------------------

bool ManagedObjectContext::undoRegistrationEnabled() const {
  return undoManager_ && undoManager_->isUndoRegistrationEnabled();
}

void ManagedObjectContext::registerUndo(const void* target, std::function<void()> action) {
  if (!undoRegistrationEnabled()) return;
  std::weak_ptr<ManagedObjectContext> weak = weak_from_this();
  undoManager_->registerUndoWithTarget(target, [weak, action = std::move(action)] {
    if (weak.lock()) action();
  });
}

void ManagedObjectContext::objectDidChange(ManagedObject& object, size_t index,
                                           const Value& oldValue, bool changed) {
  ManagedObjectPtr self = object.shared_from_this();
  if (!object.inserted_ && !object.deleted_) {
    updated_.add(self);
    pendingUpdated_.add(self);
  }
  if (changed) {
    registerUndo(&object, [this, self, index, oldValue] { restoreValue(self, index, oldValue); });
  }
}

void ManagedObjectContext::restoreValue(const std::weak_ptr<ManagedObject>& weakObject,
                                        size_t index, Value value) {
  ManagedObjectPtr object = weakObject.lock();
  if (!object || object->context_ != this) return;
  object->changePrimitive(index, std::move(value));
}

ManagedObjectPtr ManagedObjectContext::insertNewObjectForEntityForName(std::string_view entityName,
                                                                       Error* error) {
  auto coordinator = persistentStoreCoordinator();
  const EntityDescription* entity =
      coordinator ? coordinator->managedObjectModel()->entity(entityName) : nullptr;
  if (!entity || entity->isAbstract()) {
    if (error) {
      *error = contextError(kManagedObjectValidationError,
                            entity ? fmt::format("The entity {} is abstract.", entityName)
                                   : fmt::format("There is no entity named {}.", entityName));
    }
    return nullptr;
  }
  ManagedObjectPtr object = makeObject(entity);
  object->objectID_ = ManagedObjectID::temporaryID(entity);
  object->fault_ = false;
  const auto& properties = entity->properties();
  for (size_t i = 0; i < properties.size(); ++i) {
    const PropertyDescription* property = properties[i];
    if (property->isAttribute()) {
      object->values_[i] = static_cast<const AttributeDescription*>(property)->defaultValue();
    } else if (isToMany(property)) {
      object->values_[i] = static_cast<const RelationshipDescription*>(property)->isOrdered()
                               ? Value::orderedSet()
                               : Value::set();
    }
  }
  insertObject(object);
  object->awakeFromInsert();
  return object;
}

void ManagedObjectContext::insertObject(const ManagedObjectPtr& object) {
  if (!object || object->context_ != this) return;
  if (object->deleted_) {
    undeleteObject(object, object->objectID_->isTemporaryID());
    return;
  }
  if (object->inserted_) return;
  object->inserted_ = true;
  registerObject(object);
  inserted_.add(object);
  pendingInserted_.add(object);
  pendingDeleted_.remove(object.get());
  registerUndo(object.get(), [this, object] { uninsertObject(object); });
}

void ManagedObjectContext::uninsertObject(const ManagedObjectPtr& object) {
  if (object->context_ != this || !object->inserted_) return;
  object->inserted_ = false;
  inserted_.remove(object.get());
  updated_.remove(object.get());
  pendingInserted_.remove(object.get());
  pendingUpdated_.remove(object.get());
  pendingDeleted_.add(object);
  auto it = registry_.find(object->objectID_);
  if (it != registry_.end() && it->second == object) registry_.erase(it);
  registerUndo(object.get(), [this, object] { insertObject(object); });
}

void ManagedObjectContext::deleteObject(const ManagedObjectPtr& object) {
  if (!object || object->context_ != this || object->deleted_) return;
  deleteObjectInternal(object);
}

void ManagedObjectContext::deleteObjectInternal(const ManagedObjectPtr& object) {
  if (object->deleted_ || object->context_ != this) return;
  object->fireFault();
  object->prepareForDeletion();
  bool wasInserted = object->inserted_;
  object->deleted_ = true;
  if (wasInserted) {
    // An object that was never saved simply goes away at the next save.
    object->inserted_ = false;
    inserted_.remove(object.get());
    pendingInserted_.remove(object.get());
  } else {
    updated_.remove(object.get());
    pendingUpdated_.remove(object.get());
    deleted_.add(object);
    pendingDeleted_.add(object);
  }
  registerUndo(object.get(), [this, object, wasInserted] { undeleteObject(object, wasInserted); });

  const auto& properties = object->entity_->properties();
  for (size_t i = 0; i < properties.size(); ++i) {
    if (!properties[i]->isRelationship()) continue;
    const auto* relationship = static_cast<const RelationshipDescription*>(properties[i]);
    Value current = object->storedValue(i);
    std::vector<ManagedObjectPtr> members;
    if (current.isObject()) {
      if (auto m = managedObjectFromValue(current)) members.push_back(m);
    } else {
      for (const Value& e : current.elements()) {
        if (auto m = managedObjectFromValue(e)) members.push_back(m);
      }
    }
    switch (relationship->deleteRule()) {
      case DeleteRule::Cascade:
        for (const auto& m : members) {
          if (m->context_ == this) deleteObjectInternal(m);
        }
        [[fallthrough]];
      case DeleteRule::Nullify:
        if (const RelationshipDescription* inverse = relationship->inverseRelationship()) {
          for (const auto& m : members) {
            if (m->context_ == this && !m->deleted_) m->inverseRemove(*inverse, object.get());
          }
        }
        break;
      case DeleteRule::Deny:
      case DeleteRule::NoAction:
        break;
    }
  }
}

void ManagedObjectContext::undeleteObject(const ManagedObjectPtr& object, bool wasInserted) {
  if (object->context_ != this || !object->deleted_) return;
  object->deleted_ = false;
  if (wasInserted) {
    object->inserted_ = true;
    inserted_.add(object);
  } else {
    deleted_.remove(object.get());
  }
  registerObject(object);
  pendingDeleted_.remove(object.get());
  pendingInserted_.add(object);
  registerUndo(object.get(), [this, object] { deleteObjectInternal(object); });
}

void ManagedObjectContext::processPendingChanges() {
  if (pendingInserted_.empty() && pendingUpdated_.empty() && pendingDeleted_.empty() &&
      pendingRefreshed_.empty()) {
    return;
  }
  Value info = Value::mutableDictionary();
  if (!pendingInserted_.empty())
    info.set(std::string(kInsertedObjectsKey), pendingInserted_.valueSet());
  if (!pendingUpdated_.empty())
    info.set(std::string(kUpdatedObjectsKey), pendingUpdated_.valueSet());
  if (!pendingDeleted_.empty())
    info.set(std::string(kDeletedObjectsKey), pendingDeleted_.valueSet());
  if (!pendingRefreshed_.empty()) {
    info.set(std::string(kRefreshedObjectsKey), pendingRefreshed_.valueSet());
  }
  clearPendingChanges();
  NotificationCenter::defaultCenter().post(kManagedObjectContextObjectsDidChangeNotification, this,
                                           info);
}

// ---- Saving --------------------------------------------------------------------------------

bool ManagedObjectContext::validateChanges(Error* error) {
  std::vector<Error> errors;
  Error e;
  for (const auto& object : inserted_.list()) {
    if (!object->validateForInsert(&e)) {
      for (auto& d : detailedErrors(e)) errors.push_back(d);
    }
  }
  for (const auto& object : updated_.list()) {
    if (!object->validateForUpdate(&e)) {
      for (auto& d : detailedErrors(e)) errors.push_back(d);
    }
  }
  for (const auto& object : deleted_.list()) {
    if (!object->validateForDelete(&e)) {
      for (auto& d : detailedErrors(e)) errors.push_back(d);
    }
  }
  if (errors.empty()) return true;
  if (error) *error = combinedValidationError(errors);
  return false;
}

bool ManagedObjectContext::save(Error* error) {
  if (saving_) {
    if (error) *error = contextError(kPersistentStoreOperationError, "A save is already running.");
    return false;
  }
  processPendingChanges();
  if (!hasChanges()) return true;
  saving_ = true;
  struct Reset {
    bool* flag;
    ~Reset() { *flag = false; }
  } reset{&saving_};

  NotificationCenter::defaultCenter().post(kManagedObjectContextWillSaveNotification, this);
  for (const auto& object : inserted_.list()) object->willSave();
  for (const auto& object : updated_.list()) object->willSave();
  for (const auto& object : deleted_.list()) object->willSave();
  // willSave may have changed objects.
  processPendingChanges();
  if (!validateChanges(error)) return false;

  std::vector<ManagedObjectPtr> inserted = inserted_.list();
  std::vector<ManagedObjectPtr> updated = updated_.list();
  std::vector<ManagedObjectPtr> deleted = deleted_.list();
  if (parent_) {
    bool ok = false;
    parent_->performAndWait([&] { ok = parent_->applyChildChanges(*this, error); });
    if (!ok) return false;
  } else {
    if (!coordinator_) {
      if (error) {
        *error = contextError(kPersistentStoreOperationError,
                              "The context has no persistent store coordinator.");
      }
      return false;
    }
    std::vector<ManagedObjectPtr> temporary;
    for (const auto& object : inserted) {
      if (object->objectID_->isTemporaryID()) temporary.push_back(object);
    }
    if (!obtainPermanentIDsForObjects(temporary, error)) return false;
    SaveChangesRequest request(inserted, updated, deleted, {});
    if (coordinator_->executeRequest(request, this, error).isNil()) return false;
  }

  Value insertedSet = inserted_.valueSet();
  Value updatedSet = updated_.valueSet();
  Value deletedSet = deleted_.valueSet();
  for (const auto& object : inserted) {
    object->inserted_ = false;
    object->committed_ = object->values_;
    object->hasCommitted_ = true;
  }
  for (const auto& object : updated) {
    for (size_t i = 0; i < object->values_.size(); ++i) {
      if (!object->values_[i].isNil() || !isToMany(object->entity_->properties()[i])) {
        object->committed_[i] = object->values_[i];
      }
    }
  }
  // Deleted objects leave the context, including inserted ones deleted again.
  std::vector<ManagedObjectPtr> gone = deleted;
  for (const auto& [id, object] : registry_) {
    if (object->deleted_ && !deleted_.contains(object.get())) gone.push_back(object);
  }
  inserted_.clear();
  updated_.clear();
  deleted_.clear();
  for (const auto& object : inserted) object->didSave();
  for (const auto& object : updated) object->didSave();
  for (const auto& object : gone) {
    unregisterObject(object.get());
    object->didSave();
    object->detach();
    object->deleted_ = false;
  }
  Value info = Value::dictionary({{std::string(kInsertedObjectsKey), insertedSet},
                                  {std::string(kUpdatedObjectsKey), updatedSet},
                                  {std::string(kDeletedObjectsKey), deletedSet}});
  NotificationCenter::defaultCenter().post(kManagedObjectContextDidSaveNotification, this, info);
  return true;
}

Value ManagedObjectContext::valueForParent(const ManagedObjectPtr& object, size_t index,
                                           ManagedObjectContext& parent) {
  const Value& v = object->values_[index];
  if (object->entity_->properties()[index]->isAttribute()) return v;
  if (v.isObject()) {
    auto member = managedObjectFromValue(v);
    ManagedObjectPtr p = member ? parent.objectWithID(member->objectID_) : nullptr;
    return p ? Value::object(p) : Value();
  }
  const auto* relationship =
      static_cast<const RelationshipDescription*>(object->entity_->properties()[index]);
  Value collection = relationship->isOrdered() ? Value::orderedSet() : Value::set();
  for (const Value& e : v.elements()) {
    auto member = managedObjectFromValue(e);
    if (ManagedObjectPtr p = member ? parent.objectWithID(member->objectID_) : nullptr) {
      collection.append(Value::object(p));
    }
  }
  return collection;
}

bool ManagedObjectContext::applyChildChanges(ManagedObjectContext& child, Error* error) {
  std::vector<ManagedObjectPtr> inserted = child.inserted_.list();
  std::vector<ManagedObjectPtr> updated = child.updated_.list();
  std::vector<ManagedObjectPtr> deleted = child.deleted_.list();
  // First make every inserted object exist here, so relations between them resolve.
  for (const auto& c : inserted) {
    if (objectRegisteredForID(c->objectID_)) continue;
    ManagedObjectPtr p = makeObject(c->entity_);
    p->objectID_ = c->objectID_;
    p->fault_ = false;
    const auto& properties = c->entity_->properties();
    for (size_t i = 0; i < properties.size(); ++i) {
      if (isToMany(properties[i])) {
        p->values_[i] = static_cast<const RelationshipDescription*>(properties[i])->isOrdered()
                            ? Value::orderedSet()
                            : Value::set();
      }
    }
    insertObject(p);
  }
  auto apply = [&](const ManagedObjectPtr& c, bool all) -> bool {
    ManagedObjectPtr p = objectWithID(c->objectID_);
    if (!p) {
      if (error) {
        *error = contextError(
            kManagedObjectReferentialIntegrityError,
            fmt::format("The parent context has no object for {}.", c->objectID_->uriString()));
      }
      return false;
    }
    for (size_t i = 0; i < c->values_.size(); ++i) {
      if (!all && !c->valueDiffers(i)) continue;
      if (c->values_[i].isNil() && isToMany(c->entity_->properties()[i])) continue;
      Value mapped = valueForParent(c, i, *this);
      p->fireFault();
      if (!(p->storedValue(i) == mapped)) p->changePrimitive(i, mapped);
    }
    return true;
  };
  for (const auto& c : inserted) {
    if (!apply(c, true)) return false;
  }
  for (const auto& c : updated) {
    if (!apply(c, false)) return false;
  }
  for (const auto& c : deleted) {
    if (ManagedObjectPtr p = objectWithID(c->objectID_)) deleteObject(p);
  }
  return true;
}

// ---- Rollback, reset, refresh -----------------------------------------------------------------

void ManagedObjectContext::rollback() {
  if (undoManager_) undoManager_->removeAllActions();
  std::vector<ManagedObjectPtr> gone = inserted_.list();
  for (const auto& [id, object] : registry_) {
    if (object->deleted_ && !deleted_.contains(object.get())) gone.push_back(object);
  }
  std::vector<ManagedObjectPtr> reverted = updated_.list();
  for (const auto& object : deleted_.list()) {
    object->deleted_ = false;
    reverted.push_back(object);
  }
  for (const auto& object : reverted) {
    object->values_ = object->committed_;
    object->pendingChanges_.clear();
  }
  clearChangeTracking();
  for (const auto& object : gone) {
    unregisterObject(object.get());
    object->detach();
    object->deleted_ = false;
  }
  for (const auto& object : reverted) pendingRefreshed_.add(object);
  processPendingChanges();
}

void ManagedObjectContext::clearPendingChanges() {
  pendingInserted_.clear();
  pendingUpdated_.clear();
  pendingDeleted_.clear();
  pendingRefreshed_.clear();
}

void ManagedObjectContext::clearChangeTracking() {
  inserted_.clear();
  updated_.clear();
  deleted_.clear();
  pendingInserted_.clear();
  pendingUpdated_.clear();
  pendingDeleted_.clear();
}

void ManagedObjectContext::clearAll() {
  std::vector<ManagedObjectPtr> objects = registeredObjects();
  for (const auto& object : objects) {
    object->detach();
    object->deleted_ = false;
  }
  registry_.clear();
  clearChangeTracking();
  pendingRefreshed_.clear();
}

void ManagedObjectContext::reset() {
  if (undoManager_) undoManager_->removeAllActions();
  clearAll();
}

void ManagedObjectContext::refreshObject(const ManagedObjectPtr& object, bool mergeChanges) {
  if (!object || object->context_ != this || object->inserted_ || object->fault_) return;
  std::vector<size_t> changed;
  if (mergeChanges) {
    for (size_t i = 0; i < object->values_.size(); ++i) {
      if (object->valueDiffers(i)) changed.push_back(i);
    }
  }
  if (changed.empty()) {
    // Nothing of its own to keep: the object fills again from the store on next use.
    if (!object->deleted_) {
      updated_.remove(object.get());
      pendingUpdated_.remove(object.get());
    }
    object->turnIntoFault();
    pendingRefreshed_.add(object);
    return;
  }
  std::vector<Value> local = object->values_;
  object->turnIntoFault();
  object->fault_ = false;
  Error error;
  if (!fulfillFault(*object, &error)) {
    systemLog(fmt::format("Refreshing {} failed: {}", object->objectID_->uriString(),
                          error.localizedDescription()));
  }
  // Unsaved local edits win over the store's values of the same properties.
  for (size_t i : changed) object->values_[i] = local[i];
  pendingRefreshed_.add(object);
}

// ---- Fetching ---------------------------------------------------------------------------------

bool ManagedObjectContext::matchesRequest(const ManagedObjectPtr& object,
                                          const FetchRequest& request,
                                          const EntityDescription* entity) const {
  if (object->entity_ != entity &&
      !(request.includesSubentities() && object->entity_->isKindOfEntity(entity))) {
    return false;
  }
  if (!request.predicate()) return true;
  return request.predicate()->evaluate(Value::object(object));
}

std::vector<Value> ManagedObjectContext::mergePendingChanges(const FetchRequest& request,
                                                             std::vector<Value> results) {
  auto coordinator = persistentStoreCoordinator();
  const EntityDescription* entity = coordinator->managedObjectModel()->entity(request.entityName());
  std::vector<ManagedObjectPtr> objects;
  std::unordered_map<const ManagedObject*, bool> present;
  for (const Value& v : results) {
    ManagedObjectPtr object = managedObjectFromValue(v);
    if (!object) object = objectWithID(objectIDFromValue(v));
    if (!object || object->deleted_ || present.count(object.get())) continue;
    if (updated_.contains(object.get()) && !matchesRequest(object, request, entity)) continue;
    present[object.get()] = true;
    objects.push_back(object);
  }
  auto consider = [&](const ManagedObjectPtr& object) {
    if (object->deleted_ || present.count(object.get())) return;
    if (!matchesRequest(object, request, entity)) return;
    present[object.get()] = true;
    objects.push_back(object);
  };
  for (const auto& object : updated_.list()) consider(object);
  for (const auto& object : inserted_.list()) consider(object);

  std::vector<Value> values;
  values.reserve(objects.size());
  for (const auto& object : objects) values.push_back(Value::object(object));
  if (!request.sortDescriptors().empty()) {
    SortDescriptor::sortValues(values, request.sortDescriptors());
  }
  size_t offset = std::min(request.fetchOffset(), values.size());
  values.erase(values.begin(), values.begin() + static_cast<ptrdiff_t>(offset));
  if (request.fetchLimit() && values.size() > request.fetchLimit())
    values.resize(request.fetchLimit());
  if (request.resultType() == FetchRequestResultType::ManagedObjectID) {
    for (Value& v : values) v = Value::object(managedObjectFromValue(v)->objectID_);
  }
  return values;
}

Value ManagedObjectContext::executeFetchFromParent(const FetchRequest& request, Error* error) {
  FetchRequest forParent = request;
  if (request.resultType() == FetchRequestResultType::ManagedObject) {
    forParent.setResultType(FetchRequestResultType::ManagedObjectID);
  }
  std::vector<Value> answer;
  Error parentError;
  parent_->performAndWait([&] { answer = parent_->executeFetchRequest(forParent, &parentError); });
  if (parentError) {
    if (error) *error = parentError;
    return Value();
  }
  Value out = Value::array();
  for (const Value& v : answer) {
    if (request.resultType() == FetchRequestResultType::ManagedObject) {
      if (ManagedObjectPtr object = objectWithID(objectIDFromValue(v)))
        out.append(Value::object(object));
    } else {
      out.append(v);
    }
  }
  return out;
}

std::vector<Value> ManagedObjectContext::executeFetchRequest(const FetchRequest& request,
                                                             Error* error) {
  auto coordinator = persistentStoreCoordinator();
  if (!coordinator) {
    if (error) {
      *error = contextError(kPersistentStoreOperationError,
                            "The context has no persistent store coordinator.");
    }
    return {};
  }
  const EntityDescription* entity = coordinator->managedObjectModel()->entity(request.entityName());
  if (!entity) {
    if (error) {
      *error = contextError(kPersistentStoreOperationError,
                            fmt::format("There is no entity named \"{}\".", request.entityName()));
    }
    return {};
  }
  FetchRequestResultType type = request.resultType();
  bool merge = request.includesPendingChanges() && type != FetchRequestResultType::Dictionary &&
               request.propertiesToGroupBy().empty() && hasChanges();
  FetchRequest forStore = request;
  if (merge) {
    // Limits apply after the unsaved changes are laid over the answer.
    forStore.setFetchLimit(0);
    forStore.setFetchOffset(0);
    if (type == FetchRequestResultType::Count) {
      forStore.setResultType(FetchRequestResultType::ManagedObjectID);
    }
  }
  Error fetchError;
  Value answer = parent_ ? executeFetchFromParent(forStore, &fetchError)
                         : coordinator_->executeRequest(forStore, this, &fetchError);
  if (answer.isNil()) {
    if (error) {
      *error = fetchError ? fetchError
                          : contextError(kPersistentStoreOperationError, "The fetch failed.");
    }
    return {};
  }
  std::vector<Value> results(answer.elements().begin(), answer.elements().end());
  if (!merge) return results;
  FetchRequest shape = request;
  if (type == FetchRequestResultType::Count)
    shape.setResultType(FetchRequestResultType::ManagedObject);
  std::vector<Value> merged = mergePendingChanges(shape, std::move(results));
  if (type == FetchRequestResultType::Count) {
    return {Value::integer(static_cast<int64_t>(merged.size()))};
  }
  return merged;
}

std::vector<ManagedObjectPtr> ManagedObjectContext::fetchObjects(const FetchRequest& request,
                                                                 Error* error) {
  FetchRequest objectsRequest = request;
  objectsRequest.setResultType(FetchRequestResultType::ManagedObject);
  std::vector<ManagedObjectPtr> out;
  for (const Value& v : executeFetchRequest(objectsRequest, error)) {
    if (auto object = managedObjectFromValue(v)) out.push_back(object);
  }
  return out;
}

int64_t ManagedObjectContext::countForFetchRequest(const FetchRequest& request, Error* error) {
  FetchRequest countRequest = request;
  countRequest.setResultType(FetchRequestResultType::Count);
  Error fetchError;
  std::vector<Value> answer = executeFetchRequest(countRequest, &fetchError);
  if (fetchError || answer.empty()) {
    if (error) {
      *error = fetchError ? fetchError
                          : contextError(kPersistentStoreOperationError, "The count failed.");
    }
    return -1;
  }
  return answer.front().intValue();
}

bool ManagedObjectContext::obtainPermanentIDsForObjects(
    const std::vector<ManagedObjectPtr>& objects, Error* error) {
  std::vector<ManagedObjectPtr> temporary;
  for (const auto& object : objects) {
    if (object && object->context_ == this && object->objectID_->isTemporaryID()) {
      temporary.push_back(object);
    }
  }
  if (temporary.empty()) return true;
  auto coordinator = persistentStoreCoordinator();
  if (!coordinator) {
    if (error) {
      *error = contextError(kPersistentStoreOperationError,
                            "The context has no persistent store coordinator.");
    }
    return false;
  }
  std::vector<ManagedObjectIDPtr> ids;
  if (!coordinator->obtainPermanentIDsForObjects(temporary, &ids, error)) return false;
  for (size_t i = 0; i < temporary.size(); ++i) rekeyObject(temporary[i].get(), ids[i]);
  return true;
}

}  // namespace quillon
