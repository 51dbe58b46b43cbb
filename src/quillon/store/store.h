#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/error.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/cache/cache_source.h"
#include "quillon/changes/change_applier.h"
#include "quillon/changes/change_history.h"
#include "quillon/changes/change_validator.h"
#include "quillon/changes/store_log.h"
#include "quillon/graph/incremental_store.h"
#include "quillon/graph/managed_object_id.h"
#include "quillon/store/fetcher.h"
#include "quillon/store/object_uid.h"
#include "quillon/store/package_files.h"
#include "quillon/store/package_layout.h"
#include "quillon/store/record_reader.h"
#include "quillon/store/save_queue.h"

namespace quillon {

class DispatchQueue;
class EntityDescription;
class FetchRequest;
class ManagedObject;
class ManagedObjectContext;
class Operation;
class OperationQueue;
class QuillonCache;
class QuillonCacheArray;
class QuillonCacheItem;
class QuillonChange;
class QuillonFolderObserver;
class SaveChangesRequest;
class SeaCrypto;

// The framework's store: a document package of append-only files (Info.plist,
// "Entities" with one JSON record per object per save, "Changes" with one
// change file per save, "Errors", "Cache"), plus a local cache outside the
// package and the application of other computers' saves while the document
// stays open.
//
// Made by the coordinator (registered as "QuillonStore" by
// Quillon::registerStore) and owned by it. Initialisation, requests, the
// update of external changes, the log and every notification run on the main
// thread; records and change files are written on the save queue, change
// files are read and validated on the read queue. The store's own state is
// guarded by its recursive monitor (monitor()); entity keys and entities are
// fixed after construction and readable from any thread.
//
// The store is the framework's API and the wiring of the components that do
// the work, each in its own header: PackageFiles and PackageLayout (the
// package's files), QuillonFetcher (answering the graph from the cache),
// QuillonRecordReader (objects read from their records), QuillonSaveQueue
// (record and change-file writes), QuillonChangeValidator,
// QuillonChangeApplier (other computers' changes), QuillonFolderObserver and
// QuillonStoreLog; and the local cache (QuillonCache), which the store
// drives. The members are implemented beside the subsystem they belong to:
// store/store.cc (package, opening, identity), store/fetching.cc,
// store/saving.cc, changes/change.cc (change files), changes/validation.cc,
// changes/update.cc, changes/observation.cc and changes/log.cc.
class QuillonStore : public IncrementalStore,
                     public QuillonCacheSource,
                     public QuillonApplierHost,
                     public QuillonRecordHost,
                     public QuillonHistoryHost {
 public:
  // ---- Package and opening (store/store.cc) ----

  // The Env that stores created from now on use for every file access (the
  // default is Env::Default()). For tests that inject faults; the Env must
  // outlive those stores.
  static void setDefaultEnv(Env* env);
  static Env* defaultEnv();

  // The first extension of the host's first document type whose
  // "NSPersistentStoreTypeKey" is "QuillonStore".
  static std::optional<std::string> fileExtension();
  // "DocumentIdentifier" of the package's Info.plist, nil when unreadable.
  static Value documentIdentifierForURL(const Url& url);
  static bool isCorrectFormat(const std::string& path);
  static bool canOpenURL(const Url& url, const Value& password);
  // Trashes what stands at the URL (recording it in "QuillonOverwrittenFiles")
  // and forgets the local cache of that location.
  static void prepareNewStoreAtURL(const Url& url);
  // Records the package in "QuillonRecentFiles", asynchronously. Nil
  // information defaults to the package's own.
  static void registerURL(const Url& url, Value fileInfo = Value(), Value volumeInfo = Value());
  // Waits until every registration started so far has been written (tests).
  static void waitForRegistrations();
  static Value infoDictionaryForURL(const Url& url);

  // Options: "password", "QuillonUpToChange", "DocumentIdentifier",
  // "DocumentInfo", kRemoveUbiquitousMetadataOption, kQuillonDurableSavesOption.
  QuillonStore(PersistentStoreCoordinator* coordinator, std::string configurationName, Url url,
               Value options);
  ~QuillonStore() override;

  Env* env() const { return env_; }
  std::recursive_mutex& monitor() const { return monitor_; }

  Value password() const;
  // The document identifier: the host of this store's object URIs.
  std::string identifier() const override;
  std::string documentIdentifier();
  void setDocumentIdentifier(const std::string& identifier);
  void setURL(const Url& url) override;
  void refreshURLs();
  Url infoURL() const;
  Url entitiesURL() const;
  Url changesURL() const;
  Url cacheURL() const;
  Url errorsURL() const;
  // Creates the package when nothing exists at its path.
  void writeInfo(const Value& options);
  void setMetadata(Value metadata) override;
  Value metadata() const override;
  bool loadMetadata(Error* error) override;

  // Where the package's files are, and how they are read and written.
  PackageLayout layout() const override;
  PackageFiles& packageFiles() const { return *files_; }
  std::shared_ptr<PackageFiles> packageFilesPointer() const { return files_; }

  // The cipher hand-off: without a password both answer their input.
  Value encrypt(const Value& data);
  Value decrypt(const Value& data);
  // The same on bytes; false when the cipher refuses (wrong password, damage).
  bool encrypt(std::span<const uint8_t> plain, std::vector<uint8_t>* out);
  bool decrypt(std::span<const uint8_t> stored, std::vector<uint8_t>* out);

  // The URL itself when a file exists there, else the first entry of its
  // folder whose path begins with the URL's path, else the URL.
  Url correctedDataURL(const Url& url);
  void updatePackageDate();
  void resetCache();
  void checkAllFiles();
  bool loadedAllChanges();
  // "%ld in Cache / %ld on Disk".
  std::string changesInfo();

  // The save gate: once set, every save fails with the newer-version error.
  void preventFromSaving() override;
  bool blockSaves() const { return blockSaves_.load(); }

  Value executeRequest(const PersistentStoreRequest& request, ManagedObjectContext* context,
                       Error* error) override;
  // Binds the cache to the package, loads its change log and starts the
  // first update, records the package as recently opened and
  // starts observing "Changes". This is the last step of opening; it runs
  // here rather than in the constructor because the work it schedules holds
  // the store weakly, which needs the coordinator's shared_ptr to exist.
  void didAddToPersistentStoreCoordinator(PersistentStoreCoordinator* coordinator) override;
  void willRemoveFromPersistentStoreCoordinator(PersistentStoreCoordinator* coordinator) override;

  // Session facts, fixed at initialisation.
  const std::string& session() const { return session_; }
  const std::string& userName() const { return userName_; }
  const std::string& fullUserName() const { return fullUserName_; }
  const std::string& osVersion() const { return osVersion_; }
  const std::string& machineName() const { return machineName_; }
  // Tests give two stores in one process different machine names.
  void setMachineName(std::string name) { machineName_ = std::move(name); }
  // An application-supplied value written into every session record.
  Value userInfo() const;
  void setUserInfo(Value userInfo);
  // "yyyy-MM-dd-HH-mm-ss.SSS" in GMT, the date part of change names.
  std::string formatChangeDate(double secondsSinceReferenceDate) const;

  bool recover() const override { return recover_.load(); }
  void setRecover(bool recover) { recover_.store(recover); }
  // The history cut-off: a change-log entry (its "name" is used) or nil.
  const Value& upToChange() const { return upToChange_; }
  QuillonCache& cache() const { return *cache_; }
  std::shared_ptr<QuillonCache> cachePointer() const { return cache_; }
  // The contexts that sent requests (main thread).
  std::vector<std::shared_ptr<ManagedObjectContext>> contexts() const;
  DispatchQueue& readQueue() const { return *readQueue_; }

  // ---- Entity keys and identity (store/store.cc) ----

  void setupEntityKeys();
  // The entities of the coordinator's model by name.
  const std::unordered_map<std::string, const EntityDescription*>& entities() const override;
  const EntityDescription* entityNamed(std::string_view name) const override;
  std::optional<std::string> fileNameForEntity(const EntityDescription& entity) const;
  std::optional<std::string> fileNameForEntityName(std::string_view name) const override;
  std::optional<std::string> entityNameForFileName(std::string_view key) const;
  // Every entity key, entity name → key.
  const std::unordered_map<std::string, std::string>& entityKeys() const { return entityKeys_; }
  // Nullptr for a null entity, a closed store or one without coordinator.
  ManagedObjectIDPtr newObjectIDForEntity(const EntityDescription* entity,
                                          Value referenceObject) override;
  std::vector<ManagedObjectIDPtr> obtainPermanentIDsForObjects(
      const std::vector<std::shared_ptr<ManagedObject>>& objects, Error* error) override;
  std::string uidForObjectID(const ManagedObjectIDPtr& objectID, ManagedObjectContext* context);
  // Identifiers made for stored references ("Entity/UID"), reused by cache items.
  ManagedObjectIDPtr managedObjectIDForReference(std::string_view reference) override;
  void setManagedObjectIDForReference(std::string_view reference,
                                      ManagedObjectIDPtr objectID) override;

  // ---- Fetching and loading (store/fetching.cc, over QuillonFetcher and QuillonRecordReader) ----

  Value executeFetchRequest(const FetchRequest& request, ManagedObjectContext* context);
  std::shared_ptr<IncrementalStoreNode> newValuesForObjectWithID(const ManagedObjectIDPtr& objectID,
                                                                 ManagedObjectContext* context,
                                                                 Error* error) override;
  Value newValueForRelationship(const RelationshipDescription& relationship,
                                const ManagedObjectIDPtr& objectID, ManagedObjectContext* context,
                                Error* error) override;
  std::shared_ptr<QuillonCacheItem> loadValuesForObjectID(
      const ManagedObjectIDPtr& objectID, ManagedObjectContext* context,
      const Value& upToChange = Value()) override;
  std::optional<std::vector<uint8_t>> readDataFile(const EntityDescription& entity,
                                                   const std::string& uid,
                                                   std::string_view fileName) override;
  // QuillonRecordReader::load; `upToChange` a change name or nil.
  std::shared_ptr<QuillonCacheItem> loadValuesForEntity(const EntityDescription& entity,
                                                        const std::string& uid,
                                                        ManagedObjectContext* context,
                                                        const Value& upToChange = Value());
  void resetAttributesForManagedObject(ManagedObject& object);
  Value changesDictionaryForObjectIDs(const std::vector<ManagedObjectIDPtr>& objectIDs);
  void addLoadingIssue(QuillonLoadingIssue issue);
  std::vector<QuillonLoadingIssue> loadingIssues() const;

  // ---- Saving (store/saving.cc, over QuillonSaveQueue) ----

  Value executeSaveRequest(const SaveChangesRequest& request, ManagedObjectContext* context);
  // Writes every object of `context` (read through `sourceStore`) into this
  // new store as one change of full records; the completion runs on the main
  // queue once every file is written. Options: kQuillonAnonymizeOptionsKey,
  // kQuillonBusyWindowControllerOptionsKey (a Value::object of a
  // QuillonProgressSink, store/progress_sink.h, told the fraction of entities
  // written on the main queue).
  void writeAllObjectsInContext(const std::shared_ptr<ManagedObjectContext>& context,
                                QuillonStore* sourceStore, const Value& options,
                                std::function<void(ManagedObjectContext*)> completion);
  // The queue of record and change-file writes, made on first use.
  OperationQueue& saveOperationQueue() { return saves_->operations(); }
  void incrementProgress() { saves_->objectSaved(); }
  // QuillonSaveQueue::setProgressInfo.
  void setProgressInfo(Value progressInfo) { saves_->setProgressInfo(std::move(progressInfo)); }
  Value progressInfo() const { return saves_->progressInfo(); }
  int64_t saveOperationsCount() const { return saves_->count(); }
  int64_t saveOperationsValue() const { return saves_->done(); }
  // Whether saves flush to stable storage (kQuillonDurableSavesOption).
  bool durableSaves() const;
  // Waits until every save started so far has written its files, then
  // answers the first save failure since the last call, or no error when
  // everything is on disk. Saves answer at once; this is how whoever needs
  // them on disk learns that one could not be written (the notification
  // kQuillonSaveDidFail tells those who do not wait). Not on the save queue.
  [[nodiscard]] Error waitForSaves() { return saves_->wait(); }
  // A save whose change file was not written because `error` (record, data
  // file, flush or the change file itself): logs it, keeps it for
  // waitForSaves, posts kQuillonSaveDidFail, and drops the values the cache
  // took from the save, so that objects are answered from what is on disk.
  // Save queue.
  void saveDidFail(const Error& error, const Value& change);
  // Adds an operation to the save queue. With `afterEverything` it first
  // depends on every operation added before it that has not finished (the
  // change file's write). Any thread.
  void enqueueSaveOperation(const std::shared_ptr<Operation>& operation, bool afterEverything) {
    saves_->enqueue(operation, afterEverything);
  }

  // ---- Change files (changes/change.cc) ----

  // An empty recovery change under the URL (a change file name in
  // "Changes"), then updateChanges(); over QuillonChangeHistory.
  void insertChange(const Url& url);
  void writeFakeChangeToURL(const Url& url, const Value& refreshes) override;
  // `date` (seconds since 2001) moved later when needed so that the change
  // it names sorts after every change this store named and after
  // `lastKnownName`, by at least one millisecond. Any thread.
  double orderedChangeDate(double date, std::string_view lastKnownName);
  // The object's record files whose change is in the change log, in change order.
  std::vector<Url> changesFilesFor(const EntityDescription& entity,
                                   const std::string& uid) override;

  // ---- Validation (changes/validation.cc, over QuillonChangeValidator) ----

  // The combined (entity → uid → entry) updates and inserts of a valid
  // change, nil otherwise (in recovery mode the combination after logging).
  // With `loadedItems` (a mutable dictionary), a full validation also keeps
  // what it read: entity name → uid → Value::object of a QuillonCacheItem
  // made from the record of each inserted object.
  Value validatedChanges(const Value& change, bool lightWeight = false,
                         Value* loadedItems = nullptr) override;
  static Value combineChangeDictionary(const Value& first, const Value& second);
  // The URL's absolute text without the package URL's.
  std::string shortURL(const Url& url) const;

  // ---- Applying external changes (changes/update.cc, over QuillonChangeApplier) ----

  // Installs the cache's stored change log, first validating its first
  // change (light-weight) when the log came from the package's copy; a
  // failed validation tries again after 10 s.
  void loadChangeLogIfNeeded();
  void loadChangeLog(const std::shared_ptr<QuillonCacheArray>& log);
  void updateChanges() override;
  void updateChangesWithCompletion(std::function<void(bool success)> completion);
  void refreshInsertedObjects(const Value& inserts, const Value& updates,
                              const Value& deletes) override;
  void processChanges();
  bool updating() const { return updating_; }
  size_t changesFileCount() const;
  bool hasRemoteFiles() const;
  // False once the cache no longer knows a saved object (another
  // computer's change deleted it); true while a save of this store is still
  // being written or the change log is not loaded yet.
  bool hasObjectWithID(const ManagedObjectIDPtr& objectID) override;

  // ---- History operations (changes/update.cc, over QuillonChangeHistory) ----

  // Moves the change file into "InvalidChanges", writes a recovery change in
  // its place that refreshes what it touched and an empty one a second
  // earlier, and updates: every computer re-applies the history without it.
  std::optional<QuillonDiscardedChange> discardChange(const Url& changeURL);
  // Removes the records `change` wrote for `objects` (entity name → uids);
  // with `wasInsert` every record of those objects.
  void removeChange(const Value& change, const Value& objects, bool wasInsert);
  // Menu actions of log entries.
  void discardChangeFromMenu(const Url& changeURL);
  void insertChangeFromMenu(const Url& changeURL);
  // Reveals the URL, or its nearest existing parent folder.
  void showInFinder(const Url& url);

  // ---- Folder observation (changes/observation.cc, over QuillonFolderObserver) ----

  void observeDirectory();
  void unobserveDirectory();
  bool closed() const { return closed_.load(); }
  void setClosed(bool closed);
  void invalidatePaths(const std::vector<std::string>& paths);
  bool isObservingDirectory() const;
  // The store is about to write this file into "Changes": its event is not
  // one of another computer. Any thread.
  void willWriteChangeFile(const std::string& path);
  // The folder-event grouping window in seconds (2.0; tests shorten it).
  static void setObservationLatency(double seconds);

  // ---- Log and diagnostics (changes/log.cc, over QuillonStoreLog) ----

  // A log entry: {"date", "message", "menu" (when given), "QuillonLogType"}.
  // A menu is an array of {"title", "action", "URL"}. Any thread; the entry is
  // added on the main queue.
  void log(const std::string& message, std::string_view type, const Value& menu = Value()) override;
  void log(const std::string& message);
  // The entries, newest first (main thread).
  Value logEntries() const;
  void refreshLog();
  void logError(const Error& error, const std::string& domain) override;
  void logErrorString(const std::string& text, const std::string& domain);
  void setErrorLevel(std::string_view type) override;
  std::string errorLevel() const;
  Value errorsArray();
  Value recentErrorsArray();
  Value peformanceArray() const;
  Value sessionDictionary() const;
  Value sessionInfo();
  std::string checkSum();
  Value infoArrayForContext(ManagedObjectContext* context);
  void fixSyncConflicts();

 private:
  Env* env_;
  mutable std::recursive_mutex monitor_;
  std::unique_ptr<DispatchQueue> readQueue_;
  std::string session_;
  std::string userName_, fullUserName_, osVersion_, machineName_;
  std::atomic<bool> recover_{false};
  Value upToChange_;
  std::shared_ptr<QuillonCache> cache_;
  Value userInfo_;

  // Package.
  PackageLayout layout_;
  std::shared_ptr<PackageFiles> files_;
  std::unique_ptr<QuillonRecordReader> records_;
  Value infoDictionary_;
  mutable Value cachedMetadata_;
  std::string documentIdentifier_;
  std::atomic<bool> blockSaves_{false};
  std::vector<std::weak_ptr<ManagedObjectContext>> contexts_;

  // Identity.
  std::unordered_map<std::string, const EntityDescription*> entities_;
  std::unordered_map<std::string, std::string> entityKeys_;
  std::unordered_map<std::string, std::string> reverseEntityKeys_;
  std::unordered_map<std::string, ManagedObjectIDPtr> managedObjectIDs_;
  std::mutex managedObjectIDsMutex_;

  // Fetching and loading.
  std::unique_ptr<QuillonFetcher> fetcher_;

  // Saving: destroyed before the cache and the package files, which its
  // operations use.
  std::unique_ptr<QuillonSaveQueue> saves_;

  // Update.
  bool updating_ = false;
  std::atomic<bool> closed_{false};

  // Observation of "Changes".
  std::unique_ptr<QuillonFolderObserver> observer_;

  // Further private state and helpers, one block per implementation file;
  // each file's owner adds only inside its own block.
  // [store.cc]
  // The folder URLs of the package URL; creates "Errors".
  void computeURLs();
  // Set once didAddToPersistentStoreCoordinator bound the cache: a later
  // setURL re-binds, an earlier one only recomputes the folder URLs.
  bool bound_ = false;

  // [fetching.cc]

  // [saving.cc]

  // [change.cc]
  std::string lastIssuedChangeDate_;  // "yyyy-MM-dd-HH-mm-ss.SSS" of the last name made

  // [validation.cc]
  std::unique_ptr<QuillonChangeValidator> validator_;

  // [update.cc]
  std::unique_ptr<QuillonChangeApplier> applier_;
  std::unique_ptr<QuillonChangeHistory> history_;  // made on first use (main thread)
  QuillonChangeHistory& history();
  std::shared_ptr<void> keepAlive() override;

  // [observation.cc]
  std::unique_ptr<QuillonFolderObserver> makeFolderObserver();

  // [log.cc]
  // Declared last, so that it goes first: work for the log that is still
  // queued then does nothing.
  QuillonStoreLog storeLog_{this};

  // [end]
};

// ---- Identity helpers (store/store.cc) ----

// A one-element array of a single value; a set's or ordered set's members;
// an array as it is; nil gives an empty array.
Value arrayForStore(const Value& value);
// The store of an object's coordinator when it is a QuillonStore.
QuillonStore* quillonStore(const ManagedObject& object);

// Registers the store type with the coordinator's registry; the same as
// Quillon::registerStore().
void registerQuillonStoreType();

}  // namespace quillon
