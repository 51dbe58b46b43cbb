#include "quillon/base/operation_queue.h"
#include "quillon/store/store.h"

namespace quillon {

Value QuillonStore::executeSaveRequest(const SaveChangesRequest&, ManagedObjectContext*) {
  // PENDING
  return Value();
}

void QuillonStore::writeAllObjectsInContext(const std::shared_ptr<ManagedObjectContext>&,
                                            QuillonStore*, const Value&,
                                            std::function<void(ManagedObjectContext*)>) {
  // PENDING
}

OperationQueue& QuillonStore::saveOperationQueue() {
  // PENDING
  std::call_once(saveQueueOnce_, [this] { saveOperationQueue_ = std::make_unique<OperationQueue>(); });
  return *saveOperationQueue_;
}

bool QuillonStore::durableSaves() const {
  // PENDING
  return false;
}

}  // namespace quillon
