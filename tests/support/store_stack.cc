#include "support/store_stack.h"

#include "quillon/base/operation_queue.h"
#include "quillon/cache/cache.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/standard_paths.h"
#include "quillon/store/quillon.h"
#include "support/sample_models.h"

namespace quillon {

StoreStack::StoreStack(const std::string& packagePath, Value options, std::string machineName) {
  MainQueue::setMainThreadToCurrent();
  Quillon::registerStore();
  readyObserver_ = ScopedObserver(NotificationCenter::defaultCenter(), kQuillonReady, nullptr,
                                  [this](const Notification& n) {
                                    if (n.object == store.get()) ++readyCount;
                                  });
  coordinator = std::make_shared<QuillonPersistentStoreCoordinator>(notesModel());
  Value storeOptions = Value::mutableDictionary();
  if (options.isDictionary()) {
    for (const auto& entry : options.items()) storeOptions.set(entry.first, entry.second);
  }
  Error error;
  auto added = coordinator->addPersistentStore(kQuillonStoreType, Url::fileURL(packagePath, true),
                                               storeOptions, &error);
  store = std::dynamic_pointer_cast<QuillonStore>(added);
  if (store) store->setMachineName(std::move(machineName));
  context = QuillonManagedObjectContext::create(ConcurrencyType::MainQueue);
  context->setPersistentStoreCoordinator(coordinator);
}

StoreStack::~StoreStack() {
  close();
  context.reset();
  // Let blocks already posted for the store run (they find it gone), and
  // let the recent-files record finish before the test's folders go away.
  MainQueue::drain();
  QuillonStore::waitForRegistrations();
}

bool StoreStack::waitUntilReady(double timeoutSeconds) {
  bool ready = MainQueue::runUntil([this] { return readyCount > seenReady_; }, timeoutSeconds);
  seenReady_ = readyCount;
  return ready;
}

bool StoreStack::saveAndWait(Error* error) {
  bool saved = context->save(error);
  if (store) {
    Error written = store->waitForSaves();
    MainQueue::drain();
    if (auto cache = store->cachePointer()) cache->saveQueue().waitUntilAllOperationsAreFinished();
    MainQueue::drain();
    if (saved && written) {
      if (error) *error = written;
      saved = false;
    }
  }
  return saved;
}

void StoreStack::close() {
  if (!store || !coordinator) return;
  for (const auto& attached : coordinator->persistentStores()) {
    if (attached == store) {
      coordinator->removePersistentStore(store);
      break;
    }
  }
}

ScopedCacheHome::ScopedCacheHome(std::string folder)
    : previous_(StandardPaths::userCacheDirectory()) {
  StandardPaths::setUserCacheDirectory(std::move(folder));
}

ScopedCacheHome::~ScopedCacheHome() { StandardPaths::setUserCacheDirectory(previous_); }

}  // namespace quillon
