#include "quillon/store/internal/request_item.h"

#include "quillon/cache/internal/cache_item.h"
#include "quillon/cache/cache_source.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object_context.h"

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

QuillonRequestItem::QuillonRequestItem(ManagedObjectContext* context, ManagedObjectIDPtr objectID,
                                       QuillonCacheSource* source)
    : context_(context),
      entity_(objectID ? objectID->entity() : nullptr),
      objectID_(std::move(objectID)),
      source_(source) {}

QuillonRequestItem::QuillonRequestItem(ManagedObjectContext* context,
                                       const EntityDescription* entity, Value uid,
                                       QuillonCacheSource* source)
    : context_(context), entity_(entity), uid_(std::move(uid)), source_(source) {}

const ManagedObjectIDPtr& QuillonRequestItem::objectID() const {
  if (!objectID_ && entity_ && source_ && !uid_.isNil()) {
    objectID_ = source_->newObjectIDForEntity(entity_, uid_);
  }
  return objectID_;
}

Value QuillonRequestItem::dictionary() const {
  if (!cacheItem_) return Value::dictionary();
  return cacheItem_->allValuesForObjectID(objectID(), source_, context_);
}

bool QuillonRequestItem::isEqual(const Object& other) const {
  if (const auto* id = dynamic_cast<const ManagedObjectID*>(&other)) {
    return objectID() && objectID()->isEqual(*id);
  }
  if (const auto* object = dynamic_cast<const ManagedObject*>(&other)) {
    return objectID() && object->objectID() && objectID()->isEqual(*object->objectID());
  }
  return this == &other;
}

size_t QuillonRequestItem::hash() const {
  // Equal identifiers and objects hash alike, so the item may meet them in sets.
  return objectID() ? objectID()->hash() : Object::hash();
}

Value QuillonRequestItem::valueForKey(std::string_view key) const {
  if (key == "objectID") return objectID() ? Value::object(objectID()) : Value();
  if (!cacheItem_) return Value();
  // Only a relation needs the identifier; attributes come from the item alone.
  const bool relation = entity_ && entity_->relationship(key);
  Value value = cacheItem_->valueForKey(key, relation ? objectID() : nullptr, source_, context_);
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
