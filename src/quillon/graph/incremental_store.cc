#include "quillon/graph/incremental_store.h"

#include <fmt/format.h>

#include <random>

#include "quillon/graph/entity_description.h"
#include "quillon/graph/property_description.h"

namespace quillon {

IncrementalStoreNode::IncrementalStoreNode(ManagedObjectIDPtr objectID, Value values,
                                           uint64_t version)
    : objectID_(std::move(objectID)),
      values_(values.isDictionary() ? std::move(values) : Value::dictionary()),
      version_(version) {}

void IncrementalStoreNode::updateWithValues(Value values, uint64_t version) {
  values_ = values.isDictionary() ? std::move(values) : Value::dictionary();
  version_ = version;
}

Value IncrementalStoreNode::valueForPropertyDescription(const PropertyDescription& property) const {
  return values_.get(property.name());
}

namespace {

// A random UUID in its canonical upper-case text form.
std::string randomUUIDString() {
  static thread_local std::mt19937_64 generator{std::random_device{}()};
  uint64_t hi = generator(), lo = generator();
  hi = (hi & 0xFFFFFFFFFFFF0FFFULL) | 0x0000000000004000ULL;  // version 4
  lo = (lo & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL;  // variant 1
  return fmt::format("{:08X}-{:04X}-{:04X}-{:04X}-{:012X}", hi >> 32, (hi >> 16) & 0xFFFF,
                     hi & 0xFFFF, lo >> 48, lo & 0xFFFFFFFFFFFFULL);
}

}  // namespace

IncrementalStore::IncrementalStore(PersistentStoreCoordinator* coordinator,
                                   std::string configurationName, Url url, Value options)
    : coordinator_(coordinator),
      configurationName_(std::move(configurationName)),
      options_(options.isDictionary() ? std::move(options) : Value::dictionary()),
      url_(std::move(url)),
      metadata_(Value::dictionary({{"NSStoreUUIDKey", randomUUIDString()}}, true)) {}

IncrementalStore::~IncrementalStore() = default;

Url IncrementalStore::url() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return url_;
}

void IncrementalStore::setURL(const Url& url) {
  std::lock_guard<std::mutex> lock(mutex_);
  url_ = url;
}

std::string IncrementalStore::identifier() const {
  return std::string(metadata().get("NSStoreUUIDKey").str());
}

Value IncrementalStore::metadata() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return metadata_;
}

void IncrementalStore::setMetadata(Value metadata) {
  Value copy = metadata.isDictionary() ? metadata.mutableCopy() : Value::mutableDictionary();
  std::lock_guard<std::mutex> lock(mutex_);
  // The store keeps its identity and type whatever a subclass hands in.
  if (copy.get("NSStoreUUIDKey").isNil())
    copy.set("NSStoreUUIDKey", metadata_.get("NSStoreUUIDKey"));
  if (!type_.empty()) copy.set("NSStoreType", type_);
  metadata_ = copy;
}

ManagedObjectIDPtr IncrementalStore::newObjectIDForEntity(const EntityDescription* entity,
                                                          Value referenceObject) {
  if (!entity || referenceObject.isNil()) return nullptr;
  return std::make_shared<ManagedObjectID>(entity, std::move(referenceObject),
                                           weak_from_this().lock(), false);
}

Value IncrementalStore::referenceObjectForObjectID(const ManagedObjectID& objectID) const {
  return objectID.referenceObject();
}

}  // namespace quillon
