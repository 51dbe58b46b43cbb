#include "support/store_stack.h"

#include "quillon/base/internal/operation_queue.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/standard_paths.h"
#include "quillon/store/quillon.h"
#include "support/sample_models.h"

namespace quillon {

StoreStack::StoreStack(const std::string& packagePath, Value options, std::string machineName) {
  QuillonPackage::Options open;
  open.machineName = std::move(machineName);
  open.storeOptions = options;
  package = QuillonPackage::open(packagePath, notesModel(), open, &openError);
  if (!package) return;
  coordinator = package->coordinatorPointer();
  store = package->storePointer();
  context = package->contextPointer();
}

StoreStack::~StoreStack() {
  close();
  context.reset();
  store.reset();
  coordinator.reset();
  package.reset();
  MainQueue::drain();
  QuillonStore::waitForRegistrations();
}

bool StoreStack::waitUntilReady(double timeoutSeconds) {
  return package && package->waitUntilReady(timeoutSeconds);
}

bool StoreStack::saveAndWait(Error* error) {
  if (!package) return false;
  Error failed = package->save();
  if (failed && error) *error = failed;
  return !failed;
}

void StoreStack::close() {
  if (package) package->close();
}

ScopedCacheHome::ScopedCacheHome(std::string folder)
    : previous_(StandardPaths::userCacheDirectory()) {
  StandardPaths::setUserCacheDirectory(std::move(folder));
}

ScopedCacheHome::~ScopedCacheHome() { StandardPaths::setUserCacheDirectory(previous_); }

}  // namespace quillon
