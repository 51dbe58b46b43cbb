#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/value.h"

namespace quillon {

// The user-info key of a keychain error under which the failed query is kept
// (the password it would have stored is left out).
inline constexpr std::string_view kOrdoKeychainItemQueryKey = "OrdoKeychainItemQueryKey";

// Keys and values of keychain queries and attribute dictionaries, spelled as
// desktop keychains spell them.
inline constexpr std::string_view kKeychainClass = "class";
inline constexpr std::string_view kKeychainClassGenericPassword = "genp";
inline constexpr std::string_view kKeychainClassInternetPassword = "inet";
inline constexpr std::string_view kKeychainAttrAccount = "acct";
inline constexpr std::string_view kKeychainAttrService = "svce";
inline constexpr std::string_view kKeychainAttrServer = "srvr";
inline constexpr std::string_view kKeychainAttrSecurityDomain = "sdmn";
inline constexpr std::string_view kKeychainAttrPath = "path";
inline constexpr std::string_view kKeychainAttrPort = "port";
inline constexpr std::string_view kKeychainAttrProtocol = "ptcl";
inline constexpr std::string_view kKeychainAttrAuthenticationType = "atyp";
inline constexpr std::string_view kKeychainAttrLabel = "labl";
inline constexpr std::string_view kKeychainAttrCreationDate = "cdat";
inline constexpr std::string_view kKeychainAttrModificationDate = "mdat";
inline constexpr std::string_view kKeychainMatchLimit = "m_Limit";
inline constexpr std::string_view kKeychainMatchLimitOne = "m_LimitOne";
inline constexpr std::string_view kKeychainMatchLimitAll = "m_LimitAll";
inline constexpr std::string_view kKeychainReturnAttributes = "r_Attributes";
inline constexpr std::string_view kKeychainReturnData = "r_Data";
inline constexpr std::string_view kKeychainValueData = "v_Data";

// The service of the application UUID record; its account is the
// application's identifier.
inline constexpr std::string_view kOrdoApplicationUUIDService =
    "org.quillon.ordo.opensource.keychain.uuid.application";

// A password in the keychain (SecretStore::shared()), as found or as just
// added: its account, every attribute the keychain answered and the password
// decoded as UTF-8. Immutable; the class operations of the subclasses find,
// add and list items. Items are added, never updated: adding one that exists
// fails with kSecretStoreDuplicateItem.
//
// Every failure is an error of kOSStatusErrorDomain whose code is the
// keychain's status (kSecretStoreItemNotFound for "not found", like any
// other) and whose user info holds the query under kOrdoKeychainItemQueryKey;
// it goes to the caller's `error` when given, and the operation answers
// nullptr, an empty list or false. Nothing raises.
//
// No locking of its own: the keychain serialises access. Any thread; calls
// block on the keychain.
class OrdoStoreKeychainItem {
 public:
  virtual ~OrdoStoreKeychainItem() = default;
  OrdoStoreKeychainItem(const OrdoStoreKeychainItem&) = delete;
  OrdoStoreKeychainItem& operator=(const OrdoStoreKeychainItem&) = delete;

  // Locks the default keychain; unlocking may ask the user for its password.
  static bool lockKeychain(Error* error = nullptr);
  static bool unlockKeychain(Error* error = nullptr);

  const std::string& account() const { return account_; }
  // A dictionary of every attribute, with the port as a number and the
  // dates ("cdat", "mdat") as dates when the keychain knows them.
  const Value& attributes() const { return attributes_; }
  const std::string& password() const { return password_; }
  // The attribute under `key`; nil when there is none.
  const Value& objectForKeyedSubscript(std::string_view key) const { return attributes_.get(key); }
  const Value& operator[](std::string_view key) const { return objectForKeyedSubscript(key); }

  // Deletes this item (every item with its class, account and identifying
  // attributes) from the keychain.
  bool removeFromKeychainWithError(Error* error) const;

  // "<class> account:<account>", extended by each subclass.
  virtual std::string description() const;
  virtual std::string className() const { return "OrdoStoreKeychainItem"; }

 protected:
  OrdoStoreKeychainItem(std::string account, Value attributes, std::string password);
  // The query that finds this item: its class, account and the attributes
  // that identify it among the items of its class.
  virtual Value identifyingQuery() const = 0;

 private:
  std::string account_;
  Value attributes_;
  std::string password_;
};

// A generic password, identified by service and account. Documents keep
// their passwords in items whose service is the application's identifier
// and whose account is the document's identifier.
class OrdoStoreGenericKeychainItem : public OrdoStoreKeychainItem {
 public:
  using Ptr = std::shared_ptr<OrdoStoreGenericKeychainItem>;

  // The item of that service and account (each left out of the query when
  // empty) and the extra `attributes` (a dictionary, or nil), with its password.
  static Ptr genericKeychainItemForService(std::string_view service, std::string_view account,
                                           const Value& attributes, Error* error);
  // Every item of the service, each then fetched by its account.
  static std::vector<Ptr> genericKeychainItemsForService(std::string_view service,
                                                         const Value& attributes, Error* error);
  // Adds an item and answers it as the keychain now holds it.
  static Ptr genericKeychainItemWithService(std::string_view service, std::string_view account,
                                            const Value& attributes, std::string_view password,
                                            Error* error);

  const std::string& service() const { return service_; }
  std::string description() const override;
  std::string className() const override { return "OrdoStoreGenericKeychainItem"; }

 protected:
  OrdoStoreGenericKeychainItem(std::string service, std::string account, Value attributes,
                               std::string password);
  Value identifyingQuery() const override;

 private:
  std::string service_;
};

// An internet password, identified by server, security domain, account,
// path, port, protocol and authentication type. Each of those goes into a
// query only when given: strings when not empty, the port when not 0.
// Protocol and authentication type are keychain attribute values ("htps",
// "dflt").
class OrdoStoreInternetKeychainItem : public OrdoStoreKeychainItem {
 public:
  using Ptr = std::shared_ptr<OrdoStoreInternetKeychainItem>;

  static Ptr internetKeychainItemForServer(std::string_view server, std::string_view securityDomain,
                                           std::string_view account, std::string_view path,
                                           uint32_t port, std::string_view protocol,
                                           std::string_view authenticationType,
                                           const Value& attributes, Error* error);
  static std::vector<Ptr> internetKeychainItemsForServer(std::string_view server,
                                                         std::string_view securityDomain,
                                                         std::string_view path, uint32_t port,
                                                         std::string_view protocol,
                                                         std::string_view authenticationType,
                                                         const Value& attributes, Error* error);
  static Ptr internetKeychainItemWithServer(std::string_view server,
                                            std::string_view securityDomain,
                                            std::string_view account, std::string_view path,
                                            uint32_t port, std::string_view protocol,
                                            std::string_view authenticationType,
                                            const Value& attributes, std::string_view password,
                                            Error* error);

  const std::string& server() const { return server_; }
  const std::string& securityDomain() const { return securityDomain_; }
  const std::string& path() const { return path_; }
  uint32_t port() const { return port_; }
  const std::string& protocol() const { return protocol_; }
  const std::string& authenticationType() const { return authenticationType_; }
  std::string description() const override;
  std::string className() const override { return "OrdoStoreInternetKeychainItem"; }

 private:
  OrdoStoreInternetKeychainItem(std::string account, Value attributes, std::string password);
  Value identifyingQuery() const override;

  std::string server_;
  std::string securityDomain_;
  std::string path_;
  uint32_t port_ = 0;
  std::string protocol_;
  std::string authenticationType_;
};

// The record of a UUID made once per application and user: a generic item
// with service kOrdoApplicationUUIDService, the application's identifier as
// account and the UUID (upper-case 8-4-4-4-12) as password.
class OrdoStoreApplicationUUIDKeychainItem : public OrdoStoreGenericKeychainItem {
 public:
  using Ptr = std::shared_ptr<OrdoStoreApplicationUUIDKeychainItem>;

  // The record, or nullptr when there is none yet.
  static Ptr applicationUUIDKeychainItem(Error* error = nullptr);
  // Adds a record with a fresh UUID; fails when one exists.
  static Ptr generateApplicationUUIDKeychainItem(Error* error = nullptr);
  // The recorded UUID, recording one first when there is none; empty only
  // when the keychain can neither be read nor written.
  static std::string applicationUUID(Error* error = nullptr);

  const std::string& UUID() const { return password(); }
  std::string description() const override;
  std::string className() const override { return "OrdoStoreApplicationUUIDKeychainItem"; }

 private:
  using OrdoStoreGenericKeychainItem::OrdoStoreGenericKeychainItem;
};

}  // namespace quillon
