#include "quillon/cache/cache.h"

#include "quillon/base/dispatch_queue.h"
#include "quillon/base/operation_queue.h"
#include "quillon/cache/cache_collection.h"
#include "quillon/cache/cache_item.h"

namespace quillon {

// PENDING
std::shared_ptr<QuillonCache> QuillonCache::cacheForStore(QuillonStore*) { return nullptr; }
// PENDING
std::optional<Url> QuillonCache::cacheURLForStoreURL(const Url&) { return std::nullopt; }
// PENDING
void QuillonCache::resetCacheForURL(const Url&) {}
// PENDING
void QuillonCache::resetAllCaches() {}
// PENDING
bool QuillonCache::checkWritePermissionsForStoreURL(const Url&) { return false; }
// PENDING
QuillonCache::QuillonCache(QuillonStore* store) : store_(store) {}
// PENDING
QuillonCache::~QuillonCache() = default;
// PENDING
void QuillonCache::setStoreURL(const Url&) {}
// PENDING
std::optional<Url> QuillonCache::URLForKey(std::string_view) const { return std::nullopt; }
// PENDING
void QuillonCache::loadChangeLogIfNeeded() {}
// PENDING
std::shared_ptr<QuillonCacheArray> QuillonCache::changeLog() const { return nullptr; }
// PENDING
void QuillonCache::addChange(const Value&, bool) {}
// PENDING
void QuillonCache::removeChange(const Value&, bool) {}
// PENDING
Value QuillonCache::changes() { return Value(); }
// PENDING
Value QuillonCache::changesChain() { return Value(); }
// PENDING
Value QuillonCache::changesHistoryForObjectID(const ManagedObjectIDPtr&) { return Value(); }
// PENDING
void QuillonCache::updateChangeNames() {}
// PENDING
Value QuillonCache::changeNames() const { return Value(); }
// PENDING
void QuillonCache::addObjectUIDs(const Value&, bool) {}
// PENDING
void QuillonCache::updateObjectUIDs(const Value&, bool) {}
// PENDING
void QuillonCache::removeObjectUIDs(const Value&, bool) {}
// PENDING
void QuillonCache::invalidateObjectUIDs(const Value&) {}
// PENDING
Value QuillonCache::objectUIDsForEntity(const EntityDescription&) { return Value(); }
// PENDING
Value QuillonCache::objectUIDsForEntityName(std::string_view) { return Value(); }
// PENDING
std::shared_ptr<QuillonCacheSet> QuillonCache::cacheForEntityUIDs(std::string_view) {
  return nullptr;
}
// PENDING
std::shared_ptr<QuillonCacheDictionary> QuillonCache::cacheForObjectID(const ManagedObjectIDPtr&) {
  return nullptr;
}
// PENDING
void QuillonCache::loadCachesForEntity(const EntityDescription&) {}
// PENDING
std::shared_ptr<QuillonCacheItem> QuillonCache::cacheItemForObjectID(const ManagedObjectIDPtr&) {
  return nullptr;
}
// PENDING
std::shared_ptr<QuillonCacheItem> QuillonCache::cacheItemForObjectID(const ManagedObjectIDPtr&,
                                                                     ManagedObjectContext*) {
  return nullptr;
}
// PENDING
Value QuillonCache::attributesForObjectID(const ManagedObjectIDPtr&, ManagedObjectContext*) {
  return Value();
}
// PENDING
Value QuillonCache::valuesForObjectID(const ManagedObjectIDPtr&, ManagedObjectContext*) {
  return Value();
}
// PENDING
Value QuillonCache::allValuesForObjectID(const ManagedObjectIDPtr&, ManagedObjectContext*) {
  return Value();
}
// PENDING
std::shared_ptr<QuillonCacheItem> QuillonCache::loadValuesForObjectID(
    const ManagedObjectIDPtr&, ManagedObjectContext*,
    const std::shared_ptr<QuillonCacheDictionary>&) {
  return nullptr;
}
// PENDING
void QuillonCache::updateCacheForObjectID(const ManagedObjectIDPtr&, const Value&, const Url&) {}
// PENDING
bool QuillonCache::removeObjectID(const ManagedObjectIDPtr&) { return false; }
// PENDING
void QuillonCache::compactObjectID(const ManagedObjectIDPtr&) {}
// PENDING
void QuillonCache::compactObjectIDs(const std::vector<ManagedObjectIDPtr>&) {}
// PENDING
void QuillonCache::needsRefresh(const ManagedObjectIDPtr&) {}
// PENDING
void QuillonCache::setExtraData(const Value&, const std::string&, const ManagedObjectIDPtr&) {}
// PENDING
Value QuillonCache::extraDataForKey(const std::string&, const ManagedObjectIDPtr&) {
  return Value();
}
// PENDING
void QuillonCache::resetExtraDataForObjectID(const ManagedObjectIDPtr&) {}
// PENDING
void QuillonCache::save() {}
// PENDING
void QuillonCache::saveInBundle() {}
// PENDING
void QuillonCache::reset() {}
// PENDING
void QuillonCache::checkAllFiles() {}
// PENDING
void QuillonCache::cacheMissingItems() {}
// PENDING
void QuillonCache::terminate() {}
// PENDING
OperationQueue* QuillonCache::indexQueue() const { return nullptr; }

}  // namespace quillon
