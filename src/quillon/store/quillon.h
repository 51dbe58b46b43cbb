#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "quillon/base/value.h"

namespace quillon {

// The framework's public vocabulary. Hosts compare against these values, so
// they never change (the odd ones included).
inline constexpr std::string_view kQuillonStoreType = "QuillonStore";
inline constexpr std::string_view kQuillonObjectsWillChangeExternally =
    "QuillonObjectsWillChangeExternally";
inline constexpr std::string_view kQuillonObjectsDidChangeExternally =
    "QuillonObjectsDidChangeExternally";
// Posted on the main queue by a store (the sender) when an update pass ended.
inline constexpr std::string_view kQuillonReady = "QuillonReady";
inline constexpr std::string_view kQuillonBeginSave = "QuillonBeginSave";
// Posted on the main queue, with the store as sender, when a save could not
// be written: user info "error" (its description), "change" (the change's
// name). The save's change file was not written; see QuillonStore::waitForSaves.
inline constexpr std::string_view kQuillonSaveDidFail = "QuillonSaveDidFail";
inline constexpr std::string_view kQuillonUpToChange = "QuillonUpToChange";
inline constexpr std::string_view kQuillonAnonymizeOptionsKey = "QuillonAnonymizeOptions";
inline constexpr std::string_view kQuillonBusyWindowControllerOptionsKey =
    "QuillonBusyWindowControllerOptionsKey";
inline constexpr std::string_view kQuillonLogType = "QuillonLogType";
inline constexpr std::string_view kQuillonLogTypeSuccess = "QuillonLogTypeSuccess";
inline constexpr std::string_view kQuillonLogTypeWarning = "QuillonLogTypeWarning";
inline constexpr std::string_view kQuillonLogTypeError = "QuillonLogTypeError";
inline constexpr std::string_view kQuillonInsert = "insert";
inline constexpr std::string_view kQuillonUpdate = "update";
inline constexpr std::string_view kQuillonDelete = "delete";
inline constexpr std::string_view kQuillonChanges = "changes";
// kQuillonIgnoreNetworkVolumesWarningAtMyOwnRisk lives in coding/url_utils.h.
inline constexpr std::string_view kQuillonICloudWarningHasBeenShown =
    "kQuillonICloudWarningHasBeenShown";
inline constexpr std::string_view kQuillonDeviceIdentifierKey = "QuillonDeviceIdentifier";
inline constexpr std::string_view kQuillonLoadDataWithTimeout = "QuillonLoadDataWithTimeout";

// User-defaults keys that are not exported under a constant name elsewhere.
inline constexpr std::string_view kQuillonRecentFilesKey = "QuillonRecentFiles";
inline constexpr std::string_view kQuillonOverwrittenFilesKey = "QuillonOverwrittenFiles";

// Store options.
inline constexpr std::string_view kQuillonPasswordOption = "password";
inline constexpr std::string_view kQuillonDocumentIdentifierOption = "DocumentIdentifier";
inline constexpr std::string_view kQuillonDocumentInfoOption = "DocumentInfo";
// A true value makes every record the store writes into itself a full one.
inline constexpr std::string_view kRemoveUbiquitousMetadataOption =
    "NSPersistentStoreRemoveUbiquitousMetadataOption";
// Boolean, default true: a save's records and data files reach stable storage
// before its change file is written, and the change file after its rename.
inline constexpr std::string_view kQuillonDurableSavesOption = "QuillonDurableSaves";
// Per-document settings, for an application with several documents open.
// Text: the folder that stands in for the user's cache folder for this
// document's local cache (default StandardPaths::userCacheDirectory()).
inline constexpr std::string_view kQuillonCacheDirectoryOption = "QuillonCacheDirectory";
// Text: the computer's name written into this document's sessions and
// changes (default the host name).
inline constexpr std::string_view kQuillonMachineNameOption = "QuillonMachineName";
// A Value::object of a QuillonEnvOption: the Env through which this
// document's files are read and written (default QuillonStore::defaultEnv()).
inline constexpr std::string_view kQuillonEnvOption = "QuillonEnv";

class Env;
// Carries an Env in the store options; the Env must outlive the store.
class QuillonEnvOption final : public Object {
 public:
  explicit QuillonEnvOption(Env* env) : env_(env) {}
  static Value make(Env* env) { return Value::object(std::make_shared<QuillonEnvOption>(env)); }
  Env* env() const { return env_; }
  std::string className() const override { return "QuillonEnvOption"; }

 private:
  Env* env_;
};

// The user-info keys of the external-change notifications (sets of objects),
// the same keys contexts use for their own change notifications. The
// notifications' sender is the context; kQuillonStoreURLKey names the store
// (its URL's absolute text) whose package the change came from.
inline constexpr std::string_view kQuillonInsertedObjectsKey = "inserted";
inline constexpr std::string_view kQuillonUpdatedObjectsKey = "updated";
inline constexpr std::string_view kQuillonDeletedObjectsKey = "deleted";
inline constexpr std::string_view kQuillonStoreURLKey = "QuillonStoreURL";

// Key-value change notices of framework objects ("log", "errorLevel",
// "changes"): posted on the main thread through the default notification
// center with the observed object (the store or the cache) as object and
// {"key": <key>} as user info.
inline constexpr std::string_view kQuillonWillChangeValueNotification = "QuillonWillChangeValue";
inline constexpr std::string_view kQuillonDidChangeValueNotification = "QuillonDidChangeValue";

// The framework's shared object: registration of the store type and the
// host application's identity and hooks. The Help-menu entry of desktop
// hosts has no counterpart here. Every member is thread-safe; hosts set the
// application information and hooks once at start-up, before opening
// documents.
class Quillon {
 public:
  // Answers a text (log line of the store with the package URL) and a domain.
  using LogErrorStringHandler =
      std::function<void(const std::string& text, const std::string& domain)>;
  // A modal alert that a desktop host would show: message and informative text.
  using AlertHandler =
      std::function<void(const std::string& message, const std::string& informativeText)>;

  // The one shared instance, made on first use.
  static Quillon& sharedKit();
  // Registers QuillonStore with the coordinator's registry under
  // kQuillonStoreType. Calling it again is harmless.
  static void registerStore();

  // The host application's bundle keys: "CFBundleIdentifier",
  // "CFBundleVersion", "CFBundleShortVersionString", "CFBundleName" and
  // "CFBundleDocumentTypes". Also selects the user defaults of that
  // identifier. Until set, the identity is that of the command-line tool.
  static void setApplicationInfo(Value info);
  static Value applicationInfo();
  static std::string applicationIdentifier();
  // The framework's own bundle keys: "CFBundleIdentifier" (org.quillon.Quillon),
  // "CFBundleVersion", "CFBundleShortVersionString", "StorageVersion".
  static Value frameworkInfo();

  // Recovery mode at opening: stores created while it is set validate in
  // recovery mode (a held modifier key on desktop hosts).
  static void setRecoveryRequested(bool requested);
  static bool recoveryRequested();

  // Where the store's logErrorString texts and alerts go; without a handler
  // they go to the system log.
  static void setLogErrorStringHandler(LogErrorStringHandler handler);
  static void logErrorString(const std::string& text, const std::string& domain);
  static void setAlertHandler(AlertHandler handler);
  static void showAlert(const std::string& message, const std::string& informativeText);

 private:
  Quillon() = default;
};

}  // namespace quillon
