#include "quillon/store/internal/save_operation.h"

#include <fmt/format.h>

#include "quillon/base/error.h"
#include "quillon/base/json.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/store/store.h"

namespace quillon {

void QuillonSaveBatch::add(std::string path) {
  std::lock_guard lock(mutex_);
  paths_.push_back(std::move(path));
}

void QuillonSaveBatch::add(std::initializer_list<std::string> paths) {
  std::lock_guard lock(mutex_);
  paths_.insert(paths_.end(), paths.begin(), paths.end());
}

std::vector<std::string> QuillonSaveBatch::take() {
  std::lock_guard lock(mutex_);
  return std::exchange(paths_, {});
}

void QuillonSaveBatch::fail(Error error) {
  std::lock_guard lock(mutex_);
  if (!failure_) failure_ = std::move(error);
}

Error QuillonSaveBatch::failure() const {
  std::lock_guard lock(mutex_);
  return failure_;
}

QuillonSaveOperation::QuillonSaveOperation(QuillonStore* store, Value dictionary, Url url,
                                           std::shared_ptr<QuillonSaveBatch> batch)
    : store_(store),
      dictionary_(std::move(dictionary)),
      url_(std::move(url)),
      batch_(std::move(batch)) {}

bool QuillonSaveOperation::storedBytes(std::vector<uint8_t>* bytes, const std::string& domain) {
  if (Error error = store_->packageFiles().sealedJSON(dictionary_, JSONStyle::Compact, bytes)) {
    store_->logErrorString(
        fmt::format("Could not write {}: {}", url_.path(), error.localizedDescription()), domain);
    if (batch_) batch_->fail(error);
    return false;
  }
  return true;
}

void QuillonSaveOperation::main() {
  static const std::string kDomain = "QuillonSaveOperation";
  bool durable = store_->durableSaves();
  Env* env = store_->env();
  if (durable && batch_) {
    // Every record and data file this change names must be on stable storage
    // before another computer can see the change.
    std::vector<std::string> paths = batch_->take();
    if (!paths.empty()) {
      if (Error error = env->syncFiles(paths)) batch_->fail(std::move(error));
    }
  }
  if (batch_) {
    if (Error failure = batch_->failure()) {
      store_->saveDidFail(failure, dictionary_);
      return;
    }
  }
  std::vector<uint8_t> bytes;
  if (!storedBytes(&bytes, kDomain)) {
    store_->saveDidFail(batch_ ? batch_->failure() : Error(), dictionary_);
    return;
  }
  const std::string path = url_.path();
  store_->willWriteChangeFile(path);
  Error error = durable ? env->writeFileAtomically(path, bytes)
                        : env->writeFileAtomicallyUnflushed(path, bytes);
  if (!error && durable) error = env->syncFiles({path});
  if (error) {
    // A change file that was renamed into place but not flushed may still
    // reach other computers; it is removed so that it cannot name records
    // this computer considers unsaved.
    if (env->exists(path)) (void)env->removeItem(path);  // best effort; the error is reported
    store_->saveDidFail(error, dictionary_);
    return;
  }
  store_->cache().addChange(dictionary_, false);
}

QuillonManagedObjectSaveOperation::QuillonManagedObjectSaveOperation(
    QuillonStore* store, ManagedObjectIDPtr objectID, Value record, Url url,
    std::shared_ptr<QuillonSaveBatch> batch)
    : QuillonSaveOperation(store, std::move(record), std::move(url), std::move(batch)),
      objectID_(std::move(objectID)) {}

void QuillonManagedObjectSaveOperation::main() {
  static const std::string kDomain = "QuillonManagedObjectSaveOperation";
  std::vector<uint8_t> bytes;
  if (!storedBytes(&bytes, kDomain)) return;
  const std::string path = url_.path();
  // Records are flushed together with the rest of their save, just before
  // the change file; one flush per record would serialise the save on the
  // device.
  if (Error error = store_->env()->writeFileAtomicallyUnflushed(path, bytes)) {
    store_->logError(error, kDomain);
    if (batch_) batch_->fail(std::move(error));
    return;
  }
  if (batch_ && store_->durableSaves()) batch_->add(path);
  store_->cache().updateCacheForObjectID(objectID_, dictionary_.deepCopy(true), url_);
}

}  // namespace quillon
