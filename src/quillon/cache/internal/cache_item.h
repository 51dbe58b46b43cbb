#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/coding/internal/dc_ns_coding.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class EntityDescription;
class ManagedObjectContext;
class QuillonCacheDictionary;
class QuillonCacheSource;

// The cached stored state of one object: attribute values (in memory form),
// relations as stored references ("Entity/UID"), the file names of external
// binary values and scratch extra data. Relations and external data are
// parsed on demand; parsed forms and the memoised value dictionary live in
// memory only. Keyed-coded under "attributes", "relations", "extraData",
// "data", "state" (class name "QuillonCacheItem").
//
// Held by a value shard (Value::object); updates lock the owning shard (or
// the item when it has none), then the item. The item's own lock guards only
// the swap of its fields: every field holds a container that is never
// changed once installed, so readers work on what they took without locks.
// The item never calls the store while holding a lock. Any thread.
class QuillonCacheItem final : public Object, public DCNSCoding {
 public:
  static constexpr std::string_view kClassName = "QuillonCacheItem";
  // Registers the keyed-coding factory (idempotent; the cache calls it).
  static void registerCoding();

  QuillonCacheItem();

  // Applies one record's payload (property name → entry) over the item.
  // Raises the "No Transformer" exception for an attribute type without a
  // value transformer, leaving the item unchanged.
  void updateValues(const Value& values, const EntityDescription& entity, const Url& url,
                    const Value& version);

  Value attributesForObjectID(const ManagedObjectIDPtr& objectID, QuillonCacheSource* source,
                              ManagedObjectContext* context);
  // Attributes, to-one relations (identifiers), external data.
  Value valuesForObjectID(const ManagedObjectIDPtr& objectID, QuillonCacheSource* source,
                          ManagedObjectContext* context);
  // Attributes, to-one and to-many relations, external data; memoised.
  Value allValuesForObjectID(const ManagedObjectIDPtr& objectID, QuillonCacheSource* source,
                             ManagedObjectContext* context);
  Value valueForKey(std::string_view key, const ManagedObjectIDPtr& objectID, QuillonCacheSource* source,
                    ManagedObjectContext* context);
  Value parseDataForObjectID(const ManagedObjectIDPtr& objectID, QuillonCacheSource* source);
  Value parseRelationsForObjectID(const ManagedObjectIDPtr& objectID, QuillonCacheSource* source,
                                  bool toMany);

  void compact();
  void resetExtraData();
  void setExtraData(Value value, const std::string& key);
  Value extraDataForKey(const Value& key);

  Value attributes() const;
  Value relations() const;
  Value data() const;
  Value extraData() const;
  Value state() const;
  void setCollection(const std::shared_ptr<QuillonCacheDictionary>& collection);
  std::shared_ptr<QuillonCacheDictionary> collection() const;

  // Object and DCNSCoding.
  std::string className() const override { return std::string(kClassName); }
  void encodeWithCoder(DCNSCoder& coder) const override;
  void forEachValue(const std::function<void(const Value&)>& visit) const override;

 private:
  // A consistent view of the stored fields with their parsed forms.
  struct Forms {
    Value attributes, toOne, toMany, data;
    uint64_t generation = 0;
  };
  // The view, parsing (and keeping) the to-one relations and, when asked
  // for, the to-many relations and external data not parsed yet.
  Forms forms(const ManagedObjectIDPtr& objectID, QuillonCacheSource* source, bool withToMany,
              bool withData);
  // Installs a parsed or memoised form unless an update came in meanwhile.
  void installIfCurrent(Value QuillonCacheItem::*field, Value value, uint64_t generation);
  Value snapshot(const Value QuillonCacheItem::*field) const;

  mutable std::recursive_mutex mutex_;
  uint64_t generation_ = 0;  // counts updates, under mutex_
  Value attributes_;
  Value relations_;
  Value data_;
  Value parsedToOneRelations_;
  Value parsedToManyRelations_;
  Value parsedData_;
  Value dictionary_;
  Value extraData_;
  Value state_;
  std::weak_ptr<QuillonCacheDictionary> collection_;
};

// The shard key of an object: entity name, "_", the first character of the
// uid (which must not be empty).
std::string storeKeyFor(std::string_view entityName, std::string_view uid);

}  // namespace quillon
