#pragma once

#include <memory>
#include <string>

#include "quillon/base/notification_center.h"
#include "quillon/base/value.h"
#include "quillon/store/managed_object_context.h"
#include "quillon/store/persistent_store_coordinator.h"
#include "quillon/store/quillon_package.h"
#include "quillon/store/store.h"

namespace quillon {

// One application's view of a package for tests: a QuillonPackage on the
// sample notes model (support/sample_models.h) at `packagePath` (created when
// nothing is there), its parts at hand. The constructor makes the calling
// thread the main thread and registers the store type. Two StoreStacks on one package with
// different machine names (and different cache homes, see below) stand in for two computers.
//
// Destruction removes the store from its coordinator, which saves the local
// cache and waits for its writes. Test thread only.
struct StoreStack {
  // `options` are added to the store options (e.g. {"password": "pw"}).
  explicit StoreStack(const std::string& packagePath, Value options = Value(),
                      std::string machineName = "test-machine");
  ~StoreStack();
  StoreStack(const StoreStack&) = delete;
  StoreStack& operator=(const StoreStack&) = delete;

  // Runs the main loop until the store posted "QuillonReady" (counting posts
  // since the last call) or `timeoutSeconds` passed; answers whether it did.
  bool waitUntilReady(double timeoutSeconds = 10);
  // Saves the context and waits until every record, change file and the
  // cache's collection writes are done; answers the save's result.
  bool saveAndWait(Error* error = nullptr);
  // Removes the store now (the destructor then does nothing more).
  void close();

  // How often the store said "QuillonReady".
  int readyCount() const { return package ? package->readyCount() : 0; }

  // Null when the package could not be opened (openError says why).
  std::unique_ptr<QuillonPackage> package;
  Error openError;
  std::shared_ptr<QuillonPersistentStoreCoordinator> coordinator;
  std::shared_ptr<QuillonStore> store;
  std::shared_ptr<QuillonManagedObjectContext> context;
};

// Points the local cache folder (StandardPaths::setUserCacheDirectory) at
// `folder` while it lives, so that two stores in one process keep separate
// caches: make one, open a store, make another, open the second store.
class ScopedCacheHome {
 public:
  explicit ScopedCacheHome(std::string folder);
  ~ScopedCacheHome();

 private:
  std::string previous_;
};

}  // namespace quillon
