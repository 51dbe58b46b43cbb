#include "support/in_memory_store.h"

#include <fmt/format.h>

#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/graph/save_changes_request.h"

namespace quillon {

void InMemoryStore::registerType() {
  PersistentStoreCoordinator::registerStoreClass(
      std::string(kType), [](PersistentStoreCoordinator* coordinator, const std::string& config,
                             const Url& url, const Value& options) {
        return std::make_shared<InMemoryStore>(coordinator, config, url, options);
      });
}

InMemoryStore::InMemoryStore(PersistentStoreCoordinator* coordinator, std::string configurationName,
                             Url url, Value options)
    : IncrementalStore(coordinator, std::move(configurationName), std::move(url),
                       std::move(options)) {}

bool InMemoryStore::loadMetadata(Error* error) {
  if (options().get("failLoad").boolValue()) {
    if (error) *error = Error::withDescription("InMemoryStore", 1, "refused to load");
    return false;
  }
  Value info = metadata().mutableCopy();
  info.set("Test", true);
  setMetadata(info);
  return true;
}

InMemoryStore::Key InMemoryStore::keyOf(const ManagedObjectID& objectID) {
  return {objectID.entity()->name(), std::string(objectID.referenceObject().str())};
}

ManagedObjectIDPtr InMemoryStore::idFor(std::string_view reference) {
  size_t slash = reference.find('/');
  if (slash == std::string_view::npos) return nullptr;
  auto* coordinator = persistentStoreCoordinator();
  if (!coordinator) return nullptr;
  const EntityDescription* entity =
      coordinator->managedObjectModel()->entity(reference.substr(0, slash));
  return newObjectIDForEntity(entity, Value::string(reference.substr(slash + 1)));
}

Value InMemoryStore::toLayer(const Value& stored, const EntityDescription* entity,
                             bool withToMany) {
  Value out = Value::mutableDictionary();
  for (const PropertyDescription* property : entity->properties()) {
    const Value& v = stored.get(property->name());
    if (property->isAttribute()) {
      if (!v.isNil()) out.set(property->name(), v);
      continue;
    }
    const auto* relationship = static_cast<const RelationshipDescription*>(property);
    if (!relationship->isToMany()) {
      if (auto id = idFor(v.str())) out.set(property->name(), Value::object(id));
    } else if (withToMany) {
      Value ids = Value::array();
      for (const Value& e : v.elements()) {
        if (auto id = idFor(e.str())) ids.append(Value::object(id));
      }
      out.set(property->name(), ids);
    }
  }
  return out;
}

std::shared_ptr<IncrementalStoreNode> InMemoryStore::newValuesForObjectWithID(
    const ManagedObjectIDPtr& objectID, ManagedObjectContext*, Error* error) {
  ++valuesCalls;
  auto it = records_.find(keyOf(*objectID));
  if (it == records_.end()) {
    if (error) *error = Error::withDescription("InMemoryStore", 2, "no such object");
    return nullptr;
  }
  bool lazy = options().get("lazyToMany").boolValue();
  return std::make_shared<IncrementalStoreNode>(
      objectID, toLayer(it->second.values, objectID->entity(), !lazy), it->second.version);
}

Value InMemoryStore::newValueForRelationship(const RelationshipDescription& relationship,
                                             const ManagedObjectIDPtr& objectID,
                                             ManagedObjectContext*, Error* error) {
  ++relationshipCalls;
  auto it = records_.find(keyOf(*objectID));
  if (it == records_.end()) {
    if (error) *error = Error::withDescription("InMemoryStore", 2, "no such object");
    return Value();
  }
  const Value& v = it->second.values.get(relationship.name());
  if (!relationship.isToMany()) {
    auto id = idFor(v.str());
    return id ? Value::object(id) : Value();
  }
  Value ids = Value::array();
  for (const Value& e : v.elements()) {
    if (auto id = idFor(e.str())) ids.append(Value::object(id));
  }
  return ids;
}

std::vector<ManagedObjectIDPtr> InMemoryStore::obtainPermanentIDsForObjects(
    const std::vector<std::shared_ptr<ManagedObject>>& objects, Error*) {
  std::vector<ManagedObjectIDPtr> ids;
  for (const auto& object : objects) {
    std::string uid = fmt::format("00000000-0000-4000-8000-{:012X}", nextUID_++);
    ids.push_back(newObjectIDForEntity(object->entity(), Value::string(uid)));
  }
  return ids;
}

Value InMemoryStore::executeRequest(const PersistentStoreRequest& request,
                                    ManagedObjectContext* context, Error* error) {
  if (request.requestType() == PersistentStoreRequestType::Fetch) {
    return fetch(static_cast<const FetchRequest&>(request), context, error);
  }
  ++saveCalls;
  if (!save(static_cast<const SaveChangesRequest&>(request), error)) return Value();
  return Value::array();
}

Value InMemoryStore::fetch(const FetchRequest& request, ManagedObjectContext* context,
                           Error* error) {
  const EntityDescription* entity =
      persistentStoreCoordinator()->managedObjectModel()->entity(request.entityName());
  if (!entity) {
    if (error) *error = Error::withDescription("InMemoryStore", 3, "unknown entity");
    return Value();
  }
  std::vector<const EntityDescription*> entities{entity};
  if (request.includesSubentities()) {
    for (const EntityDescription* sub : entity->allSubentities()) entities.push_back(sub);
  }
  // Candidates as plain objects of their stored attributes, so matching does
  // not fill the context's faults; the graph tests match on attributes only.
  std::vector<Value> candidates;
  std::map<const Object*, ManagedObjectIDPtr> idOf;
  for (const EntityDescription* e : entities) {
    for (const auto& [key, record] : records_) {
      if (key.first != e->name()) continue;
      ManagedObjectIDPtr id = newObjectIDForEntity(e, Value::string(key.second));
      auto candidate = std::make_shared<GenericObject>(e->name(), record.values);
      idOf[candidate.get()] = id;
      Value wrapped = Value::object(candidate);
      if (request.predicate() && !request.predicate()->evaluate(wrapped)) continue;
      candidates.push_back(wrapped);
    }
  }
  if (!request.sortDescriptors().empty()) {
    SortDescriptor::sortValues(candidates, request.sortDescriptors());
  }
  Value out = Value::array();
  switch (request.resultType()) {
    case FetchRequestResultType::Count:
      return Value::array({static_cast<int64_t>(candidates.size())});
    case FetchRequestResultType::ManagedObjectID:
      for (const Value& c : candidates) out.append(Value::object(idOf[c.objectValue().get()]));
      return out;
    case FetchRequestResultType::ManagedObject:
      for (const Value& c : candidates) {
        out.append(Value::object(context->objectWithID(idOf[c.objectValue().get()])));
      }
      return out;
    case FetchRequestResultType::Dictionary:  // not needed by the graph tests
      return out;
  }
  return out;
}

Value InMemoryStore::recordFor(const std::shared_ptr<ManagedObject>& object) const {
  Value values = Value::mutableDictionary();
  auto reference = [](const Value& v) {
    auto target = managedObjectFromValue(v);
    return target ? Value(fmt::format("{}/{}", target->entity()->name(),
                                      target->objectID()->referenceObject().str()))
                  : Value();
  };
  for (const PropertyDescription* property : object->entity()->properties()) {
    Value v = object->primitiveValue(property->name());
    if (property->isAttribute()) {
      if (!v.isNil()) values.set(property->name(), v);
    } else if (v.isObject()) {
      values.set(property->name(), reference(v));
    } else if (v.isSequence()) {
      Value refs = Value::array();
      for (const Value& e : v.elements()) refs.append(reference(e));
      values.set(property->name(), refs);
    }
  }
  return values;
}

bool InMemoryStore::save(const SaveChangesRequest& request, Error* error) {
  if (saveFailure_) {
    if (error) *error = saveFailure_;
    saveFailure_ = Error();
    return false;
  }
  lastInserted.clear();
  lastUpdated.clear();
  lastDeleted.clear();
  for (const auto& object : request.insertedObjects()) {
    records_[keyOf(*object->objectID())] = Record{recordFor(object), 1};
    lastInserted.emplace_back(object->objectID()->referenceObject().str());
  }
  for (const auto& object : request.updatedObjects()) {
    Record& record = records_[keyOf(*object->objectID())];
    record.values = recordFor(object);
    ++record.version;
    lastUpdated.emplace_back(object->objectID()->referenceObject().str());
  }
  for (const auto& object : request.deletedObjects()) {
    records_.erase(keyOf(*object->objectID()));
    lastDeleted.emplace_back(object->objectID()->referenceObject().str());
  }
  return true;
}

Value InMemoryStore::storedValues(const ManagedObjectIDPtr& objectID) const {
  auto it = records_.find(keyOf(*objectID));
  return it == records_.end() ? Value() : it->second.values;
}

void InMemoryStore::setStoredValue(const ManagedObjectIDPtr& objectID, std::string_view key,
                                   Value value) {
  auto it = records_.find(keyOf(*objectID));
  if (it == records_.end()) return;
  it->second.values.set(std::string(key), std::move(value));
  ++it->second.version;
}

size_t InMemoryStore::objectCount() const { return records_.size(); }

ManagedObjectIDPtr InMemoryStore::addStoredObject(std::string_view entityName, Value values) {
  const EntityDescription* entity =
      persistentStoreCoordinator()->managedObjectModel()->entity(entityName);
  std::string uid = fmt::format("00000000-0000-4000-8000-{:012X}", nextUID_++);
  records_[{std::string(entityName), uid}] = Record{values.mutableCopy(), 1};
  return newObjectIDForEntity(entity, Value::string(uid));
}

}  // namespace quillon
