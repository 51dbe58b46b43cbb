#pragma once

#include <memory>
#include <vector>

#include "quillon/graph/persistent_store_request.h"

namespace quillon {

class ManagedObject;
using ManagedObjectPtr = std::shared_ptr<ManagedObject>;

// The changes of one context save, as the store receives them: the inserted,
// updated and deleted objects (each group in the context's order) and the
// objects the save expects unchanged. Built by the context; the store reads
// the objects' current values and committed values on the saving thread.
class SaveChangesRequest final : public PersistentStoreRequest {
 public:
  SaveChangesRequest(std::vector<ManagedObjectPtr> inserted, std::vector<ManagedObjectPtr> updated,
                     std::vector<ManagedObjectPtr> deleted, std::vector<ManagedObjectPtr> locked)
      : inserted_(std::move(inserted)),
        updated_(std::move(updated)),
        deleted_(std::move(deleted)),
        locked_(std::move(locked)) {}

  PersistentStoreRequestType requestType() const override {
    return PersistentStoreRequestType::Save;
  }
  const std::vector<ManagedObjectPtr>& insertedObjects() const { return inserted_; }
  const std::vector<ManagedObjectPtr>& updatedObjects() const { return updated_; }
  const std::vector<ManagedObjectPtr>& deletedObjects() const { return deleted_; }
  const std::vector<ManagedObjectPtr>& lockedObjects() const { return locked_; }

 private:
  std::vector<ManagedObjectPtr> inserted_;
  std::vector<ManagedObjectPtr> updated_;
  std::vector<ManagedObjectPtr> deleted_;
  std::vector<ManagedObjectPtr> locked_;
};

}  // namespace quillon
