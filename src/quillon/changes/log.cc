#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/internal/plist.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/coding/internal/file_manager_utils.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"

namespace quillon {

namespace {

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

}  // namespace

// ---- The log ----

void QuillonStore::log(const std::string& message, std::string_view type, const Value& menu) {
  if (!isBeingDestroyed(*this)) storeLog_.log(message, type, menu);
}

void QuillonStore::log(const std::string& message) { log(message, kQuillonLogTypeWarning); }

Value QuillonStore::logEntries() const { return storeLog_.entries(); }

void QuillonStore::refreshLog() { storeLog_.refresh(); }

void QuillonStore::logError(const Error& error, const std::string& domain) {
  if (!error || domain.empty()) return;
  logErrorString(error.description(), domain);
}

void QuillonStore::logErrorString(const std::string& text, const std::string& domain) {
  Quillon::logErrorString(fmt::format("{} {}", url().absoluteString(), text), domain);
}

void QuillonStore::setErrorLevel(std::string_view type) {
  if (!isBeingDestroyed(*this)) storeLog_.setErrorLevel(type);
}

std::string QuillonStore::errorLevel() const { return storeLog_.errorLevel(); }

// ---- Error records ----

Value QuillonStore::errorsArray() { return QuillonStoreLog::errorRecords(*files_, errorsURL()); }

Value QuillonStore::recentErrorsArray() {
  return QuillonStoreLog::recentErrorRecords(*files_, errorsURL());
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

Value QuillonStore::sessionInfo() { return QuillonStoreLog::writers(cache().changes()); }

std::string QuillonStore::checkSum() { return QuillonStoreLog::checkSum(cache().changes()); }

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
