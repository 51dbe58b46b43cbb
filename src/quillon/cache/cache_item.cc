#include "quillon/cache/internal/cache_item.h"

#include <algorithm>
#include <optional>

#include "quillon/base/env.h"
#include "quillon/cache/internal/cache_collection.h"
#include "quillon/coding/internal/dc_ns_coder.h"
#include "quillon/coding/internal/dc_ns_decoder.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/coding/value_transformer.h"
#include "quillon/graph/entity_description.h"
#include "quillon/cache/cache_source.h"
#include "quillon/store/object_uid.h"
#include "quillon/store/package_layout.h"

namespace quillon {
namespace {

constexpr std::string_view kAttributesKey = "attributes";
constexpr std::string_view kRelationsKey = "relations";
constexpr std::string_view kExtraDataKey = "extraData";
constexpr std::string_view kDataKey = "data";
constexpr std::string_view kStateKey = "state";

Value dictionaryOrNil(Value value) { return value.isDictionary() ? value : Value(); }

Value mutableCopyOrNew(const Value& dictionary) {
  return dictionary.isDictionary() ? dictionary.mutableCopy() : Value::mutableDictionary();
}

void mergeInto(Value& target, const Value& source) {
  for (const auto& [key, value] : source.items()) target.set(key, value);
}

// The references of a stored relation: a to-many array, or the collection
// (or single text) a to-one entry holds.
std::span<const Value> referencesOf(const Value& stored) {
  if (stored.isSequence()) return stored.elements();
  if (stored.isString()) return std::span<const Value>(&stored, 1);
  return {};
}

// The identifier of one stored reference ("Entity/UID"), made and remembered
// by the store on first use. Nullptr for a reference that must be dropped; a
// reference to an entity the model lacks (or of the wrong kind, or with a
// uid that cannot be a file name) also stops the store from saving, so the
// dead reference is never written back.
ManagedObjectIDPtr objectIDForReference(const Value& reference,
                                        const RelationshipDescription& relationship,
                                        QuillonCacheSource* source) {
  if (!reference.isString()) return nullptr;
  std::string_view text = reference.str();
  if (ManagedObjectIDPtr known = source->managedObjectIDForReference(text)) return known;
  const EntityDescription* entity = source->entityNamed(storeEntityName(text));
  std::string uid = storeUID(text);
  const EntityDescription* destination = relationship.destinationEntity();
  if (!entity || !isSafePathComponent(uid) ||
      (destination && !entity->isKindOfEntity(destination))) {
    source->preventFromSaving();
    return nullptr;
  }
  ManagedObjectIDPtr made = source->newObjectIDForEntity(entity, Value(uid));
  if (made) source->setManagedObjectIDForReference(text, made);
  return made;
}

Value parseRelations(const Value& relations, const ManagedObjectIDPtr& objectID,
                     QuillonCacheSource* source, bool toMany) {
  Value parsed = Value::mutableDictionary();
  if (relations.empty() || !objectID || !objectID->entity() || !source) return parsed;
  const EntityDescription& entity = *objectID->entity();
  for (const auto& [name, stored] : relations.items()) {
    const RelationshipDescription* relationship = entity.relationship(name.str());
    if (!relationship || relationship->isToMany() != toMany) continue;
    if (toMany) {
      Value ids = relationship->isOrdered() ? Value::mutableOrderedSet() : Value::mutableSet();
      for (const Value& reference : referencesOf(stored)) {
        if (ManagedObjectIDPtr id = objectIDForReference(reference, *relationship, source)) {
          ids.append(Value::object(std::move(id)));
        }
      }
      parsed.set(name, std::move(ids));
    } else {
      for (const Value& reference : referencesOf(stored)) {
        if (ManagedObjectIDPtr id = objectIDForReference(reference, *relationship, source)) {
          parsed.set(name, Value::object(std::move(id)));
          break;
        }
      }
    }
  }
  return parsed;
}

Value parseData(const Value& data, const ManagedObjectIDPtr& objectID, QuillonCacheSource* source) {
  Value parsed = Value::mutableDictionary();
  if (data.empty() || !objectID || !objectID->entity() || !source) return parsed;
  const std::string uid = storeUID(*objectID);
  for (const auto& [name, fileName] : data.items()) {
    if (!fileName.isString()) continue;
    if (std::optional<std::vector<uint8_t>> plain =
            source->readDataFile(*objectID->entity(), uid, fileName.str())) {
      parsed.set(name, Value::data(std::move(*plain)));
    }
  }
  return parsed;
}

// What a record's to-one entry may hold: a reference ("Entity/UID") or an
// array of them. Anything else is dropped; a dictionary above all, which the
// cache's writer would take for an alias or a class.
Value storedReferences(const Value& value) {
  if (value.isString()) return value;
  if (!value.isArray()) return Value();
  std::span<const Value> elements = value.elements();
  if (std::all_of(elements.begin(), elements.end(), [](const Value& v) { return v.isString(); })) {
    return value;
  }
  std::vector<Value> references;
  for (const Value& element : elements) {
    if (element.isString()) references.push_back(element);
  }
  return Value::array(std::move(references));
}

// Appends, removes and reorders the references of a to-many relation as one
// record entry says; the result is a new array. Only text is a reference.
Value applyToManyEntry(const Value& stored, const Value& entry) {
  Value list = stored.isArray() ? stored.mutableCopy() : Value::mutableArray();
  const Value& added = entry.get("addedValues");
  for (const Value& reference : added.elements()) {
    if (reference.isString()) list.append(reference);
  }
  const Value& removed = entry.get("removedValues");
  for (const Value& reference : removed.elements()) list.remove(reference);
  if (const Value* ordered = entry.find("orderedValues")) {
    std::span<const Value> order = ordered->elements();
    // From the last to the first, each listed reference moves to the front:
    // the listed ones end up first, in the listed order.
    for (size_t i = order.size(); i-- > 0;) {
      if (std::optional<size_t> at = list.indexOf(order[i])) {
        Value moved = list[*at];
        list.removeAt(*at);
        list.insert(0, std::move(moved));
      }
    }
  }
  return list;
}

}  // namespace

void QuillonCacheItem::registerCoding() {
  static std::once_flag once;
  std::call_once(once, [] {
    DCNSCoding::registerClass(
        std::string(kClassName), [](DCNSDecoder& decoder) -> std::shared_ptr<Object> {
          auto item = std::make_shared<QuillonCacheItem>();
          item->attributes_ = dictionaryOrNil(decoder.decodeObjectForKey(kAttributesKey));
          item->relations_ = dictionaryOrNil(decoder.decodeObjectForKey(kRelationsKey));
          item->extraData_ = dictionaryOrNil(decoder.decodeObjectForKey(kExtraDataKey));
          item->data_ = dictionaryOrNil(decoder.decodeObjectForKey(kDataKey));
          item->state_ = decoder.decodeObjectForKey(kStateKey);
          return item;
        });
  });
}

QuillonCacheItem::QuillonCacheItem() = default;

void QuillonCacheItem::forEachValue(const std::function<void(const Value&)>& visit) const {
  std::vector<Value> fields;
  {
    std::lock_guard lock(mutex_);
    fields = {attributes_, relations_,      data_,         parsedToOneRelations_,
              parsedToManyRelations_, parsedData_, dictionary_, extraData_, state_};
  }
  for (const Value& field : fields) visit(field);
}

void QuillonCacheItem::updateValues(const Value& values, const EntityDescription& entity,
                                    const Url& /*url*/, const Value& version) {
  std::shared_ptr<QuillonCacheDictionary> shard = collection();
  std::unique_lock<std::recursive_mutex> updateGuard(shard ? shard->lock() : mutex_);

  Value attributes, relations, data;
  {
    std::lock_guard lock(mutex_);
    attributes = mutableCopyOrNew(attributes_);
    relations = mutableCopyOrNew(relations_);
    data = mutableCopyOrNew(data_);
  }
  bool touchedRelations = false;
  for (const auto& [key, entry] : values.items()) {
    if (!key.isString() || !entry.isDictionary()) continue;
    std::string_view name = key.str();
    // No property is named with a '$'; such a key from another computer's
    // record would be taken for an alias or a class by the cache's writer.
    if (name.starts_with('$')) continue;
    if (const AttributeDescription* attribute = entity.attribute(name)) {
      // A cleared value needs no transformer; a record from another computer
      // whose value no transformer reads counts as absent rather than
      // stopping the load on this thread.
      Value value;
      if (const Value* stored = entry.find("value"); stored && !stored->isNil()) {
        try {
          value =
              QuillonValueTransformerForAttribute(*attribute, version)->transformedValue(*stored);
        } catch (const Exception&) {
          value = Value();
        }
      }
      if (value.isNil()) value = attribute->defaultValue();
      (attribute->attributeType() == AttributeType::Binary ? data : attributes)
          .set(key, std::move(value));
      continue;
    }
    const RelationshipDescription* relationship = entity.relationship(name);
    if (relationship && relationship->isToMany()) {
      relations.set(key, applyToManyEntry(relations.get(key), entry));
    } else {
      relations.set(key, storedReferences(entry.get("value")));
    }
    touchedRelations = true;
  }

  std::lock_guard lock(mutex_);
  extraData_ = Value::mutableDictionary();
  attributes_ = std::move(attributes);
  relations_ = std::move(relations);
  data_ = std::move(data);
  if (touchedRelations) {
    parsedToOneRelations_ = Value();
    parsedToManyRelations_ = Value();
  }
  parsedData_ = Value();
  dictionary_ = Value();
  ++generation_;
}

Value QuillonCacheItem::snapshot(const Value QuillonCacheItem::*field) const {
  std::lock_guard lock(mutex_);
  return this->*field;
}

void QuillonCacheItem::installIfCurrent(Value QuillonCacheItem::*field, Value value,
                                        uint64_t generation) {
  std::lock_guard lock(mutex_);
  if (generation_ == generation) this->*field = std::move(value);
}

Value QuillonCacheItem::attributesForObjectID(const ManagedObjectIDPtr& /*objectID*/,
                                              QuillonCacheSource* /*source*/,
                                              ManagedObjectContext* /*context*/) {
  return attributes();
}

QuillonCacheItem::Forms QuillonCacheItem::forms(const ManagedObjectIDPtr& objectID,
                                                QuillonCacheSource* source, bool withToMany,
                                                bool withData) {
  Forms forms;
  Value relations, data;
  {
    std::lock_guard lock(mutex_);
    forms.attributes = attributes_;
    relations = relations_;
    data = data_;
    forms.toOne = parsedToOneRelations_;
    forms.toMany = parsedToManyRelations_;
    forms.data = parsedData_;
    forms.generation = generation_;
  }
  if (forms.toOne.isNil()) {
    forms.toOne = parseRelations(relations, objectID, source, false);
    installIfCurrent(&QuillonCacheItem::parsedToOneRelations_, forms.toOne, forms.generation);
  }
  if (withToMany && forms.toMany.isNil()) {
    forms.toMany = parseRelations(relations, objectID, source, true);
    installIfCurrent(&QuillonCacheItem::parsedToManyRelations_, forms.toMany, forms.generation);
  }
  if (withData && forms.data.isNil()) {
    forms.data = parseData(data, objectID, source);
    installIfCurrent(&QuillonCacheItem::parsedData_, forms.data, forms.generation);
  }
  return forms;
}

Value QuillonCacheItem::valuesForObjectID(const ManagedObjectIDPtr& objectID, QuillonCacheSource* source,
                                          ManagedObjectContext* /*context*/) {
  Forms parsed = forms(objectID, source, false, true);
  Value values = mutableCopyOrNew(parsed.attributes);
  mergeInto(values, parsed.toOne);
  mergeInto(values, parsed.data);
  return values;
}

Value QuillonCacheItem::allValuesForObjectID(const ManagedObjectIDPtr& objectID,
                                             QuillonCacheSource* source,
                                             ManagedObjectContext* /*context*/) {
  {
    std::lock_guard lock(mutex_);
    if (!dictionary_.isNil()) return dictionary_;
  }
  Forms parsed = forms(objectID, source, true, true);
  Value values = mutableCopyOrNew(parsed.attributes);
  mergeInto(values, parsed.toOne);
  mergeInto(values, parsed.toMany);
  mergeInto(values, parsed.data);
  installIfCurrent(&QuillonCacheItem::dictionary_, values, parsed.generation);
  return values;
}

Value QuillonCacheItem::valueForKey(std::string_view key, const ManagedObjectIDPtr& objectID,
                                    QuillonCacheSource* source, ManagedObjectContext* /*context*/) {
  {
    std::lock_guard lock(mutex_);
    if (const Value* attribute = attributes_.find(key)) return *attribute;
  }
  if (!objectID || !objectID->entity() || !objectID->entity()->relationship(key)) return Value();
  Forms parsed = forms(objectID, source, true, false);
  if (const Value* one = parsed.toOne.find(key)) return *one;
  return parsed.toMany.get(key);
}

Value QuillonCacheItem::parseDataForObjectID(const ManagedObjectIDPtr& objectID,
                                             QuillonCacheSource* source) {
  return parseData(data(), objectID, source);
}

Value QuillonCacheItem::parseRelationsForObjectID(const ManagedObjectIDPtr& objectID,
                                                  QuillonCacheSource* source, bool toMany) {
  return parseRelations(relations(), objectID, source, toMany);
}

void QuillonCacheItem::compact() {
  std::lock_guard lock(mutex_);
  if (!parsedData_.empty()) parsedData_ = Value();
}

void QuillonCacheItem::resetExtraData() {
  std::lock_guard lock(mutex_);
  extraData_ = Value::mutableDictionary();
}

void QuillonCacheItem::setExtraData(Value value, const std::string& key) {
  std::lock_guard lock(mutex_);
  Value extraData = mutableCopyOrNew(extraData_);
  extraData.set(Value(key), std::move(value));
  extraData_ = std::move(extraData);
}

Value QuillonCacheItem::extraDataForKey(const Value& key) {
  if (!key.isString()) return Value();
  std::lock_guard lock(mutex_);
  return extraData_.get(key);
}

Value QuillonCacheItem::attributes() const { return snapshot(&QuillonCacheItem::attributes_); }
Value QuillonCacheItem::relations() const { return snapshot(&QuillonCacheItem::relations_); }
Value QuillonCacheItem::data() const { return snapshot(&QuillonCacheItem::data_); }
Value QuillonCacheItem::extraData() const { return snapshot(&QuillonCacheItem::extraData_); }
Value QuillonCacheItem::state() const { return snapshot(&QuillonCacheItem::state_); }

void QuillonCacheItem::setCollection(const std::shared_ptr<QuillonCacheDictionary>& collection) {
  std::lock_guard lock(mutex_);
  collection_ = collection;
}

std::shared_ptr<QuillonCacheDictionary> QuillonCacheItem::collection() const {
  std::lock_guard lock(mutex_);
  return collection_.lock();
}

void QuillonCacheItem::encodeWithCoder(DCNSCoder& coder) const {
  std::lock_guard lock(mutex_);
  coder.encodeObject(attributes_, kAttributesKey);
  coder.encodeObject(relations_, kRelationsKey);
  coder.encodeObject(extraData_, kExtraDataKey);
  coder.encodeObject(data_, kDataKey);
  coder.encodeObject(state_, kStateKey);
}

std::string storeKeyFor(std::string_view entityName, std::string_view uid) {
  std::string key;
  key.reserve(entityName.size() + 5);
  key.append(entityName).push_back('_');
  if (uid.empty()) return key;
  // The whole first character, so a non-ASCII uid still gives a valid name.
  size_t length = 1;
  auto lead = static_cast<unsigned char>(uid[0]);
  if (lead >= 0xF0) {
    length = 4;
  } else if (lead >= 0xE0) {
    length = 3;
  } else if (lead >= 0xC0) {
    length = 2;
  }
  key.append(uid.substr(0, std::min(length, uid.size())));
  return key;
}

}  // namespace quillon
