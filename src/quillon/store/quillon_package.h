#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "quillon/base/error.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/value.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/store/managed_object_context.h"
#include "quillon/store/persistent_store_coordinator.h"
#include "quillon/store/store.h"

namespace quillon {

class Env;

// One document package opened the way an application opens it: the store
// type registered, a coordinator on the application's model with a
// QuillonStore on the package, and a main-queue context on that
// coordinator. The store names itself in "QuillonReady", so several
// packages can be open at once, each with its own settings.
//
//   Quillon::setApplicationInfo(...);           // once, at start-up
//   QuillonPackage::Options options;
//   auto package = QuillonPackage::open("/path/Notes.quillon", model, options, &error);
//   package->waitUntilReady();
//   ... edit package->context() ...
//   if (Error failed = package->save()) { ... }
//
// Made, used and destroyed on the main thread (open() makes the calling
// thread the main thread when none has been chosen). Destruction removes
// the store from its coordinator, which writes the local cache and waits
// for it.
class QuillonPackage {
 public:
  struct Options {
    // The package's password; nullopt for a package without encryption.
    std::optional<std::string> password;
    // A new package's document identifier (default a fresh UUID).
    std::optional<std::string> documentIdentifier;
    // The folder that stands in for the user's cache folder for this
    // document's local cache; empty for the user's own.
    std::string cacheDirectory;
    // This computer's name in the document's sessions; empty for the host name.
    std::string machineName;
    // Every file access of this document; nullptr for QuillonStore::defaultEnv().
    Env* env = nullptr;
    // Whether saves reach stable storage before they are published.
    bool durableSaves = true;
    // Further store options (see QuillonStore's constructor).
    Value storeOptions;
  };

  // Opens the package at `path`, creating it when nothing is there. Nullptr
  // with `error` set when the store cannot be added (a wrong password, a
  // file that is not a package, a model that does not match).
  static std::unique_ptr<QuillonPackage> open(const std::string& path,
                                              std::shared_ptr<const ManagedObjectModel> model,
                                              const Options& options, Error* error);
  ~QuillonPackage();
  QuillonPackage(const QuillonPackage&) = delete;
  QuillonPackage& operator=(const QuillonPackage&) = delete;

  // Runs the main loop until the store finished reading what changed since
  // the local cache was written ("QuillonReady" from this store since the
  // last call), or `timeoutSeconds` passed; answers whether it did.
  bool waitUntilReady(double timeoutSeconds = 60);
  // How often this store has said "QuillonReady" since it was opened.
  int readyCount() const { return readyCount_; }
  // Saves the context and waits until every file of the save is on disk and
  // the local cache has taken it. The context's error (validation, the save
  // gate: nothing was written), else the first write that failed (nothing of
  // that save was published; kFilePathErrorKey names the file when known),
  // else no error. `refused` tells which of the two it was.
  [[nodiscard]] Error save(bool* refused = nullptr);
  // Calls `block` on the main queue with the user info of every change
  // another computer made to this package (kQuillonInsertedObjectsKey,
  // kQuillonUpdatedObjectsKey, kQuillonDeletedObjectsKey: sets of the
  // context's objects) while the returned observer lives.
  [[nodiscard]] ScopedObserver observeExternalChanges(std::function<void(const Value&)> block);
  // Removes the store now; the package is closed afterwards.
  void close();

  const std::shared_ptr<const ManagedObjectModel>& model() const { return model_; }
  QuillonPersistentStoreCoordinator& coordinator() const { return *coordinator_; }
  QuillonStore& store() const { return *store_; }
  QuillonManagedObjectContext& context() const { return *context_; }
  const std::shared_ptr<QuillonPersistentStoreCoordinator>& coordinatorPointer() const {
    return coordinator_;
  }
  const std::shared_ptr<QuillonStore>& storePointer() const { return store_; }
  const std::shared_ptr<QuillonManagedObjectContext>& contextPointer() const { return context_; }

 private:
  QuillonPackage() = default;

  std::shared_ptr<const ManagedObjectModel> model_;
  std::shared_ptr<QuillonPersistentStoreCoordinator> coordinator_;
  std::shared_ptr<QuillonStore> store_;
  std::shared_ptr<QuillonManagedObjectContext> context_;
  ScopedObserver readyObserver_;
  int readyCount_ = 0;
  int seenReady_ = 0;
};

}  // namespace quillon
