// Fetching and value loading: fetches are answered from the local cache's
// uid lists and cache items; an object the cache lacks is read from its
// records in change order.

#include <fmt/format.h>

#include <chrono>
#include <vector>

#include "quillon/base/date_format.h"
#include "quillon/base/json.h"
#include "quillon/base/system_log.h"
#include "quillon/cache/cache.h"
#include "quillon/cache/cache_item.h"
#include "quillon/coding/url_utils.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/relationship_description.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/package_format.h"
#include "quillon/store/quillon.h"
#include "quillon/store/request_item.h"
#include "quillon/store/store.h"

namespace quillon {
namespace {

// Reading one object slower than this is reported as a loading issue.
constexpr double kSlowLoadMilliseconds = 5.0;

Value emptyFetchAnswer(const FetchRequest& request) {
  if (request.resultType() == FetchRequestResultType::Count) {
    return Value::array({Value::integer(0)});
  }
  return Value::array();
}

// Whether an identifier carries a uid of its own (a reference string or one
// computed earlier), rather than needing a fresh one.
bool hasUID(const ManagedObjectIDPtr& objectID) {
  if (!objectID) return false;
  if (objectID->cachedUID()) return true;
  const Value& reference = objectID->referenceObject();
  return reference.isString() && !reference.str().empty();
}

}  // namespace

QuillonLoadingIssue QuillonLoadingIssue::loadingIssueWithType(std::string_view type, const Url& url,
                                                              Value value) {
  QuillonLoadingIssue issue;
  issue.dictionary_ = Value::dictionary(true);
  issue.dictionary_.set(Value::string("type"), Value::string(type));
  issue.dictionary_.set(Value::string("url"), Value::string(url.absoluteString()));
  if (!value.isNil()) issue.dictionary_.set(Value::string("value"), value);
  issue.dictionary_.set(Value::string("date"), Value::date(dateNow()));
  return issue;
}

// ---- Fetching ----------------------------------------------------------------

Value QuillonStore::executeFetchRequest(const FetchRequest& request,
                                        ManagedObjectContext* context) {
  // Until the cache knows which changes it reflects, the document reads as
  // empty rather than blocking the caller.
  if (!cache_ || !cache_->changeLog()) return emptyFetchAnswer(request);

  FetchRequestResultType type = request.resultType();
  if (!request.propertiesToGroupBy().empty()) type = FetchRequestResultType::Dictionary;
  const bool counting = type == FetchRequestResultType::Count;
  const bool wantObjects = type == FetchRequestResultType::ManagedObject;
  const auto& predicate = request.predicate();

  const EntityDescription* entity = entityNamed(request.entityName());
  if (!entity) return Value::array();
  std::vector<const EntityDescription*> searched{entity};
  if (request.includesSubentities()) {
    for (const EntityDescription* sub : entity->allSubentities()) searched.push_back(sub);
  }

  if (wantObjects && predicate) {
    for (const EntityDescription* e : searched) cache_->loadCachesForEntity(*e);
  }

  const bool needValues =
      predicate || !request.sortDescriptors().empty() || type == FetchRequestResultType::Dictionary;
  int64_t count = 0;
  std::vector<Value> items;
  for (const EntityDescription* e : searched) {
    std::vector<QuillonCache::CachedItem> entries = cache_->cachedItemsForEntity(
        *e, needValues ? QuillonCache::Lookup::kItems : QuillonCache::Lookup::kUIDs);
    if (counting && !predicate) {
      count += static_cast<int64_t>(entries.size());
      continue;
    }
    items.reserve(items.size() + entries.size());
    for (QuillonCache::CachedItem& entry : entries) {
      auto item = std::make_shared<QuillonRequestItem>(context, e, entry.uid, this);
      if (needValues) {
        // Objects the shards lack yet (indexing still runs) come from their records.
        if (!entry.item) entry.item = cache_->cacheItemForObjectID(item->objectID(), context);
        item->setCacheItem(std::move(entry.item));
      }
      if (wantObjects && context && item->objectID()) {
        item->setManagedObject(context->objectWithID(item->objectID()));
      }
      items.push_back(Value::object(std::move(item)));
    }
  }
  if (counting && !predicate) return Value::array({Value::integer(count)});

  if (predicate) {
    std::erase_if(items, [&](const Value& item) { return !predicate->evaluate(item); });
  }
  if (!request.sortDescriptors().empty()) {
    SortDescriptor::sortValues(items, request.sortDescriptors());
  }
  if (request.fetchLimit() > 0 && items.size() > request.fetchLimit()) {
    items.resize(request.fetchLimit());
  }
  if (counting) return Value::array({Value::integer(static_cast<int64_t>(items.size()))});

  std::vector<Value> answer;
  answer.reserve(items.size());
  for (const Value& value : items) {
    const auto* item = value.objectAs<QuillonRequestItem>();
    switch (type) {
      case FetchRequestResultType::ManagedObjectID:
        if (item->objectID()) answer.push_back(Value::object(item->objectID()));
        break;
      case FetchRequestResultType::Dictionary:
        answer.push_back(item->dictionary());
        break;
      default:
        if (item->managedObject()) answer.push_back(Value::object(item->managedObject()));
        break;
    }
  }
  return Value::array(std::move(answer));
}

std::shared_ptr<IncrementalStoreNode> QuillonStore::newValuesForObjectWithID(
    const ManagedObjectIDPtr& objectID, ManagedObjectContext* context, Error* /*error*/) {
  // Values the cache cannot provide are simply absent: a fault never fails.
  // To-many relations are not in these values; the graph asks for them
  // through newValueForRelationship when they are first used.
  Value values;
  if (cache_ && hasUID(objectID)) values = cache_->valuesForObjectID(objectID, context);
  if (!values.isDictionary()) values = Value::dictionary();
  return std::make_shared<TessIncrementalStoreNode>(objectID, values, 1);
}

Value QuillonStore::newValueForRelationship(const RelationshipDescription& relationship,
                                            const ManagedObjectIDPtr& objectID,
                                            ManagedObjectContext* context, Error* /*error*/) {
  if (!cache_ || !hasUID(objectID)) return Value();
  Value values = cache_->allValuesForObjectID(objectID, context);
  Value entry = values.get(relationship.name());
  if (relationship.isToMany()) return entry;
  if (entry.isSequence()) return entry.empty() ? Value() : entry[0];
  return entry;
}

// ---- Loading from records ------------------------------------------------------

std::shared_ptr<QuillonCacheItem> QuillonStore::loadValuesForObjectID(
    const ManagedObjectIDPtr& objectID, ManagedObjectContext* context, const Value& upToChange) {
  if (!objectID || !objectID->entity()) return nullptr;
  std::string uid = uidForObjectID(objectID, context);
  return loadValuesForEntity(*objectID->entity(), uid, context, upToChange);
}

std::optional<std::vector<uint8_t>> QuillonStore::readDataFile(const EntityDescription& entity,
                                                             const std::string& uid,
                                                             std::string_view fileName) {
  std::optional<std::string> entityKey = fileNameForEntity(entity);
  std::optional<Url> url = entityKey ? layout().dataFile(*entityKey, uid, fileName) : std::nullopt;
  if (!url) return std::nullopt;
  std::vector<uint8_t> stored;
  if (Error error = env_->readFile(correctedDataURL(*url).path(), &stored)) {
    logError(error, "QuillonReadOperation");
    return std::nullopt;
  }
  std::vector<uint8_t> plain;
  if (!files_->open(stored, &plain)) return std::nullopt;
  return plain;
}

std::shared_ptr<QuillonCacheItem> QuillonStore::loadValuesForEntity(
    const EntityDescription& entity, const std::string& uid, ManagedObjectContext* /*context*/,
    const Value& upToChange) {
  if (!isSafePathComponent(uid)) {
    log(fmt::format("Refused to load {} with the unusable identifier \"{}\"", entity.name(), uid),
        kQuillonLogTypeError);
    return nullptr;
  }
  const auto start = std::chrono::steady_clock::now();
  std::vector<Url> files = changesFilesFor(entity, uid);
  auto item = std::make_shared<QuillonCacheItem>();
  const std::string_view cutOff = upToChange.isString() ? upToChange.str() : std::string_view();

  for (const Url& url : files) {
    const std::string path = url.path();
    if (!QuillonIsOnDisk(path, env_)) {
      addLoadingIssue(
          QuillonLoadingIssue::loadingIssueWithType(kQuillonLoadingIssueRemoteFile, url));
      return nullptr;
    }
    PackageFileReading read = files_->readJSON(path, kRecordFileLimits);
    std::string_view issue;
    switch (read.status) {
      case PackageFileReading::kMissing:
        issue = kQuillonLoadingIssueMissingFile;
        break;
      case PackageFileReading::kEmpty:
        issue = kQuillonLoadingIssueEmptyFile;
        break;
      case PackageFileReading::kUndecryptable:
        issue = kQuillonLoadingIssueUndecryptableFile;
        break;
      default:
        break;
    }
    if (!issue.empty()) {
      addLoadingIssue(QuillonLoadingIssue::loadingIssueWithType(issue, url));
      return nullptr;
    }
    // A record that does not parse, or is not an object, contributes nothing;
    // validation reports such files when their change is applied.
    const Value& record = read.value;
    if (record.isDictionary()) {
      const Value& payload = record.get(kRecordPayloadKey);
      if (payload.isDictionary()) {
        item->updateValues(payload, entity, url, record.get(kRecordVersionKey));
      }
    } else {
      systemLog(fmt::format("Skipped the unreadable record {}", url.absoluteString()));
    }
    if (!cutOff.empty() && url.absoluteString().find(cutOff) != std::string::npos) break;
  }

  const double elapsed =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  if (elapsed > kSlowLoadMilliseconds && !files.empty()) {
    addLoadingIssue(QuillonLoadingIssue::loadingIssueWithType(
        kQuillonLoadingIssueLoadingPerformance, files.front(), Value::float64(elapsed)));
  }
  return item;
}

void QuillonStore::resetAttributesForManagedObject(ManagedObject& object) {
  const ManagedObjectIDPtr& objectID = object.objectID();
  if (!objectID || !object.entity()) return;
  ManagedObjectContext* context = object.managedObjectContext();
  std::vector<Url> files = changesFilesFor(*object.entity(), uidForObjectID(objectID, context));
  if (files.empty()) return;
  Value firstChange = Value::string(files.front().lastPathComponent());
  std::shared_ptr<QuillonCacheItem> item = loadValuesForObjectID(objectID, context, firstChange);
  if (!item) return;
  Value values = item->allValuesForObjectID(objectID, this, context);
  for (const auto& [key, value] : values.items()) {
    if (!key.isString() || !object.entity()->attribute(key.str())) continue;
    object.setValue(key.str(), value);
  }
}

Value QuillonStore::changesDictionaryForObjectIDs(
    const std::vector<ManagedObjectIDPtr>& objectIDs) {
  Value changes = Value::dictionary(true);
  for (const ManagedObjectIDPtr& objectID : objectIDs) {
    if (!objectID || !objectID->entity()) continue;
    Value entityName = Value::string(objectID->entity()->name());
    Value uids = changes.get(entityName);
    if (uids.isNil()) {
      uids = Value::dictionary(true);
      changes.set(entityName, uids);
    }
    uids.set(Value::string(storeUID(*objectID)), Value::array());
  }
  return changes;
}

// ---- Issues and progress ------------------------------------------------------

void QuillonStore::addLoadingIssue(QuillonLoadingIssue issue) {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  loadingIssues_.push_back(std::move(issue));
}

std::vector<QuillonLoadingIssue> QuillonStore::loadingIssues() const {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  return loadingIssues_;
}

void QuillonStore::incrementProgress() {
  ++saveOperationsValue_;
  if (progressInfo().isNil()) return;
  std::weak_ptr<IncrementalStore> weak = weak_from_this();
  MainQueue::async([weak] {
    auto self = std::static_pointer_cast<QuillonStore>(weak.lock());
    if (!self) return;
    Value info = self->progressInfo();
    if (!info.isDictionary()) return;
    info.set(Value::string("progressMax"), Value::integer(self->saveOperationsCount()));
    info.set(Value::string("progressValue"), Value::integer(self->saveOperationsValue()));
  });
}

void QuillonStore::setProgressInfo(Value progressInfo) {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  progressInfo_ = std::move(progressInfo);
}

Value QuillonStore::progressInfo() const {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  return progressInfo_;
}

}  // namespace quillon
