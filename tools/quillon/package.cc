// Opening a package the way an application does, for the commands that read
// or edit objects.

#include "package.h"

#include "quillon/base/env.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/version.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/coding/keychain_item.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "tool.h"

namespace quillon::tool {

namespace {

// How long opening may take before the tool gives up: the first update reads
// and validates every change file that the local cache does not know yet.
constexpr double kReadyTimeoutSeconds = 60;

std::shared_ptr<const ManagedObjectModel> loadModel(const std::string& path) {
  std::vector<uint8_t> bytes = readWholeFile(path);
  Error error;
  auto model = ManagedObjectModel::fromJSON(
      std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), &error);
  if (!model) throw ToolError("cannot load model " + path + ": " + error.localizedDescription());
  return model;
}

void useToolIdentity() {
  Quillon::setApplicationInfo(
      Value::dictionary({{"CFBundleIdentifier", Value(kToolApplicationIdentifier)},
                         {"CFBundleName", "quillon"},
                         {"CFBundleVersion", kQuillonFrameworkVersion},
                         {"CFBundleShortVersionString", kQuillonFrameworkShortVersion}}));
}

}  // namespace

std::optional<std::string> rememberedPassword(const std::string& path) {
  Value identifier = QuillonStore::documentIdentifierForURL(Url::fileURL(path, true));
  if (!identifier.isString() || identifier.str().empty()) return std::nullopt;
  Error error;
  auto item = OrdoStoreGenericKeychainItem::genericKeychainItemForService(
      kToolApplicationIdentifier, identifier.str(), Value(), &error);
  if (!item) return std::nullopt;
  return item->password();
}

void checkPackageAccess(const std::string& path, std::optional<std::string>& password) {
  Env* env = QuillonStore::defaultEnv();
  if (!env->exists(path)) throw ToolError(path + " does not exist");
  if (!env->isDirectory(path) || !QuillonStore::isCorrectFormat(path)) {
    throw ToolError(path + " is not a Quillon package");
  }
  Url url = Url::fileURL(path, true);
  if (QuillonStore::canOpenURL(url, password ? Value(*password) : Value())) return;
  bool encrypted = !QuillonStore::infoDictionaryForURL(url).get(kSeaCryptoEncryptionKey).isNil();
  if (!encrypted) throw ToolError(path + " is not encrypted: leave out --password");
  if (!password) {
    std::optional<std::string> remembered = rememberedPassword(path);
    if (!remembered) {
      throw ToolError(path + " is encrypted: give --password (none is remembered in the keychain)");
    }
    if (!QuillonStore::canOpenURL(url, Value(*remembered))) {
      throw ToolError("the password remembered in the keychain does not open " + path);
    }
    password = remembered;
    return;
  }
  throw ToolError("wrong password for " + path);
}

OpenPackage::OpenPackage(const Options& options) {
  useToolIdentity();
  MainQueue::setMainThreadToCurrent();
  Quillon::setRecoveryRequested(options.recover);
  std::shared_ptr<const ManagedObjectModel> model = loadModel(options.modelPath);
  // Refuse before a store touches anything at the location.
  password_ = options.password;
  if (!options.create || QuillonStore::defaultEnv()->exists(options.path)) {
    checkPackageAccess(options.path, password_);
  }
  QuillonPackage::Options open;
  open.password = password_;
  open.documentIdentifier = options.documentIdentifier;
  if (!options.upToChange.isNil()) {
    open.storeOptions = Value::dictionary({{kQuillonUpToChange, options.upToChange}});
  }
  Error error;
  package_ = QuillonPackage::open(options.path, std::move(model), open, &error);
  if (!package_) {
    throw ToolError("cannot open " + options.path + ": " + error.localizedDescription());
  }
}

OpenPackage::~OpenPackage() = default;

void OpenPackage::waitUntilReady() {
  if (!package_->waitUntilReady(kReadyTimeoutSeconds)) {
    throw ToolError("timed out reading the changes of " + package_->store().url().path());
  }
}

void OpenPackage::waitUntilUpdated(int readyCountBefore) {
  if (!MainQueue::runUntil(
          [this, readyCountBefore] { return package_->readyCount() > readyCountBefore; },
          kReadyTimeoutSeconds)) {
    throw ToolError("timed out applying the changes of " + store().url().path());
  }
  MainQueue::drain();
}

void OpenPackage::save() {
  bool refused = false;
  Error error = package_->save(&refused);
  if (!error) return;
  if (refused) {
    const Value& reason = error.userInfo().get(kLocalizedFailureReasonErrorKey);
    throw ToolError("cannot save: " +
                    (reason.isString() ? std::string(reason.str()) : error.localizedDescription()));
  }
  // Nothing of this save reached other computers: its change file was not written.
  const Value& path = error.userInfo().get(kFilePathErrorKey);
  throw ToolError("could not write " +
                  (path.isString() ? std::string(path.str()) : std::string("the save")) + ": " +
                  error.localizedDescription() + "; nothing of this save was published");
}

std::string objectPath(const ManagedObject& object) {
  return object.objectID() ? storeSavePath(*object.objectID()) : std::string();
}

ManagedObjectPtr objectForPath(OpenPackage& package, const std::string& path) {
  std::string entityName = storeEntityName(path);
  std::string uid = storeUID(std::string_view(path));
  const EntityDescription* entity = package.model().entity(entityName);
  if (!entity) throw ToolError("unknown entity in " + path);
  if (!isSafePathComponent(uid) || path.find('/') == std::string::npos) {
    throw ToolError("not an object path (Entity/UID): " + path);
  }
  ManagedObjectIDPtr id = package.store().newObjectIDForEntity(entity, Value(uid));
  ManagedObjectPtr object = id ? package.context().existingObjectWithID(id) : nullptr;
  if (!object) throw ToolError("no object " + path);
  return object;
}

}  // namespace quillon::tool
