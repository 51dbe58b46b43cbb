#include "support/graph_stack.h"

#include <cstdlib>

#include "quillon/platform/main_queue.h"
#include "support/sample_models.h"

namespace quillon {

GraphStack::GraphStack(Value storeOptions) {
  MainQueue::setMainThreadToCurrent();
  InMemoryStore::registerType();
  coordinator = std::make_shared<PersistentStoreCoordinator>(notesModel());
  Error error;
  store = std::dynamic_pointer_cast<InMemoryStore>(coordinator->addPersistentStore(
      InMemoryStore::kType, *Url::parse("memory:/test"), storeOptions, &error));
  if (!store) std::abort();
  context = newContext();
}

std::shared_ptr<ManagedObjectContext> GraphStack::newContext(ConcurrencyType type) const {
  auto c = ManagedObjectContext::create(type);
  c->setPersistentStoreCoordinator(coordinator);
  return c;
}

}  // namespace quillon
