#pragma once

#include <memory>

#include "quillon/graph/persistent_store_coordinator.h"

namespace quillon {

// A coordinator that resolves object URIs through its first store: entity
// from the second-to-last path component, reference from the last without
// one leading "p" and then one leading "t" (either case). Thread-safe like
// its base.
class QuillonPersistentStoreCoordinator : public PersistentStoreCoordinator {
 public:
  using PersistentStoreCoordinator::PersistentStoreCoordinator;
  ManagedObjectIDPtr managedObjectIDForURIRepresentation(const Url& uri) const override;
};

}  // namespace quillon
