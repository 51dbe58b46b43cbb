#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "quillon/base/notification_center.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class DispatchQueue;
class EntityDescription;
class Env;
class ManagedObjectContext;
class OperationQueue;
class QuillonCacheArray;
class QuillonCacheCollection;
class QuillonCacheDictionary;
class QuillonCacheItem;
class QuillonCacheSet;
class PackageFiles;
class QuillonCacheSource;

// The local database cache of one open store: per entity the set of known
// uids ("<Entity>_uids") and the cached values of its objects in sixteen
// shards by the uid's first character ("<Entity>_<c>"), plus the change log
// ("Changes": the change dictionaries applied, in order). Files live in
// <user cache folder>/<application identifier>/LocalDatabaseCache/<MD5 of
// the package URL>/<key>.fast, outside the package; deleting them loses
// nothing.
//
// Owned by its store (shared_ptr), which drives it: opening and updating
// load, compare, reset and fill it. The cache sees the store only as its
// QuillonCacheSource (cache_source.h), held without owning it, for
// identifiers and cache misses. Thread-safe: the shard and uid tables, the change
// log and each collection carry their own locks; change notices ("changes")
// are posted on the main queue. Indexing runs on indexQueue, collection saves
// on saveQueue; queue() is the store's for checking all files. The owner must call
// stopBackgroundWork() before the source's state goes (its destructor),
// since that work calls back into the source.
//
// Lock order, outermost first: the change log's lock, monitor_, the shard
// and uid tables' mutexes, a collection's lock, a cache item's lock. Under
// the change log's lock the cache calls only the source members that take
// no store lock (entityNamed, newObjectIDForEntity); every other call into
// the source (loading values) is made without any cache lock held, so a
// store that calls the cache under its own monitor cannot deadlock against
// it.
class QuillonCache : public std::enable_shared_from_this<QuillonCache> {
 public:
  // `files` reads and writes the package's own files (the bundle copy of
  // the cache and the change files of an object's history).
  static std::shared_ptr<QuillonCache> cacheForSource(QuillonCacheSource* source,
                                                      std::shared_ptr<PackageFiles> files);
  // The local cache folder of a package. `cacheHome` stands in for the
  // user's cache folder (StandardPaths::userCacheDirectory) when not empty,
  // and `env` for the default Env when not null. Nullopt when there is no
  // cache folder.
  static std::optional<Url> cacheURLForStoreURL(const Url& storeURL,
                                                const std::string& cacheHome = {},
                                                Env* env = nullptr);
  static void resetCacheForURL(const Url& storeURL, const std::string& cacheHome = {},
                               Env* env = nullptr);
  static void resetAllCaches(const std::string& cacheHome = {}, Env* env = nullptr);
  static bool checkWritePermissionsForStoreURL(const Url& storeURL,
                                               const std::string& cacheHome = {},
                                               Env* env = nullptr);

  QuillonCache(QuillonCacheSource* source, std::shared_ptr<PackageFiles> files);
  ~QuillonCache();
  QuillonCache(const QuillonCache&) = delete;
  QuillonCache& operator=(const QuillonCache&) = delete;

  QuillonCacheSource* source() const { return source_; }
  // The folder that stands in for the user's cache folder for this cache
  // (a per-document setting); set before setStoreURL.
  void setCacheHome(std::string cacheHome) { cacheHome_ = std::move(cacheHome); }
  void setStoreURL(const Url& storeURL);
  const Url& storeURL() const { return storeURL_; }
  // The cache folder (empty while unbound).
  const Url& URL() const { return url_; }
  std::optional<Url> URLForKey(std::string_view key) const;

  // ---- The change log ----
  // The change log as stored in the cache folder (loaded on first use); the
  // store decides whether to trust it and installs it.
  std::shared_ptr<QuillonCacheArray> storedChangeLog() const;
  // Makes `log` the change log (nullptr: none is loaded).
  void installChangeLog(const std::shared_ptr<QuillonCacheArray>& log);
  // Nullptr until loaded: fetches answer nothing before that.
  std::shared_ptr<QuillonCacheArray> changeLog() const;
  // The number of logged changes that agree, in order, with the first of
  // `names` (the change files on disk); when one differs, the log is cut
  // after the agreeing ones, which are then all it holds.
  size_t keepAgreeingChanges(const std::vector<std::string>& names);
  void addChange(const Value& change, bool isExternal);
  // addChange(change, true) for another computer's change whose inserted
  // objects its validation already read from their records: `loaded` maps
  // entity name → uid → Value::object of the item. Items of uids the cache
  // did not know before the change go into their shards (unless a shard
  // holds one by then) before the uids are added, so they are not read
  // again; the others are dropped.
  void addExternalChange(const Value& change, const Value& loaded);
  void removeChange(const Value& change, bool isExternal);
  // The log's content (an array of change dictionaries); empty while unloaded.
  Value changes();
  Value changesChain();
  Value changesHistoryForObjectID(const ManagedObjectIDPtr& objectID);
  void updateChangeNames();
  // The names of the logged non-recovery changes (a set of strings).
  Value changeNames() const;

  // ---- Identifier bookkeeping (entity name → uid → entry) ----
  void addObjectUIDs(const Value& objects, bool isExternal);
  void updateObjectUIDs(const Value& objects, bool isExternal);
  void removeObjectUIDs(const Value& objects, bool isExternal);
  void invalidateObjectUIDs(const Value& objects);
  // A copy of the entity's uid set.
  Value objectUIDsForEntity(const EntityDescription& entity);
  Value objectUIDsForEntityName(std::string_view entityName);

  // ---- Collections ----
  std::shared_ptr<QuillonCacheSet> cacheForEntityUIDs(std::string_view entityName);
  std::shared_ptr<QuillonCacheDictionary> cacheForObjectID(const ManagedObjectIDPtr& objectID);
  void loadCachesForEntity(const EntityDescription& entity);

  // ---- Values ----
  // The entity's known uids, in the uid set's order, each with what
  // `lookup` asks for of the item its shard holds (nothing is loaded from
  // the package). Each shard is locked and read once, so this is the way
  // to visit many objects.
  enum class Lookup {
    kUIDs,      // the uids alone
    kPresence,  // whether each is cached (`cached`)
    kItems,     // and the items themselves (`item`, null when not cached)
  };
  struct CachedItem {
    Value uid;
    bool cached = false;
    std::shared_ptr<QuillonCacheItem> item;
  };
  std::vector<CachedItem> cachedItemsForEntity(const EntityDescription& entity,
                                               Lookup lookup = Lookup::kItems);
  std::shared_ptr<QuillonCacheItem> cacheItemForObjectID(const ManagedObjectIDPtr& objectID);
  std::shared_ptr<QuillonCacheItem> cacheItemForObjectID(const ManagedObjectIDPtr& objectID,
                                                         ManagedObjectContext* context);
  Value attributesForObjectID(const ManagedObjectIDPtr& objectID, ManagedObjectContext* context);
  Value valuesForObjectID(const ManagedObjectIDPtr& objectID, ManagedObjectContext* context);
  Value allValuesForObjectID(const ManagedObjectIDPtr& objectID, ManagedObjectContext* context);
  std::shared_ptr<QuillonCacheItem> loadValuesForObjectID(
      const ManagedObjectIDPtr& objectID, ManagedObjectContext* context,
      const std::shared_ptr<QuillonCacheDictionary>& intoCache);
  // `values` is a whole object record ("version", "type", "payload").
  void updateCacheForObjectID(const ManagedObjectIDPtr& objectID, const Value& values,
                              const Url& url);
  bool removeObjectID(const ManagedObjectIDPtr& objectID);
  void compactObjectID(const ManagedObjectIDPtr& objectID);
  void compactObjectIDs(const std::vector<ManagedObjectIDPtr>& objectIDs);
  void needsRefresh(const ManagedObjectIDPtr& objectID);
  void setExtraData(const Value& value, const std::string& key, const ManagedObjectIDPtr& objectID);
  Value extraDataForKey(const std::string& key, const ManagedObjectIDPtr& objectID);
  void resetExtraDataForObjectID(const ManagedObjectIDPtr& objectID);

  // ---- Saving and maintenance ----
  // Dirty shards and uid sets on the save queue, then the log synchronously.
  void save();
  void saveInBundle();
  // Forgets every value and uid set and the cache's files; the change log
  // becomes the stored one again.
  void reset();
  // Background indexing of every concrete entity, once per cache.
  void cacheMissingItems();
  // The quit-time backup snapshot; no provider exists here, so it logs that.
  void terminate();
  // Cancels indexing and delayed calls aimed at the cache and waits for the
  // index queue, the save queue and queue(). Idempotent; the destructor
  // calls it too. Not from one of those queues.
  void stopBackgroundWork();
  bool terminated() const { return terminated_.load(); }
  bool cachedMissingItems() const { return cachedMissingItems_.load(); }

  DispatchQueue& queue() const { return *queue_; }
  OperationQueue& saveQueue() const { return *saveQueue_; }
  OperationQueue* indexQueue() const;
  // Progress counters, changed on the main thread only.
  uint64_t itemsToLoad() const { return itemsToLoad_.load(); }
  uint64_t itemsToIndex() const { return itemsToIndex_.load(); }
  uint64_t maxItemsToIndex() const { return maxItemsToIndex_.load(); }
  void setItemsToLoad(uint64_t n) { itemsToLoad_.store(n); }
  void addItemsToIndex(uint64_t n) { itemsToIndex_ += n; }
  void addMaxItemsToIndex(uint64_t n) { maxItemsToIndex_ += n; }

 private:
  QuillonCacheSource* source_;
  std::shared_ptr<PackageFiles> files_;
  Url storeURL_;
  Url url_;
  std::string cacheHome_;
  friend class QuillonIndexOperation;
  friend class QuillonIndexLoadOperation;
  void postChangesNotice(const std::function<void()>& change);
  std::shared_ptr<QuillonCacheItem> itemInShard(
      const std::shared_ptr<QuillonCacheDictionary>& shard, const std::string& uid) const;
  // addChange and addExternalChange.
  void addChange(const Value& change, bool isExternal, const Value& loaded);
  // Stores loaded items (entity name → uid → item) of uids the entity's uid
  // set does not hold, unless a shard holds one by then.
  void installLoadedItems(const Value& loaded);
  // The value shard stored under `key`, made on first use. Takes entitiesMutex_.
  std::shared_ptr<QuillonCacheDictionary> shardForKey(const std::string& key);
  // Every value shard and uid set made so far (not the change log).
  std::vector<std::shared_ptr<QuillonCacheCollection>> shardsAndUIDSets() const;

  // Items are loaded from the package without any cache lock held, so a
  // change applied meanwhile (its names logged, the object's item dropped)
  // could be overtaken by the older item the load made. Whatever changes
  // what a load reads or drops items runs as an edit; a load keeps its item
  // only when no edit was running when it began and none began since.
  class Edit;
  struct LoadTicket {
    uint64_t editsBegun = 0;
    bool quiet = false;  // no edit was running
  };
  LoadTicket beginLoad() const;
  // Under the shard's lock, before a loaded item is stored.
  bool loadStillCurrent(const LoadTicket& ticket) const;
  std::atomic<uint64_t> editsBegun_{0};
  std::atomic<uint64_t> editsEnded_{0};

  mutable std::recursive_mutex monitor_;  // changeNames, extra data, record updates
  std::atomic<bool> terminated_{false};
  std::atomic<bool> cachedMissingItems_{false};
  std::atomic<bool> stopping_{false};
  mutable std::mutex entitiesMutex_;
  std::unordered_map<std::string, std::shared_ptr<QuillonCacheDictionary>> entities_;
  mutable std::mutex uidsMutex_;
  std::unordered_map<std::string, std::shared_ptr<QuillonCacheSet>> uids_;
  mutable std::mutex changeLogMutex_;
  std::shared_ptr<QuillonCacheArray> changeLog_;
  Value objectIDsToRefresh_;
  Value changeNames_;
  std::atomic<uint64_t> itemsToLoad_{0}, itemsToIndex_{0}, maxItemsToIndex_{0};
  std::unique_ptr<DispatchQueue> queue_;
  std::unique_ptr<OperationQueue> saveQueue_;
  mutable std::mutex indexQueueMutex_;
  std::unique_ptr<OperationQueue> indexQueue_;
  std::vector<ScopedObserver> observers_;
};

}  // namespace quillon
