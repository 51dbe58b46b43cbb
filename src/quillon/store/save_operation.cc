#include "quillon/store/save_operation.h"

#include "quillon/store/store.h"

namespace quillon {

QuillonManagedObjectSaveOperation::QuillonManagedObjectSaveOperation(
    std::weak_ptr<QuillonStore> store, ManagedObjectIDPtr objectID, Value record, Url url)
    : store_(std::move(store)),
      objectID_(std::move(objectID)),
      record_(std::move(record)),
      url_(std::move(url)) {}

void QuillonManagedObjectSaveOperation::main() {
  // PENDING
}

}  // namespace quillon
