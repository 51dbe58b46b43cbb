#include "quillon/changes/internal/object_healing.h"

#include <fmt/format.h>

#include <exception>
#include <string>
#include <vector>

#include "quillon/base/internal/system_log.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/relationship_description.h"
#include "quillon/graph/validation_error.h"

namespace quillon {
namespace {

// Stores a relation's new value as its primitive value, with the change
// notices that make the context record it. The other side is left as it
// is: it is either already consistent or an object that is gone.
void setRelation(ManagedObject& object, const std::string& key, Value value) {
  object.willChangeValueForKey(key);
  object.setPrimitiveValue(key, std::move(value));
  object.didChangeValueForKey(key);
}

// A member a relation may keep: not deleted, in a context, in its store.
bool isLiveMember(const ManagedObject& member) {
  return !member.isDeleted() && member.managedObjectContext() != nullptr &&
         member.existsInStore();
}

bool recoverOne(const Error& error) {
  if (error.domain() != kCocoaErrorDomain || error.code() != kManagedObjectValidationError) {
    return false;
  }
  ManagedObjectPtr object = managedObjectFromValue(error.userInfo().get(kValidationObjectErrorKey));
  if (!object) return false;
  const Value& key = error.userInfo().get(kValidationKeyErrorKey);
  if (!key.isString()) return false;
  const RelationshipDescription* relationship = object->entity()->relationship(key.str());
  if (relationship == nullptr) return false;
  const std::string name(key.str());
  if (!relationship->isToMany()) {
    setRelation(*object, name, Value());
    return true;
  }
  Value kept = relationship->isOrdered() ? Value::orderedSet(true) : Value::set(true);
  for (const Value& member : object->primitiveValue(name).elements()) {
    try {
      ManagedObjectPtr target = managedObjectFromValue(member);
      if (target && isLiveMember(*target)) kept.append(member);
    } catch (const std::exception&) {
      // A member that cannot even be inspected is left out.
    }
  }
  setRelation(*object, name, kept);
  return true;
}

bool heal(ManagedObject& object, bool insert) {
  Error error;
  bool valid = insert ? object.validateForInsert(&error) : object.validateForUpdate(&error);
  if (valid) return true;
  systemLog(insert ? "Trying to heal inserted Object" : "Trying to heal updated Object");
  return qlAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(error);
}

// The objects a relationship value holds.
std::vector<ManagedObjectPtr> members(const Value& value) {
  std::vector<ManagedObjectPtr> out;
  if (value.isObject()) {
    if (ManagedObjectPtr object = managedObjectFromValue(value)) out.push_back(object);
    return out;
  }
  for (const Value& member : value.elements()) {
    if (ManagedObjectPtr object = managedObjectFromValue(member)) out.push_back(object);
  }
  return out;
}

}  // namespace

bool qlValidateForInsertAndFix(ManagedObject& object) { return heal(object, true); }

bool qlValidateForUpdateAndFix(ManagedObject& object) { return heal(object, false); }

bool qlAttemptRecoveryFromPossibleCascadeDeleteRuleFailureError(const Error& error) {
  if (error.domain() == kCocoaErrorDomain && error.code() == kValidationMultipleErrorsError) {
    bool all = true;
    for (const Error& single : detailedErrors(error)) all = recoverOne(single) && all;
    return all;
  }
  return recoverOne(error);
}

bool qlCheckRelation(ManagedObject& receiver, const RelationshipDescription& relationship,
                     const ManagedObject& object) {
  if (relationship.isToMany() && relationship.isOrdered()) return true;
  const std::string& name = relationship.name();
  receiver.willAccessValueForKey(name);
  Value value = receiver.primitiveValue(name);
  receiver.didAccessValueForKey(name);
  for (const ManagedObjectPtr& member : members(value)) {
    if (member.get() == &object) return true;
  }
  return false;
}

void qlFixRelations(ManagedObject& object) {
  const EntityDescription* entity = object.entity();
  for (const PropertyDescription* property : entity->properties()) {
    if (!property->isRelationship()) continue;
    const auto* relationship = static_cast<const RelationshipDescription*>(property);
    const RelationshipDescription* inverse = relationship->inverseRelationship();
    const std::string& name = relationship->name();
    if (relationship->isToMany() && relationship->isOrdered()) continue;
    if (inverse == nullptr) continue;
    if (relationship->isToMany()) {
      object.willAccessValueForKey(name);
      Value current = object.primitiveValue(name);
      object.didAccessValueForKey(name);
      Value kept = Value::set(true);
      for (const ManagedObjectPtr& member : members(current)) {
        if (qlCheckRelation(*member, *inverse, object)) {
          kept.append(Value::object(member));
        } else {
          systemLog(fmt::format("Dead Relation in {}->{}", entity->name(), name));
        }
      }
      if (!(kept == current)) setRelation(object, name, kept);
      continue;
    }
    std::vector<ManagedObjectPtr> target = members(object.primitiveValue(name));
    if (target.empty()) continue;
    ManagedObject& other = *target.front();
    if (qlCheckRelation(other, *inverse, object)) continue;
    if (inverse->isToMany()) {
      setRelation(object, name, Value());
      systemLog(fmt::format("Dead Relation in {}->{}", entity->name(), name));
    } else {
      setRelation(other, inverse->name(), Value::object(object.shared_from_this()));
    }
  }
}

}  // namespace quillon
