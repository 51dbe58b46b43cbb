#pragma once

#include <memory>
#include <optional>
#include <string>

#include "quillon/base/notification_center.h"
#include "quillon/base/value.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/graph/property_description.h"
#include "quillon/store/managed_object_context.h"
#include "quillon/store/persistent_store_coordinator.h"
#include "quillon/store/quillon_package.h"
#include "quillon/store/store.h"

namespace quillon::tool {

// The tool's application identifier: its caches, its user defaults and the
// keychain service under which it remembers document passwords.
inline constexpr std::string_view kToolApplicationIdentifier = "org.quillon.cli";

// A package opened the way an application opens it: the tool's identity
// ("org.quillon.cli"), the model file, a coordinator with a QuillonStore on
// the package and a main-queue context, the calling thread as main thread.
// Raises ToolError for a model that does not load, a path that is not a
// package (unless `create`), or a password the package refuses.
// Destruction saves the local cache and waits for every write.
class OpenPackage {
 public:
  struct Options {
    std::string path;
    std::string modelPath;
    std::optional<std::string> password;
    bool create = false;   // make a new package when nothing is at path
    bool recover = false;  // recovery mode
    std::optional<std::string> documentIdentifier;
    // The history cut-off ("QuillonUpToChange"): a change dictionary, or nil.
    Value upToChange;
  };
  explicit OpenPackage(const Options& options);
  ~OpenPackage();
  OpenPackage(const OpenPackage&) = delete;
  OpenPackage& operator=(const OpenPackage&) = delete;

  // Runs the main loop until the store's first update after opening has
  // finished ("QuillonReady"); raises ToolError after a generous timeout.
  void waitUntilReady();
  // After the command started an update (a discard, say): runs the main
  // loop until that update has ended.
  void waitUntilUpdated(int readyCountBefore);
  int readyCount() const { return package_->readyCount(); }
  // Saves the context and waits until every file of the save is written;
  // raises ToolError with the save's error.
  void save();

  const ManagedObjectModel& model() const { return *package_->model(); }
  QuillonStore& store() const { return package_->store(); }
  QuillonManagedObjectContext& context() const { return package_->context(); }
  std::shared_ptr<QuillonManagedObjectContext> contextPointer() const {
    return package_->contextPointer();
  }
  // The password the package was opened with (given or remembered).
  const std::optional<std::string>& password() const { return password_; }

 private:
  std::unique_ptr<QuillonPackage> package_;
  std::optional<std::string> password_;
};

// Raises ToolError unless `path` is a package (a folder whose Info.plist
// names the framework) that `password` opens: a clear one-line reason for a
// missing path, another kind of folder, an encrypted package without a
// password, a password for a plain package, or a wrong password. An
// encrypted package opened without a password uses the one remembered in
// the keychain for its document identifier, which then goes to `password`.
void checkPackageAccess(const std::string& path, std::optional<std::string>& password);

// The password remembered in the keychain for the package's document
// identifier (service kToolApplicationIdentifier), or nullopt.
std::optional<std::string> rememberedPassword(const std::string& path);

// "Entity/UID" of an object; the object a path names (ToolError when the
// entity is unknown or no such object exists).
std::string objectPath(const ManagedObject& object);
ManagedObjectPtr objectForPath(OpenPackage& package, const std::string& path);
// objectForPath, for an object the package has saved (json_values.cc): a
// uid that the store does not know is refused even when the object graph
// would hand out an empty object for it.
ManagedObjectPtr savedObjectForPath(OpenPackage& package, const std::string& path);

// The JSON form of a property value on the command line and in fetch output:
// dates as "yyyy-MM-dd'T'HH:mm:ss.SSSZ" text, binary data as {"$base64": …},
// a to-one relationship as "Entity/UID" or null, a to-many as an array of
// them in stored order, an absent value as null.
Value jsonForProperty(ManagedObject& object, const PropertyDescription& property);
// {"$id": "Entity/UID", every property of the entity by name}.
Value jsonForObject(ManagedObject& object);
// Sets the values of a JSON object on an object (null clears); raises
// ToolError naming the property for an unknown property or a value of the
// wrong type, and for a relationship path that names no object.
void setValuesFromJSON(OpenPackage& package, ManagedObject& object, const Value& values);

}  // namespace quillon::tool
