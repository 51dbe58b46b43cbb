// Applying other computers' changes to an open document: the update pass over
// the "Changes" folder, the refresh of the affected objects in every context,
// and the remedies offered by the log's menus.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quillon/base/dispatch_queue.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/system_log.h"
#include "quillon/cache/cache.h"
#include "quillon/cache/cache_collection.h"
#include "quillon/cache/merge.h"
#include "quillon/changes/change_file_check.h"
#include "quillon/coding/url_utils.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/platform/file_viewer.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/managed_object_context.h"
#include "quillon/store/package_format.h"
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

Value menuItem(std::string_view title, std::string_view action, const Url& url) {
  return Value::dictionary(
      {{"title", Value(title)}, {"action", Value(action)}, {"URL", Value(url.absoluteString())}});
}

Value ignoreItem(const Url& changeURL) {
  return menuItem("Ignore", "discardChangeFromMenu:", changeURL);
}

Value showItem(const Url& url) { return menuItem("Show in Finder", "showInFinder:", url); }

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

// What one pass carries from the main thread to the read queue and back.
struct QuillonStore::UpdatePass {
  std::vector<std::string> names;  // the change files, sorted
  size_t start = 0;
  bool hadError = false;
  bool remoteFiles = false;
  Value inserts = Value::mutableDictionary();
  Value updates = Value::mutableDictionary();
  Value deletes = Value::mutableDictionary();
  std::function<void(bool)> completion;
};

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
    MainQueue::async([] { NotificationCenter::defaultCenter().post(kQuillonReady); });
  });
}

void QuillonStore::updateChangesWithCompletion(std::function<void(bool success)> completion) {
  auto self = std::static_pointer_cast<QuillonStore>(shared_from_this());
  const std::string changesPath = changesURL().path();

  auto pass = std::make_shared<UpdatePass>();
  std::vector<std::string> conflictCopies;
  if (changesPath.empty() || !env()->exists(changesPath) ||
      listChangeFiles(env(), changesURL(), &pass->names, &conflictCopies)) {
    log("No change files found", kQuillonLogTypeSuccess);
    completion(true);
    return;
  }
  pass->completion = std::move(completion);
  // A sync service's copy of a change file is not part of the history; the
  // user hears of each one once.
  for (const std::string& copy : conflictCopies) {
    if (!reportedConflictCopies_.insert(copy).second) continue;
    log(fmt::format("Ignored a conflict copy of a change file: {}",
                    changesURL().appending(copy).absoluteString()),
        kQuillonLogTypeWarning, Value::array({showItem(changesURL().appending(copy))}));
  }
  changesFileCount_.store(pass->names.size());

  if (upToChange_.isDictionary()) {
    const Value& last = upToChange_.get("name");
    if (last.isString()) {
      auto found = std::find(pass->names.begin(), pass->names.end(), last.str());
      if (found != pass->names.end()) pass->names.erase(found + 1, pass->names.end());
    }
  }

  const size_t start = cache().keepAgreeingChanges(pass->names);
  if (start == pass->names.size()) {
    log("No new changes to apply", kQuillonLogTypeSuccess);
    pass->completion(true);
    return;
  }
  if (start == 0) {
    cache().reset();
    log("Reset Log", kQuillonLogTypeWarning);
  }
  pass->start = start;
  // The read queue belongs to the store, so the store must never be released
  // there: the reference moves on to the pass's last main-queue block.
  readQueue().async([self, pass]() mutable { applyChangeFiles(std::move(self), pass); });
}

// Read queue. `self` ends in the last block handed to the main queue, so the
// last reference is never dropped on this queue, which the store owns.
void QuillonStore::applyChangeFiles(std::shared_ptr<QuillonStore> self,
                                    const std::shared_ptr<UpdatePass>& pass) {
  QuillonStore& store = *self;
  const Url changes = store.changesURL();
  const bool recovering = store.recover();
  for (size_t i = pass->start; i < pass->names.size(); ++i) {
    const std::string& name = pass->names[i];
    const Url fileURL = changes.appending(name);
    const std::string path = fileURL.path();
    const std::string shown = fileURL.absoluteString();
    const Value ignoreMenu = Value::array({ignoreItem(fileURL)});

    if (!QuillonIsOnDisk(path, store.env())) {
      store.log(fmt::format("Change file is not on disk: {}", shown), kQuillonLogTypeError);
      pass->hadError = true;
      pass->remoteFiles = true;
    }

    Value change;
    ChangeFileReading reading = readChangeFile(store.packageFiles(), path, name, &change);
    if (reading.outcome == ChangeFileReading::kMissing) {
      store.log(fmt::format("Missing change file: {}", shown), kQuillonLogTypeWarning, ignoreMenu);
      pass->hadError = true;
      if (!recovering) break;
    } else if (reading.outcome != ChangeFileReading::kRead) {
      if (reading.outcome == ChangeFileReading::kUndecryptable) {
        store.log(fmt::format("Could not decrypt change file: {}", shown), kQuillonLogTypeWarning,
                  ignoreMenu);
      }
      Value menu = Value::array({ignoreItem(fileURL), showItem(fileURL)});
      store.log(fmt::format("Incomplete change file: {}", shown), kQuillonLogTypeWarning, menu);
      if (reading.outcome == ChangeFileReading::kInvalid) {
        store.log(fmt::format("Refused change file: {}: {}", shown, reading.problem),
                  kQuillonLogTypeWarning, menu);
      }
      pass->hadError = true;
      if (!recovering) break;
      change = Value();
    }

    if (change.isDictionary()) {
      const Value& previous = change.get("previousName");
      if (previous.isString()) {
        const Value& ownName = change.get("name");
        if (ownName.isString() && ownName.str() < previous.str()) {
          store.log(
              fmt::format("Date inconsistency in change file: {}. Use the menu File/Save as and "
                          "create a new file.",
                          ownName.str()),
              kQuillonLogTypeError);
          store.setErrorLevel(kQuillonLogTypeError);
        }
        // The reader has checked that the name is one path component.
        const Url previousURL = changes.appending(previous.str());
        if (!store.env()->exists(previousURL.path())) {
          Value menu = Value::array(
              {menuItem("Ignore", "insertChangeFromMenu:", previousURL), showItem(previousURL)});
          store.log(fmt::format("Missing change file: {}", previous.str()), kQuillonLogTypeWarning,
                    menu);
          pass->hadError = true;
          if (!recovering) break;
        }
      }
    }

    // The inserted objects' records are read by validation; the cache keeps
    // what it read instead of reading them again.
    Value loaded = Value::mutableDictionary();
    Value validated = store.validatedChanges(change, false, &loaded);
    if (validated.isNil()) {
      MainQueue::async([self = std::move(self), pass] { pass->completion(false); });
      return;
    }
    store.setErrorLevel(kQuillonLogTypeSuccess);
    const bool isRecovery = change.get("type").isString() && change.get("type").str() == "recovery";
    const Value& sections = change.get(isRecovery ? "refreshes" : kQuillonChanges);
    if (sections.isDictionary()) {
      try {
        if (sections.get(kQuillonInsert).isDictionary()) {
          mergeWithDictionary(pass->inserts, sections.get(kQuillonInsert));
        }
        if (sections.get(kQuillonUpdate).isDictionary()) {
          mergeWithDictionary(pass->updates, sections.get(kQuillonUpdate));
        }
        if (sections.get(kQuillonDelete).isDictionary()) {
          mergeWithDictionary(pass->deletes, sections.get(kQuillonDelete));
        }
      } catch (const std::exception& e) {
        store.log(fmt::format("Could not merge change file: {}: {}", shown, e.what()),
                  kQuillonLogTypeWarning);
      }
    }
    MainQueue::async([self, change, loaded] { self->cache().addExternalChange(change, loaded); });
  }

  MainQueue::async(
      [self, pass] { self->refreshInsertedObjects(pass->inserts, pass->updates, pass->deletes); });
  MainQueue::async([self = std::move(self), pass, recovering] {
    self->hasRemoteFiles_.store(pass->remoteFiles);
    pass->completion(recovering || (!pass->hadError && !pass->remoteFiles));
  });
}

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
                                    {kQuillonUpdatedObjectsKey, updated.copy()}});
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

void QuillonStore::discardChangeFromMenu(const Url& changeURL) {
  log(fmt::format("Discarding a change is not available yet: {}", changeURL.absoluteString()),
      kQuillonLogTypeWarning);
}

void QuillonStore::insertChangeFromMenu(const Url& changeURL) {
  // The URL came from a menu built from a change file: it must name a file
  // directly inside this package's "Changes".
  const std::string name = changeURL.lastPathComponent();
  if (!isSafePathComponent(name) ||
      changeURL.deletingLastPathComponent().path() != changesURL().path()) {
    log(fmt::format("Cannot insert a change outside the package: {}", changeURL.absoluteString()),
        kQuillonLogTypeError);
    return;
  }
  insertChange(changesURL().appending(name));
}

void QuillonStore::showInFinder(const Url& url) {
  if (!FileViewer::reveal(url.path())) {
    systemLog(fmt::format("Could not show {} in the file manager", url.path()));
  }
}

}  // namespace quillon
