#include "quillon/graph/persistent_store_coordinator.h"

#include <fmt/format.h>

#include <map>

#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/save_changes_request.h"

namespace quillon {

namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, PersistentStoreCoordinator::StoreFactory, std::less<>> factories;
};

Registry& registry() {
  static Registry* r = new Registry();
  return *r;
}

Error coordinatorError(int64_t code, std::string text) {
  return Error::withDescription(std::string(kCocoaErrorDomain), code, text);
}

}  // namespace

void PersistentStoreCoordinator::registerStoreClass(std::string typeName, StoreFactory factory) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.factories[std::move(typeName)] = std::move(factory);
}

bool PersistentStoreCoordinator::isStoreTypeRegistered(std::string_view typeName) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.factories.find(typeName) != r.factories.end();
}

PersistentStoreCoordinator::PersistentStoreCoordinator(
    std::shared_ptr<const ManagedObjectModel> model)
    : model_(std::move(model)) {}

PersistentStoreCoordinator::~PersistentStoreCoordinator() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (const auto& store : stores_) {
    store->willRemoveFromPersistentStoreCoordinator(this);
    store->coordinator_ = nullptr;
  }
}

std::shared_ptr<IncrementalStore> PersistentStoreCoordinator::addPersistentStore(
    std::string_view type, const std::string& configurationName, const Url& url,
    const Value& options, Error* error) {
  StoreFactory factory;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.factories.find(type);
    if (it != r.factories.end()) factory = it->second;
  }
  if (!factory) {
    if (error) {
      *error = coordinatorError(kPersistentStoreInvalidTypeError,
                                fmt::format("Unknown store type \"{}\".", type));
    }
    return nullptr;
  }
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::shared_ptr<IncrementalStore> store = factory(this, configurationName, url, options);
  if (!store) {
    if (error) {
      *error = coordinatorError(kPersistentStoreOperationError,
                                fmt::format("The store of type \"{}\" could not be made.", type));
    }
    return nullptr;
  }
  store->type_ = std::string(type);
  store->coordinator_ = this;
  Error loadError;
  if (!store->loadMetadata(&loadError)) {
    store->coordinator_ = nullptr;
    if (error) {
      *error = loadError ? loadError
                         : coordinatorError(kPersistentStoreOperationError,
                                            fmt::format("The store at {} refused to load.",
                                                        url.absoluteString()));
    }
    return nullptr;
  }
  store->setMetadata(store->metadata());  // records the type
  stores_.push_back(store);
  store->didAddToPersistentStoreCoordinator(this);
  return store;
}

bool PersistentStoreCoordinator::removePersistentStore(
    const std::shared_ptr<IncrementalStore>& store, Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  auto it = std::find(stores_.begin(), stores_.end(), store);
  if (it == stores_.end()) {
    if (error) {
      *error = coordinatorError(kPersistentStoreOperationError,
                                "The store does not belong to this coordinator.");
    }
    return false;
  }
  store->willRemoveFromPersistentStoreCoordinator(this);
  store->coordinator_ = nullptr;
  stores_.erase(it);
  return true;
}

std::vector<std::shared_ptr<IncrementalStore>> PersistentStoreCoordinator::persistentStores()
    const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return stores_;
}

std::shared_ptr<IncrementalStore> PersistentStoreCoordinator::persistentStoreForURL(
    const Url& url) const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (const auto& store : stores_) {
    if (store->url() == url) return store;
  }
  return nullptr;
}

ManagedObjectIDPtr PersistentStoreCoordinator::managedObjectIDForURIRepresentation(
    const Url& uri) const {
  if (uri.scheme() != "x-quillon") return nullptr;
  std::vector<std::string> components = uri.pathComponents();
  if (!components.empty() && components.front() == "/") components.erase(components.begin());
  if (components.size() < 2) return nullptr;
  const EntityDescription* entity = model_->entity(components[components.size() - 2]);
  std::string reference = components.back();
  if (!entity || reference.empty()) return nullptr;
  char kind = reference.front();
  if (kind != 'p' && kind != 't') return nullptr;
  reference.erase(0, 1);
  if (reference.empty()) return nullptr;
  if (kind == 't') {
    return std::make_shared<ManagedObjectID>(entity, Value::string(reference), nullptr, true);
  }
  std::shared_ptr<IncrementalStore> store;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    std::string host = uri.host();
    for (const auto& s : stores_) {
      if (s->identifier() == host) store = s;
    }
    if (!store && !stores_.empty()) store = stores_.front();
  }
  if (!store) return nullptr;
  return store->newObjectIDForEntity(entity, Value::string(reference));
}

std::shared_ptr<IncrementalStore> PersistentStoreCoordinator::storeFor(
    const ManagedObjectIDPtr& objectID, Error* error) const {
  std::shared_ptr<IncrementalStore> store = objectID ? objectID->persistentStore() : nullptr;
  if (store && store->coordinator_ == this) return store;
  if (error) {
    *error = coordinatorError(kPersistentStoreOperationError,
                              fmt::format("No store of this coordinator holds {}.",
                                          objectID ? objectID->uriString() : "nil"));
  }
  return nullptr;
}

Value PersistentStoreCoordinator::executeRequest(const PersistentStoreRequest& request,
                                                 ManagedObjectContext* context, Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (stores_.empty()) {
    if (error) {
      *error = coordinatorError(134030, "This coordinator has no persistent stores.");
    }
    return Value();
  }
  if (request.requestType() == PersistentStoreRequestType::Fetch) {
    if (stores_.size() == 1) return stores_.front()->executeRequest(request, context, error);
    const auto& fetch = static_cast<const FetchRequest&>(request);
    Value joined = Value::mutableArray();
    int64_t count = 0;
    for (const auto& store : stores_) {
      Value part = store->executeRequest(request, context, error);
      if (part.isNil()) return Value();
      if (fetch.resultType() == FetchRequestResultType::Count) {
        count += part.size() ? part[0].intValue() : 0;
      } else {
        for (const Value& e : part.elements()) joined.append(e);
      }
    }
    if (fetch.resultType() == FetchRequestResultType::Count) return Value::array({Value::integer(count)});
    return joined;
  }
  if (stores_.size() == 1) return stores_.front()->executeRequest(request, context, error);
  // Several stores: each gets the objects that belong to it.
  const auto& save = static_cast<const SaveChangesRequest&>(request);
  for (const auto& store : stores_) {
    auto mine = [&](const std::vector<ManagedObjectPtr>& objects) {
      std::vector<ManagedObjectPtr> out;
      for (const auto& o : objects) {
        auto owner = o->objectID()->persistentStore();
        if (owner == store || (!owner && store == stores_.front())) out.push_back(o);
      }
      return out;
    };
    SaveChangesRequest part(mine(save.insertedObjects()), mine(save.updatedObjects()),
                            mine(save.deletedObjects()), mine(save.lockedObjects()));
    if (part.insertedObjects().empty() && part.updatedObjects().empty() &&
        part.deletedObjects().empty()) {
      continue;
    }
    if (store->executeRequest(part, context, error).isNil()) return Value();
  }
  return Value::array();
}

std::shared_ptr<IncrementalStoreNode> PersistentStoreCoordinator::newValuesForObjectWithID(
    const ManagedObjectIDPtr& objectID, ManagedObjectContext* context, Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  auto store = storeFor(objectID, error);
  if (!store) return nullptr;
  return store->newValuesForObjectWithID(objectID, context, error);
}

Value PersistentStoreCoordinator::newValueForRelationship(
    const RelationshipDescription& relationship, const ManagedObjectIDPtr& objectID,
    ManagedObjectContext* context, Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  auto store = storeFor(objectID, error);
  if (!store) return Value();
  return store->newValueForRelationship(relationship, objectID, context, error);
}

bool PersistentStoreCoordinator::hasObjectWithID(const ManagedObjectIDPtr& objectID) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  Error ignored;  // an identifier of no store here is not ours to judge
  auto store = storeFor(objectID, &ignored);
  return !store || store->hasObjectWithID(objectID);
}

bool PersistentStoreCoordinator::obtainPermanentIDsForObjects(
    const std::vector<ManagedObjectPtr>& objects, std::vector<ManagedObjectIDPtr>* objectIDs,
    Error* error) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  objectIDs->assign(objects.size(), nullptr);
  if (objects.empty()) return true;
  if (stores_.empty()) {
    if (error) *error = coordinatorError(134030, "This coordinator has no persistent stores.");
    return false;
  }
  // Group by store, keeping each object's position.
  std::vector<std::pair<std::shared_ptr<IncrementalStore>, std::vector<size_t>>> groups;
  for (size_t i = 0; i < objects.size(); ++i) {
    auto store = objects[i]->objectID()->persistentStore();
    if (!store || store->coordinator_ != this) store = stores_.front();
    auto it =
        std::find_if(groups.begin(), groups.end(), [&](const auto& g) { return g.first == store; });
    if (it == groups.end()) {
      groups.push_back({store, {}});
      it = groups.end() - 1;
    }
    it->second.push_back(i);
  }
  for (const auto& [store, positions] : groups) {
    std::vector<ManagedObjectPtr> part;
    for (size_t i : positions) part.push_back(objects[i]);
    std::vector<ManagedObjectIDPtr> ids = store->obtainPermanentIDsForObjects(part, error);
    if (ids.size() != part.size()) {
      if (error && !*error) {
        *error = coordinatorError(kPersistentStoreOperationError,
                                  "The store did not give every object a permanent identifier.");
      }
      return false;
    }
    for (size_t k = 0; k < positions.size(); ++k) {
      if (!ids[k]) {
        if (error) {
          *error = coordinatorError(kPersistentStoreOperationError,
                                    "The store did not give every object a permanent identifier.");
        }
        return false;
      }
      (*objectIDs)[positions[k]] = ids[k];
    }
  }
  return true;
}

void PersistentStoreCoordinator::performAndWait(const std::function<void()>& block) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  block();
}

}  // namespace quillon
