#include "quillon/platform/secret_store.h"

#include <gio/gio.h>
#include <libsecret/secret.h>

#include <cstdlib>
#include <utility>

#include "quillon/base/internal/base64.h"
#include "quillon/base/json.h"
#include "quillon/platform/standard_paths.h"

namespace quillon {
namespace {

// Marks our items in the Secret Service, apart from everyone else's.
constexpr const char* kSchemaAttribute = "xdg:schema";
constexpr const char* kSchemaName = "org.quillon.Quillon.Keychain";

// Seconds between 1970-01-01 and 2001-01-01 UTC.
constexpr double kUnixToReferenceDate = 978307200.0;

Error statusError(int64_t status, std::string_view description) {
  return Error::withDescription(std::string(kOSStatusErrorDomain), status, description);
}

bool matches(const SecretStore::Attributes& attributes, const SecretStore::Attributes& query) {
  for (const auto& [name, value] : query) {
    auto it = attributes.find(name);
    if (it == attributes.end() || it->second != value) return false;
  }
  return true;
}

// The query that finds an item equal to `attributes` in its primary keys;
// keys it lacks must be absent from the match too (see samePrimaryKeys).
SecretStore::Attributes primaryQuery(const SecretStore::Attributes& attributes,
                                     const std::vector<std::string>& primaryKeys) {
  SecretStore::Attributes query;
  for (const std::string& key : primaryKeys) {
    if (auto it = attributes.find(key); it != attributes.end()) query.insert(*it);
  }
  return query;
}

bool samePrimaryKeys(const SecretStore::Attributes& a, const SecretStore::Attributes& b,
                     const std::vector<std::string>& primaryKeys) {
  for (const std::string& key : primaryKeys) {
    auto ia = a.find(key);
    auto ib = b.find(key);
    if ((ia == a.end()) != (ib == b.end())) return false;
    if (ia != a.end() && ia->second != ib->second) return false;
  }
  return true;
}

// ---- Secret Service ----------------------------------------------------------------------

// Owns one GLib reference; `Unref` releases it.
template <typename T, auto Unref>
class GRef {
 public:
  explicit GRef(T* p = nullptr) : p_(p) {}
  ~GRef() {
    if (p_) Unref(p_);
  }
  GRef(GRef&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  GRef(const GRef&) = delete;
  GRef& operator=(const GRef&) = delete;
  T* get() const { return p_; }
  T** out() { return &p_; }
  explicit operator bool() const { return p_ != nullptr; }

 private:
  T* p_;
};

void freeItemList(GList* list) { g_list_free_full(list, g_object_unref); }

using ServiceRef = GRef<SecretService, g_object_unref>;
using CollectionRef = GRef<SecretCollection, g_object_unref>;
using ItemRef = GRef<::SecretItem, g_object_unref>;
using ErrorRef = GRef<GError, g_error_free>;
using ItemListRef = GRef<GList, freeItemList>;
using HashRef = GRef<GHashTable, g_hash_table_unref>;
using ValueRef = GRef<SecretValue, secret_value_unref>;

Error serviceError(const GError* error, std::string_view doing) {
  int64_t status = kSecretStoreNotAvailable;
  if (error->domain == SECRET_ERROR) {
    switch (error->code) {
      case SECRET_ERROR_IS_LOCKED:
        status = kSecretStoreAuthFailed;
        break;
      case SECRET_ERROR_NO_SUCH_OBJECT:
        status = kSecretStoreItemNotFound;
        break;
      case SECRET_ERROR_ALREADY_EXISTS:
        status = kSecretStoreDuplicateItem;
        break;
      default:
        status = kSecretStoreDecode;
        break;
    }
  } else if (error->domain == G_IO_ERROR && error->code == G_IO_ERROR_CANCELLED) {
    status = kSecretStoreUserCanceled;
  }
  return statusError(status, std::string(doing) + ": " + error->message);
}

Error connect(ServiceRef* service) {
  ErrorRef error;
  *service->out() = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, error.out());
  if (!*service) return serviceError(error.get(), "Cannot reach the Secret Service");
  return Error();
}

Error defaultCollection(SecretService* service, CollectionRef* collection) {
  ErrorRef error;
  *collection->out() = secret_collection_for_alias_sync(
      service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, error.out());
  if (error) return serviceError(error.get(), "Cannot read the default keyring");
  if (!*collection) {
    return statusError(kSecretStoreNoDefaultKeychain, "The Secret Service has no default keyring");
  }
  return Error();
}

HashRef hashTable(const SecretStore::Attributes& attributes) {
  HashRef table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
  for (const auto& [name, value] : attributes) {
    g_hash_table_insert(table.get(), g_strdup(name.c_str()), g_strdup(value.c_str()));
  }
  g_hash_table_insert(table.get(), g_strdup(kSchemaAttribute), g_strdup(kSchemaName));
  return table;
}

SecretStore::Attributes attributesOf(::SecretItem* item) {
  SecretStore::Attributes attributes;
  HashRef table(secret_item_get_attributes(item));
  GHashTableIter iter;
  gpointer key = nullptr;
  gpointer value = nullptr;
  g_hash_table_iter_init(&iter, table.get());
  while (g_hash_table_iter_next(&iter, &key, &value)) {
    if (std::string_view(static_cast<const char*>(key)) == kSchemaAttribute) continue;
    attributes.emplace(static_cast<const char*>(key), static_cast<const char*>(value));
  }
  return attributes;
}

// Searches every collection for our items matching `query`, unlocking
// (which may prompt) what the results need.
Error search(SecretService* service, const SecretStore::Attributes& query, bool all,
             bool withSecrets, ItemListRef* found) {
  int flags = SECRET_SEARCH_UNLOCK;
  if (all) flags |= SECRET_SEARCH_ALL;
  if (withSecrets) flags |= SECRET_SEARCH_LOAD_SECRETS;
  HashRef table = hashTable(query);
  ErrorRef error;
  *found->out() = secret_service_search_sync(
      service, nullptr, table.get(), static_cast<SecretSearchFlags>(flags), nullptr, error.out());
  if (error) return serviceError(error.get(), "Cannot search the Secret Service");
  if (!*found) return statusError(kSecretStoreItemNotFound, "No keychain item matches");
  return Error();
}

}  // namespace

Error SecretServiceStore::addItem(const Attributes& attributes,
                                  const std::vector<std::string>& primaryKeys,
                                  std::string_view label, std::string_view secret) {
  ServiceRef service;
  if (Error e = connect(&service)) return e;
  // The service replaces or duplicates items with equal attributes at will;
  // look first, so that an existing item is reported and kept.
  ItemListRef existing;
  Error searched =
      search(service.get(), primaryQuery(attributes, primaryKeys), true, false, &existing);
  if (searched && searched.code() != kSecretStoreItemNotFound) return searched;
  for (GList* l = existing.get(); l; l = l->next) {
    if (samePrimaryKeys(attributesOf(SECRET_ITEM(l->data)), attributes, primaryKeys)) {
      return statusError(kSecretStoreDuplicateItem, "The item already exists in the keychain");
    }
  }
  CollectionRef collection;
  if (Error e = defaultCollection(service.get(), &collection)) return e;
  HashRef table = hashTable(attributes);
  ValueRef value(secret_value_new(secret.data(), static_cast<gssize>(secret.size()), "text/plain"));
  std::string text(label);
  ErrorRef error;
  ItemRef item(secret_item_create_sync(collection.get(), nullptr, table.get(), text.c_str(),
                                       value.get(), SECRET_ITEM_CREATE_NONE, nullptr, error.out()));
  if (!item) return serviceError(error.get(), "Cannot add the keychain item");
  return Error();
}

Error SecretServiceStore::findItems(const Attributes& query, bool all, bool withSecrets,
                                    std::vector<SecretStoreItem>* items) {
  items->clear();
  ServiceRef service;
  if (Error e = connect(&service)) return e;
  ItemListRef found;
  if (Error e = search(service.get(), query, all, withSecrets, &found)) return e;
  for (GList* l = found.get(); l; l = l->next) {
    ::SecretItem* item = SECRET_ITEM(l->data);
    if (withSecrets && secret_item_get_locked(item)) {
      return statusError(kSecretStoreAuthFailed, "The keyring holding the item is locked");
    }
    SecretStoreItem out;
    out.attributes = attributesOf(item);
    gchar* label = secret_item_get_label(item);
    out.label = label ? label : "";
    g_free(label);
    out.creationDate = static_cast<double>(secret_item_get_created(item)) - kUnixToReferenceDate;
    out.modificationDate =
        static_cast<double>(secret_item_get_modified(item)) - kUnixToReferenceDate;
    if (withSecrets) {
      ValueRef value(secret_item_get_secret(item));
      if (!value) return statusError(kSecretStoreDecode, "The item's secret could not be read");
      gsize length = 0;
      const gchar* bytes = secret_value_get(value.get(), &length);
      out.secret.assign(bytes, length);
    }
    items->push_back(std::move(out));
    if (!all) break;
  }
  return Error();
}

Error SecretServiceStore::removeItems(const Attributes& query) {
  ServiceRef service;
  if (Error e = connect(&service)) return e;
  ItemListRef found;
  if (Error e = search(service.get(), query, true, false, &found)) return e;
  for (GList* l = found.get(); l; l = l->next) {
    ErrorRef error;
    if (!secret_item_delete_sync(SECRET_ITEM(l->data), nullptr, error.out())) {
      return serviceError(error.get(), "Cannot remove the keychain item");
    }
  }
  return Error();
}

Error SecretServiceStore::lock() {
  ServiceRef service;
  if (Error e = connect(&service)) return e;
  CollectionRef collection;
  if (Error e = defaultCollection(service.get(), &collection)) return e;
  GList objects = {collection.get(), nullptr, nullptr};
  ErrorRef error;
  if (secret_service_lock_sync(service.get(), &objects, nullptr, nullptr, error.out()) < 1 &&
      error) {
    return serviceError(error.get(), "Cannot lock the default keyring");
  }
  return Error();
}

Error SecretServiceStore::unlock() {
  ServiceRef service;
  if (Error e = connect(&service)) return e;
  CollectionRef collection;
  if (Error e = defaultCollection(service.get(), &collection)) return e;
  if (!secret_collection_get_locked(collection.get())) return Error();
  GList objects = {collection.get(), nullptr, nullptr};
  ErrorRef error;
  if (secret_service_unlock_sync(service.get(), &objects, nullptr, nullptr, error.out()) < 1) {
    if (error) return serviceError(error.get(), "Cannot unlock the default keyring");
    return statusError(kSecretStoreUserCanceled, "The default keyring was not unlocked");
  }
  return Error();
}

void SecretServiceStore::disconnect() { secret_service_disconnect(); }

// ---- File --------------------------------------------------------------------------------

namespace {

constexpr int64_t kFileVersion = 1;

Value toValue(const SecretStoreItem& item) {
  Value attributes = Value::mutableDictionary();
  for (const auto& [name, value] : item.attributes) attributes.set(name, value);
  return Value::dictionary({{"attributes", attributes},
                            {"label", item.label},
                            {"secret", base64Encode(item.secret)},
                            {"created", item.creationDate},
                            {"modified", item.modificationDate}});
}

bool fromValue(const Value& value, SecretStoreItem* item) {
  if (!value.isDictionary()) return false;
  const Value& attributes = value.get("attributes");
  const Value& label = value.get("label");
  const Value& secret = value.get("secret");
  if (!attributes.isDictionary() || !label.isString() || !secret.isString()) return false;
  for (const auto& [name, attribute] : attributes.items()) {
    if (!name.isString() || !attribute.isString()) return false;
    item->attributes.emplace(name.str(), attribute.str());
  }
  std::optional<std::vector<uint8_t>> bytes = base64Decode(secret.str());
  if (!bytes) return false;
  item->label = label.str();
  item->secret.assign(bytes->begin(), bytes->end());
  item->creationDate = value.get("created").doubleValue();
  item->modificationDate = value.get("modified").doubleValue();
  return true;
}

double now() { return g_get_real_time() / 1e6 - kUnixToReferenceDate; }

}  // namespace

FileSecretStore::FileSecretStore(std::string path, Env* env) : path_(std::move(path)), env_(env) {}

std::string FileSecretStore::defaultPath() {
  return StandardPaths::userConfigDirectory() + "/quillon/keychain.json";
}

Error FileSecretStore::loadLocked(std::vector<SecretStoreItem>* items) {
  items->clear();
  if (!env_->exists(path_)) return Error();
  std::vector<uint8_t> contents;
  if (Error e = env_->readFile(path_, &contents)) {
    return statusError(kSecretStoreIO,
                       "Cannot read the keychain file " + path_ + ": " + e.localizedDescription());
  }
  // A damaged file is reported, never replaced: it may still hold passwords
  // that someone can recover by hand.
  Error error;
  Value root = readJSON(contents, &error);
  const Value& list = root.isDictionary() ? root.get("items") : Value::nil();
  bool readable = !error && list.isArray() && root.get("version").isInteger() &&
                  root.get("version").intValue() <= kFileVersion;
  for (size_t i = 0; readable && i < list.size(); ++i) {
    SecretStoreItem item;
    readable = fromValue(list[i], &item);
    items->push_back(std::move(item));
  }
  if (!readable) {
    items->clear();
    return statusError(kSecretStoreDecode, "The keychain file " + path_ + " is damaged");
  }
  return Error();
}

Error FileSecretStore::saveLocked(const std::vector<SecretStoreItem>& items) {
  Value list = Value::mutableArray();
  for (const SecretStoreItem& item : items) list.append(toValue(item));
  Value root = Value::dictionary({{"version", kFileVersion}, {"items", list}});
  size_t slash = path_.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    if (Error e = env_->createDirectories(path_.substr(0, slash))) {
      return statusError(kSecretStoreIO,
                         "Cannot create the keychain folder: " + e.localizedDescription());
    }
  }
  if (Error e = env_->writeFileAtomically(path_, std::string_view(writeJSON(root)))) {
    return statusError(kSecretStoreIO,
                       "Cannot write the keychain file " + path_ + ": " + e.localizedDescription());
  }
  return Error();
}

Error FileSecretStore::addItem(const Attributes& attributes,
                               const std::vector<std::string>& primaryKeys, std::string_view label,
                               std::string_view secret) {
  std::lock_guard lock(mutex_);
  std::vector<SecretStoreItem> items;
  if (Error e = loadLocked(&items)) return e;
  for (const SecretStoreItem& item : items) {
    if (samePrimaryKeys(item.attributes, attributes, primaryKeys)) {
      return statusError(kSecretStoreDuplicateItem, "The item already exists in the keychain");
    }
  }
  SecretStoreItem item;
  item.attributes = attributes;
  item.label = std::string(label);
  item.secret = std::string(secret);
  item.creationDate = item.modificationDate = now();
  items.push_back(std::move(item));
  return saveLocked(items);
}

Error FileSecretStore::findItems(const Attributes& query, bool all, bool withSecrets,
                                 std::vector<SecretStoreItem>* items) {
  items->clear();
  std::lock_guard lock(mutex_);
  std::vector<SecretStoreItem> stored;
  if (Error e = loadLocked(&stored)) return e;
  for (SecretStoreItem& item : stored) {
    if (!matches(item.attributes, query)) continue;
    if (!withSecrets) item.secret.clear();
    items->push_back(std::move(item));
    if (!all) break;
  }
  if (items->empty()) return statusError(kSecretStoreItemNotFound, "No keychain item matches");
  return Error();
}

Error FileSecretStore::removeItems(const Attributes& query) {
  std::lock_guard lock(mutex_);
  std::vector<SecretStoreItem> items;
  if (Error e = loadLocked(&items)) return e;
  size_t before = items.size();
  std::erase_if(items,
                [&](const SecretStoreItem& item) { return matches(item.attributes, query); });
  if (items.size() == before) {
    return statusError(kSecretStoreItemNotFound, "No keychain item matches");
  }
  return saveLocked(items);
}

Error FileSecretStore::lock() { return Error(); }
Error FileSecretStore::unlock() { return Error(); }

// ---- The shared store --------------------------------------------------------------------

namespace {

struct SharedStore {
  std::mutex mutex;
  std::shared_ptr<SecretStore> store;
};

SharedStore& sharedStore() {
  static auto* shared = new SharedStore();
  return *shared;
}

}  // namespace

std::shared_ptr<SecretStore> SecretStore::shared() {
  SharedStore& s = sharedStore();
  std::lock_guard lock(s.mutex);
  if (!s.store) {
    const char* choice = std::getenv(std::string(kSecretStoreEnvironmentVariable).c_str());
    if (choice && std::string_view(choice) == "file") {
      s.store = std::make_shared<FileSecretStore>();
    } else {
      s.store = std::make_shared<SecretServiceStore>();
    }
  }
  return s.store;
}

void SecretStore::setShared(std::shared_ptr<SecretStore> store) {
  SharedStore& s = sharedStore();
  std::lock_guard lock(s.mutex);
  s.store = std::move(store);
}

}  // namespace quillon
