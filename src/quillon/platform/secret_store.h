#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/error.h"

namespace quillon {

// The error domain of keychain statuses. Every SecretStore failure is an
// error of this domain whose code is one of the statuses below.
inline constexpr std::string_view kOSStatusErrorDomain = "NSOSStatusErrorDomain";

// Keychain statuses, with the values desktop keychains use, so that callers
// and stored diagnostics read the same numbers everywhere.
inline constexpr int64_t kSecretStoreParam = -50;                 // a malformed request
inline constexpr int64_t kSecretStoreIO = -36;                    // the store's file failed
inline constexpr int64_t kSecretStoreUserCanceled = -128;         // an unlock prompt was dismissed
inline constexpr int64_t kSecretStoreNotAvailable = -25291;       // no secret service reachable
inline constexpr int64_t kSecretStoreAuthFailed = -25293;         // the keyring stays locked
inline constexpr int64_t kSecretStoreDuplicateItem = -25299;      // the item exists already
inline constexpr int64_t kSecretStoreItemNotFound = -25300;       // no item matches
inline constexpr int64_t kSecretStoreNoDefaultKeychain = -25307;  // no default keyring
inline constexpr int64_t kSecretStoreDecode = -26275;             // unreadable stored data

// Where the environment may choose the file-backed store for the process:
// QUILLON_SECRET_STORE=file. Anything else means the Secret Service.
inline constexpr std::string_view kSecretStoreEnvironmentVariable = "QUILLON_SECRET_STORE";

// One stored secret: its attributes (names and values are plain text), the
// label a keyring manager shows, the secret's bytes (empty unless asked for)
// and its dates in seconds since 2001-01-01 UTC (0 when unknown).
struct SecretStoreItem {
  std::map<std::string, std::string> attributes;
  std::string label;
  std::string secret;
  double creationDate = 0;
  double modificationDate = 0;
};

// The platform's password storage: items are sets of text attributes with a
// secret, found by exact match on any subset of their attributes. Items are
// only ever added and removed, never changed in place.
//
// shared() is the store the framework uses: the Secret Service unless the
// host (setShared) or the environment (QUILLON_SECRET_STORE=file) chose the
// file-backed store. Implementations are thread-safe; the calls block.
class SecretStore {
 public:
  using Attributes = std::map<std::string, std::string>;

  virtual ~SecretStore() = default;

  // Adds an item. `primaryKeys` names the attributes that identify it: when
  // an item exists whose value of each of those attributes equals this one's
  // (both absent counting as equal), nothing is added and the error is
  // kSecretStoreDuplicateItem.
  virtual Error addItem(const Attributes& attributes, const std::vector<std::string>& primaryKeys,
                        std::string_view label, std::string_view secret) = 0;
  // The items whose attributes include every pair of `query`: the first one
  // only unless `all`, with secrets only if `withSecrets`.
  // kSecretStoreItemNotFound when none matches.
  virtual Error findItems(const Attributes& query, bool all, bool withSecrets,
                          std::vector<SecretStoreItem>* items) = 0;
  // Removes every item matching `query`; kSecretStoreItemNotFound when none does.
  virtual Error removeItems(const Attributes& query) = 0;
  // Locks the default keyring; unlocking may prompt the user.
  virtual Error lock() = 0;
  virtual Error unlock() = 0;

  // The process-wide store; made on first use as described above.
  static std::shared_ptr<SecretStore> shared();
  // Replaces it; nullptr returns to the choice made on first use.
  static void setShared(std::shared_ptr<SecretStore> store);
};

// The store over the freedesktop Secret Service (gnome-keyring, KWallet)
// reached through libsecret on the session bus named by
// DBUS_SESSION_BUS_ADDRESS. Items go into the default collection and carry
// an "xdg:schema" attribute of their own, which is never shown to callers
// and keeps searches away from other applications' items.
class SecretServiceStore : public SecretStore {
 public:
  Error addItem(const Attributes& attributes, const std::vector<std::string>& primaryKeys,
                std::string_view label, std::string_view secret) override;
  Error findItems(const Attributes& query, bool all, bool withSecrets,
                  std::vector<SecretStoreItem>* items) override;
  Error removeItems(const Attributes& query) override;
  Error lock() override;
  Error unlock() override;

  // Drops libsecret's connection to the service, so that the next call
  // connects anew (to the bus DBUS_SESSION_BUS_ADDRESS names by then). A
  // process must call it before the bus it used goes away.
  static void disconnect();
};

// The store for machines without a Secret Service: every item in one JSON
// file, written atomically through an Env, by default
// "<config folder>/quillon/keychain.json". It has no locked state. The file
// is as private as the folder it lives in; secrets are not encrypted.
// Safe across threads of one process; two processes writing at the same
// moment may lose one of the additions.
class FileSecretStore : public SecretStore {
 public:
  explicit FileSecretStore(std::string path = defaultPath(), Env* env = Env::Default());
  static std::string defaultPath();
  const std::string& path() const { return path_; }

  Error addItem(const Attributes& attributes, const std::vector<std::string>& primaryKeys,
                std::string_view label, std::string_view secret) override;
  Error findItems(const Attributes& query, bool all, bool withSecrets,
                  std::vector<SecretStoreItem>* items) override;
  Error removeItems(const Attributes& query) override;
  Error lock() override;
  Error unlock() override;

 private:
  Error loadLocked(std::vector<SecretStoreItem>* items);
  Error saveLocked(const std::vector<SecretStoreItem>& items);

  std::string path_;
  Env* env_;
  std::mutex mutex_;
};

}  // namespace quillon
