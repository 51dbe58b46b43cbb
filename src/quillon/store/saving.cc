// QuillonStore: saves, over QuillonSaveQueue. A save becomes one change and one record per object;
// records are written in parallel on the save queue and the change file,
// which other computers watch for, only after all of them.

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/internal/dispatch_queue.h"
#include "quillon/base/env.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/version.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/changes/internal/change.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/graph/save_changes_request.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/internal/object_record.h"
#include "quillon/store/progress_sink.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"

namespace quillon {

Value QuillonStore::executeSaveRequest(const SaveChangesRequest& request,
                                       ManagedObjectContext* context) {
  env()->createDirectories(url().path());

  // Objects that were only touched have nothing to write.
  std::vector<ManagedObjectPtr> updated;
  for (const auto& object : request.updatedObjects()) {
    if (object && !quillonChangedKeys(*object).empty()) updated.push_back(object);
  }
  const auto& inserted = request.insertedObjects();
  const auto& deleted = request.deletedObjects();
  const auto count = static_cast<int64_t>(updated.size() + inserted.size() + deleted.size());

  // The context is not a Value; observers get its address.
  NotificationCenter::defaultCenter().post(
      kQuillonBeginSave, this,
      Value::dictionary({{Value::string("count"), Value::integer(count)},
                         {Value::string("context"), Value::integer(static_cast<int64_t>(
                                                        reinterpret_cast<intptr_t>(context)))}}));
  saves_->beginSave(count);

  QuillonChange change(this, dateNow());
  auto write = [&](const std::vector<ManagedObjectPtr>& objects, std::string_view type) {
    for (const auto& object : objects) {
      if (!object) continue;
      saveToStoreWithChange(*object, this, &change, type);
      incrementProgress();
    }
  };
  write(updated, kQuillonUpdate);
  write(inserted, kQuillonInsert);
  write(deleted, kQuillonDelete);
  change.saveToStore(this);
  return Value::array();
}

void QuillonStore::writeAllObjectsInContext(const std::shared_ptr<ManagedObjectContext>& context,
                                            QuillonStore* sourceStore, const Value& options,
                                            std::function<void(ManagedObjectContext*)> completion) {
  std::shared_ptr<QuillonProgressSink> sink;
  if (options.isDictionary()) {
    const Value& busy = options.get(kQuillonBusyWindowControllerOptionsKey);
    if (busy.isObject()) sink = std::dynamic_pointer_cast<QuillonProgressSink>(busy.objectValue());
  }
  Value rules = options.isDictionary() ? options.get(kQuillonAnonymizeOptionsKey) : Value();
  auto child = ManagedObjectContext::create(ConcurrencyType::PrivateQueue);
  child->setParentContext(context);

  std::weak_ptr<IncrementalStore> weakTarget = weak_from_this();
  std::weak_ptr<IncrementalStore> weakSource =
      sourceStore ? sourceStore->weak_from_this() : std::weak_ptr<IncrementalStore>();
  cache().queue().async([weakTarget, weakSource, context, child, sink, rules,
                         completion = std::move(completion)]() mutable {
    auto target = std::static_pointer_cast<QuillonStore>(weakTarget.lock());
    auto source = std::static_pointer_cast<QuillonStore>(weakSource.lock());
    if (target && source) {
      target->env()->createDirectories(target->url().path());
      QuillonChange change(source.get(), dateNow());
      std::vector<const EntityDescription*> entities;
      if (auto coordinator = context->persistentStoreCoordinator()) {
        if (const auto& model = coordinator->managedObjectModel()) entities = model->entities();
      }
      size_t done = 0;
      for (const EntityDescription* entity : entities) {
        child->performAndWait([&] {
          FetchRequest request(entity->name());
          request.setIncludesSubentities(false);
          std::vector<ManagedObjectPtr> objects = child->fetchObjects(request);
          Error ignored;
          target->obtainPermanentIDsForObjects(objects, &ignored);
          for (const auto& object : objects) {
            saveFromStore(*object, source.get(), target.get(), &change, rules, kQuillonInsert);
          }
        });
        ++done;
        if (sink) {
          double fraction = static_cast<double>(done) / static_cast<double>(entities.size());
          MainQueue::async([sink, fraction] { sink->setProgress(fraction); });
        }
      }
      change.saveToStore(target.get());
      target->saveOperationQueue().waitUntilAllOperationsAreFinished();
    }
    // The strong references are dropped on the main thread: the last one
    // must never destroy a store (and so its cache and this queue) from
    // inside the cache's own queue.
    MainQueue::async([target = std::move(target), source = std::move(source), context,
                      completion = std::move(completion)] {
      if (completion) completion(context.get());
    });
  });
}

bool QuillonStore::durableSaves() const {
  const Value& all = options();
  if (!all.isDictionary()) return true;
  const Value* durable = all.find(kQuillonDurableSavesOption);
  return !durable || durable->isNil() || durable->boolValue();
}

void QuillonStore::saveDidFail(const Error& error, const Value& change) {
  const Error failure =
      error ? error
            : Error::withDescription(std::string(kCocoaErrorDomain), kCocoaFileWriteUnknownError,
                                     "the change could not be sealed");
  const Value& name = change.get("name");
  const std::string changeName = name.isString() ? std::string(name.str()) : std::string();
  const Value& path = failure.userInfo().get(kFilePathErrorKey);
  logErrorString(fmt::format("Save not published: {} could not be written{}: {}", changeName,
                             path.isString() ? fmt::format(" ({})", path.str()) : std::string(),
                             failure.localizedDescription()),
                 "QuillonSaveOperation");
  saves_->recordFailure(failure);
  // The records that were written stay as orphans no change names; the
  // cache forgets what it took from them.
  const Value& sections = change.get(kQuillonChanges);
  if (sections.isDictionary() && cache_) {
    cache_->invalidateObjectUIDs(sections.get(kQuillonInsert));
    cache_->invalidateObjectUIDs(sections.get(kQuillonUpdate));
    // A deleted object's record made it an empty item; it is still there.
    cache_->invalidateObjectUIDs(sections.get(kQuillonDelete));
  }
  Value userInfo = Value::dictionary({{"error", Value::string(failure.localizedDescription())},
                                      {"change", Value::string(changeName)}});
  std::weak_ptr<IncrementalStore> weak = weak_from_this();
  MainQueue::async([weak, userInfo] {
    if (auto self = weak.lock()) {
      NotificationCenter::defaultCenter().post(kQuillonSaveDidFail,
                                               static_cast<QuillonStore*>(self.get()), userInfo);
    }
  });
}

}  // namespace quillon
