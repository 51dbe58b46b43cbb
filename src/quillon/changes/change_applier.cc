#include "quillon/changes/change_applier.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quillon/base/internal/dispatch_queue.h"
#include "quillon/base/env.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/cache/internal/merge.h"
#include "quillon/changes/internal/change_file_check.h"
#include "quillon/changes/store_log.h"
#include "quillon/coding/internal/url_utils.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/package_files.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/quillon.h"

namespace quillon {
namespace {

using Log = QuillonStoreLog;

}  // namespace

// What one pass carries from the main thread to the read queue and back.
struct QuillonChangeApplier::Pass {
  std::vector<std::string> names;  // the change files, sorted
  size_t start = 0;
  bool hadError = false;
  bool remoteFiles = false;
  Value inserts = Value::mutableDictionary();
  Value updates = Value::mutableDictionary();
  Value deletes = Value::mutableDictionary();
  std::function<void(bool)> completion;
  std::shared_ptr<void> keepAlive;  // the host, while the pass is away from the main queue

  // Main thread: the completion, then the host may go.
  void finish(bool success) {
    std::function<void(bool)> done = std::move(completion);
    if (done) done(success);
    keepAlive.reset();
  }
};

QuillonChangeApplier::QuillonChangeApplier(QuillonApplierHost& host,
                                           std::shared_ptr<QuillonCache> cache,
                                           std::shared_ptr<PackageFiles> files,
                                           DispatchQueue& readQueue, Value upToChange)
    : host_(host),
      cache_(std::move(cache)),
      files_(std::move(files)),
      readQueue_(readQueue),
      upToChange_(std::move(upToChange)) {}

void QuillonChangeApplier::apply(std::function<void(bool success)> completion) {
  const PackageLayout layout = host_.layout();
  const Url changesURL = layout.changes();
  const std::string changesPath = changesURL.path();
  Env* env = files_->env();
  auto log = [this](const std::string& message, std::string_view type,
                    const Value& menu = Value()) { host_.log(message, type, menu); };

  auto pass = std::make_shared<Pass>();
  std::vector<std::string> conflictCopies;
  if (changesPath.empty() || !env->exists(changesPath) ||
      listChangeFiles(env, changesURL, &pass->names, &conflictCopies)) {
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
                    changesURL.appending(copy).absoluteString()),
        kQuillonLogTypeWarning, Value::array({Log::showInFinderItem(changesURL.appending(copy))}));
  }
  changesFileCount_.store(pass->names.size());

  if (upToChange_.isDictionary()) {
    const Value& last = upToChange_.get("name");
    if (last.isString()) {
      auto found = std::find(pass->names.begin(), pass->names.end(), last.str());
      if (found != pass->names.end()) pass->names.erase(found + 1, pass->names.end());
    }
  }

  const size_t start = cache_->keepAgreeingChanges(pass->names);
  if (start == pass->names.size()) {
    log("No new changes to apply", kQuillonLogTypeSuccess);
    pass->completion(true);
    return;
  }
  if (start == 0) {
    cache_->reset();
    log("Reset Log", kQuillonLogTypeWarning);
  }
  pass->start = start;
  // The read queue belongs to the store, so the store must never be released
  // there: the pass keeps it alive, and the pass is released on the main queue.
  pass->keepAlive = host_.keepAlive();
  readQueue_.async([this, pass] { applyChangeFiles(pass); });
}

// Read queue. The pass ends in the last block handed to the main queue, so
// the host is never released on this queue, which the host owns.
void QuillonChangeApplier::applyChangeFiles(const std::shared_ptr<Pass>& pass) {
  QuillonApplierHost& store = host_;
  Env* env = files_->env();
  auto log = [this](const std::string& message, std::string_view type,
                    const Value& menu = Value()) { host_.log(message, type, menu); };
  const Url changes = store.layout().changes();
  const bool recovering = store.recover();
  for (size_t i = pass->start; i < pass->names.size(); ++i) {
    const std::string& name = pass->names[i];
    const Url fileURL = changes.appending(name);
    const std::string path = fileURL.path();
    const std::string shown = fileURL.absoluteString();
    const Value ignoreMenu = Value::array({Log::ignoreItem(fileURL)});

    if (!QuillonIsOnDisk(path, env)) {
      log(fmt::format("Change file is not on disk: {}", shown), kQuillonLogTypeError);
      pass->hadError = true;
      pass->remoteFiles = true;
    }

    Value change;
    ChangeFileReading reading = readChangeFile(*files_, path, name, &change);
    if (reading.outcome == ChangeFileReading::kMissing) {
      log(fmt::format("Missing change file: {}", shown), kQuillonLogTypeWarning, ignoreMenu);
      pass->hadError = true;
      if (!recovering) break;
    } else if (reading.outcome != ChangeFileReading::kRead) {
      if (reading.outcome == ChangeFileReading::kUndecryptable) {
        log(fmt::format("Could not decrypt change file: {}", shown), kQuillonLogTypeWarning,
            ignoreMenu);
      }
      Value menu = Value::array({Log::ignoreItem(fileURL), Log::showInFinderItem(fileURL)});
      log(fmt::format("Incomplete change file: {}", shown), kQuillonLogTypeWarning, menu);
      if (reading.outcome == ChangeFileReading::kInvalid) {
        log(fmt::format("Refused change file: {}: {}", shown, reading.problem),
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
          log(fmt::format("Date inconsistency in change file: {}. Use the menu File/Save as and "
                          "create a new file.",
                          ownName.str()),
              kQuillonLogTypeError);
          store.setErrorLevel(kQuillonLogTypeError);
        }
        // The reader has checked that the name is one path component.
        const Url previousURL = changes.appending(previous.str());
        if (!env->exists(previousURL.path())) {
          Value menu = Value::array({Log::menuItem("Ignore", "insertChangeFromMenu:", previousURL),
                                     Log::showInFinderItem(previousURL)});
          log(fmt::format("Missing change file: {}", previous.str()), kQuillonLogTypeWarning, menu);
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
      MainQueue::async([pass] { pass->finish(false); });
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
        log(fmt::format("Could not merge change file: {}: {}", shown, e.what()),
            kQuillonLogTypeWarning);
      }
    }
    MainQueue::async(
        [cache = cache_, change, loaded] { cache->addExternalChange(change, loaded); });
  }

  MainQueue::async(
      [this, pass] { host_.refreshInsertedObjects(pass->inserts, pass->updates, pass->deletes); });
  MainQueue::async([this, pass, recovering] {
    hasRemoteFiles_.store(pass->remoteFiles);
    pass->finish(recovering || (!pass->hadError && !pass->remoteFiles));
  });
}

}  // namespace quillon
