#include "quillon/store/store.h"

#include "quillon/base/dispatch_queue.h"
#include "quillon/base/operation_queue.h"
#include "quillon/cache/cache.h"
#include "quillon/coding/sea_crypto.h"
#include "quillon/platform/directory_watcher.h"

namespace quillon {

// PENDING
void QuillonStore::setDefaultEnv(Env*) {}
// PENDING
Env* QuillonStore::defaultEnv() { return Env::Default(); }
// PENDING
std::optional<std::string> QuillonStore::fileExtension() { return std::nullopt; }
// PENDING
Value QuillonStore::documentIdentifierForURL(const Url&) { return Value(); }
// PENDING
bool QuillonStore::isCorrectFormat(const std::string&) { return false; }
// PENDING
bool QuillonStore::canOpenURL(const Url&, const Value&) { return false; }
// PENDING
void QuillonStore::prepareNewStoreAtURL(const Url&) {}
// PENDING
void QuillonStore::registerURL(const Url&, Value, Value) {}
// PENDING
void QuillonStore::waitForRegistrations() {}
// PENDING
Value QuillonStore::infoDictionaryForURL(const Url&) { return Value(); }
// PENDING
QuillonStore::QuillonStore(PersistentStoreCoordinator* coordinator, std::string configurationName,
                           Url url, Value options)
    : IncrementalStore(coordinator, std::move(configurationName), std::move(url),
                       std::move(options)),
      env_(Env::Default()) {}
// PENDING
QuillonStore::~QuillonStore() = default;
// PENDING
Value QuillonStore::password() const { return Value(); }
// PENDING
std::string QuillonStore::identifier() const { return std::string(); }
// PENDING
std::string QuillonStore::documentIdentifier() { return std::string(); }
// PENDING
void QuillonStore::setDocumentIdentifier(const std::string&) {}
// PENDING
void QuillonStore::setURL(const Url& url) { IncrementalStore::setURL(url); }
// PENDING
void QuillonStore::refreshURLs() {}
// PENDING
Url QuillonStore::infoURL() const { return Url(); }
// PENDING
Url QuillonStore::entitiesURL() const { return Url(); }
// PENDING
Url QuillonStore::changesURL() const { return Url(); }
// PENDING
Url QuillonStore::cacheURL() const { return Url(); }
// PENDING
Url QuillonStore::errorsURL() const { return Url(); }
// PENDING
void QuillonStore::writeInfo(const Value&) {}
// PENDING
void QuillonStore::setMetadata(Value) {}
// PENDING
Value QuillonStore::metadata() const { return Value(); }
// PENDING
bool QuillonStore::loadMetadata(Error*) { return false; }
// PENDING
void QuillonStore::setupCrypto() {}
// PENDING
Value QuillonStore::encrypt(const Value&) { return Value(); }
// PENDING
Value QuillonStore::decrypt(const Value&) { return Value(); }
// PENDING
bool QuillonStore::encrypt(std::span<const uint8_t>, std::vector<uint8_t>*) { return false; }
// PENDING
bool QuillonStore::decrypt(std::span<const uint8_t>, std::vector<uint8_t>*) { return false; }
// PENDING
Url QuillonStore::correctedDataURL(const Url&) { return Url(); }
// PENDING
void QuillonStore::updatePackageDate() {}
// PENDING
void QuillonStore::resetCache() {}
// PENDING
void QuillonStore::checkAllFiles() {}
// PENDING
bool QuillonStore::loadedAllChanges() { return false; }
// PENDING
std::string QuillonStore::changesInfo() { return std::string(); }
// PENDING
void QuillonStore::preventFromSaving() {}
// PENDING
Value QuillonStore::executeRequest(const PersistentStoreRequest&, ManagedObjectContext*, Error*) {
  return Value();
}
// PENDING
void QuillonStore::willRemoveFromPersistentStoreCoordinator(PersistentStoreCoordinator*) {}
// PENDING
Value QuillonStore::userInfo() const { return Value(); }
// PENDING
void QuillonStore::setUserInfo(Value) {}
// PENDING
std::string QuillonStore::formatChangeDate(double) const { return std::string(); }
// PENDING
std::vector<std::shared_ptr<ManagedObjectContext>> QuillonStore::contexts() const { return {}; }

// PENDING
void QuillonStore::setupEntityKeys() {}
// PENDING
const std::unordered_map<std::string, const EntityDescription*>& QuillonStore::entities() const {
  return entities_;
}
// PENDING
const EntityDescription* QuillonStore::entityNamed(std::string_view) const { return nullptr; }
// PENDING
std::optional<std::string> QuillonStore::fileNameForEntity(const EntityDescription&) const {
  return std::nullopt;
}
// PENDING
std::optional<std::string> QuillonStore::fileNameForEntityName(std::string_view) const {
  return std::nullopt;
}
// PENDING
std::optional<std::string> QuillonStore::entityNameForFileName(std::string_view) const {
  return std::nullopt;
}
// PENDING
ManagedObjectIDPtr QuillonStore::newObjectIDForEntity(const EntityDescription*, Value) {
  return nullptr;
}
// PENDING
std::vector<ManagedObjectIDPtr> QuillonStore::obtainPermanentIDsForObjects(
    const std::vector<std::shared_ptr<ManagedObject>>&, Error*) {
  return {};
}
// PENDING
std::string QuillonStore::uidForObjectID(const ManagedObjectIDPtr&, ManagedObjectContext*) {
  return std::string();
}
// PENDING
ManagedObjectIDPtr QuillonStore::managedObjectIDForReference(std::string_view) { return nullptr; }
// PENDING
void QuillonStore::setManagedObjectIDForReference(std::string_view, ManagedObjectIDPtr) {}

// PENDING
std::string storeUID(const ManagedObjectID&) { return std::string(); }
// PENDING
std::string storeUID(const ManagedObject&) { return std::string(); }
// PENDING
std::string storeSavePath(const ManagedObjectID&) { return std::string(); }
// PENDING
Value arrayForStore(const Value&) { return Value(); }
// PENDING
QuillonStore* quillonStore(const ManagedObject&) { return nullptr; }
// PENDING
bool isSafePathComponent(std::string_view) { return false; }
// PENDING
void registerQuillonStoreType() {}

}  // namespace quillon
