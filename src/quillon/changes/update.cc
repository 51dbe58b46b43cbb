// Applying other computers' changes to an open document: loading the cache's
// change log, scheduling update passes (QuillonChangeApplier runs them), the
// refresh of the affected objects in every context, and the history
// operations offered by the log's menus (over QuillonChangeHistory).

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quillon/base/internal/dispatch_queue.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/cache/internal/cache_collection.h"
#include "quillon/cache/internal/merge.h"
#include "quillon/changes/internal/change_file_check.h"
#include "quillon/coding/internal/url_utils.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/managed_object_context.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"

namespace quillon {
namespace {

constexpr double kRetryDelaySeconds = 10.0;
constexpr std::string_view kUpdateChangesSelector = "updateChanges";

// The private notice that makes object controllers re-read their objects.
constexpr std::string_view kObjectsChangedPrivateNotification =
    "_NSObjectsChangedInManagingContextPrivateNotification";

std::shared_ptr<QuillonStore> lockStore(const std::weak_ptr<IncrementalStore>& weak) {
  return std::static_pointer_cast<QuillonStore>(weak.lock());
}

// The objects of one section of an accumulator (entity name → uid → entry),
// as the context's objects; unknown entities and unusable uids are skipped.
template <typename Visit>
void forEachObject(QuillonStore& store, ManagedObjectContext& context, const Value& section,
                   Visit&& visit) {
  if (!section.isDictionary()) return;
  for (const auto& [entityName, uids] : section.items()) {
    if (!entityName.isString() || !uids.isDictionary()) continue;
    const EntityDescription* entity = store.entityNamed(entityName.str());
    if (entity == nullptr) continue;
    for (const auto& [uid, entry] : uids.items()) {
      if (!uid.isString() || !isSafePathComponent(uid.str())) continue;
      ManagedObjectIDPtr objectID = store.newObjectIDForEntity(entity, uid);
      if (!objectID) continue;
      ManagedObjectPtr object = context.objectWithID(objectID);
      if (object) visit(object);
    }
  }
}

}  // namespace

void QuillonStore::loadChangeLogIfNeeded() {
  if (cache().changeLog()) return;
  loadChangeLog(cache().storedChangeLog());
}

void QuillonStore::loadChangeLog(const std::shared_ptr<QuillonCacheArray>& log) {
  Value first;
  size_t count = 0;
  log->readContent([&](const Value& changes) {
    count = changes.size();
    if (count > 0) first = changes[0];
  });
  if (first.isNil() || !log->fromBundle()) {
    cache().installChangeLog(log);
    if (count > 0) {
      this->log("Loaded changes", kQuillonLogTypeSuccess);
    } else {
      this->log("No changes found", kQuillonLogTypeWarning);
    }
    return;
  }
  systemLog("Start Check");
  Value validated = validatedChanges(first, true);
  systemLog("End Check");
  if (validated.isNil()) {
    this->log("Aborting for now. Trying later", kQuillonLogTypeWarning);
    std::weak_ptr<IncrementalStore> weak = weak_from_this();
    MainQueue::afterDelay(
        kRetryDelaySeconds,
        [weak] {
          if (auto store = lockStore(weak)) store->loadChangeLogIfNeeded();
        },
        this, "loadChangeLogIfNeeded");
    return;
  }
  cache().installChangeLog(log);
  const Value& sections = first.get(kChangeChangesKey);
  // The update section goes in as inserted objects and the insert section as
  // updated ones; the refresh treats both alike and this order is relied on.
  refreshInsertedObjects(sections.get(kChangeUpdateKey), sections.get(kChangeInsertKey),
                         sections.get(kChangeDeleteKey));
  this->log("Loaded Cache", kQuillonLogTypeSuccess);
}

void QuillonStore::updateChanges() {
  std::weak_ptr<IncrementalStore> weak = weak_from_this();
  if (weak.expired()) {
    // Still being built (the cache asks for an update while it binds to the
    // package): run once the store has an owner. A destroyed store cancels
    // its delayed calls, so `this` is never used after destruction.
    MainQueue::afterDelay(
        0.0, [this] { updateChanges(); }, this, std::string(kUpdateChangesSelector));
    return;
  }
  auto scheduleRetry = [weak] {
    if (auto self = lockStore(weak)) {
      MainQueue::afterDelay(
          kRetryDelaySeconds,
          [weak] {
            if (auto store = lockStore(weak)) store->updateChanges();
          },
          self.get(), std::string(kUpdateChangesSelector));
    }
  };
  if (updating_) {
    log("Update in progress: Abort and trying again in some seconds", kQuillonLogTypeWarning);
    scheduleRetry();
    return;
  }
  updating_ = true;
  auto started = std::chrono::steady_clock::now();
  updateChangesWithCompletion([weak, started, scheduleRetry](bool success) {
    auto self = lockStore(weak);
    if (!self) return;
    if (success && self->cache().changeLog()) {
      double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
      self->log(fmt::format("File: {} up to date after {:.2f} seconds", self->documentIdentifier(),
                            seconds),
                kQuillonLogTypeSuccess);
      self->log(fmt::format("Checksum: {}", self->checkSum()), kQuillonLogTypeSuccess);
    } else if (success) {
      scheduleRetry();
    } else {
      self->log("Missing files: Abort and trying again in some seconds", kQuillonLogTypeWarning);
      scheduleRetry();
    }
    if (success) self->cache().cacheMissingItems();
    self->updating_ = false;
    // Named by its store, so that with several documents open each hears its own.
    MainQueue::async([weak] {
      if (auto store = lockStore(weak)) {
        NotificationCenter::defaultCenter().post(kQuillonReady, store.get());
      }
    });
  });
}

void QuillonStore::updateChangesWithCompletion(std::function<void(bool success)> completion) {
  applier_->apply(std::move(completion));
}

size_t QuillonStore::changesFileCount() const { return applier_->changesFileCount(); }

bool QuillonStore::hasRemoteFiles() const { return applier_->hasRemoteFiles(); }

std::shared_ptr<void> QuillonStore::keepAlive() { return weak_from_this().lock(); }

void QuillonStore::refreshInsertedObjects(const Value& inserts, const Value& updates,
                                          const Value& deletes) {
  if (closed()) return;
  Value inserted = Value::mutableSet();
  Value updated = Value::mutableSet();
  Value deleted = Value::mutableSet();
  Value refreshed = Value::mutableSet();

  for (const auto& context : contexts()) {
    auto* quillonContext = dynamic_cast<QuillonManagedObjectContext*>(context.get());
    if (quillonContext == nullptr) continue;
    auto coordinator = context->persistentStoreCoordinator();
    if (!coordinator || coordinator->persistentStores().empty()) continue;

    auto refreshInto = [&](Value& into) {
      return [&, quillonContext](const ManagedObjectPtr& object) {
        Value member = Value::object(object);
        if (!refreshed.contains(member)) {
          quillonRefreshObject(*quillonContext, object, this);
          refreshed.append(member);
        }
        into.append(member);
      };
    };
    Value userInfo;
    auto work = [&] {
      std::shared_ptr<UndoManager> undoManager = context->undoManager();
      context->setUndoManager(nullptr);
      forEachObject(*this, *context, inserts, refreshInto(inserted));
      forEachObject(*this, *context, updates, refreshInto(updated));
      forEachObject(*this, *context, deletes,
                    [&](const ManagedObjectPtr& object) { deleted.append(Value::object(object)); });
      for (const Value& member : deleted.elements()) inserted.remove(member);
      context->setUndoManager(undoManager);
      userInfo = Value::dictionary({{kQuillonInsertedObjectsKey, inserted.copy()},
                                    {kQuillonDeletedObjectsKey, deleted.copy()},
                                    {kQuillonUpdatedObjectsKey, updated.copy()},
                                    {kQuillonStoreURLKey, url().absoluteString()}});
    };
    if (context->concurrencyType() == ConcurrencyType::PrivateQueue) {
      context->performAndWait(work);
    } else {
      work();
    }
    auto& center = NotificationCenter::defaultCenter();
    center.post(kQuillonObjectsWillChangeExternally, context.get(), userInfo);
    center.post(kObjectsChangedPrivateNotification, context.get(), userInfo);
    center.post(kQuillonObjectsDidChangeExternally, context.get(), userInfo);
  }
}

void QuillonStore::processChanges() { updateChanges(); }

bool QuillonStore::hasObjectWithID(const ManagedObjectIDPtr& objectID) {
  if (!objectID || !objectID->entity() || !cache().changeLog()) return true;
  // A save's objects reach the uid sets with its change file.
  if (saveOperationQueue().operationCount() > 0) return true;
  std::shared_ptr<QuillonCacheSet> uids = cache().cacheForEntityUIDs(objectID->entity()->name());
  if (!uids) return true;
  const Value uid(storeUID(*objectID));
  bool known = false;
  uids->readContent([&](const Value& content) { known = content.contains(uid); });
  return known;
}

QuillonChangeHistory& QuillonStore::history() {
  if (!history_) history_ = std::make_unique<QuillonChangeHistory>(*this, files_);
  return *history_;
}

std::optional<QuillonDiscardedChange> QuillonStore::discardChange(const Url& changeURL) {
  return history().discardChange(changeURL);
}

void QuillonStore::removeChange(const Value& change, const Value& objects, bool wasInsert) {
  history().removeChange(change, objects, wasInsert);
}

void QuillonStore::discardChangeFromMenu(const Url& changeURL) { (void)discardChange(changeURL); }

void QuillonStore::insertChangeFromMenu(const Url& changeURL) { insertChange(changeURL); }

void QuillonStore::showInFinder(const Url& url) { history().showInFinder(url); }

}  // namespace quillon
