// QuillonStore: the package on disk, opening, encryption hand-off, entity
// keys and object identity.

#include "quillon/store/store.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <thread>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/internal/dispatch_queue.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/internal/plist.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/base/internal/user_defaults.h"
#include "quillon/base/internal/uuid.h"
#include "quillon/base/version.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/cache/internal/cache_collection.h"
#include "quillon/changes/internal/folder_observer.h"
#include "quillon/coding/internal/data_utils.h"
#include "quillon/coding/internal/file_manager_utils.h"
#include "quillon/coding/internal/sea_crypto.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/coding/internal/url_utils.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/graph/persistent_store_coordinator.h"
#include "quillon/graph/save_changes_request.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/internal/trash.h"
#include "quillon/platform/internal/user_info.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/quillon.h"

namespace quillon {

namespace {

// Registrations of recent packages still being written.
std::mutex gRegistrationsMutex;
std::condition_variable gRegistrationsDone;
int gRegistrationsRunning = 0;

// The three bundle keys a package records of the application and the framework.
Value bundleSummary(const Value& bundleInfo) {
  Value summary = Value::mutableDictionary();
  for (const char* key : {"CFBundleIdentifier", "CFBundleVersion", "CFBundleShortVersionString"}) {
    summary.set(key, bundleInfo.get(key));
  }
  return summary;
}

// LIKE of the record predicates: `*` any run of characters, `?` one, case
// sensitive. Anything but two strings does not match.
bool likeMatches(const Value& value, const Value& pattern) {
  if (!value.isString() || !pattern.isString()) return false;
  std::string_view text = value.str(), glob = pattern.str();
  size_t t = 0, g = 0, starG = std::string_view::npos, starT = 0;
  while (t < text.size()) {
    if (g < glob.size() && glob[g] == '*') {
      starG = g++;
      starT = t;
    } else if (g < glob.size() && (glob[g] == '?' || glob[g] == text[t])) {
      ++g;
      ++t;
    } else if (starG != std::string_view::npos) {
      g = starG + 1;
      t = ++starT;
    } else {
      return false;
    }
  }
  while (g < glob.size() && glob[g] == '*') ++g;
  return g == glob.size();
}

std::string stringOrNull(const Value& value) {
  return value.isString() ? std::string(value.str()) : std::string("(null)");
}

}  // namespace

// ---- Package and opening ----

void QuillonStore::setDefaultEnv(Env* env) { PackageFiles::setDefaultEnv(env); }

Env* QuillonStore::defaultEnv() { return PackageFiles::defaultEnv(); }

std::optional<std::string> QuillonStore::fileExtension() {
  Value types = Quillon::applicationInfo().get("CFBundleDocumentTypes");
  if (!types.isArray()) return std::nullopt;
  for (const Value& type : types.elements()) {
    const Value& storeType = type.get("NSPersistentStoreTypeKey");
    if (!storeType.isString() || storeType.str() != kQuillonStoreType) continue;
    const Value& extensions = type.get("CFBundleTypeExtensions");
    if (extensions.isArray() && !extensions.empty() && extensions[0].isString()) {
      return std::string(extensions[0].str());
    }
    return std::nullopt;
  }
  return std::nullopt;
}

Value QuillonStore::infoDictionaryForURL(const Url& url) {
  return PackageFiles::readInfo(defaultEnv(), url);
}

Value QuillonStore::documentIdentifierForURL(const Url& url) {
  Value identifier = infoDictionaryForURL(url).get("DocumentIdentifier");
  return identifier.isString() ? identifier : Value();
}

bool QuillonStore::isCorrectFormat(const std::string& path) {
  Value info = infoDictionaryForURL(Url::fileURL(path, true));
  const Value& framework = info.get("Quillon");
  return framework.isDictionary() && !framework.get("CFBundleIdentifier").isNil();
}

bool QuillonStore::canOpenURL(const Url& url, const Value& password) {
  Value info = infoDictionaryForURL(url);
  const Value& encryption = info.get(kSeaCryptoEncryptionKey);
  if (password.isNil() && encryption.isNil()) return true;
  const Value& check = encryption.get(kSeaCryptoInfoKey);
  if (!check.isData()) return false;
  std::unique_ptr<SeaCrypto> crypto = PackageFiles::makeCipher(encryption, password);
  if (!crypto) return false;
  Value plain = crypto->decryptData(check);
  if (!plain.isData()) return false;
  std::span<const uint8_t> bytes = plain.bytes();
  return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()) ==
         password.str();
}

void QuillonStore::prepareNewStoreAtURL(const Url& url) {
  std::string path = url.path();
  if (defaultEnv()->exists(path)) {
    std::string trashPath;
    Error ignored;
    Trash::trashItem(path, &trashPath, &ignored);
    UserDefaults& defaults = UserDefaults::standard();
    Value records = defaults.objectForKey(kQuillonOverwrittenFilesKey);
    records = records.isArray() ? records.mutableCopy() : Value::mutableArray();
    records.append(Value::dictionary(
        {{"date", Value::date(dateNow())}, {"originalPath", path}, {"trashPath", trashPath}}));
    defaults.setObject(kQuillonOverwrittenFilesKey, records);
  }
  QuillonCache::resetCacheForURL(url);
}

void QuillonStore::registerURL(const Url& url, Value fileInfo, Value volumeInfo) {
  Env* env = defaultEnv();
  {
    std::lock_guard<std::mutex> lock(gRegistrationsMutex);
    ++gRegistrationsRunning;
  }
  // One worker per call, like a fresh serial queue: registrations never wait
  // for each other, and the last writer of the list wins.
  std::thread([url, fileInfo, volumeInfo, env]() mutable {
    std::string path = url.path();
    if (env->exists(path)) {
      if (fileInfo.isNil()) fileInfo = infoDictionaryForURL(url);
      if (volumeInfo.isNil()) volumeInfo = QuillonVolumeInformation(url, env);
      UserDefaults& defaults = UserDefaults::standard();
      Value stored = defaults.objectForKey(kQuillonRecentFilesKey);
      Value records = Value::mutableArray();
      Value pathValue = Value::string(path);
      const Value& identifier = fileInfo.get("DocumentIdentifier");
      if (stored.isArray()) {
        for (const Value& record : stored.elements()) {
          bool same = likeMatches(record.get("Path"), pathValue) &&
                      likeMatches(record.get("DocumentInfo").get("DocumentIdentifier"), identifier);
          if (!same) records.append(record);
        }
      }
      FileAttributes attributes;
      Value fileNumber;
      if (!env->attributes(path, &attributes)) {
        fileNumber = Value::integer(static_cast<int64_t>(attributes.fileNumber));
      }
      std::vector<std::string> backups = timeMachineBackupPath(path, env);
      Value record = Value::mutableDictionary();
      record.set("DocumentInfo", fileInfo);
      record.set("VolumeInfo", volumeInfo);
      record.set("Path", pathValue);
      record.set("DocumentFileNumber", fileNumber);
      record.set("BackupPath",
                 backups.empty() ? std::string("No Time Machine Backup found") : backups.front());
      record.set("LastOpened", Value::date(dateNow()));
      records.append(record);
      defaults.setObject(kQuillonRecentFilesKey, records);
    }
    std::lock_guard<std::mutex> lock(gRegistrationsMutex);
    if (--gRegistrationsRunning == 0) gRegistrationsDone.notify_all();
  }).detach();
}

void QuillonStore::waitForRegistrations() {
  std::unique_lock<std::mutex> lock(gRegistrationsMutex);
  gRegistrationsDone.wait(lock, [] { return gRegistrationsRunning == 0; });
}

QuillonStore::QuillonStore(PersistentStoreCoordinator* coordinator, std::string configurationName,
                           Url url, Value options)
    : IncrementalStore(coordinator, std::move(configurationName), std::move(url),
                       std::move(options)),
      env_(defaultEnv()) {
  const Value& envOption = IncrementalStore::options().get(kQuillonEnvOption);
  if (const auto* given = envOption.objectAs<QuillonEnvOption>(); given && given->env()) {
    env_ = given->env();
  }
  readQueue_ =
      std::make_unique<DispatchQueue>(std::string(kQuillonFrameworkIdentifier) + ".ReadQueue");
  session_ = makeUUIDString();
  fullUserName_ = UserInfo::fullUserName();
  userName_ = UserInfo::userName();
  osVersion_ = UserInfo::osVersionString();
  recover_.store(Quillon::recoveryRequested());
  const Value& machineName = IncrementalStore::options().get(kQuillonMachineNameOption);
  machineName_ = machineName.isString() && !machineName.str().empty()
                     ? std::string(machineName.str())
                     : UserInfo::hostName();
  Value storeOptions = IncrementalStore::options().mutableCopy();
  upToChange_ = storeOptions.get(kQuillonUpToChange);
  storeOptions.erase(Value::string(kQuillonUpToChange));
  files_ = std::make_shared<PackageFiles>(env_, this->url(), password());
  records_ = std::make_unique<QuillonRecordReader>(*this, files_);
  saves_ = std::make_unique<QuillonSaveQueue>();
  observer_ = makeFolderObserver();
  validator_ = std::make_unique<QuillonChangeValidator>(*this, files_);
  cache_ = QuillonCache::cacheForSource(this, files_);
  if (const Value& home = IncrementalStore::options().get(kQuillonCacheDirectoryOption);
      home.isString()) {
    cache_->setCacheHome(std::string(home.str()));
  }
  fetcher_ = std::make_unique<QuillonFetcher>(*this, cache_);
  applier_ =
      std::make_unique<QuillonChangeApplier>(*this, cache_, files_, *readQueue_, upToChange_);
  setupEntityKeys();
  writeInfo(storeOptions);
  documentIdentifier_ = documentIdentifier();
  computeURLs();
}

QuillonStore::~QuillonStore() {
  // Indexing and cache checks call back into the store: stop them while the
  // store is still whole.
  if (cache_) cache_->stopBackgroundWork();
  for (const char* selector : {"updateChanges", "processChanges", "loadChangeLogIfNeeded"}) {
    MainQueue::cancelPreviousPerformRequests(this, selector);
  }
  if (observer_) observer_->unobserve();
}

Value QuillonStore::password() const {
  const Value& password = options().get(kQuillonPasswordOption);
  return password.isString() ? password : Value();
}

std::string QuillonStore::identifier() const {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  return documentIdentifier_;
}

std::string QuillonStore::documentIdentifier() {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  if (infoDictionary_.isNil()) {
    Value info = PackageFiles::readInfo(env_, url());
    infoDictionary_ = info.isDictionary() ? info.mutableCopy() : Value::mutableDictionary();
  }
  const Value& identifier = infoDictionary_.get("DocumentIdentifier");
  return identifier.isString() ? std::string(identifier.str()) : std::string();
}

void QuillonStore::setDocumentIdentifier(const std::string& identifier) {
  Value info = PackageFiles::readInfo(env_, url());
  info = info.isDictionary() ? info.mutableCopy() : Value::mutableDictionary();
  info.set(kInfoDocumentIdentifierKey, identifier);
  if (Error error = PackageFiles::writeInfo(env_, url(), info)) logError(error, "QuillonStore");
}

void QuillonStore::setURL(const Url& url) {
  if (url.absoluteString() == IncrementalStore::url().absoluteString()) {
    IncrementalStore::setURL(url);
    return;
  }
  if (!bound_) {
    IncrementalStore::setURL(url);
    computeURLs();
    return;
  }
  unobserveDirectory();
  IncrementalStore::setURL(url);
  refreshURLs();
  observeDirectory();
}

void QuillonStore::computeURLs() {
  PackageLayout layout(url());
  {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    layout_ = layout;
  }
  createDirectoryAtPathIfNeeded(layout.errors().path(), env_);
}

void QuillonStore::refreshURLs() {
  computeURLs();
  if (cache_) {
    cache_->setStoreURL(url());
    if (upToChange_.isNil()) loadChangeLogIfNeeded();
    updateChanges();
  }
  registerURL(url());
}

PackageLayout QuillonStore::layout() const {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  return layout_;
}

Url QuillonStore::infoURL() const { return layout().info(); }
Url QuillonStore::entitiesURL() const { return layout().entities(); }
Url QuillonStore::changesURL() const { return layout().changes(); }
Url QuillonStore::cacheURL() const { return layout().cache(); }
Url QuillonStore::errorsURL() const { return layout().errors(); }

void QuillonStore::writeInfo(const Value& options) {
  std::string path = url().path();
  if (env_->exists(path)) return;
  createDirectoryAtPathIfNeeded(path, env_);
  Value info = Value::mutableDictionary();
  const Value& identifier = options.get(kQuillonDocumentIdentifierOption);
  info.set("DocumentIdentifier", identifier.isString() ? identifier : Value(makeUUIDString()));
  info.set("DocumentInfo", options.get(kQuillonDocumentInfoOption));
  info.set("Application", bundleSummary(Quillon::applicationInfo()));
  info.set("Quillon", bundleSummary(Quillon::frameworkInfo()));
  info.set("DateCreation", Value::date(dateNow()));
  Value password = this->password();
  if (!password.isNil()) {
    // The cipher takes its salt and rounds from the file on disk, so they
    // must be there before the password check value can be sealed.
    Value encryption = Value::mutableDictionary();
    encryption.set(kSeaCryptoSaltKey, SeaCrypto::generateSalt());
    encryption.set(kSeaCryptoRoundsKey, SeaCrypto::defaultRounds());
    info.set(kSeaCryptoEncryptionKey, encryption);
    if (Error error = PackageFiles::writeInfo(env_, url(), info)) logError(error, "QuillonStore");
    std::string_view text = password.str();
    encryption.set(kSeaCryptoInfoKey, encrypt(Value::data(text)));
  }
  if (Error error = PackageFiles::writeInfo(env_, url(), info)) logError(error, "QuillonStore");
  // The new package must survive a power cut: Info.plist, the package's
  // folder and its entry in the folder above.
  if (durableSaves()) {
    if (Error error = env_->syncFiles({PackageLayout(url()).info().path(), path})) {
      logError(error, "QuillonStore");
    }
  }
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  infoDictionary_ = info;
}

void QuillonStore::setMetadata(Value metadata) {
  Value merged;
  {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    Value info = PackageFiles::readInfo(env_, url());
    if (info.isDictionary()) infoDictionary_ = info.mutableCopy();
    if (!infoDictionary_.isDictionary()) infoDictionary_ = Value::mutableDictionary();
    if (metadata.isDictionary()) {
      for (const auto& entry : metadata.items()) infoDictionary_.set(entry.first, entry.second);
    }
    merged = infoDictionary_.copy();
  }
  IncrementalStore::setMetadata(merged);
}

Value QuillonStore::metadata() const {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  if (cachedMetadata_.isDictionary() && cachedMetadata_.find("Quillon")) return cachedMetadata_;
  cachedMetadata_ = IncrementalStore::metadata();
  return cachedMetadata_;
}

bool QuillonStore::loadMetadata(Error* /*error*/) { return true; }

Value QuillonStore::encrypt(const Value& data) { return files_->seal(data); }

Value QuillonStore::decrypt(const Value& data) { return files_->open(data); }

bool QuillonStore::encrypt(std::span<const uint8_t> plain, std::vector<uint8_t>* out) {
  return files_->seal(plain, out);
}

bool QuillonStore::decrypt(std::span<const uint8_t> stored, std::vector<uint8_t>* out) {
  return files_->open(stored, out);
}

Url QuillonStore::correctedDataURL(const Url& url) { return quillon::correctedDataURL(env_, url); }

void QuillonStore::updatePackageDate() { env_->setModificationDate(url().path(), dateNow()); }

void QuillonStore::resetCache() { env_->removeItem(cacheURL().path()); }

void QuillonStore::checkAllFiles() {
  if (!cache_) return;
  // On the cache's queue, which the destructor drains before anything goes.
  cache_->queue().async([this] {
    log("Start checking Files", kQuillonLogTypeSuccess);
    Value changes = cache_->storedChangeLog()->content();
    size_t errors = 0;
    if (changes.empty()) {
      log("No change files found", kQuillonLogTypeError);
      ++errors;
    }
    // Every file is checked, as in recovery mode, whatever the store's mode.
    for (const Value& change : changes.elements()) {
      if (validator_->validate(change, false, nullptr, /*recovering=*/true).isNil()) ++errors;
    }
    if (errors > 0) {
      log("Finished checking Files: Found errors", kQuillonLogTypeError);
    } else {
      log("Finished checking Files: All fine", kQuillonLogTypeSuccess);
    }
  });
}

bool QuillonStore::loadedAllChanges() {
  return (cache_ ? cache_->changes().size() : 0) >= changesFileCount();
}

std::string QuillonStore::changesInfo() {
  size_t inCache = cache_ ? cache_->changes().size() : 0;
  std::vector<std::string> names;
  (void)listChangeFiles(env_, changesURL(), &names);  // an unreadable folder counts none
  return fmt::format("{} in Cache / {} on Disk", inCache, names.size());
}

void QuillonStore::preventFromSaving() { blockSaves_.store(true); }

Value QuillonStore::executeRequest(const PersistentStoreRequest& request,
                                   ManagedObjectContext* context, Error* error) {
  if (context) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    bool known = false;
    std::erase_if(contexts_, [&](const std::weak_ptr<ManagedObjectContext>& weak) {
      auto held = weak.lock();
      if (held.get() == context) known = true;
      return !held;
    });
    if (!known) contexts_.push_back(context->weak_from_this());
  }
  switch (request.requestType()) {
    case PersistentStoreRequestType::Fetch:
      return executeFetchRequest(static_cast<const FetchRequest&>(request), context);
    case PersistentStoreRequestType::Save: {
      if (!blockSaves()) {
        return executeSaveRequest(static_cast<const SaveChangesRequest&>(request), context);
      }
      Value versions = sessionInfo();
      std::string newest = "(null)";
      if (versions.isSequence()) {
        std::string best;
        bool found = false;
        for (const Value& session : versions.elements()) {
          const Value& version = session.get("version");
          if (!version.isString()) continue;
          std::string folded(version.str());
          for (char& c : folded) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
          if (!found || folded > best) {
            best = folded;
            newest = std::string(version.str());
            found = true;
          }
        }
      }
      auto fill = [](std::string format, const std::string& value) {
        size_t at = format.find("%@");
        if (at != std::string::npos) format.replace(at, 2, value);
        return format;
      };
      std::string reason =
          fill(QuillonLocalizedString("Because it was created with a newer version of %@."),
               stringOrNull(Quillon::applicationInfo().get("CFBundleName")));
      std::string suggestion = fill(QuillonLocalizedString("Please update to version %@."), newest);
      if (error) {
        *error = Error(std::string(kQuillonFrameworkIdentifier), -1,
                       Value::dictionary({{kLocalizedFailureReasonErrorKey, reason},
                                          {kLocalizedRecoverySuggestionErrorKey, suggestion}}));
      }
      return Value();
    }
  }
  return Value();
}

void QuillonStore::didAddToPersistentStoreCoordinator(PersistentStoreCoordinator* /*coordinator*/) {
  bound_ = true;
  refreshURLs();
  observeDirectory();
}

void QuillonStore::willRemoveFromPersistentStoreCoordinator(
    PersistentStoreCoordinator* /*coordinator*/) {
  // Records and change files first: their completion hands changes to the
  // cache, whose save must then include them.
  saveOperationQueue().waitUntilAllOperationsAreFinished();
  if (!cache_) return;
  cache_->save();
  cache_->saveQueue().waitUntilAllOperationsAreFinished();
}

Value QuillonStore::userInfo() const {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  return userInfo_;
}

void QuillonStore::setUserInfo(Value userInfo) {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  userInfo_ = std::move(userInfo);
}

std::string QuillonStore::formatChangeDate(double secondsSinceReferenceDate) const {
  return quillon::formatChangeDate(secondsSinceReferenceDate);
}

std::vector<std::shared_ptr<ManagedObjectContext>> QuillonStore::contexts() const {
  std::lock_guard<std::recursive_mutex> lock(monitor_);
  std::vector<std::shared_ptr<ManagedObjectContext>> held;
  for (const auto& weak : contexts_) {
    if (auto context = weak.lock()) held.push_back(std::move(context));
  }
  return held;
}

// ---- Entity keys and identity ----

void QuillonStore::setupEntityKeys() {
  entities_.clear();
  entityKeys_.clear();
  reverseEntityKeys_.clear();
  PersistentStoreCoordinator* coordinator = persistentStoreCoordinator();
  if (!coordinator || !coordinator->managedObjectModel()) return;
  for (const auto& [name, entity] : coordinator->managedObjectModel()->entitiesByName()) {
    entities_[name] = entity;
  }
  bool encrypted = !password().isNil();
  for (const auto& [name, entity] : entities_) {
    std::string key = PackageLayout::entityKey(name, encrypted);
    entityKeys_[name] = key;
    reverseEntityKeys_[key] = name;
  }
}

const std::unordered_map<std::string, const EntityDescription*>& QuillonStore::entities() const {
  return entities_;
}

const EntityDescription* QuillonStore::entityNamed(std::string_view name) const {
  auto found = entities_.find(std::string(name));
  return found == entities_.end() ? nullptr : found->second;
}

std::optional<std::string> QuillonStore::fileNameForEntity(const EntityDescription& entity) const {
  return fileNameForEntityName(entity.name());
}

std::optional<std::string> QuillonStore::fileNameForEntityName(std::string_view name) const {
  auto found = entityKeys_.find(std::string(name));
  if (found == entityKeys_.end()) return std::nullopt;
  return found->second;
}

std::optional<std::string> QuillonStore::entityNameForFileName(std::string_view key) const {
  auto found = reverseEntityKeys_.find(std::string(key));
  if (found == reverseEntityKeys_.end()) return std::nullopt;
  return found->second;
}

ManagedObjectIDPtr QuillonStore::newObjectIDForEntity(const EntityDescription* entity,
                                                      Value referenceObject) {
  if (!entity || closed() || !persistentStoreCoordinator()) return nullptr;
  return IncrementalStore::newObjectIDForEntity(entity, std::move(referenceObject));
}

std::vector<ManagedObjectIDPtr> QuillonStore::obtainPermanentIDsForObjects(
    const std::vector<std::shared_ptr<ManagedObject>>& objects, Error* /*error*/) {
  std::vector<ManagedObjectIDPtr> ids;
  ids.reserve(objects.size());
  for (const auto& object : objects) {
    std::string uid = makeUUIDString();
    ManagedObjectIDPtr id = newObjectIDForEntity(object ? object->entity() : nullptr, uid);
    if (id) id->setCachedUID(uid);
    ids.push_back(std::move(id));
  }
  return ids;
}

std::string QuillonStore::uidForObjectID(const ManagedObjectIDPtr& objectID,
                                         ManagedObjectContext* context) {
  if (!objectID) return std::string();
  if (objectID->isTemporaryID() && context) {
    ManagedObjectPtr object = context->objectWithID(objectID);
    if (object && context->obtainPermanentIDsForObjects({object})) {
      return storeUID(*object->objectID());
    }
  }
  return storeUID(*objectID);
}

ManagedObjectIDPtr QuillonStore::managedObjectIDForReference(std::string_view reference) {
  std::lock_guard<std::mutex> lock(managedObjectIDsMutex_);
  auto found = managedObjectIDs_.find(std::string(reference));
  return found == managedObjectIDs_.end() ? nullptr : found->second;
}

void QuillonStore::setManagedObjectIDForReference(std::string_view reference,
                                                  ManagedObjectIDPtr objectID) {
  std::lock_guard<std::mutex> lock(managedObjectIDsMutex_);
  if (objectID) {
    managedObjectIDs_[std::string(reference)] = std::move(objectID);
  } else {
    managedObjectIDs_.erase(std::string(reference));
  }
}

// ---- Identity helpers ----

Value arrayForStore(const Value& value) {
  if (value.isNil()) return Value::array();
  if (value.isArray()) return value;
  if (value.isSet() || value.isOrderedSet()) {
    std::span<const Value> members = value.elements();
    return Value::array(std::vector<Value>(members.begin(), members.end()));
  }
  return Value::array({value});
}

QuillonStore* quillonStore(const ManagedObject& object) {
  ManagedObjectContext* context = object.managedObjectContext();
  if (!context) return nullptr;
  std::shared_ptr<PersistentStoreCoordinator> coordinator = context->persistentStoreCoordinator();
  if (!coordinator) return nullptr;
  if (object.objectID()) {
    if (auto store = object.objectID()->persistentStore()) {
      if (auto* quillon = dynamic_cast<QuillonStore*>(store.get())) return quillon;
    }
  }
  for (const auto& store : coordinator->persistentStores()) {
    if (auto* quillon = dynamic_cast<QuillonStore*>(store.get())) return quillon;
  }
  return nullptr;
}

void registerQuillonStoreType() {
  PersistentStoreCoordinator::registerStoreClass(
      std::string(kQuillonStoreType),
      [](PersistentStoreCoordinator* coordinator, const std::string& configurationName,
         const Url& url, const Value& options) -> std::shared_ptr<IncrementalStore> {
        return std::make_shared<QuillonStore>(coordinator, configurationName, url, options);
      });
}

}  // namespace quillon
