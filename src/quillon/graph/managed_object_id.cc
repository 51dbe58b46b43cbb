#include "quillon/graph/managed_object_id.h"

#include <fmt/format.h>

#include <atomic>
#include <random>

#include "quillon/graph/entity_description.h"
#include "quillon/graph/incremental_store.h"

namespace quillon {

namespace {

// A process-unique reference for temporary identifiers: a random prefix per
// process and a counter, so two processes never mint the same text.
std::string nextTemporaryReference() {
  static const uint64_t prefix = [] {
    std::random_device device;
    return (uint64_t(device()) << 32) ^ device();
  }();
  static std::atomic<uint64_t> counter{0};
  return fmt::format("{:016X}-{}", prefix, counter.fetch_add(1) + 1);
}

}  // namespace

ManagedObjectID::ManagedObjectID(const EntityDescription* entity, Value referenceObject,
                                 std::shared_ptr<IncrementalStore> store, bool temporary)
    : entity_(entity),
      reference_(std::move(referenceObject)),
      store_(store),
      storeAddress_(store.get()),
      temporary_(temporary) {
  if (store) storeIdentifier_ = store->identifier();
}

std::shared_ptr<ManagedObjectID> ManagedObjectID::temporaryID(const EntityDescription* entity) {
  return std::make_shared<ManagedObjectID>(entity, Value::string(nextTemporaryReference()), nullptr,
                                           true);
}

std::string ManagedObjectID::uriString() const {
  std::string reference =
      reference_.isString() ? std::string(reference_.str()) : reference_.description();
  // The store's current identifier; the one it had when this identifier was
  // made once the store is gone.
  auto store = store_.lock();
  return fmt::format("x-quillon://{}/{}/{}{}", store ? store->identifier() : storeIdentifier_,
                     entity_ ? entity_->name() : "", temporary_ ? "t" : "p",
                     Url::percentEncodePath(reference));
}

Url ManagedObjectID::uriRepresentation() const {
  auto url = Url::parse(uriString());
  return url ? *url : Url();
}

std::optional<std::string> ManagedObjectID::cachedUID() const {
  std::lock_guard<std::mutex> lock(uidMutex_);
  return cachedUID_;
}

void ManagedObjectID::setCachedUID(std::string uid) const {
  std::lock_guard<std::mutex> lock(uidMutex_);
  cachedUID_ = std::move(uid);
}

bool ManagedObjectID::isEqual(const Object& other) const {
  if (this == &other) return true;
  auto* o = dynamic_cast<const ManagedObjectID*>(&other);
  return o && entity_ == o->entity_ && storeAddress_ == o->storeAddress_ &&
         temporary_ == o->temporary_ && reference_ == o->reference_;
}

size_t ManagedObjectID::hash() const {
  size_t h = reference_.hash();
  h ^= std::hash<const void*>{}(entity_) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
  return h;
}

ManagedObjectIDPtr objectIDFromValue(const Value& value) {
  if (!value.isObject()) return nullptr;
  return std::dynamic_pointer_cast<ManagedObjectID>(value.objectValue());
}

}  // namespace quillon
