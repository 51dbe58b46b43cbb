#include "quillon/store/persistent_store_coordinator.h"

#include <cctype>

#include "quillon/graph/entity_description.h"

namespace quillon {

namespace {

void dropLeading(std::string& text, char lower) {
  if (!text.empty() && std::tolower(static_cast<unsigned char>(text.front())) == lower) {
    text.erase(0, 1);
  }
}

}  // namespace

ManagedObjectIDPtr QuillonPersistentStoreCoordinator::managedObjectIDForURIRepresentation(
    const Url& uri) const {
  std::vector<std::string> components = uri.pathComponents();
  if (!components.empty() && components.front() == "/") components.erase(components.begin());
  if (components.size() >= 2) {
    const EntityDescription* entity =
        managedObjectModel()->entity(components[components.size() - 2]);
    std::string reference = components.back();
    dropLeading(reference, 'p');
    dropLeading(reference, 't');
    std::vector<std::shared_ptr<IncrementalStore>> stores = persistentStores();
    if (entity && !reference.empty() && !stores.empty()) {
      if (ManagedObjectIDPtr id = stores.front()->newObjectIDForEntity(entity, reference)) {
        return id;
      }
    }
  }
  return PersistentStoreCoordinator::managedObjectIDForURIRepresentation(uri);
}

}  // namespace quillon
