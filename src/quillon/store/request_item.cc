#include "quillon/store/request_item.h"

#include "quillon/cache/cache_item.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/store/store.h"

namespace quillon {
namespace {

// The context's object for an identifier value; anything else unchanged.
Value objectForValue(ManagedObjectContext* context, const Value& value) {
  ManagedObjectIDPtr id = objectIDFromValue(value);
  if (!id || !context) return value;
  ManagedObjectPtr object = context->objectWithID(id);
  return object ? Value::object(object) : Value();
}

}  // namespace

Value QuillonRequestItem::dictionary() const {
  if (!cacheItem_) return Value::dictionary();
  return cacheItem_->allValuesForObjectID(objectID_, store_, context_);
}

bool QuillonRequestItem::isEqual(const Object& other) const {
  if (const auto* id = dynamic_cast<const ManagedObjectID*>(&other)) {
    return objectID_ && objectID_->isEqual(*id);
  }
  if (const auto* object = dynamic_cast<const ManagedObject*>(&other)) {
    return objectID_ && object->objectID() && objectID_->isEqual(*object->objectID());
  }
  return this == &other;
}

size_t QuillonRequestItem::hash() const {
  // Equal identifiers and objects hash alike, so the item may meet them in sets.
  return objectID_ ? objectID_->hash() : Object::hash();
}

Value QuillonRequestItem::valueForKey(std::string_view key) const {
  if (key == "objectID") return objectID_ ? Value::object(objectID_) : Value();
  if (!cacheItem_) return Value();
  Value value = cacheItem_->valueForKey(key, objectID_, store_, context_);
  if (value.isObject()) return objectForValue(context_, value);
  if (value.isSequence()) {
    bool identifiers = !value.empty() && objectIDFromValue(value[0]) != nullptr;
    if (!identifiers) return value;
    Value objects = value.isOrderedSet() ? Value::orderedSet(true)
                    : value.isSet()      ? Value::set(true)
                                         : Value::array(true);
    for (const Value& element : value.elements()) {
      Value object = objectForValue(context_, element);
      if (!object.isNil()) objects.append(object);
    }
    return objects;
  }
  return value;
}

}  // namespace quillon
