#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quillon/base/date_format.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/plist.h"
#include "quillon/base/system_log.h"
#include "quillon/cache/cache.h"
#include "quillon/coding/file_manager_utils.h"
#include "quillon/coding/string_utils.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"

namespace quillon {

struct QuillonStore::LogLink {
  // Held while a block works on the store, so that a store destroyed on
  // another thread waits for it. Recursive: an observer of a notice that a
  // block posts may destroy the store on the main thread.
  std::recursive_mutex mutex;
  QuillonStore* store;
};

QuillonStore::LogLinkOwner::LogLinkOwner(QuillonStore* store) : link_(std::make_shared<LogLink>()) {
  link_->store = store;
}

QuillonStore::LogLinkOwner::~LogLinkOwner() {
  std::lock_guard<std::recursive_mutex> lock(link_->mutex);
  MainQueue::cancelPreviousPerformRequests(link_->store, "refreshLog");
  link_->store = nullptr;
}

namespace {

constexpr int kErrorsArrayLimit = 20;
constexpr double kRecentErrorsInterval = 864000;  // ten days
constexpr size_t kSessionInfoLimit = 100;
// Error records are small property lists; anything far larger is not one.
constexpr uint64_t kMaximumErrorRecordSize = 8 << 20;

void postValueChange(const QuillonStore* store, std::string_view notification,
                     std::string_view key) {
  NotificationCenter::defaultCenter().post(notification, store,
                                           Value::dictionary({{"key", Value(key)}}));
}

// Whether the store's last owner has let go, so that its members are being
// torn down: work still running then (a queue the cache drains as it goes)
// may call the log, which must not reach for members that are gone. A store
// still under construction has no owner yet and logs normally.
bool isBeingDestroyed(const QuillonStore& store) {
  std::weak_ptr<const IncrementalStore> self = store.weak_from_this();
  const std::weak_ptr<const IncrementalStore> none;
  const bool owned = self.owner_before(none) || none.owner_before(self);
  return owned && self.expired();
}

// Runs `work` on the main queue with the store, unless the store is gone by then.
template <typename Link, typename Work>
void onMainQueueWithStore(std::shared_ptr<Link> link, Work work) {
  MainQueue::async([link = std::move(link), work = std::move(work)]() mutable {
    std::lock_guard<std::recursive_mutex> lock(link->mutex);
    if (link->store) work(*link->store, link);
  });
}

}  // namespace

// ---- The log ----

void QuillonStore::log(const std::string& message, std::string_view type, const Value& menu) {
  if (isBeingDestroyed(*this)) return;
  auto add = [message, type = std::string(type), menu](QuillonStore& store,
                                                       const std::shared_ptr<LogLink>& link) {
    std::vector<Value::Entry> entry;
    entry.emplace_back("date", Value::date(dateNow()));
    entry.emplace_back("message", Value(message));
    if (!menu.isNil()) entry.emplace_back("menu", menu);
    entry.emplace_back(Value(kQuillonLogType), Value(type));
    if (store.log_.isNil()) store.log_ = Value::mutableArray();
    store.log_.append(Value::dictionary(std::move(entry)));

    // One notice for a burst: each entry pushes the refresh a second further.
    MainQueue::cancelPreviousPerformRequests(&store, "refreshLog");
    auto refresh = [link] {
      std::lock_guard<std::recursive_mutex> lock(link->mutex);
      if (link->store) link->store->refreshLog();
    };
    MainQueue::afterDelay(1.0, std::move(refresh), &store, "refreshLog");
  };
  onMainQueueWithStore(logLink_.link(), std::move(add));
}

void QuillonStore::log(const std::string& message) { log(message, kQuillonLogTypeWarning); }

Value QuillonStore::logEntries() const {
  // The log only grows, so an equal count means the snapshot is current.
  if (logSnapshot_.isNil() || logSnapshot_.size() != log_.size()) {
    std::vector<Value> newestFirst(log_.elements().rbegin(), log_.elements().rend());
    logSnapshot_ = Value::array(std::move(newestFirst));
  }
  return logSnapshot_;
}

void QuillonStore::refreshLog() {
  postValueChange(this, kQuillonWillChangeValueNotification, "log");
  postValueChange(this, kQuillonDidChangeValueNotification, "log");
}

void QuillonStore::logError(const Error& error, const std::string& domain) {
  if (!error || domain.empty()) return;
  logErrorString(error.description(), domain);
}

void QuillonStore::logErrorString(const std::string& text, const std::string& domain) {
  Quillon::logErrorString(fmt::format("{} {}", url().absoluteString(), text), domain);
}

void QuillonStore::setErrorLevel(std::string_view type) {
  if (isBeingDestroyed(*this)) return;
  auto set = [type = std::string(type)](QuillonStore& store, const std::shared_ptr<LogLink>&) {
    postValueChange(&store, kQuillonWillChangeValueNotification, "errorLevel");
    store.errorLevel_ = type;
    postValueChange(&store, kQuillonDidChangeValueNotification, "errorLevel");
  };
  onMainQueueWithStore(logLink_.link(), std::move(set));
}

std::string QuillonStore::errorLevel() const { return errorLevel_; }

// ---- Error records ----

Value QuillonStore::errorsArray() {
  const std::string folder = errorsURL().path();
  std::vector<std::string> names;
  Value records = Value::mutableArray();
  if (env_->listDirectory(folder, &names)) return records;
  std::erase_if(names, [](const std::string& name) {
    return !isSafePathComponent(name) || name.front() == '.';
  });
  std::sort(names.begin(), names.end(), std::greater<>());
  if (names.size() > kErrorsArrayLimit) names.resize(kErrorsArrayLimit);

  for (const std::string& name : names) {
    const std::string path = folder + "/" + name;
    FileAttributes attributes;
    if (env_->attributes(path, &attributes) || !attributes.isRegular() ||
        attributes.size > kMaximumErrorRecordSize) {
      continue;
    }
    std::vector<uint8_t> bytes;
    if (env_->readFile(path, &bytes)) continue;
    Value record = readPropertyList(bytes);
    if (!record.isDictionary()) {
      // A document with a password may hold its records enciphered.
      std::vector<uint8_t> plain;
      if (decrypt(bytes, &plain)) record = readPropertyList(plain);
    }
    if (record.isDictionary()) records.append(std::move(record));
  }
  return records;
}

Value QuillonStore::recentErrorsArray() {
  const double since = dateNow() - kRecentErrorsInterval;
  Value recent = Value::mutableArray();
  Value all = errorsArray();
  for (const Value& record : all.elements()) {
    const Value& date = record.get("date");
    if (date.isDate() && date.dateValue() > since) recent.append(record);
  }
  return recent;
}

Value QuillonStore::peformanceArray() const {
  Value issues = Value::mutableArray();
  for (const QuillonLoadingIssue& issue : loadingIssues()) issues.append(issue.dictionary());
  return issues;
}

// ---- Sessions and checksums ----

Value QuillonStore::sessionDictionary() const {
  std::vector<Value::Entry> session;
  session.emplace_back("userName", Value(userName_));
  session.emplace_back("fullUserName", Value(fullUserName_));
  session.emplace_back("machineName", Value(machineName_));
  session.emplace_back("id", Value(session_));
  session.emplace_back("version", Quillon::applicationInfo().get("CFBundleVersion"));
  session.emplace_back("osVersion", Value(osVersion_));
  session.emplace_back("userInfo", userInfo());  // dropped when nil
  return Value::dictionary(std::move(session));
}

Value QuillonStore::sessionInfo() {
  static constexpr std::string_view kWriterKeys[] = {"machineName", "fullUserName", "userName",
                                                     "version", "osVersion"};
  Value changes = cache().changes();
  Value writers = Value::mutableArray();
  auto entries = changes.elements();
  size_t seen = 0;
  for (auto it = entries.rbegin(); it != entries.rend() && seen < kSessionInfoLimit; ++it, ++seen) {
    const Value& session = it->get("session");
    if (!session.isDictionary()) continue;
    std::vector<Value::Entry> writer;
    for (std::string_view key : kWriterKeys) {
      const Value& value = session.get(key);
      writer.emplace_back(Value(key), value.isNil() ? Value::null() : value);
    }
    Value row = Value::dictionary(std::move(writer));
    if (!writers.contains(row)) writers.append(std::move(row));
  }
  return writers;
}

std::string QuillonStore::checkSum() {
  Value changes = cache().changes();
  std::string names;
  bool first = true;
  for (const Value& change : changes.elements()) {
    if (!first) names += ',';
    first = false;
    names += change.get("name").str();
  }
  return storeMD5String(names).substr(0, 6);
}

Value QuillonStore::infoArrayForContext(ManagedObjectContext* context) {
  auto row = [](std::string_view key, Value value) {
    return Value::dictionary({{"key", Value(key)}, {"value", std::move(value)}});
  };
  Value rows = Value::mutableArray();
  rows.append(row("Document Identifier", Value(documentIdentifier())));
  rows.append(row("Checksum", Value(checkSum())));

  // Model order when the model is at hand, so that the rows read the same on
  // every computer.
  std::vector<const EntityDescription*> ordered;
  PersistentStoreCoordinator* coordinator = persistentStoreCoordinator();
  if (coordinator && coordinator->managedObjectModel()) {
    for (const EntityDescription* entity : coordinator->managedObjectModel()->entities()) {
      if (const EntityDescription* mine = entityNamed(entity->name())) ordered.push_back(mine);
    }
  } else {
    for (const auto& [name, entity] : entities()) ordered.push_back(entity);
    std::sort(ordered.begin(), ordered.end(),
              [](const auto* a, const auto* b) { return a->name() < b->name(); });
  }

  for (const EntityDescription* entity : ordered) {
    if (entity->isAbstract()) continue;
    FetchRequest request(entity->name());
    request.setResultType(FetchRequestResultType::Count);
    request.setIncludesSubentities(true);
    Value answer = executeFetchRequest(request, context);
    Value count = answer.isSequence() ? (answer.empty() ? Value(0) : answer[0]) : answer;
    if (!count.isNumber()) count = Value(0);
    rows.append(row(entity->name(), Value(count.intValue())));
  }
  return rows;
}

// ---- Repair ----

void QuillonStore::fixSyncConflicts() {
  std::vector<std::string> known;
  for (const auto& [entity, key] : entityKeys()) known.push_back(key);
  auto lower = [](std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  };
  std::sort(known.begin(), known.end(), [&](const std::string& a, const std::string& b) {
    std::string la = lower(a), lb = lower(b);
    return la != lb ? la < lb : a < b;
  });

  const std::string entities = entitiesURL().path();
  std::vector<std::string> names;
  if (env_->listDirectory(entities, &names)) return;
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (!isSafePathComponent(name) || name.front() == '.') continue;
    if (std::find(known.begin(), known.end(), name) != known.end()) continue;
    const std::string source = entities + "/" + name;
    if (!env_->isDirectory(source)) continue;
    // A longer known name wins over a shorter one that is its prefix.
    auto match = std::find_if(known.rbegin(), known.rend(),
                              [&](const std::string& key) { return name.starts_with(key); });
    if (match == known.rend()) continue;
    systemLog(fmt::format("{} -> {}", name, *match));
    quillonMergeContentsOfPath(source, entities + "/" + *match, nullptr, env_);
  }
}

}  // namespace quillon
