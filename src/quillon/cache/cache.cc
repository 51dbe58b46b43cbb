#include "quillon/cache/internal/cache.h"

#include <fmt/format.h>

#include <algorithm>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/internal/dispatch_queue.h"
#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/base/internal/uuid.h"
#include "quillon/cache/internal/cache_collection.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/cache/cache_source.h"
#include "quillon/cache/internal/index_operation.h"
#include "quillon/changes/internal/change_file_check.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/coding/value_transformer.h"
#include "quillon/graph/entity_description.h"
#include "quillon/platform/internal/file_viewer.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/standard_paths.h"
#include "quillon/store/object_uid.h"
#include "quillon/store/package_files.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/package_layout.h"
#include "quillon/store/quillon.h"

namespace quillon {
namespace {

constexpr std::string_view kChangeLogKey = "Changes";
constexpr std::string_view kLocalDatabaseCache = "LocalDatabaseCache";
constexpr std::string_view kShardCharacters = "0123456789ABCDEF";
constexpr size_t kChangesChainLength = 50;

// The application's "LocalDatabaseCache" folder under `cacheHome` (the
// user's cache folder when empty); empty without a cache folder.
std::string localDatabaseCachePath(const std::string& cacheHome) {
  std::string base = cacheHome.empty() ? StandardPaths::userCacheDirectory() : cacheHome;
  if (base.empty()) return {};
  return base + "/" + Quillon::applicationIdentifier() + "/" + std::string(kLocalDatabaseCache);
}

std::string trimmedOfSlashes(std::string text) {
  size_t begin = text.find_first_not_of('/');
  if (begin == std::string::npos) return {};
  size_t end = text.find_last_not_of('/');
  return text.substr(begin, end - begin + 1);
}

// A value at a dotted key path through dictionaries, nil where it breaks off.
Value valueAtPath(const Value& root, std::string_view first, std::string_view second) {
  return root.get(first).get(second);
}

std::string textOf(const Value& value) {
  if (value.isString()) return std::string(value.str());
  if (value.isNil()) return "(null)";
  return value.description();
}

Value changeKeyInfo() { return Value::dictionary({{"key", "changes"}}); }

}  // namespace

// ---- Class operations ----

std::shared_ptr<QuillonCache> QuillonCache::cacheForSource(QuillonCacheSource* source,
                                                           std::shared_ptr<PackageFiles> files) {
  return std::make_shared<QuillonCache>(source, std::move(files));
}

std::optional<Url> QuillonCache::cacheURLForStoreURL(const Url& storeURL,
                                                     const std::string& cacheHome, Env* env) {
  std::string folder = localDatabaseCachePath(cacheHome);
  if (folder.empty()) return std::nullopt;
  if (!env) env = PackageFiles::defaultEnv();
  env->createDirectories(folder);
  folder += "/" + storeMD5String(trimmedOfSlashes(storeURL.absoluteString()));
  env->createDirectories(folder);
  return Url::fileURL(folder, true);
}

void QuillonCache::resetCacheForURL(const Url& storeURL, const std::string& cacheHome, Env* env) {
  if (std::optional<Url> url = cacheURLForStoreURL(storeURL, cacheHome, env)) {
    (env ? env : PackageFiles::defaultEnv())->removeItem(url->path());
  }
}

void QuillonCache::resetAllCaches(const std::string& cacheHome, Env* env) {
  std::string folder = localDatabaseCachePath(cacheHome);
  if (!folder.empty()) (env ? env : PackageFiles::defaultEnv())->removeItem(folder);
}

bool QuillonCache::checkWritePermissionsForStoreURL(const Url& storeURL,
                                                    const std::string& cacheHome, Env* env) {
  std::optional<Url> folder = cacheURLForStoreURL(storeURL, cacheHome, env);
  if (!folder) return false;
  if (!env) env = PackageFiles::defaultEnv();
  std::string probe = makeUUIDString();
  std::string path = folder->appending(probe).path();
  bool fine = !env->writeFileAtomically(path, std::string_view(probe));
  std::vector<uint8_t> back;
  fine = !env->readFile(path, &back) && fine;
  fine = !env->removeItem(path) && fine;
  return fine && std::string_view(reinterpret_cast<const char*>(back.data()), back.size()) == probe;
}

// ---- Life ----

class QuillonCache::Edit {
 public:
  explicit Edit(QuillonCache& cache) : cache_(cache) { cache_.editsBegun_.fetch_add(1); }
  ~Edit() { cache_.editsEnded_.fetch_add(1); }
  Edit(const Edit&) = delete;
  Edit& operator=(const Edit&) = delete;

 private:
  QuillonCache& cache_;
};

QuillonCache::LoadTicket QuillonCache::beginLoad() const {
  // Ended first: begun can only be equal to it when nothing ran between.
  const uint64_t ended = editsEnded_.load();
  const uint64_t begun = editsBegun_.load();
  return LoadTicket{begun, begun == ended};
}

bool QuillonCache::loadStillCurrent(const LoadTicket& ticket) const {
  return ticket.quiet && editsBegun_.load() == ticket.editsBegun;
}

QuillonCache::QuillonCache(QuillonCacheSource* source, std::shared_ptr<PackageFiles> files)
    : source_(source),
      files_(std::move(files)),
      queue_(std::make_unique<DispatchQueue>(
          std::string(Quillon::frameworkInfo().get("CFBundleIdentifier").str()) + ".CacheQueue")),
      saveQueue_(std::make_unique<OperationQueue>("QuillonCacheSaveQueue")) {
  QuillonCacheItem::registerCoding();
}

QuillonCache::~QuillonCache() {
  stopBackgroundWork();
  systemLog("Store Cache dealloc");
}

void QuillonCache::stopBackgroundWork() {
  stopping_.store(true);
  MainQueue::cancelPreviousPerformRequests(this);
  OperationQueue* index = nullptr;
  {
    std::lock_guard lock(indexQueueMutex_);
    index = indexQueue_.get();
  }
  if (index) {
    index->cancelAllOperations();
    index->waitUntilAllOperationsAreFinished();
  }
  saveQueue_->waitUntilAllOperationsAreFinished();
  queue_->drain();
}

void QuillonCache::setStoreURL(const Url& storeURL) {
  storeURL_ = storeURL;
  Env* env = files_->env();
  if (!checkWritePermissionsForStoreURL(storeURL, cacheHome_, env)) {
    resetCacheForURL(storeURL, cacheHome_, env);
    if (!checkWritePermissionsForStoreURL(storeURL, cacheHome_, env)) {
      resetAllCaches(cacheHome_, env);
      if (!checkWritePermissionsForStoreURL(storeURL, cacheHome_, env)) {
        Quillon::showAlert(
            QuillonLocalizedString("The cache folder is write protected"),
            QuillonLocalizedString("Please delete the contents of the Folder that is beeing "
                                   "opened after closing this window"));
        FileViewer::reveal(localDatabaseCachePath(cacheHome_));
      }
    }
  }
  url_ = cacheURLForStoreURL(storeURL, cacheHome_, env).value_or(Url());
}

std::optional<Url> QuillonCache::URLForKey(std::string_view key) const {
  if (key.empty() || url_.isEmpty()) return std::nullopt;
  return url_.appending(key);
}

// ---- The change log ----

void QuillonCache::postChangesNotice(const std::function<void()>& change) {
  const void* self = this;
  if (MainQueue::isMainThread()) {
    NotificationCenter::defaultCenter().post(kQuillonWillChangeValueNotification, self,
                                             changeKeyInfo());
    change();
    NotificationCenter::defaultCenter().post(kQuillonDidChangeValueNotification, self,
                                             changeKeyInfo());
    return;
  }
  change();
  // Observers are user-interface lists: they hear of it on the main thread.
  // Only the address is used there, never the cache.
  MainQueue::async([self] {
    NotificationCenter::defaultCenter().post(kQuillonWillChangeValueNotification, self,
                                             changeKeyInfo());
    NotificationCenter::defaultCenter().post(kQuillonDidChangeValueNotification, self,
                                             changeKeyInfo());
  });
}

std::shared_ptr<QuillonCacheArray> QuillonCache::storedChangeLog() const {
  return QuillonCacheArray::arrayWithStore(files_, URLForKey(kChangeLogKey).value_or(Url()));
}

void QuillonCache::installChangeLog(const std::shared_ptr<QuillonCacheArray>& log) {
  Edit edit(*this);
  postChangesNotice([&] {
    std::lock_guard lock(changeLogMutex_);
    changeLog_ = log;
  });
  updateChangeNames();
}

size_t QuillonCache::keepAgreeingChanges(const std::vector<std::string>& names) {
  std::shared_ptr<QuillonCacheArray> log = changeLog();
  if (!log) return 0;
  Edit edit(*this);
  std::lock_guard lock(log->lock());
  Value logged = log->content();
  size_t agreeing = 0;
  while (agreeing < names.size() && agreeing < logged.size()) {
    const Value& name = logged[agreeing].get(kChangeNameKey);
    if (!name.isString() || name.str() != names[agreeing]) break;
    ++agreeing;
  }
  if (agreeing < logged.size() && agreeing < names.size()) {
    std::vector<Value> prefix(logged.elements().begin(), logged.elements().begin() + agreeing);
    log->setContent(Value::array(std::move(prefix), true));
    // Records of the changes cut off no longer count until they come back.
    updateChangeNames();
  }
  return agreeing;
}

std::shared_ptr<QuillonCacheArray> QuillonCache::changeLog() const {
  std::lock_guard lock(changeLogMutex_);
  return changeLog_;
}

void QuillonCache::addChange(const Value& change, bool isExternal) {
  addChange(change, isExternal, Value());
}

void QuillonCache::addExternalChange(const Value& change, const Value& loaded) {
  addChange(change, true, loaded);
}

void QuillonCache::addChange(const Value& change, bool isExternal, const Value& loaded) {
  Edit edit(*this);
  std::shared_ptr<QuillonCacheArray> log;
  bool created = false;
  {
    std::lock_guard lock(changeLogMutex_);
    if (!changeLog_) {
      changeLog_ = storedChangeLog();
      created = true;
    }
    log = changeLog_;
  }
  if (created) updateChangeNames();
  {
    std::lock_guard lock(log->lock());
    const Value& sections = change.get(kQuillonChanges);
    log->addObject(change);
    if (sections.isDictionary() && !sections.empty()) {
      const Value& inserts = sections.get(kQuillonInsert);
      // The loaded items go in after the inserted objects' old items are
      // dropped and before their uids are added, so that no reader (the
      // index queue among them) finds a uid whose item is still coming.
      if (isExternal) invalidateObjectUIDs(inserts);
      installLoadedItems(loaded);
      addObjectUIDs(inserts, false);
      updateObjectUIDs(sections.get(kQuillonUpdate), isExternal);
      removeObjectUIDs(sections.get(kQuillonDelete), isExternal);
      updateChangeNames();
    } else if (change.get("type") == Value("recovery")) {
      // A discarded change leaves a recovery change in its place naming what
      // it touched: its records no longer count, so what it inserted is gone,
      // what it deleted is back, and what it updated reads its records anew.
      updateChangeNames();
      const Value& refreshes = change.get("refreshes");
      if (refreshes.isDictionary()) {
        removeObjectUIDs(refreshes.get(kQuillonInsert), true);
        addObjectUIDs(refreshes.get(kQuillonDelete), true);
        invalidateObjectUIDs(refreshes.get(kQuillonUpdate));
      }
    }
  }
  const void* self = this;
  MainQueue::async([self] {
    NotificationCenter::defaultCenter().post(kQuillonWillChangeValueNotification, self,
                                             changeKeyInfo());
    NotificationCenter::defaultCenter().post(kQuillonDidChangeValueNotification, self,
                                             changeKeyInfo());
  });
}

void QuillonCache::installLoadedItems(const Value& loaded) {
  for (const auto& [entityName, items] : loaded.items()) {
    if (!entityName.isString() || !items.isDictionary()) continue;
    std::shared_ptr<QuillonCacheSet> set = cacheForEntityUIDs(entityName.str());
    if (!set) continue;
    // Only objects the cache does not know yet: a known one may have
    // records the loaded item does not reflect.
    std::vector<std::pair<Value, Value>> unknown;
    const Value& objects = items;  // clang before 16 cannot capture a binding
    set->readContent([&](const Value& uids) {
      for (const auto& [uid, item] : objects.items()) {
        if (uid.isString() && !uid.str().empty() && !uids.contains(uid)) {
          unknown.emplace_back(uid, item);
        }
      }
    });
    for (const auto& [uid, value] : unknown) {
      std::string key = storeKeyFor(entityName.str(), uid.str());
      if (!value.objectAs<QuillonCacheItem>() || !isSafePathComponent(key)) continue;
      std::shared_ptr<QuillonCacheDictionary> shard = shardForKey(key);
      std::lock_guard lock(shard->lock());
      if (!itemInShard(shard, std::string(uid.str())))
        shard->setValue(value, std::string(uid.str()));
    }
  }
}

void QuillonCache::removeChange(const Value& change, bool isExternal) {
  Edit edit(*this);
  std::shared_ptr<QuillonCacheArray> log = changeLog();
  postChangesNotice([&] {
    // The top-level "inserts", not the insert section addChange reads.
    removeObjectUIDs(change.get("inserts"), isExternal);
    if (log) log->removeObject(change);
  });
  updateChangeNames();
}

Value QuillonCache::changes() {
  std::shared_ptr<QuillonCacheArray> log = changeLog();
  return log ? log->content() : Value::array();
}

Value QuillonCache::changesChain() {
  std::vector<Value> chain;
  if (std::shared_ptr<QuillonCacheArray> log = changeLog()) {
    log->readContent([&](const Value& changes) {
      std::span<const Value> all = changes.elements();
      for (size_t i = all.size(); i-- > 0 && chain.size() < kChangesChainLength;) {
        const Value& change = all[i];
        const Value& session = change.get("session");
        chain.push_back(Value::dictionary({
            {"name", change.get("name")},
            {"previousName", change.get("previousName")},
            {"machineName", session.get("machineName")},
            {"fullUserName", session.get("fullUserName")},
            {"osVersion", session.get("osVersion")},
            {"version", session.get("version")},
        }));
      }
    });
  }
  return Value::array(std::move(chain));
}

Value QuillonCache::changesHistoryForObjectID(const ManagedObjectIDPtr& objectID) {
  if (!objectID || !objectID->entity()) return Value::array();
  std::vector<Url> files = source_->changesFilesFor(*objectID->entity(), storeUID(*objectID));
  std::vector<Value> paths;
  for (const Url& file : files) paths.emplace_back(file.path());
  Value root = Value::dictionary({{"name", "Object"},
                                  {"value", objectID->uriRepresentation().path()},
                                  {"paths", Value::array(std::move(paths))}});

  auto dates = ValueTransformer::valueTransformerForName("QuillonNSDateValueTransformer");
  std::vector<Value> entries;
  for (const Url& file : files) {
    std::string name = file.lastPathComponent();
    std::optional<Url> changeURL = PackageLayout(storeURL_).changeFile(name);
    if (!changeURL) continue;
    // The change file and the record came from another computer: both are
    // read within their limits, and the change must be a change file.
    Value change;
    if (readChangeFile(*files_, changeURL->path(), name, &change).outcome !=
        ChangeFileReading::kRead) {
      continue;
    }
    const Value& sections = change.get(kChangeChangesKey);
    if (!sections.isDictionary() || sections.empty()) continue;
    Value date = dates ? dates->transformedValue(change.get("date")) : Value();
    std::vector<Value> children;
    Value record = files_->readJSON(file.path(), kRecordFileLimits).value;
    for (const auto& [key, value] : record.get(kRecordPayloadKey).items()) {
      if (!value.isNil()) children.push_back(Value::dictionary({{"name", key}, {"value", value}}));
    }
    entries.push_back(Value::dictionary({
        {"value", fmt::format("{} ({})", textOf(valueAtPath(change, "session", "fullUserName")),
                              textOf(valueAtPath(change, "session", "machineName")))},
        {"date", date},
        {"name", date.isDate() ? formatMediumDateTime(date.dateValue()) : std::string()},
        {"URL", Value::url(*changeURL)},
        {"children", Value::array(std::move(children))},
    }));
  }
  std::stable_sort(entries.begin(), entries.end(), [](const Value& a, const Value& b) {
    return a.get("date").dateValue() > b.get("date").dateValue();
  });
  entries.insert(entries.begin(), root);
  return Value::array(std::move(entries));
}

void QuillonCache::updateChangeNames() {
  Edit edit(*this);
  std::shared_ptr<QuillonCacheArray> log = changeLog();
  Value names = Value::mutableSet();
  auto install = [&] {
    std::lock_guard lock(monitor_);
    changeNames_ = names;
  };
  if (!log) {
    install();
    return;
  }
  // Built and installed under the log's lock, so the names always follow
  // the log's own order of changes.
  log->readContent([&](const Value& changes) {
    for (const Value& change : changes.elements()) {
      const Value& name = change.get("name");
      if (name.isNil() || change.get("type") == Value("recovery")) continue;
      names.append(name);
    }
    install();
  });
}

Value QuillonCache::changeNames() const {
  std::lock_guard lock(monitor_);
  return changeNames_.isNil() ? Value::set() : changeNames_;
}

// ---- Identifier bookkeeping ----

void QuillonCache::addObjectUIDs(const Value& objects, bool isExternal) {
  if (isExternal) invalidateObjectUIDs(objects);
  for (const auto& [entityName, uids] : objects.items()) {
    if (!entityName.isString() || !isSafePathComponent(entityName.str())) continue;
    std::vector<Value> safe;
    safe.reserve(uids.size());
    for (const auto& [uid, entry] : uids.items()) {
      if (uid.isString() && isSafePathComponent(uid.str())) safe.push_back(uid);
    }
    if (auto set = cacheForEntityUIDs(entityName.str())) {
      set->addObjects(Value::array(std::move(safe)));
    }
  }
  cacheMissingItems();
}

void QuillonCache::updateObjectUIDs(const Value& objects, bool isExternal) {
  // A local update keeps the items: the save refreshed them itself.
  if (isExternal) invalidateObjectUIDs(objects);
}

void QuillonCache::removeObjectUIDs(const Value& objects, bool isExternal) {
  if (isExternal) invalidateObjectUIDs(objects);
  for (const auto& [entityName, uids] : objects.items()) {
    if (!entityName.isString() || !isSafePathComponent(entityName.str())) continue;
    if (auto set = cacheForEntityUIDs(entityName.str()))
      set->removeObjects(Value::array(uids.keys()));
  }
}

void QuillonCache::invalidateObjectUIDs(const Value& objects) {
  for (const auto& [entityName, uids] : objects.items()) {
    const EntityDescription* entity = source_->entityNamed(entityName.str());
    // An unknown entity ends the whole run: later entities stay as they are.
    if (!entity) return;
    for (const auto& [uid, entry] : uids.items()) {
      if (!uid.isString() || !isSafePathComponent(uid.str())) continue;
      if (ManagedObjectIDPtr objectID = source_->newObjectIDForEntity(entity, uid)) {
        removeObjectID(objectID);
      }
    }
  }
}

Value QuillonCache::objectUIDsForEntity(const EntityDescription& entity) {
  return objectUIDsForEntityName(entity.name());
}

Value QuillonCache::objectUIDsForEntityName(std::string_view entityName) {
  Value copy = Value::set();
  if (auto set = cacheForEntityUIDs(entityName)) {
    set->readContent([&](const Value& uids) { copy = uids.copy(); });
  }
  return copy;
}

// ---- Collections ----

std::shared_ptr<QuillonCacheSet> QuillonCache::cacheForEntityUIDs(std::string_view entityName) {
  if (!isSafePathComponent(entityName)) return nullptr;
  std::string key = fmt::format("{}_uids", entityName);
  std::lock_guard lock(uidsMutex_);
  std::shared_ptr<QuillonCacheSet>& set = uids_[key];
  if (!set) set = QuillonCacheSet::setWithStore(files_, URLForKey(key).value_or(Url()));
  return set;
}

std::shared_ptr<QuillonCacheDictionary> QuillonCache::shardForKey(const std::string& key) {
  std::lock_guard lock(entitiesMutex_);
  std::shared_ptr<QuillonCacheDictionary>& shard = entities_[key];
  if (!shard) {
    shard = QuillonCacheDictionary::dictionaryWithStore(files_, URLForKey(key).value_or(Url()));
  }
  return shard;
}

std::shared_ptr<QuillonCacheDictionary> QuillonCache::cacheForObjectID(
    const ManagedObjectIDPtr& objectID) {
  if (!objectID || !objectID->entity()) return nullptr;
  std::string uid = storeUID(*objectID);
  if (uid.empty()) return nullptr;
  std::string key = storeKeyFor(objectID->entity()->name(), uid);
  if (!isSafePathComponent(key)) return nullptr;
  return shardForKey(key);
}

void QuillonCache::loadCachesForEntity(const EntityDescription& entity) {
  for (char c : kShardCharacters) {
    std::string key = storeKeyFor(entity.name(), std::string_view(&c, 1));
    if (!isSafePathComponent(key)) continue;
    std::shared_ptr<QuillonCacheDictionary> shard = shardForKey(key);
    std::lock_guard shardLock(shard->lock());
    shard->loadIfNeeded();
  }
}

// ---- Values ----

std::shared_ptr<QuillonCacheItem> QuillonCache::itemInShard(
    const std::shared_ptr<QuillonCacheDictionary>& shard, const std::string& uid) const {
  Value value = shard->valueForKey(uid);
  return std::dynamic_pointer_cast<QuillonCacheItem>(value.objectValue());
}

std::vector<QuillonCache::CachedItem> QuillonCache::cachedItemsForEntity(
    const EntityDescription& entity, Lookup lookup) {
  std::vector<CachedItem> answer;
  std::shared_ptr<QuillonCacheSet> set = cacheForEntityUIDs(entity.name());
  if (!set) return answer;
  // Positions in `answer` by shard key, so each shard is visited once.
  std::unordered_map<std::string, std::vector<size_t>> byShard;
  set->readContent([&](const Value& uids) {
    answer.reserve(uids.size());
    for (const Value& uid : uids.elements()) {
      if (!uid.isString() || uid.str().empty()) continue;
      if (lookup != Lookup::kUIDs) {
        byShard[storeKeyFor(entity.name(), uid.str())].push_back(answer.size());
      }
      answer.push_back(CachedItem{uid});
    }
  });
  for (const auto& [key, shardPositions] : byShard) {
    if (!isSafePathComponent(key)) continue;
    const std::vector<size_t>& positions =
        shardPositions;  // clang before 16 cannot capture a binding
    shardForKey(key)->readContent([&](const Value& content) {
      for (size_t position : positions) {
        CachedItem& entry = answer[position];
        const Value* stored = content.find(entry.uid);
        entry.cached = stored && stored->objectAs<QuillonCacheItem>();
        // Only the items asked for are shared: every copy is an atomic
        // count on an item another thread may be reading.
        if (entry.cached && lookup == Lookup::kItems) {
          entry.item = std::static_pointer_cast<QuillonCacheItem>(stored->objectValue());
        }
      }
    });
  }
  return answer;
}

std::shared_ptr<QuillonCacheItem> QuillonCache::cacheItemForObjectID(
    const ManagedObjectIDPtr& objectID) {
  std::shared_ptr<QuillonCacheDictionary> shard = cacheForObjectID(objectID);
  if (!shard) return nullptr;
  return itemInShard(shard, storeUID(*objectID));
}

std::shared_ptr<QuillonCacheItem> QuillonCache::cacheItemForObjectID(
    const ManagedObjectIDPtr& objectID, ManagedObjectContext* context) {
  std::shared_ptr<QuillonCacheDictionary> shard = cacheForObjectID(objectID);
  if (!shard) return nullptr;
  std::string uid = storeUID(*objectID);
  std::shared_ptr<QuillonCacheItem> item = itemInShard(shard, uid);
  if (item) return item;
  const LoadTicket ticket = beginLoad();
  item = loadValuesForObjectID(objectID, context, shard);
  if (!item) return nullptr;
  // The load ran without the shard's lock; a save may have stored a newer
  // item meanwhile, which a load from the records must not replace.
  std::lock_guard lock(shard->lock());
  if (std::shared_ptr<QuillonCacheItem> stored = itemInShard(shard, uid)) return stored;
  // A change applied during the load may have made the item old: it serves
  // this caller, and the next one loads again.
  if (loadStillCurrent(ticket)) shard->setValue(Value::object(item), uid);
  return item;
}

Value QuillonCache::attributesForObjectID(const ManagedObjectIDPtr& objectID,
                                          ManagedObjectContext* context) {
  std::shared_ptr<QuillonCacheItem> item = cacheItemForObjectID(objectID, context);
  return item ? item->attributesForObjectID(objectID, source_, context) : Value();
}

Value QuillonCache::valuesForObjectID(const ManagedObjectIDPtr& objectID,
                                      ManagedObjectContext* context) {
  std::shared_ptr<QuillonCacheDictionary> shard = cacheForObjectID(objectID);
  if (!shard) return Value();
  std::string uid = storeUID(*objectID);
  std::shared_ptr<QuillonCacheItem> item = itemInShard(shard, uid);
  if (!item || item->attributes().isNil()) {
    const LoadTicket ticket = beginLoad();
    std::shared_ptr<QuillonCacheItem> loaded =
        source_->loadValuesForObjectID(objectID, context, Value());
    if (!loaded) return Value();
    std::lock_guard lock(shard->lock());
    std::shared_ptr<QuillonCacheItem> stored = itemInShard(shard, uid);
    // Keep an item that a save stored while the records were read.
    if (stored && stored != item && !stored->attributes().isNil()) {
      item = stored;
    } else {
      item = loaded;
      if (loadStillCurrent(ticket)) shard->setValue(Value::object(item), uid);
    }
  }
  return item->valuesForObjectID(objectID, source_, context);
}

Value QuillonCache::allValuesForObjectID(const ManagedObjectIDPtr& objectID,
                                         ManagedObjectContext* context) {
  std::shared_ptr<QuillonCacheItem> item = cacheItemForObjectID(objectID, context);
  return item ? item->allValuesForObjectID(objectID, source_, context) : Value();
}

std::shared_ptr<QuillonCacheItem> QuillonCache::loadValuesForObjectID(
    const ManagedObjectIDPtr& objectID, ManagedObjectContext* context,
    const std::shared_ptr<QuillonCacheDictionary>& intoCache) {
  std::shared_ptr<QuillonCacheItem> item = cacheItemForObjectID(objectID);
  if (!item) item = source_->loadValuesForObjectID(objectID, context, Value());
  if (item) item->setCollection(intoCache);
  return item;
}

void QuillonCache::updateCacheForObjectID(const ManagedObjectIDPtr& objectID, const Value& values,
                                          const Url& url) {
  std::lock_guard lock(monitor_);
  std::shared_ptr<QuillonCacheDictionary> shard = cacheForObjectID(objectID);
  if (!shard) return;
  std::string uid = storeUID(*objectID);
  std::shared_ptr<QuillonCacheItem> item = itemInShard(shard, uid);
  if (!item) item = std::make_shared<QuillonCacheItem>();
  item->setCollection(shard);
  item->updateValues(values.get("payload"), *objectID->entity(), url, values.get("version"));
  shard->setValue(Value::object(item), uid);
}

bool QuillonCache::removeObjectID(const ManagedObjectIDPtr& objectID) {
  std::shared_ptr<QuillonCacheDictionary> shard = cacheForObjectID(objectID);
  if (!shard) return false;
  std::string uid = storeUID(*objectID);
  Edit edit(*this);
  std::lock_guard lock(shard->lock());
  if (shard->valueForKey(uid).isNil()) return false;
  shard->removeObjectForKey(uid);
  return true;
}

void QuillonCache::compactObjectID(const ManagedObjectIDPtr& objectID) {
  if (std::shared_ptr<QuillonCacheItem> item = cacheItemForObjectID(objectID)) item->compact();
}

void QuillonCache::compactObjectIDs(const std::vector<ManagedObjectIDPtr>& objectIDs) {
  for (const ManagedObjectIDPtr& objectID : objectIDs) compactObjectID(objectID);
}

void QuillonCache::needsRefresh(const ManagedObjectIDPtr& objectID) {
  if (!objectID) return;
  std::lock_guard lock(monitor_);
  if (objectIDsToRefresh_.isNil()) objectIDsToRefresh_ = Value::mutableSet();
  objectIDsToRefresh_.append(Value::object(objectID));
}

void QuillonCache::setExtraData(const Value& value, const std::string& key,
                                const ManagedObjectIDPtr& objectID) {
  std::lock_guard lock(monitor_);
  std::shared_ptr<QuillonCacheDictionary> shard = cacheForObjectID(objectID);
  if (!shard) return;
  std::string uid = storeUID(*objectID);
  std::shared_ptr<QuillonCacheItem> item = itemInShard(shard, uid);
  if (!item) return;
  item->setExtraData(value.copy(), key);
  shard->setValue(Value::object(item), uid);
}

Value QuillonCache::extraDataForKey(const std::string& key, const ManagedObjectIDPtr& objectID) {
  std::lock_guard lock(monitor_);
  std::shared_ptr<QuillonCacheItem> item = cacheItemForObjectID(objectID);
  return item ? item->extraDataForKey(Value(key)) : Value();
}

void QuillonCache::resetExtraDataForObjectID(const ManagedObjectIDPtr& objectID) {
  std::lock_guard lock(monitor_);
  std::shared_ptr<QuillonCacheDictionary> shard = cacheForObjectID(objectID);
  if (!shard) return;
  std::string uid = storeUID(*objectID);
  std::shared_ptr<QuillonCacheItem> item = itemInShard(shard, uid);
  if (!item) return;
  item->resetExtraData();
  shard->setValue(Value::object(item), uid);
}

// ---- Saving and maintenance ----

std::vector<std::shared_ptr<QuillonCacheCollection>> QuillonCache::shardsAndUIDSets() const {
  std::vector<std::shared_ptr<QuillonCacheCollection>> all;
  {
    std::lock_guard lock(entitiesMutex_);
    for (const auto& [key, shard] : entities_) all.push_back(shard);
  }
  std::lock_guard lock(uidsMutex_);
  for (const auto& [key, set] : uids_) all.push_back(set);
  return all;
}

// The change log says which changes the shards and uid sets reflect, so it
// must never be on disk ahead of them: a process killed or a power cut in
// the middle of a save would leave a log that lists changes whose objects
// the other files lack, and nothing would ever apply them again. So the old
// log goes first, then the shards and uid sets are written and flushed, and
// only then the new log. Interrupted anywhere, the folder holds no log, and
// the next open rebuilds the cache from the package; shards newer than a log
// are harmless, since applying the changes after the log drops and reloads
// every object they touch.
void QuillonCache::save() {
  std::shared_ptr<QuillonCacheArray> log = changeLog();
  if (url_.isEmpty()) {
    terminated_.store(true);
    return;
  }
  Env* env = files_->env();
  std::vector<std::shared_ptr<QuillonCacheCollection>> dirty;
  for (auto& collection : shardsAndUIDSets()) {
    // Clean collections would only take a queue slot to find nothing to do.
    if (collection->invalid()) dirty.push_back(std::move(collection));
  }
  if (dirty.empty() && (!log || !log->invalid())) {
    terminated_.store(true);
    return;
  }
  bool fine = !env->createDirectories(url_.path());
  const std::optional<Url> logURL = URLForKey(kChangeLogKey);
  const std::string logPath = logURL ? logURL->appendingPathExtension("fast").path() : "";
  if (!dirty.empty() && !logPath.empty() && env->exists(logPath)) {
    fine = !env->removeItem(logPath) && fine;
    fine = !env->syncFiles({url_.path()}) && fine;  // the folder: the log's name is gone for good
    if (log) log->setInvalid(true);
  }
  std::mutex mutex;
  std::vector<std::string> written;
  std::atomic<bool> failed{false};
  for (auto& collection : dirty) {
    saveQueue_->addOperationWithBlock([collection, &mutex, &written, &failed] {
      std::string path;
      if (!collection->writeIfNeeded(false, &path)) failed.store(true);
      if (path.empty()) return;
      std::lock_guard lock(mutex);
      written.push_back(std::move(path));
    });
  }
  saveQueue_->waitUntilAllOperationsAreFinished();
  fine = fine && !failed.load();
  if (fine && !written.empty()) fine = !env->syncFiles(written);
  if (fine) {
    if (log) log->saveIfNeeded();
  } else {
    // Without a log the next open starts from scratch; a log without the
    // files it describes would hide objects for good.
    systemLog("The local cache could not be written; it is rebuilt on the next open");
    if (!logPath.empty()) (void)env->removeItem(logPath);  // may not exist; nothing else to try
  }
  terminated_.store(true);
}

void QuillonCache::saveInBundle() {
  const Url bundle = PackageLayout(storeURL_).cache();
  (void)files_->env()->createDirectories(bundle.path());  // each write reports its own failure
  std::vector<std::shared_ptr<QuillonCacheCollection>> all = shardsAndUIDSets();
  for (auto& collection : all) {
    saveQueue_->addOperationWithBlock([collection, bundle] { collection->saveInBundle(bundle); });
  }
  if (std::shared_ptr<QuillonCacheArray> log = changeLog()) log->saveInBundle(bundle);
}

void QuillonCache::reset() {
  Edit edit(*this);
  if (!url_.isEmpty()) files_->env()->removeItem(url_.path());
  {
    std::lock_guard lock(entitiesMutex_);
    entities_.clear();
  }
  {
    std::lock_guard lock(uidsMutex_);
    uids_.clear();
  }
  {
    std::lock_guard lock(changeLogMutex_);
    changeLog_ = storedChangeLog();
  }
}

void QuillonCache::cacheMissingItems() {
  std::lock_guard lock(indexQueueMutex_);
  if (stopping_.load() || cachedMissingItems_.load() ||
      (indexQueue_ && indexQueue_->operationCount() > 0)) {
    return;
  }
  itemsToIndex_.store(0);
  maxItemsToIndex_.store(0);
  indexQueue_ = std::make_unique<OperationQueue>("QuillonIndexQueue");
  indexQueue_->setMaxConcurrentOperationCount(1);
  std::vector<const EntityDescription*> entities;
  for (const auto& [name, entity] : source_->entities()) {
    if (entity && !entity->isAbstract()) entities.push_back(entity);
  }
  std::sort(
      entities.begin(), entities.end(),
      [](const EntityDescription* a, const EntityDescription* b) { return a->name() < b->name(); });
  for (const EntityDescription* entity : entities) {
    auto operation = std::make_shared<QuillonIndexOperation>(this, entity, indexQueue_.get());
    operation->setQueuePriority(QueuePriority::VeryLow);
    indexQueue_->addOperation(std::move(operation));
  }
  cachedMissingItems_.store(true);
}

void QuillonCache::terminate() {
  systemLog("No backup snapshot taken at quit: no snapshot provider on this platform");
}

OperationQueue* QuillonCache::indexQueue() const {
  std::lock_guard lock(indexQueueMutex_);
  return indexQueue_.get();
}

}  // namespace quillon
