#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "quillon/base/value.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class EntityDescription;
class ManagedObjectContext;
class QuillonCacheItem;
class QuillonCacheSource;

// One candidate object of a fetch: predicates and sort descriptors read its
// keys from the cached stored values (valueForKey), so a fetch can filter
// and order thousands of objects without filling their faults. Relations
// come back as the context's objects.
//
// Made and dropped by QuillonFetcher::execute; used on the
// requesting context's thread only.
class QuillonRequestItem final : public Object {
 public:
  QuillonRequestItem(ManagedObjectContext* context, ManagedObjectIDPtr objectID,
                     QuillonCacheSource* source);
  // An item whose identifier is made from entity and uid when first asked
  // for: most candidates of a filtered fetch never need one.
  QuillonRequestItem(ManagedObjectContext* context, const EntityDescription* entity, Value uid,
                     QuillonCacheSource* source);

  ManagedObjectContext* context() const { return context_; }
  const ManagedObjectIDPtr& objectID() const;
  QuillonCacheSource* source() const { return source_; }
  // Set only for fetches that answer objects.
  const ManagedObjectPtr& managedObject() const { return managedObject_; }
  void setManagedObject(ManagedObjectPtr object) { managedObject_ = std::move(object); }
  // Set only when the fetch needs stored values.
  const std::shared_ptr<QuillonCacheItem>& cacheItem() const { return cacheItem_; }
  void setCacheItem(std::shared_ptr<QuillonCacheItem> item) { cacheItem_ = std::move(item); }

  // Every stored value: attributes, relations as identifiers, external data.
  Value dictionary() const;

  // Object. Equal to its own identifier and to the managed object that has
  // it; another item is equal only to itself.
  std::string className() const override { return "QuillonRequestItem"; }
  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  // "objectID" answers the identifier; any other key the stored value of
  // that property, identifiers turned into the context's objects.
  Value valueForKey(std::string_view key) const override;

 private:
  ManagedObjectContext* context_;
  const EntityDescription* entity_;
  Value uid_;
  mutable ManagedObjectIDPtr objectID_;
  QuillonCacheSource* source_;
  ManagedObjectPtr managedObject_;
  std::shared_ptr<QuillonCacheItem> cacheItem_;
};

}  // namespace quillon
