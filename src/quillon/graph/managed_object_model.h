#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/graph/entity_description.h"

namespace quillon {

// An application's data model: its entities in model order. Built once from
// the JSON model file and immutable afterwards, so it is shared (by
// shared_ptr) between coordinators, contexts and stores on any thread.
//
// The model file:
//   {"entities": [{"name": "Note", "parent": null, "abstract": false,
//     "attributes": [{"name": "title", "type": "string", "optional": true,
//                     "default": null, "minValue": 1, "maxValue": 80,
//                     "regularExpression": "...", "transformer": "..."}],
//     "relationships": [{"name": "folder", "destination": "Folder",
//                        "toMany": false, "ordered": false, "inverse": "notes",
//                        "deleteRule": "nullify", "optional": true,
//                        "minCount": 0, "maxCount": 0}]}]}
// Properties are optional unless "optional" is false; entities may be listed in
// any order. Date defaults are seconds since 2001-01-01 UTC.
class ManagedObjectModel {
 public:
  // Nullptr and *error (domain "NSCocoaErrorDomain", code 134020) for a
  // model that cannot be used; the description names the entity and the
  // property at fault.
  static std::shared_ptr<const ManagedObjectModel> fromJSON(std::string_view text,
                                                            Error* error = nullptr);

  ManagedObjectModel(const ManagedObjectModel&) = delete;
  ManagedObjectModel& operator=(const ManagedObjectModel&) = delete;

  const std::vector<const EntityDescription*>& entities() const { return entityList_; }
  const std::map<std::string, const EntityDescription*, std::less<>>& entitiesByName() const {
    return entitiesByName_;
  }
  const EntityDescription* entity(std::string_view name) const;

 private:
  ManagedObjectModel() = default;
  class Parser;
  std::vector<std::unique_ptr<EntityDescription>> entities_;
  std::vector<const EntityDescription*> entityList_;
  std::map<std::string, const EntityDescription*, std::less<>> entitiesByName_;
};

// The error code of a model that cannot be used.
inline constexpr int64_t kManagedObjectModelInvalidError = 134020;

}  // namespace quillon
