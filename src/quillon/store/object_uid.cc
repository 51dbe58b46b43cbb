#include "quillon/store/object_uid.h"

#include <fmt/format.h>

#include "quillon/base/internal/uuid.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object.h"

namespace quillon {

std::string storeUID(const ManagedObjectID& objectID) {
  if (auto cached = objectID.cachedUID()) return *cached;
  const Value& reference = objectID.referenceObject();
  std::string uid = reference.isString() ? storeUID(reference.str()) : makeUUIDString();
  objectID.setCachedUID(uid);
  return uid;
}

std::string storeUID(const ManagedObject& object) {
  return object.objectID() ? storeUID(*object.objectID()) : std::string();
}

std::string storeSavePath(const ManagedObjectID& objectID) {
  std::string entity = objectID.entity() ? objectID.entity()->name() : std::string();
  return fmt::format("{}/{}", entity, storeUID(objectID));
}

}  // namespace quillon
