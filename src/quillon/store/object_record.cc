#include "quillon/store/internal/object_record.h"

#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/decimal.h"
#include "quillon/base/env.h"
#include "quillon/base/version.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/changes/internal/change.h"
#include "quillon/coding/internal/data_utils.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/coding/value_transformer.h"
#include "quillon/graph/attribute_description.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/relationship_description.h"
#include "quillon/store/quillon.h"
#include "quillon/store/internal/save_operation.h"
#include "quillon/store/store.h"

namespace quillon {
namespace {

std::mutex resourceDirectoryMutex;
std::string& resourceDirectory() {
  static std::string* directory = new std::string();
  return *directory;
}

const Value& storageVersion() {
  static const Value version = Value::string(std::to_string(kQuillonStorageVersion));
  return version;
}

// The save path of a relationship member: a managed object or an identifier.
std::string savePathOfMember(const Value& member) {
  if (!member.isObject()) return {};
  if (ManagedObjectPtr object = managedObjectFromValue(member)) {
    return storeSavePath(*object->objectID());
  }
  if (auto id = std::dynamic_pointer_cast<const ManagedObjectID>(member.objectValue())) {
    return storeSavePath(*id);
  }
  return {};
}

std::vector<std::string> savePathsOf(const Value& relationshipValue) {
  std::vector<std::string> paths;
  Value members = arrayForStore(relationshipValue);
  paths.reserve(members.size());
  for (const Value& member : members.elements()) {
    std::string path = savePathOfMember(member);
    if (!path.empty()) paths.push_back(std::move(path));
  }
  return paths;
}

// The members of `from` that are not in `without`, in `from`'s order.
Value difference(const std::vector<std::string>& from, const std::vector<std::string>& without) {
  std::unordered_set<std::string_view> excluded(without.begin(), without.end());
  Value result = Value::array(true);
  for (const auto& path : from) {
    if (!excluded.count(path)) result.append(Value::string(path));
  }
  return result;
}

Value pathArray(const std::vector<std::string>& paths) {
  Value result = Value::array(true);
  result.reserve(paths.size());
  for (const auto& path : paths) result.append(Value::string(path));
  return result;
}

// The uid that the source store gives the object (a permanent one made on
// the way for a new object).
std::string objectUID(ManagedObject& object, QuillonStore* source) {
  std::string uid;
  if (source) uid = source->uidForObjectID(object.objectID(), object.managedObjectContext());
  if (uid.empty()) uid = storeUID(object);
  return uid;
}

bool isAbsent(const Value& value) { return value.isNil() || value.isNull(); }

// The anonymisation rules inside save options: the options' own
// "QuillonAnonymizeOptions", or the options themselves when they are the rules.
const Value& anonymizationRules(const Value& options) {
  if (const Value* rules = options.find(kQuillonAnonymizeOptionsKey)) return *rules;
  return options;
}

// Builds and enqueues the record with a change; `change` is never null here.
void writeRecord(ManagedObject& object, QuillonStore* source, QuillonStore* target,
                 QuillonChange& change, const Value& options, std::string_view type) {
  const EntityDescription* entity = object.entity();
  if (!entity || !target || !source) return;
  const Value& targetOptions = target->options();
  const Value* removeMetadata =
      targetOptions.isDictionary() ? targetOptions.find(kRemoveUbiquitousMetadataOption) : nullptr;
  const bool full = source != target || (removeMetadata && removeMetadata->boolValue());
  Env* env = target->env();
  const bool durable = target->durableSaves();
  const std::shared_ptr<QuillonSaveBatch>& batch = change.saveBatch();

  Url folder = URLForStore(object, target, source);
  if (folder.isEmpty()) {
    target->logErrorString("No entity key for " + entity->name(),
                           "QuillonManagedObjectSaveOperation");
    batch->fail(Error::withDescription(std::string(kCocoaErrorDomain), kCocoaFileWriteUnknownError,
                                       "No entity key for " + entity->name()));
    return;
  }
  const std::string folderPath = folder.path();
  if (durable && !env->exists(folderPath)) {
    // A new object folder (and maybe a new entity folder and "Entities")
    // must be flushed as an entry of its parent too, up to the package.
    const Url entityFolder = folder.deletingLastPathComponent();
    batch->add({folderPath, entityFolder.path(), entityFolder.deletingLastPathComponent().path()});
  }
  if (Error error = env->createDirectories(folderPath)) {
    target->logError(error, "QuillonManagedObjectSaveOperation");
    batch->fail(std::move(error));
    return;
  }
  Url recordURL = folder.appending(change.fileName());
  const std::string uid = objectUID(object, source);

  Value record = Value::dictionary(true);
  record.set(Value::string("version"), storageVersion());
  record.set(Value::string("type"), Value::string(type));
  Value extra = Value::dictionary(true);
  Value dataList;

  if (object.isDeleted() || type == kQuillonDelete) {
    target->cache().removeObjectID(object.objectID());
  } else {
    const Value& rules = anonymizationRules(options);
    std::vector<const PropertyDescription*> properties;
    if (full || type == kQuillonInsert) {
      properties = entity->properties();
    } else {
      for (const auto& key : quillonChangedKeys(object)) {
        if (const PropertyDescription* p = entity->property(key)) properties.push_back(p);
      }
    }
    Value payload = Value::dictionary(true);
    for (const PropertyDescription* property : properties) {
      const std::string& key = property->name();
      Value entry = Value::dictionary(true);
      if (property->isAttribute()) {
        const auto* attribute = static_cast<const AttributeDescription*>(property);
        Value value = applyOptions(object, rules, object.value(key), key);
        // An entry without "value" clears an attribute, which only an update
        // can need; new objects and full records leave absent values out.
        const bool clears = !full && type == kQuillonUpdate;
        if (isAbsent(value)) {
          if (clears) payload.set(Value::string(key), entry);
          continue;
        }
        auto transformer = QuillonValueTransformerForAttribute(*attribute, storageVersion());
        Value stored = transformer->reverseTransformedValue(value);
        if (stored.isNil()) {
          if (clears) payload.set(Value::string(key), entry);
          continue;
        }
        entry.set(Value::string("value"), stored);
        if (attribute->attributeType() == AttributeType::Binary && stored.isString()) {
          std::span<const uint8_t> plain =
              value.isData() ? value.bytes() : std::span<const uint8_t>();
          std::vector<uint8_t> sealed;
          target->packageFiles().seal(plain, &sealed);
          const auto length = static_cast<int64_t>(sealed.size());
          Value hash = Value::string(quillonSHA256HexDigest(sealed));
          entry.set(Value::string("length"), Value::integer(length));
          entry.set(Value::string("hash"), hash);
          if (dataList.isNil()) {
            dataList = Value::array(true);
            extra.set(Value::string("data"), dataList);
          }
          Value dataEntry = Value::dictionary(true);
          dataEntry.set(Value::string("length"), Value::integer(length));
          dataEntry.set(Value::string("hash"), hash);
          dataEntry.set(Value::string("name"), stored);
          dataList.append(dataEntry);
          Url dataFolder = folder.appending("Data", true);
          const std::string dataFolderPath = dataFolder.path();
          if (durable && !env->exists(dataFolderPath)) batch->add(dataFolderPath);
          // Written here, before the record; a failed data file keeps the
          // save's change file from being written.
          const std::string dataPath = dataFolder.appending(stored.str()).path();
          Error error = env->createDirectories(dataFolderPath);
          if (!error) error = env->writeFileAtomicallyUnflushed(dataPath, sealed);
          if (error) {
            target->logError(error, "QuillonManagedObjectSaveOperation");
            batch->fail(std::move(error));
          } else if (durable) {
            batch->add(dataPath);
          }
        }
      } else if (property->isRelationship()) {
        const auto* relationship = static_cast<const RelationshipDescription*>(property);
        if (!relationship->isToMany()) {
          object.willAccessValueForKey(key);
          Value related = object.primitiveValue(key);
          object.didAccessValueForKey(key);
          std::string path = savePathOfMember(related);
          if (!path.empty()) entry.set(Value::string("value"), Value::array({Value::string(path)}));
        } else {
          std::vector<std::string> current = savePathsOf(object.value(key));
          if (full) {
            if (!current.empty()) entry.set(Value::string("addedValues"), pathArray(current));
          } else {
            if (relationship->isOrdered() && !current.empty()) {
              entry.set(Value::string("orderedValues"), pathArray(current));
            }
            std::vector<std::string> committed =
                savePathsOf(object.committedValuesForKeys({key}).get(key));
            Value added = difference(current, committed);
            Value removed = difference(committed, current);
            if (!added.empty()) entry.set(Value::string("addedValues"), added);
            if (!removed.empty()) entry.set(Value::string("removedValues"), removed);
          }
        }
      } else {
        continue;
      }
      payload.set(Value::string(key), entry);
    }
    if (!payload.empty()) record.set(Value::string("payload"), payload);
  }

  change.addChange(extra, entity->name(), uid, type);
  auto operation = std::make_shared<QuillonManagedObjectSaveOperation>(target, object.objectID(),
                                                                       record, recordURL, batch);
  target->enqueueSaveOperation(operation, /*afterEverything=*/false);
}

}  // namespace

void saveFromStore(ManagedObject& object, QuillonStore* source, QuillonStore* target,
                   QuillonChange* change, const Value& options, std::string_view type) {
  if (change) {
    writeRecord(object, source, target, *change, options, type);
    return;
  }
  // A record needs a change to be named after and to be found by readers:
  // without one the object gets a change of its own.
  QuillonChange own(source, dateNow());
  writeRecord(object, source, target, own, options, type);
  if (target) own.saveToStore(target);
}

void saveToStore(ManagedObject& object, QuillonStore* store, std::string_view type) {
  saveFromStore(object, store, store, nullptr, Value(), type);
}

void saveToStoreWithChange(ManagedObject& object, QuillonStore* store, QuillonChange* change,
                           std::string_view type) {
  saveFromStore(object, store, store, change, Value(), type);
}

void saveFromStore(ManagedObject& object, QuillonStore* source, QuillonStore* /*target*/,
                   std::string_view type) {
  // Long-standing behaviour that callers rely on: the record goes into the
  // source store.
  saveFromStore(object, source, source, nullptr, Value(), type);
}

void saveFromStore(ManagedObject& object, QuillonStore* source, QuillonStore* target,
                   QuillonChange* change, std::string_view type) {
  saveFromStore(object, source, target, change, Value(), type);
}

std::vector<std::string> quillonChangedKeys(ManagedObject& object) {
  std::vector<std::string> keys;
  if (!object.entity()) return keys;
  Value changed = object.changedValues();
  Value committed;  // read only when a value is absent now
  for (const PropertyDescription* property : object.entity()->properties()) {
    const std::string& key = property->name();
    if (changed.find(key)) {
      keys.push_back(key);
      continue;
    }
    if (!property->isAttribute() &&
        static_cast<const RelationshipDescription*>(property)->isToMany()) {
      continue;  // an emptied to-many is an empty collection, not absent
    }
    if (!isAbsent(object.primitiveValue(key))) continue;
    if (committed.isNil()) committed = object.committedValuesForKeys();
    if (const Value* before = committed.find(key); before && !isAbsent(*before)) {
      keys.push_back(key);
    }
  }
  return keys;
}

Value applyOptions(const ManagedObject& object, const Value& options, const Value& value,
                   std::string_view key) {
  if (!options.isDictionary() || !object.entity()) return value;
  const Value* entities = options.find("entities");
  if (!entities || !entities->isDictionary()) return value;
  const Value* properties = entities->find(object.entity()->name());
  if (!properties || !properties->isDictionary()) return value;
  const Value* rule = properties->find(key);
  if (!rule || !rule->isDictionary()) return value;
  const Value& type = rule->get("type");
  if (!type.isString()) return value;
  if (type.str() == "truncate") return anonymize(value);
  if (type.str() == "nullify") return Value::decimal(Decimal::fromInteger(0));
  if (type.str() == "replace") {
    const Value& replacement = rule->get("replacement");
    std::string folder;
    {
      std::lock_guard lock(resourceDirectoryMutex);
      folder = resourceDirectory();
    }
    if (folder.empty() || !replacement.isString() || !isSafePathComponent(replacement.str())) {
      return Value();
    }
    QuillonStore* store = quillonStore(object);
    Env* env = store ? store->env() : Env::Default();
    std::vector<uint8_t> bytes;
    if (env->readFile(folder + "/" + std::string(replacement.str()), &bytes)) return Value();
    return Value::data(std::move(bytes));
  }
  return value;
}

Url URLForStore(ManagedObject& object, QuillonStore* target, QuillonStore* source) {
  if (!target || !object.entity()) return Url();
  std::optional<std::string> key = target->fileNameForEntity(*object.entity());
  if (!key) return Url();
  return target->entitiesURL().appending(*key, true).appending(objectUID(object, source), true);
}

Value quillonCacheValueForKey(const ManagedObject& object, const std::string& key) {
  QuillonStore* store = quillonStore(object);
  if (!store) return Value();
  return store->cache().extraDataForKey(key, object.objectID());
}

void setQuillonCacheValue(const ManagedObject& object, const Value& value, const std::string& key) {
  if (QuillonStore* store = quillonStore(object)) {
    store->cache().setExtraData(value, key, object.objectID());
  }
}

void quillonResetCacheValues(const ManagedObject& object) {
  if (QuillonStore* store = quillonStore(object)) {
    store->cache().resetExtraDataForObjectID(object.objectID());
  }
}

std::string QuillonURL(const ManagedObject& object) {
  if (!object.objectID()) return {};
  return object.objectID()->uriRepresentation().absoluteString();
}

void setQuillonResourceDirectory(std::string path) {
  std::lock_guard lock(resourceDirectoryMutex);
  resourceDirectory() = std::move(path);
}

}  // namespace quillon
