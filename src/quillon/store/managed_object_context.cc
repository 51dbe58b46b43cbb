#include "quillon/store/managed_object_context.h"

#include <mutex>
#include <unordered_set>

#include "quillon/base/internal/system_log.h"
#include "quillon/base/url.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/changes/internal/object_healing.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/store.h"

namespace quillon {

namespace {

// The contexts whose flag is set. The flag is only ever set for the span of
// one refresh, so an entry never outlives its context.
std::mutex gMergingMutex;
std::unordered_set<const ManagedObjectContext*>& mergingContexts() {
  static auto* contexts = new std::unordered_set<const ManagedObjectContext*>();
  return *contexts;
}

std::optional<Url> uriOf(const Value& uri) {
  if (uri.isUrl()) return uri.urlValue();
  if (uri.isString()) return Url::parse(uri.str());
  return std::nullopt;
}

}  // namespace

std::shared_ptr<QuillonManagedObjectContext> QuillonManagedObjectContext::create(
    ConcurrencyType type) {
  return std::make_shared<QuillonManagedObjectContext>(type);
}

bool QuillonManagedObjectContext::save(Error* error) {
  // Saves happen on the main thread only; a background request counts as done.
  if (!MainQueue::isMainThread()) return true;
  std::shared_ptr<PersistentStoreCoordinator> coordinator = persistentStoreCoordinator();
  if (!parentContext() && (!coordinator || coordinator->persistentStores().empty())) {
    systemLog("No file to save to yet");
    return false;
  }
  // Objects whose relations name objects another computer deleted are
  // repaired before they are written. What cannot be repaired is left for
  // the save's own validation to report.
  for (const ManagedObjectPtr& object : insertedObjects()) (void)qlValidateForInsertAndFix(*object);
  for (const ManagedObjectPtr& object : updatedObjects()) (void)qlValidateForUpdateAndFix(*object);
  return ManagedObjectContext::save(error);
}

bool isMergingExternally(const ManagedObjectContext& context) {
  std::lock_guard<std::mutex> lock(gMergingMutex);
  return mergingContexts().count(&context) != 0;
}

void setIsMergingExternally(const ManagedObjectContext& context, bool merging) {
  std::lock_guard<std::mutex> lock(gMergingMutex);
  if (merging) {
    mergingContexts().insert(&context);
  } else {
    mergingContexts().erase(&context);
  }
}

Value device(const ManagedObjectContext& /*context*/) { return Value(); }

void quillonRefreshObject(ManagedObjectContext& context, const ManagedObjectPtr& object,
                          QuillonStore* store) {
  if (!object) return;
  if (store) store->cache().removeObjectID(object->objectID());
  setIsMergingExternally(context, true);
  context.refreshObject(object, true);
  setIsMergingExternally(context, false);
}

ManagedObjectPtr storeObjectWithURI(ManagedObjectContext& context, const Value& uri) {
  std::optional<Url> url = uriOf(uri);
  if (!url) return nullptr;
  std::shared_ptr<PersistentStoreCoordinator> coordinator = context.persistentStoreCoordinator();
  if (!coordinator) return nullptr;
  std::string wanted = url->absoluteString();
  ManagedObjectIDPtr id = coordinator->managedObjectIDForURIRepresentation(*url);
  if (id && id->uriString() == wanted) {
    if (ManagedObjectPtr registered = context.objectRegisteredForID(id)) return registered;
    // A fault would be made for any identifier; only a uid the store knows
    // names an object that still exists.
    auto* store = dynamic_cast<QuillonStore*>(id->persistentStore().get());
    if (store && id->entity()) {
      Value uids = store->cache().objectUIDsForEntityName(id->entity()->name());
      if (uids.contains(Value(storeUID(*id)))) return context.objectWithID(id);
    } else if (ManagedObjectPtr object = context.existingObjectWithID(id)) {
      return object;
    }
  }
  std::vector<std::string> components = url->pathComponents();
  if (components.size() < 2) return nullptr;
  std::string entityName = components[components.size() - 2];
  if (!coordinator->managedObjectModel()->entity(entityName)) return nullptr;
  FetchRequest request(entityName);
  for (const ManagedObjectPtr& object : context.fetchObjects(request)) {
    if (object && object->objectID() && object->objectID()->uriString() == wanted) return object;
  }
  return nullptr;
}

std::vector<ManagedObjectPtr> storeObjectsWithURIs(ManagedObjectContext& context,
                                                   const Value& uris) {
  std::vector<ManagedObjectPtr> objects;
  if (uris.isNil()) return objects;
  const Value list = uris.isSequence() ? uris : Value::array({uris});
  for (const Value& uri : list.elements()) {
    if (ManagedObjectPtr object = storeObjectWithURI(context, uri)) objects.push_back(object);
  }
  return objects;
}

}  // namespace quillon
