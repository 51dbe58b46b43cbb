#pragma once

#include <memory>

#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "support/in_memory_store.h"

namespace quillon {

// A coordinator on the sample notes model with one InMemoryStore and a
// main-queue context, the calling thread standing in for the main thread.
struct GraphStack {
  explicit GraphStack(Value storeOptions = Value());
  std::shared_ptr<ManagedObjectContext> newContext(
      ConcurrencyType type = ConcurrencyType::MainQueue) const;

  std::shared_ptr<PersistentStoreCoordinator> coordinator;
  std::shared_ptr<InMemoryStore> store;
  std::shared_ptr<ManagedObjectContext> context;
};

}  // namespace quillon
