#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quillon/graph/property_description.h"

namespace quillon {

// What deleting the source object does to the destination objects. The
// numbers are the classic ones.
enum class DeleteRule : int {
  NoAction = 0,  // leave the destination alone (its inverse may dangle)
  Nullify = 1,   // remove the deleted object from the destination's inverse
  Cascade = 2,   // delete the destination objects too
  Deny = 3,      // refuse to delete while the relationship holds anything
};

std::string_view deleteRuleName(DeleteRule rule);
std::optional<DeleteRule> deleteRuleFromName(std::string_view name);

// A relationship of an entity: destination entity, inverse, cardinality,
// ordering, delete rule and count limits. Owned by its ManagedObjectModel;
// immutable and readable from any thread once the model is built.
class RelationshipDescription final : public PropertyDescription {
 public:
  RelationshipDescription(std::string name, const EntityDescription* entity, bool optional)
      : PropertyDescription(std::move(name), entity, optional) {}

  bool isRelationship() const override { return true; }
  const EntityDescription* destinationEntity() const { return destination_; }
  // Nullptr when the model names no inverse.
  const RelationshipDescription* inverseRelationship() const { return inverse_; }
  bool isToMany() const { return toMany_; }
  bool isOrdered() const { return ordered_; }
  DeleteRule deleteRule() const { return deleteRule_; }
  // Limits on the number of destination objects; 0 means no limit. A to-one
  // relationship has a maximum of 1.
  uint64_t minCount() const { return minCount_; }
  uint64_t maxCount() const { return maxCount_; }

 private:
  friend class ManagedObjectModel;
  const EntityDescription* destination_ = nullptr;
  const RelationshipDescription* inverse_ = nullptr;
  bool toMany_ = false;
  bool ordered_ = false;
  DeleteRule deleteRule_ = DeleteRule::Nullify;
  uint64_t minCount_ = 0;
  uint64_t maxCount_ = 1;
};

}  // namespace quillon
