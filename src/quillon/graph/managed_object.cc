#include "quillon/graph/managed_object.h"

#include <fmt/format.h>

#include <algorithm>

#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/graph/validation_error.h"

namespace quillon {

namespace {

// The objects a relationship value holds, in order.
std::vector<ManagedObjectPtr> membersOf(const Value& value) {
  std::vector<ManagedObjectPtr> out;
  if (value.isObject()) {
    if (auto o = managedObjectFromValue(value)) out.push_back(std::move(o));
  } else {
    for (const Value& e : value.elements()) {
      if (auto o = managedObjectFromValue(e)) out.push_back(std::move(o));
    }
  }
  return out;
}

bool containsObject(const std::vector<ManagedObjectPtr>& list, const ManagedObject* object) {
  return std::any_of(list.begin(), list.end(), [&](const auto& o) { return o.get() == object; });
}

Value emptyCollection(const RelationshipDescription& relationship) {
  return relationship.isOrdered() ? Value::orderedSet() : Value::set();
}

// Number of characters (code points) of UTF-8 text.
size_t characterCount(std::string_view text) {
  size_t n = 0;
  for (unsigned char c : text) {
    if ((c & 0xC0) != 0x80) ++n;
  }
  return n;
}

}  // namespace

ManagedObjectPtr managedObjectFromValue(const Value& value) {
  if (!value.isObject()) return nullptr;
  return std::dynamic_pointer_cast<ManagedObject>(value.objectValue());
}

ManagedObject::ManagedObject(const EntityDescription* entity, ManagedObjectContext* context)
    : entity_(entity),
      context_(context),
      values_(entity->properties().size()),
      committed_(entity->properties().size()) {}

ManagedObject::~ManagedObject() = default;

bool ManagedObject::isUpdated() const { return context_ && context_->updated_.contains(this); }

std::string ManagedObject::className() const { return entity_->name(); }

std::string ManagedObject::description() const {
  return fmt::format("<{}: {}{}>", entity_->name(), objectID_ ? objectID_->uriString() : "",
                     fault_ ? " (fault)" : "");
}

Value ManagedObject::valueForKey(std::string_view key) const {
  // Reading may fill the fault; the object's identity and contract stay const.
  auto* self = const_cast<ManagedObject*>(this);
  if (entity_->indexOfProperty(key) >= 0) return self->value(key);
  if (key == "objectID") return objectID_ ? Value::object(objectID_) : Value();
  if (key == "entity") return Value(entity_->name());
  if (key == "changedValues") return self->changedValues();
  if (key == "isInserted") return Value(isInserted());
  if (key == "isUpdated") return Value(isUpdated());
  if (key == "isDeleted") return Value(isDeleted());
  if (key == "isFault") return Value(isFault());
  if (key == "hasChanges") return Value(hasChanges());
  return Value();
}

void ManagedObject::fireFault() {
  if (!fault_ || !context_) return;
  fault_ = false;
  Error error;
  context_->fulfillFault(*this, &error);
}

void ManagedObject::loadRelationship(size_t index) {
  fireFault();
  if (!values_[index].isNil()) return;
  const auto* relationship =
      static_cast<const RelationshipDescription*>(entity_->properties()[index]);
  if (!relationship->isToMany()) return;
  Value loaded = context_ && !inserted_ ? context_->loadRelationship(*this, *relationship)
                                        : emptyCollection(*relationship);
  values_[index] = loaded;
  if (hasCommitted_ && committed_[index].isNil()) committed_[index] = loaded;
}

Value ManagedObject::storedValue(size_t index) {
  fireFault();
  const PropertyDescription* property = entity_->properties()[index];
  if (property->isRelationship() &&
      static_cast<const RelationshipDescription*>(property)->isToMany()) {
    loadRelationship(index);
  }
  return values_[index];
}

Value ManagedObject::value(std::string_view key) {
  int index = entity_->indexOfProperty(key);
  if (index < 0) return Value();
  willAccessValueForKey(key);
  Value v = storedValue(static_cast<size_t>(index));
  return v.isSequence() ? v.copy() : v;
}

Value ManagedObject::primitiveValue(std::string_view key) {
  int index = entity_->indexOfProperty(key);
  if (index < 0) return Value();
  Value v = storedValue(static_cast<size_t>(index));
  return v.isSequence() ? v.copy() : v;
}

void ManagedObject::willAccessValueForKey(std::string_view) { fireFault(); }

bool ManagedObject::setPrimitiveValue(std::string_view key, Value value) {
  int index = entity_->indexOfProperty(key);
  if (index < 0) return false;
  fireFault();
  const PropertyDescription* property = entity_->properties()[static_cast<size_t>(index)];
  if (property->isAttribute()) {
    values_[static_cast<size_t>(index)] = value.isNull() ? Value() : value;
    return true;
  }
  Value normalized;
  if (!normalizeRelationshipValue(*static_cast<const RelationshipDescription*>(property), value,
                                  &normalized, nullptr)) {
    return false;
  }
  values_[static_cast<size_t>(index)] = normalized;
  return true;
}

void ManagedObject::willChangeValueForKey(std::string_view key) {
  int index = entity_->indexOfProperty(key);
  if (index < 0) return;
  Value old = storedValue(static_cast<size_t>(index));
  pendingChanges_.emplace_back(static_cast<size_t>(index), old);
}

void ManagedObject::didChangeValueForKey(std::string_view key) {
  int index = entity_->indexOfProperty(key);
  if (index < 0) return;
  size_t i = static_cast<size_t>(index);
  Value old = values_[i];
  bool found = false;
  for (auto it = pendingChanges_.rbegin(); it != pendingChanges_.rend(); ++it) {
    if (it->first == i) {
      old = it->second;
      pendingChanges_.erase(std::next(it).base());
      found = true;
      break;
    }
  }
  bool changed = found && !(old == values_[i]);
  if (context_) context_->objectDidChange(*this, i, old, changed);
}

void ManagedObject::changePrimitive(size_t index, Value value) {
  const std::string& name = entity_->properties()[index]->name();
  willChangeValueForKey(name);
  values_[index] = std::move(value);
  didChangeValueForKey(name);
}

Error ManagedObject::validationError(int64_t code, std::string_view key, std::string description,
                                     const Value& value) const {
  Value info = Value::dictionary({{"NSLocalizedDescription", description}}, true);
  auto self = std::const_pointer_cast<ManagedObject>(weak_from_this().lock());
  if (self) info.set(std::string(kValidationObjectErrorKey), Value::object(self));
  info.set(std::string(kValidationKeyErrorKey), Value(key));
  if (!value.isNil()) info.set(std::string(kValidationValueErrorKey), value);
  return Error(std::string(kCocoaErrorDomain), code, info);
}

bool ManagedObject::normalizeRelationshipValue(const RelationshipDescription& relationship,
                                               const Value& value, Value* normalized,
                                               Error* error) const {
  auto refuse = [&](std::string problem) {
    if (error) {
      *error = validationError(
          kManagedObjectValidationError, relationship.name(),
          fmt::format("Unacceptable value for relationship: entity = {}; property = \"{}\"; {}.",
                      entity_->name(), relationship.name(), problem),
          value);
    }
    return false;
  };
  auto check = [&](const Value& element, ManagedObjectPtr* out) {
    ManagedObjectPtr object = managedObjectFromValue(element);
    if (!object) {
      return refuse(
          fmt::format("given {} instead of a managed object", Value::kindName(element.kind())));
    }
    if (!object->entity()->isKindOfEntity(relationship.destinationEntity())) {
      return refuse(fmt::format("given an object of entity {}, not {}", object->entity()->name(),
                                relationship.destinationEntity()->name()));
    }
    if (object->context_ != context_) {
      return refuse("the object belongs to another context");
    }
    *out = std::move(object);
    return true;
  };
  if (value.isNil() || value.isNull()) {
    *normalized = relationship.isToMany() ? emptyCollection(relationship) : Value();
    return true;
  }
  if (!relationship.isToMany()) {
    if (!value.isObject()) {
      return refuse(
          fmt::format("given {} for a to-one relationship", Value::kindName(value.kind())));
    }
    ManagedObjectPtr object;
    if (!check(value, &object)) return false;
    *normalized = Value::object(object);
    return true;
  }
  if (!value.isSequence()) {
    return refuse(
        fmt::format("given {} for a to-many relationship", Value::kindName(value.kind())));
  }
  Value collection = emptyCollection(relationship);
  for (const Value& element : value.elements()) {
    ManagedObjectPtr object;
    if (!check(element, &object)) return false;
    collection.append(Value::object(object));
  }
  *normalized = collection;
  return true;
}

bool ManagedObject::setValue(std::string_view key, Value value, Error* error) {
  int index = entity_->indexOfProperty(key);
  if (index < 0) {
    if (error) {
      *error = validationError(
          kManagedObjectValidationError, key,
          fmt::format("The entity {} has no property named \"{}\".", entity_->name(), key), value);
    }
    return false;
  }
  size_t i = static_cast<size_t>(index);
  const PropertyDescription* property = entity_->properties()[i];
  if (property->isAttribute()) {
    Value normalized;
    Error typeError;
    if (!static_cast<const AttributeDescription*>(property)->acceptValue(value, &normalized,
                                                                         &typeError)) {
      if (error) {
        Value info = typeError.userInfo().mutableCopy();
        if (auto self = weak_from_this().lock()) {
          info.set(std::string(kValidationObjectErrorKey), Value::object(self));
        }
        *error = Error(typeError.domain(), typeError.code(), info);
      }
      return false;
    }
    changePrimitive(i, normalized);
    return true;
  }
  const auto& relationship = *static_cast<const RelationshipDescription*>(property);
  Value normalized;
  if (!normalizeRelationshipValue(relationship, value, &normalized, error)) return false;
  setRelationship(i, relationship, normalized);
  return true;
}

void ManagedObject::setRelationship(size_t index, const RelationshipDescription& relationship,
                                    Value value) {
  Value old = storedValue(index);
  if (old == value) return;
  changePrimitive(index, value);
  const RelationshipDescription* inverse = relationship.inverseRelationship();
  if (!inverse) return;
  std::vector<ManagedObjectPtr> before = membersOf(old);
  std::vector<ManagedObjectPtr> after = membersOf(value);
  for (const auto& removed : before) {
    if (!containsObject(after, removed.get())) removed->inverseRemove(*inverse, this);
  }
  for (const auto& added : after) {
    if (!containsObject(before, added.get())) added->inverseAdd(*inverse, this);
  }
}

void ManagedObject::inverseRemove(const RelationshipDescription& relationship,
                                  ManagedObject* other) {
  int index = entity_->indexOfProperty(relationship.name());
  if (index < 0) return;
  size_t i = static_cast<size_t>(index);
  Value current = storedValue(i);
  if (!relationship.isToMany()) {
    if (managedObjectFromValue(current).get() == other) changePrimitive(i, Value());
    return;
  }
  Value kept = emptyCollection(relationship);
  bool found = false;
  for (const Value& e : current.elements()) {
    if (managedObjectFromValue(e).get() == other) {
      found = true;
    } else {
      kept.append(e);
    }
  }
  if (found) changePrimitive(i, kept);
}

void ManagedObject::inverseAdd(const RelationshipDescription& relationship, ManagedObject* other) {
  int index = entity_->indexOfProperty(relationship.name());
  if (index < 0) return;
  size_t i = static_cast<size_t>(index);
  Value current = storedValue(i);
  ManagedObjectPtr otherPtr = other->shared_from_this();
  if (!relationship.isToMany()) {
    ManagedObjectPtr previous = managedObjectFromValue(current);
    if (previous.get() == other) return;
    // A to-one side can point at one object only: the previous owner lets go.
    if (previous && relationship.inverseRelationship()) {
      previous->inverseRemove(*relationship.inverseRelationship(), this);
    }
    changePrimitive(i, Value::object(otherPtr));
    return;
  }
  Value object = Value::object(otherPtr);
  if (current.contains(object)) return;
  Value grown = emptyCollection(relationship);
  for (const Value& e : current.elements()) grown.append(e);
  grown.append(object);
  changePrimitive(i, grown);
}

bool ManagedObject::addObject(std::string_view key, const ManagedObjectPtr& object, Error* error) {
  const RelationshipDescription* relationship = entity_->relationship(key);
  if (!relationship || !relationship->isToMany())
    return setValue(key, Value::set({Value::object(object)}), error);
  Value current = storedValue(static_cast<size_t>(entity_->indexOfProperty(key)));
  Value grown = Value::array();
  for (const Value& e : current.elements()) grown.append(e);
  grown.append(Value::object(object));
  return setValue(key, grown, error);
}

bool ManagedObject::removeObject(std::string_view key, const ManagedObjectPtr& object,
                                 Error* error) {
  const RelationshipDescription* relationship = entity_->relationship(key);
  if (!relationship || !relationship->isToMany()) return setValue(key, Value::set(), error);
  Value current = storedValue(static_cast<size_t>(entity_->indexOfProperty(key)));
  Value kept = Value::array();
  for (const Value& e : current.elements()) {
    if (managedObjectFromValue(e) != object) kept.append(e);
  }
  return setValue(key, kept, error);
}

bool ManagedObject::insertObject(std::string_view key, const ManagedObjectPtr& object, size_t index,
                                 Error* error) {
  const RelationshipDescription* relationship = entity_->relationship(key);
  if (!relationship || !relationship->isOrdered()) {
    return setValue(key, Value::set({Value::object(object)}), error);
  }
  Value current = storedValue(static_cast<size_t>(entity_->indexOfProperty(key)));
  Value ordered = Value::array();
  for (const Value& e : current.elements()) {
    if (managedObjectFromValue(e) != object) ordered.append(e);
  }
  ordered.insert(std::min(index, ordered.size()), Value::object(object));
  return setValue(key, ordered, error);
}

bool ManagedObject::valueDiffers(size_t index) const {
  const Value& current = values_[index];
  Value committed = hasCommitted_ ? committed_[index] : Value();
  const PropertyDescription* property = entity_->properties()[index];
  if (property->isRelationship() &&
      static_cast<const RelationshipDescription*>(property)->isToMany()) {
    if (current.isNil()) return false;  // never loaded, so never changed
    if (committed.isNil()) return !current.empty();
  }
  return !(current == committed);
}

Value ManagedObject::changedValues() {
  Value result = Value::dictionary(true);
  if (fault_) return result;
  for (size_t i = 0; i < values_.size(); ++i) {
    if (valueDiffers(i)) {
      const Value& v = values_[i];
      result.set(entity_->properties()[i]->name(), v.isSequence() ? v.copy() : v);
    }
  }
  return result;
}

Value ManagedObject::committedValuesForKeys(const std::vector<std::string>& keys) {
  Value result = Value::dictionary(true);
  fireFault();
  if (!hasCommitted_) return result;
  auto add = [&](size_t i) {
    const PropertyDescription* property = entity_->properties()[i];
    if (committed_[i].isNil() && property->isRelationship()) loadRelationship(i);
    const Value& v = committed_[i];
    if (!v.isNil()) result.set(property->name(), v.isSequence() ? v.copy() : v);
  };
  if (keys.empty()) {
    for (size_t i = 0; i < committed_.size(); ++i) add(i);
  } else {
    for (const auto& key : keys) {
      int index = entity_->indexOfProperty(key);
      if (index >= 0) add(static_cast<size_t>(index));
    }
  }
  return result;
}

void ManagedObject::collectErrors(bool forInsert, std::vector<Error>* errors) {
  fireFault();
  const auto& properties = entity_->properties();
  for (size_t i = 0; i < properties.size(); ++i) {
    const PropertyDescription* property = properties[i];
    const std::string& name = property->name();
    if (property->isAttribute()) {
      const Value& v = values_[i];
      if (v.isNil()) {
        if (!property->isOptional()) {
          errors->push_back(validationError(kValidationMissingMandatoryPropertyError, name,
                                            fmt::format("{} is a required value.", name), v));
        }
        continue;
      }
      std::string problem;
      if (Error e = [&] {
            Error err;
            Value ignored;
            static_cast<const AttributeDescription*>(property)->acceptValue(v, &ignored, &err);
            return err;
          }()) {
        auto* attribute = static_cast<const AttributeDescription*>(property);
        int64_t code = attribute->attributeType() == AttributeType::Date
                           ? kValidationInvalidDateError
                           : kManagedObjectValidationError;
        errors->push_back(validationError(code, name, fmt::format("{} is invalid.", name), v));
        continue;
      }
      const auto* attribute = static_cast<const AttributeDescription*>(property);
      const Value& lo = attribute->minValue();
      const Value& hi = attribute->maxValue();
      switch (attribute->attributeType()) {
        case AttributeType::String: {
          size_t length = characterCount(v.str());
          if (!hi.isNil() && double(length) > hi.doubleValue()) {
            errors->push_back(validationError(kValidationStringTooLongError, name,
                                              fmt::format("{} is too long.", name), v));
          } else if (!lo.isNil() && double(length) < lo.doubleValue()) {
            errors->push_back(validationError(kValidationStringTooShortError, name,
                                              fmt::format("{} is too short.", name), v));
          } else if (!attribute->matchesPattern(v.str())) {
            errors->push_back(validationError(kValidationStringPatternMatchingError, name,
                                              fmt::format("{} is invalid.", name), v));
          }
          break;
        }
        case AttributeType::Date:
          if (!hi.isNil() && v.dateValue() > hi.dateValue()) {
            errors->push_back(validationError(kValidationDateTooLateError, name,
                                              fmt::format("{} is too late.", name), v));
          } else if (!lo.isNil() && v.dateValue() < lo.dateValue()) {
            errors->push_back(validationError(kValidationDateTooSoonError, name,
                                              fmt::format("{} is too early.", name), v));
          }
          break;
        case AttributeType::Integer16:
        case AttributeType::Integer32:
        case AttributeType::Integer64:
        case AttributeType::Decimal:
        case AttributeType::Double:
        case AttributeType::Float:
          if (!hi.isNil() && v.doubleValue() > hi.doubleValue()) {
            errors->push_back(validationError(kValidationNumberTooLargeError, name,
                                              fmt::format("{} is too large.", name), v));
          } else if (!lo.isNil() && v.doubleValue() < lo.doubleValue()) {
            errors->push_back(validationError(kValidationNumberTooSmallError, name,
                                              fmt::format("{} is too small.", name), v));
          }
          break;
        default:
          break;
      }
      continue;
    }
    const auto* relationship = static_cast<const RelationshipDescription*>(property);
    const Value& v = values_[i];
    if (relationship->isToMany() && v.isNil()) continue;  // never loaded, so unchanged
    std::vector<ManagedObjectPtr> members = membersOf(v);
    if (!relationship->isToMany()) {
      if (members.empty() && !relationship->isOptional()) {
        errors->push_back(validationError(kValidationMissingMandatoryPropertyError, name,
                                          fmt::format("{} is a required value.", name), v));
      }
    } else if (members.empty()) {
      if (!relationship->isOptional()) {
        errors->push_back(validationError(kValidationRelationshipLacksMinimumCountError, name,
                                          fmt::format("Too few items in {}.", name), v));
      }
    } else if (relationship->minCount() && members.size() < relationship->minCount()) {
      errors->push_back(validationError(kValidationRelationshipLacksMinimumCountError, name,
                                        fmt::format("Too few items in {}.", name), v));
    } else if (relationship->maxCount() && members.size() > relationship->maxCount()) {
      errors->push_back(validationError(kValidationRelationshipExceedsMaximumCountError, name,
                                        fmt::format("Too many items in {}.", name), v));
    }
    for (const auto& member : members) {
      if (member->deleted_ || member->context_ != context_ || !context_ ||
          !member->existsInStore()) {
        errors->push_back(validationError(
            kManagedObjectValidationError, name,
            fmt::format("Dangling reference to an invalid object in {}.{}.", entity_->name(), name),
            Value::object(member)));
        break;
      }
    }
  }
  (void)forInsert;
}

bool ManagedObject::existsInStore() const {
  if (!context_ || inserted_ || !objectID_ || objectID_->isTemporaryID()) return true;
  std::shared_ptr<PersistentStoreCoordinator> coordinator = context_->persistentStoreCoordinator();
  return !coordinator || coordinator->hasObjectWithID(objectID_);
}

bool ManagedObject::validateForInsert(Error* error) {
  std::vector<Error> errors;
  collectErrors(true, &errors);
  if (errors.empty()) return true;
  if (error) *error = combinedValidationError(errors);
  return false;
}

bool ManagedObject::validateForUpdate(Error* error) {
  std::vector<Error> errors;
  collectErrors(false, &errors);
  if (errors.empty()) return true;
  if (error) *error = combinedValidationError(errors);
  return false;
}

bool ManagedObject::validateForDelete(Error* error) {
  std::vector<Error> errors;
  const auto& properties = entity_->properties();
  for (size_t i = 0; i < properties.size(); ++i) {
    if (!properties[i]->isRelationship()) continue;
    const auto* relationship = static_cast<const RelationshipDescription*>(properties[i]);
    if (relationship->deleteRule() != DeleteRule::Deny) continue;
    Value v = storedValue(i);
    if (!membersOf(v).empty()) {
      errors.push_back(
          validationError(kValidationRelationshipDeniedDeleteError, relationship->name(),
                          fmt::format("The {} could not be deleted because {} is not empty.",
                                      entity_->name(), relationship->name()),
                          v.isSequence() ? v.copy() : v));
    }
  }
  if (errors.empty()) return true;
  if (error) *error = combinedValidationError(errors);
  return false;
}

bool ManagedObject::validateValueForKey(std::string_view key, Error* error) {
  std::vector<Error> errors;
  collectErrors(false, &errors);
  std::vector<Error> mine;
  for (auto& e : errors) {
    if (e.userInfo().get(kValidationKeyErrorKey).str() == key) mine.push_back(e);
  }
  if (mine.empty()) return true;
  if (error) *error = combinedValidationError(mine);
  return false;
}

void ManagedObject::turnIntoFault() {
  std::fill(values_.begin(), values_.end(), Value());
  std::fill(committed_.begin(), committed_.end(), Value());
  pendingChanges_.clear();
  hasCommitted_ = false;
  bool wasFault = fault_;
  fault_ = true;
  if (!wasFault) didTurnIntoFault();
}

void ManagedObject::detach() {
  turnIntoFault();
  context_ = nullptr;
  inserted_ = false;
}

}  // namespace quillon
