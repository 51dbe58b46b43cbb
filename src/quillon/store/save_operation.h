#pragma once

#include <memory>

#include "quillon/base/operation_queue.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class QuillonStore;

// Writes one object record (compact JSON, encrypted with the store's
// password) atomically and then tells the store's cache. Made by the saving
// thread, run by the store's save queue.
class QuillonManagedObjectSaveOperation : public Operation {
 public:
  QuillonManagedObjectSaveOperation(std::weak_ptr<QuillonStore> store, ManagedObjectIDPtr objectID,
                                    Value record, Url url);

 protected:
  void main() override;

 private:
  std::weak_ptr<QuillonStore> store_;
  ManagedObjectIDPtr objectID_;
  Value record_;
  Url url_;
};

}  // namespace quillon
