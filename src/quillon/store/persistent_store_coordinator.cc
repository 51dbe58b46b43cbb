#include "quillon/store/persistent_store_coordinator.h"

namespace quillon {

// PENDING
ManagedObjectIDPtr QuillonPersistentStoreCoordinator::managedObjectIDForURIRepresentation(
    const Url&) const {
  return nullptr;
}

}  // namespace quillon
