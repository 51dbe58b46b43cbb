#include "quillon/cache/cache_item.h"

#include "quillon/cache/cache_collection.h"

namespace quillon {

// PENDING
void QuillonCacheItem::registerCoding() {}
// PENDING
QuillonCacheItem::QuillonCacheItem() = default;
// PENDING
void QuillonCacheItem::updateValues(const Value&, const EntityDescription&, const Url&,
                                    const Value&) {}
// PENDING
Value QuillonCacheItem::attributesForObjectID(const ManagedObjectIDPtr&, QuillonStore*,
                                              ManagedObjectContext*) {
  return Value();
}
// PENDING
Value QuillonCacheItem::valuesForObjectID(const ManagedObjectIDPtr&, QuillonStore*,
                                          ManagedObjectContext*) {
  return Value();
}
// PENDING
Value QuillonCacheItem::allValuesForObjectID(const ManagedObjectIDPtr&, QuillonStore*,
                                             ManagedObjectContext*) {
  return Value();
}
// PENDING
Value QuillonCacheItem::valueForKey(std::string_view, const ManagedObjectIDPtr&, QuillonStore*,
                                    ManagedObjectContext*) {
  return Value();
}
// PENDING
Value QuillonCacheItem::parseDataForObjectID(const ManagedObjectIDPtr&, QuillonStore*) {
  return Value();
}
// PENDING
Value QuillonCacheItem::parseRelationsForObjectID(const ManagedObjectIDPtr&, QuillonStore*, bool) {
  return Value();
}
// PENDING
void QuillonCacheItem::compact() {}
// PENDING
void QuillonCacheItem::resetExtraData() {}
// PENDING
void QuillonCacheItem::setExtraData(Value, const std::string&) {}
// PENDING
Value QuillonCacheItem::extraDataForKey(const Value&) { return Value(); }
// PENDING
Value QuillonCacheItem::attributes() const { return Value(); }
// PENDING
Value QuillonCacheItem::relations() const { return Value(); }
// PENDING
Value QuillonCacheItem::data() const { return Value(); }
// PENDING
Value QuillonCacheItem::extraData() const { return Value(); }
// PENDING
Value QuillonCacheItem::state() const { return Value(); }
// PENDING
void QuillonCacheItem::setCollection(const std::shared_ptr<QuillonCacheDictionary>&) {}
// PENDING
std::shared_ptr<QuillonCacheDictionary> QuillonCacheItem::collection() const { return nullptr; }
// PENDING
void QuillonCacheItem::encodeWithCoder(DCNSCoder&) const {}
// PENDING
std::recursive_mutex& QuillonCacheItem::updateLock() const { return mutex_; }

// PENDING
std::string storeKeyFor(std::string_view, std::string_view) { return {}; }

}  // namespace quillon
