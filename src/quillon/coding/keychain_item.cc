#include "quillon/coding/keychain_item.h"

#include <fmt/format.h>

#include <utility>

#include "quillon/base/internal/uuid.h"
#include "quillon/platform/secret_store.h"
#include "quillon/store/quillon.h"

namespace quillon {
namespace {

// The attributes that tell two items of a class apart; adding an item equal
// to an existing one in all of them fails as a duplicate.
const std::vector<std::string>& genericPrimaryKeys() {
  static const auto* keys =
      new std::vector<std::string>{std::string(kKeychainClass), std::string(kKeychainAttrService),
                                   std::string(kKeychainAttrAccount)};
  return *keys;
}

const std::vector<std::string>& internetPrimaryKeys() {
  static const auto* keys =
      new std::vector<std::string>{std::string(kKeychainClass),
                                   std::string(kKeychainAttrServer),
                                   std::string(kKeychainAttrSecurityDomain),
                                   std::string(kKeychainAttrAccount),
                                   std::string(kKeychainAttrPath),
                                   std::string(kKeychainAttrPort),
                                   std::string(kKeychainAttrProtocol),
                                   std::string(kKeychainAttrAuthenticationType)};
  return *keys;
}

bool isControlKey(std::string_view key) {
  return key == kKeychainMatchLimit || key == kKeychainReturnAttributes ||
         key == kKeychainReturnData || key == kKeychainValueData;
}

// Stores a keychain error for the caller: the status of `failure` with the
// query, less any password it carried, under kOrdoKeychainItemQueryKey.
void report(const Error& failure, const Value& query, Error* error) {
  if (!error) return;
  Value info = Value::mutableDictionary();
  info.set(kLocalizedDescriptionKey, failure.localizedDescription());
  if (query.isDictionary()) {
    Value shown = query.mutableCopy();
    shown.erase(Value(kKeychainValueData));
    info.set(kOrdoKeychainItemQueryKey, shown);
  }
  *error = Error(std::string(kOSStatusErrorDomain), failure.code(), info);
}

Error statusError(int64_t status, std::string_view description) {
  return Error::withDescription(std::string(kOSStatusErrorDomain), status, description);
}

// The store's form of a query: every attribute as text. Numbers are written
// in decimal; other kinds of value cannot be stored.
Error storeAttributes(const Value& query, SecretStore::Attributes* attributes) {
  for (const auto& [key, value] : query.items()) {
    if (!key.isString()) return statusError(kSecretStoreParam, "A keychain key is not a string");
    if (isControlKey(key.str())) continue;
    if (value.isString()) {
      attributes->insert_or_assign(std::string(key.str()), std::string(value.str()));
    } else if (value.isInteger() || value.isBool()) {
      attributes->insert_or_assign(std::string(key.str()), std::to_string(value.intValue()));
    } else {
      return statusError(kSecretStoreParam,
                         fmt::format("The keychain attribute {} is neither text nor a whole "
                                     "number",
                                     key.str()));
    }
  }
  return Error();
}

Value attributesValue(const SecretStoreItem& item) {
  Value attributes = Value::mutableDictionary();
  for (const auto& [name, text] : item.attributes) {
    if (name == kKeychainAttrPort) {
      attributes.set(name, Value::integer(std::strtoll(text.c_str(), nullptr, 10)));
    } else {
      attributes.set(name, text);
    }
  }
  if (!item.label.empty() && !attributes.find(kKeychainAttrLabel)) {
    attributes.set(kKeychainAttrLabel, item.label);
  }
  if (item.creationDate != 0) {
    attributes.set(kKeychainAttrCreationDate, Value::date(item.creationDate));
  }
  if (item.modificationDate != 0) {
    attributes.set(kKeychainAttrModificationDate, Value::date(item.modificationDate));
  }
  return attributes.copy();
}

// Extra attributes of a caller, added to a query under construction.
void addExtraAttributes(Value& query, const Value& attributes) {
  if (!attributes.isDictionary()) return;
  for (const auto& [key, value] : attributes.items()) query.set(key, value);
}

void setIfGiven(Value& query, std::string_view key, std::string_view text) {
  if (!text.empty()) query.set(key, text);
}

std::string text(const Value& attributes, std::string_view key) {
  const Value& value = attributes.get(key);
  return value.isString() ? std::string(value.str()) : std::string();
}

// SecItemCopyMatching for one item with its attributes and data.
bool copyOne(const Value& base, SecretStoreItem* found, Error* error) {
  Value query = base.mutableCopy();
  query.set(kKeychainMatchLimit, kKeychainMatchLimitOne);
  query.set(kKeychainReturnAttributes, true);
  query.set(kKeychainReturnData, true);
  SecretStore::Attributes attributes;
  Error failure = storeAttributes(query, &attributes);
  std::vector<SecretStoreItem> items;
  if (!failure) failure = SecretStore::shared()->findItems(attributes, false, true, &items);
  if (!failure && items.empty()) failure = statusError(kSecretStoreItemNotFound, "Not found");
  if (failure) {
    report(failure, query, error);
    return false;
  }
  *found = std::move(items.front());
  return true;
}

// SecItemCopyMatching for every item, attributes only.
bool copyAll(const Value& base, std::vector<SecretStoreItem>* found, Error* error) {
  Value query = base.mutableCopy();
  query.set(kKeychainMatchLimit, kKeychainMatchLimitAll);
  query.set(kKeychainReturnAttributes, true);
  SecretStore::Attributes attributes;
  Error failure = storeAttributes(query, &attributes);
  if (!failure) failure = SecretStore::shared()->findItems(attributes, true, false, found);
  if (failure) {
    report(failure, query, error);
    return false;
  }
  return true;
}

// SecItemAdd of `base` with the password's UTF-8 bytes.
bool add(const Value& base, const std::vector<std::string>& primaryKeys, std::string_view label,
         std::string_view password, Error* error) {
  Value query = base.mutableCopy();
  query.set(kKeychainValueData, Value::data(password));
  SecretStore::Attributes attributes;
  Error failure = storeAttributes(query, &attributes);
  if (!failure) {
    const Value& given = query.get(kKeychainAttrLabel);
    std::string shown = given.isString() ? std::string(given.str()) : std::string(label);
    failure = SecretStore::shared()->addItem(attributes, primaryKeys, shown, password);
  }
  if (failure) {
    report(failure, query, error);
    return false;
  }
  return true;
}

// SecItemDelete.
bool remove(const Value& query, Error* error) {
  SecretStore::Attributes attributes;
  Error failure = storeAttributes(query, &attributes);
  if (!failure) failure = SecretStore::shared()->removeItems(attributes);
  if (failure) {
    report(failure, query, error);
    return false;
  }
  return true;
}

Value genericQuery(std::string_view service, std::string_view account, const Value& attributes) {
  Value query = Value::mutableDictionary();
  query.set(kKeychainClass, kKeychainClassGenericPassword);
  setIfGiven(query, kKeychainAttrService, service);
  setIfGiven(query, kKeychainAttrAccount, account);
  addExtraAttributes(query, attributes);
  return query;
}

Value internetQuery(std::string_view server, std::string_view securityDomain,
                    std::string_view account, std::string_view path, uint32_t port,
                    std::string_view protocol, std::string_view authenticationType,
                    const Value& attributes) {
  Value query = Value::mutableDictionary();
  query.set(kKeychainClass, kKeychainClassInternetPassword);
  setIfGiven(query, kKeychainAttrServer, server);
  setIfGiven(query, kKeychainAttrSecurityDomain, securityDomain);
  setIfGiven(query, kKeychainAttrAccount, account);
  setIfGiven(query, kKeychainAttrPath, path);
  if (port != 0) query.set(kKeychainAttrPort, Value::integer(port));
  setIfGiven(query, kKeychainAttrProtocol, protocol);
  setIfGiven(query, kKeychainAttrAuthenticationType, authenticationType);
  addExtraAttributes(query, attributes);
  return query;
}

bool lockOrUnlock(bool lock, Error* error) {
  std::shared_ptr<SecretStore> store = SecretStore::shared();
  Error failure = lock ? store->lock() : store->unlock();
  if (failure) {
    report(failure, Value(), error);
    return false;
  }
  return true;
}

}  // namespace

// ---- OrdoStoreKeychainItem ---------------------------------------------------------------

OrdoStoreKeychainItem::OrdoStoreKeychainItem(std::string account, Value attributes,
                                             std::string password)
    : account_(std::move(account)),
      attributes_(attributes.isDictionary() ? attributes.copy() : Value::dictionary()),
      password_(std::move(password)) {}

bool OrdoStoreKeychainItem::lockKeychain(Error* error) { return lockOrUnlock(true, error); }

bool OrdoStoreKeychainItem::unlockKeychain(Error* error) { return lockOrUnlock(false, error); }

bool OrdoStoreKeychainItem::removeFromKeychainWithError(Error* error) const {
  return remove(identifyingQuery(), error);
}

std::string OrdoStoreKeychainItem::description() const {
  return fmt::format("{} account:{}", className(), account_);
}

// ---- OrdoStoreGenericKeychainItem --------------------------------------------------------

OrdoStoreGenericKeychainItem::OrdoStoreGenericKeychainItem(std::string service, std::string account,
                                                           Value attributes, std::string password)
    : OrdoStoreKeychainItem(std::move(account), std::move(attributes), std::move(password)),
      service_(std::move(service)) {}

OrdoStoreGenericKeychainItem::Ptr OrdoStoreGenericKeychainItem::genericKeychainItemForService(
    std::string_view service, std::string_view account, const Value& attributes, Error* error) {
  SecretStoreItem found;
  if (!copyOne(genericQuery(service, account, attributes), &found, error)) return nullptr;
  Value all = attributesValue(found);
  std::string foundService =
      service.empty() ? text(all, kKeychainAttrService) : std::string(service);
  return Ptr(new OrdoStoreGenericKeychainItem(
      std::move(foundService), text(all, kKeychainAttrAccount), all, std::move(found.secret)));
}

std::vector<OrdoStoreGenericKeychainItem::Ptr>
OrdoStoreGenericKeychainItem::genericKeychainItemsForService(std::string_view service,
                                                             const Value& attributes,
                                                             Error* error) {
  std::vector<SecretStoreItem> found;
  std::vector<Ptr> items;
  if (!copyAll(genericQuery(service, {}, attributes), &found, error)) return items;
  for (const SecretStoreItem& each : found) {
    auto account = each.attributes.find(std::string(kKeychainAttrAccount));
    if (account == each.attributes.end()) continue;
    if (Ptr item = genericKeychainItemForService(service, account->second, attributes, error)) {
      items.push_back(std::move(item));
    }
  }
  return items;
}

OrdoStoreGenericKeychainItem::Ptr OrdoStoreGenericKeychainItem::genericKeychainItemWithService(
    std::string_view service, std::string_view account, const Value& attributes,
    std::string_view password, Error* error) {
  if (!add(genericQuery(service, account, attributes), genericPrimaryKeys(), service, password,
           error)) {
    return nullptr;
  }
  return genericKeychainItemForService(service, account, attributes, error);
}

Value OrdoStoreGenericKeychainItem::identifyingQuery() const {
  return genericQuery(service_, account(), Value());
}

std::string OrdoStoreGenericKeychainItem::description() const {
  return fmt::format("{} service:{} account:{}", className(), service_, account());
}

// ---- OrdoStoreInternetKeychainItem -------------------------------------------------------

OrdoStoreInternetKeychainItem::OrdoStoreInternetKeychainItem(std::string account, Value attributes,
                                                             std::string password)
    : OrdoStoreKeychainItem(std::move(account), std::move(attributes), std::move(password)) {
  const Value& all = this->attributes();
  server_ = text(all, kKeychainAttrServer);
  securityDomain_ = text(all, kKeychainAttrSecurityDomain);
  path_ = text(all, kKeychainAttrPath);
  port_ = static_cast<uint32_t>(all.get(kKeychainAttrPort).intValue());
  protocol_ = text(all, kKeychainAttrProtocol);
  authenticationType_ = text(all, kKeychainAttrAuthenticationType);
}

OrdoStoreInternetKeychainItem::Ptr OrdoStoreInternetKeychainItem::internetKeychainItemForServer(
    std::string_view server, std::string_view securityDomain, std::string_view account,
    std::string_view path, uint32_t port, std::string_view protocol,
    std::string_view authenticationType, const Value& attributes, Error* error) {
  SecretStoreItem found;
  Value query = internetQuery(server, securityDomain, account, path, port, protocol,
                              authenticationType, attributes);
  if (!copyOne(query, &found, error)) return nullptr;
  Value all = attributesValue(found);
  return Ptr(new OrdoStoreInternetKeychainItem(text(all, kKeychainAttrAccount), all,
                                               std::move(found.secret)));
}

std::vector<OrdoStoreInternetKeychainItem::Ptr>
OrdoStoreInternetKeychainItem::internetKeychainItemsForServer(
    std::string_view server, std::string_view securityDomain, std::string_view path, uint32_t port,
    std::string_view protocol, std::string_view authenticationType, const Value& attributes,
    Error* error) {
  std::vector<SecretStoreItem> found;
  std::vector<Ptr> items;
  Value query = internetQuery(server, securityDomain, {}, path, port, protocol, authenticationType,
                              attributes);
  if (!copyAll(query, &found, error)) return items;
  for (const SecretStoreItem& each : found) {
    auto account = each.attributes.find(std::string(kKeychainAttrAccount));
    if (account == each.attributes.end()) continue;
    if (Ptr item =
            internetKeychainItemForServer(server, securityDomain, account->second, path, port,
                                          protocol, authenticationType, attributes, error)) {
      items.push_back(std::move(item));
    }
  }
  return items;
}

OrdoStoreInternetKeychainItem::Ptr OrdoStoreInternetKeychainItem::internetKeychainItemWithServer(
    std::string_view server, std::string_view securityDomain, std::string_view account,
    std::string_view path, uint32_t port, std::string_view protocol,
    std::string_view authenticationType, const Value& attributes, std::string_view password,
    Error* error) {
  Value query = internetQuery(server, securityDomain, account, path, port, protocol,
                              authenticationType, attributes);
  if (!add(query, internetPrimaryKeys(), server, password, error)) return nullptr;
  return internetKeychainItemForServer(server, securityDomain, account, path, port, protocol,
                                       authenticationType, attributes, error);
}

Value OrdoStoreInternetKeychainItem::identifyingQuery() const {
  return internetQuery(server_, securityDomain_, account(), path_, port_, protocol_,
                       authenticationType_, Value());
}

std::string OrdoStoreInternetKeychainItem::description() const {
  return fmt::format("{} server:{} securityDomain:{} account:{} path:{} port:{}", className(),
                     server_, securityDomain_, account(), path_, port_);
}

// ---- OrdoStoreApplicationUUIDKeychainItem ------------------------------------------------

OrdoStoreApplicationUUIDKeychainItem::Ptr
OrdoStoreApplicationUUIDKeychainItem::applicationUUIDKeychainItem(Error* error) {
  std::string account = Quillon::applicationIdentifier();
  SecretStoreItem found;
  if (!copyOne(genericQuery(kOrdoApplicationUUIDService, account, Value()), &found, error)) {
    return nullptr;
  }
  return Ptr(new OrdoStoreApplicationUUIDKeychainItem(std::string(kOrdoApplicationUUIDService),
                                                      std::move(account), attributesValue(found),
                                                      std::move(found.secret)));
}

OrdoStoreApplicationUUIDKeychainItem::Ptr
OrdoStoreApplicationUUIDKeychainItem::generateApplicationUUIDKeychainItem(Error* error) {
  Value query =
      genericQuery(kOrdoApplicationUUIDService, Quillon::applicationIdentifier(), Value());
  if (!add(query, genericPrimaryKeys(), kOrdoApplicationUUIDService, makeUUIDString(), error)) {
    return nullptr;
  }
  return applicationUUIDKeychainItem(error);
}

std::string OrdoStoreApplicationUUIDKeychainItem::applicationUUID(Error* error) {
  Ptr item = applicationUUIDKeychainItem(error);
  if (!item) item = generateApplicationUUIDKeychainItem(error);
  // Another process may have recorded one between the look and the add.
  if (!item) item = applicationUUIDKeychainItem(error);
  if (!item) return {};
  if (error) *error = Error();
  return item->UUID();
}

std::string OrdoStoreApplicationUUIDKeychainItem::description() const {
  return fmt::format("{} service:{} account:{} uuid:{}", className(), service(), account(), UUID());
}

}  // namespace quillon
