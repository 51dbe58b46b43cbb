#pragma once

#include <cstdint>

#include "quillon/base/value.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class PropertyDescription;

// The values of one object as a store hands them to the object graph when a
// fault fills: a dictionary property name → value and a version number.
// Attributes are values of their attribute's kind; a to-one relationship is
// Value::object of the destination's ManagedObjectID (nil when empty); a
// to-many relationship is a collection of such identifiers, or absent when
// the store answers it lazily through newValueForRelationship. Made by a
// store and then only read; stores may subclass it to carry more.
class IncrementalStoreNode {
 public:
  IncrementalStoreNode(ManagedObjectIDPtr objectID, Value values, uint64_t version);
  virtual ~IncrementalStoreNode() = default;

  const ManagedObjectIDPtr& objectID() const { return objectID_; }
  const Value& values() const { return values_; }
  uint64_t version() const { return version_; }
  void updateWithValues(Value values, uint64_t version);
  // The value for a property, nil when the node has none.
  Value valueForPropertyDescription(const PropertyDescription& property) const;

 private:
  ManagedObjectIDPtr objectID_;
  Value values_;
  uint64_t version_;
};

}  // namespace quillon
