#pragma once

#include <string>

namespace quillon {

class EntityDescription;

// A named property of an entity: an attribute or a relationship. Owned by the
// ManagedObjectModel that built it; immutable once the model is loaded, so any
// thread may read it for as long as the model lives.
class PropertyDescription {
 public:
  virtual ~PropertyDescription() = default;
  PropertyDescription(const PropertyDescription&) = delete;
  PropertyDescription& operator=(const PropertyDescription&) = delete;

  const std::string& name() const { return name_; }
  // The entity that declares the property; sub-entities share it.
  const EntityDescription* entity() const { return entity_; }
  bool isOptional() const { return optional_; }
  virtual bool isAttribute() const { return false; }
  virtual bool isRelationship() const { return false; }

 protected:
  PropertyDescription(std::string name, const EntityDescription* entity, bool optional)
      : name_(std::move(name)), entity_(entity), optional_(optional) {}

 private:
  std::string name_;
  const EntityDescription* entity_;
  bool optional_;
};

}  // namespace quillon
