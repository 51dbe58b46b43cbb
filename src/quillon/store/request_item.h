#pragma once

#include <memory>
#include <string>

#include "quillon/base/value.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class ManagedObjectContext;
class QuillonCacheItem;
class QuillonStore;

// PENDING
class QuillonRequestItem {
 public:
  QuillonRequestItem() = default;
};

}  // namespace quillon
