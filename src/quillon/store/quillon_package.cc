#include "quillon/store/quillon_package.h"

#include "quillon/base/env.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/url.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"

namespace quillon {

std::unique_ptr<QuillonPackage> QuillonPackage::open(
    const std::string& path, std::shared_ptr<const ManagedObjectModel> model,
    const Options& options, Error* error) {
  if (!MainQueue::isMainThread()) MainQueue::setMainThreadToCurrent();
  Quillon::registerStore();
  // A package that exists must be one, and open with the password given:
  // the store itself would open and read nothing.
  Env* env = options.env ? options.env : QuillonStore::defaultEnv();
  const Url url = Url::fileURL(path, true);
  const Value password = options.password ? Value(*options.password) : Value();
  std::string refusal;
  if (!env->exists(path)) {
    // A new package.
  } else if (!env->isDirectory(path) || !QuillonStore::isCorrectFormat(path)) {
    refusal = path + " is not a Quillon package";
  } else if (!QuillonStore::canOpenURL(url, password)) {
    const bool encrypted =
        !QuillonStore::infoDictionaryForURL(url).get(kSeaCryptoEncryptionKey).isNil();
    refusal = !encrypted         ? path + " is not encrypted; open it without a password"
              : password.isNil() ? path + " is encrypted; a password is needed"
                                 : "The password is wrong for " + path;
  }
  if (!refusal.empty()) {
    if (error) {
      *error = Error::withDescription(std::string(kCocoaErrorDomain),
                                      kCocoaFileReadCorruptFileError, refusal);
    }
    return nullptr;
  }

  std::unique_ptr<QuillonPackage> package(new QuillonPackage());
  package->model_ = std::move(model);

  Value storeOptions = Value::mutableDictionary();
  if (options.storeOptions.isDictionary()) {
    for (const auto& [key, value] : options.storeOptions.items()) storeOptions.set(key, value);
  }
  if (options.password) storeOptions.set(kQuillonPasswordOption, *options.password);
  if (options.documentIdentifier) {
    storeOptions.set(kQuillonDocumentIdentifierOption, *options.documentIdentifier);
  }
  if (!options.cacheDirectory.empty()) {
    storeOptions.set(kQuillonCacheDirectoryOption, options.cacheDirectory);
  }
  if (!options.machineName.empty())
    storeOptions.set(kQuillonMachineNameOption, options.machineName);
  if (options.env) storeOptions.set(kQuillonEnvOption, QuillonEnvOption::make(options.env));
  if (!options.durableSaves) storeOptions.set(kQuillonDurableSavesOption, Value(false));

  // The observer exists before the store: the store may be ready before
  // addPersistentStore returns to us.
  QuillonPackage* self = package.get();
  package->readyObserver_ = ScopedObserver(NotificationCenter::defaultCenter(), kQuillonReady,
                                           nullptr, [self](const Notification& note) {
                                             if (self->store_ && note.object == self->store_.get())
                                               ++self->readyCount_;
                                           });
  package->coordinator_ = std::make_shared<QuillonPersistentStoreCoordinator>(package->model_);
  Error addError;
  auto added =
      package->coordinator_->addPersistentStore(kQuillonStoreType, url, storeOptions, &addError);
  package->store_ = std::dynamic_pointer_cast<QuillonStore>(added);
  if (!package->store_) {
    if (error) {
      *error = addError ? addError
                        : Error::withDescription(std::string(kCocoaErrorDomain), 256,
                                                 "The document could not be opened: " + path);
    }
    return nullptr;
  }
  package->context_ = QuillonManagedObjectContext::create(ConcurrencyType::MainQueue);
  package->context_->setPersistentStoreCoordinator(package->coordinator_);
  return package;
}

QuillonPackage::~QuillonPackage() {
  close();
  context_.reset();
  // Blocks already posted for the store run and find it gone; the record of
  // recently opened packages is written before anything else goes away.
  MainQueue::drain();
  QuillonStore::waitForRegistrations();
}

bool QuillonPackage::waitUntilReady(double timeoutSeconds) {
  bool ready = MainQueue::runUntil([this] { return readyCount_ > seenReady_; }, timeoutSeconds);
  seenReady_ = readyCount_;
  return ready;
}

Error QuillonPackage::save(bool* refused) {
  Error error;
  const bool saved = context_->save(&error);
  if (refused) *refused = !saved;
  if (!store_) return saved ? Error() : error;
  Error written = store_->waitForSaves();
  MainQueue::drain();
  store_->cache().saveQueue().waitUntilAllOperationsAreFinished();
  MainQueue::drain();
  if (!saved) {
    return error ? error
                 : Error::withDescription(std::string(kCocoaErrorDomain), 134030,
                                          "The document could not be saved.");
  }
  return written;
}

ScopedObserver QuillonPackage::observeExternalChanges(std::function<void(const Value&)> block) {
  return ScopedObserver(
      NotificationCenter::defaultCenter(), kQuillonObjectsDidChangeExternally, context_.get(),
      [block = std::move(block)](const Notification& note) { block(note.userInfo); });
}

void QuillonPackage::close() {
  if (!store_ || !coordinator_) return;
  for (const auto& attached : coordinator_->persistentStores()) {
    if (attached == store_) {
      coordinator_->removePersistentStore(store_);
      break;
    }
  }
}

}  // namespace quillon
