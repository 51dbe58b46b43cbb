#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/graph/attribute_description.h"
#include "quillon/graph/relationship_description.h"

namespace quillon {

class ManagedObjectModel;

// An entity of a data model: a class of objects with attributes and
// relationships. Sub-entities inherit every property of their parent; their
// property list starts with the inherited ones. Owned by its
// ManagedObjectModel; immutable and readable from any thread once built.
class EntityDescription {
 public:
  EntityDescription(std::string name, const ManagedObjectModel* model)
      : name_(std::move(name)), model_(model) {}
  EntityDescription(const EntityDescription&) = delete;
  EntityDescription& operator=(const EntityDescription&) = delete;

  const std::string& name() const { return name_; }
  const ManagedObjectModel* managedObjectModel() const { return model_; }
  const EntityDescription* superentity() const { return superentity_; }
  // Direct sub-entities in model order.
  const std::vector<const EntityDescription*>& subentities() const { return subentities_; }
  // Every entity below this one, depth first in model order, without itself.
  std::vector<const EntityDescription*> allSubentities() const;
  bool isAbstract() const { return abstract_; }

  // Inherited properties first, then the entity's own, each group in model
  // order.
  const std::vector<const PropertyDescription*>& properties() const { return properties_; }
  // The position of a property in properties(), or -1.
  int indexOfProperty(std::string_view name) const;
  const PropertyDescription* property(std::string_view name) const;
  const AttributeDescription* attribute(std::string_view name) const;
  const RelationshipDescription* relationship(std::string_view name) const;
  const std::map<std::string, const AttributeDescription*, std::less<>>& attributesByName() const {
    return attributesByName_;
  }
  const std::map<std::string, const RelationshipDescription*, std::less<>>& relationshipsByName()
      const {
    return relationshipsByName_;
  }

  // Whether this entity is `other` or one of its sub-entities.
  bool isKindOfEntity(const EntityDescription* other) const;

 private:
  friend class ManagedObjectModel;
  std::string name_;
  const ManagedObjectModel* model_;
  const EntityDescription* superentity_ = nullptr;
  std::vector<const EntityDescription*> subentities_;
  bool abstract_ = false;
  // The properties this entity declares (owned here).
  std::vector<std::unique_ptr<PropertyDescription>> ownProperties_;
  std::vector<const PropertyDescription*> properties_;
  std::map<std::string, int, std::less<>> indexByName_;
  std::map<std::string, const AttributeDescription*, std::less<>> attributesByName_;
  std::map<std::string, const RelationshipDescription*, std::less<>> relationshipsByName_;
};

}  // namespace quillon
