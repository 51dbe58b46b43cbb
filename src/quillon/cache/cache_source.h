#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/graph/managed_object_id.h"

namespace quillon {

class EntityDescription;
class ManagedObjectContext;
class QuillonCacheItem;

// What the cache and its items need from the store they serve, and nothing
// more: the model's entities and identifiers, a cache miss filled from the
// package's records, the bytes of a data file, and somewhere to report.
// The store implements it; the cache never sees the store itself, so it can
// be driven (and tested) without one.
//
// Every member may be called from any thread. entities, entityNamed,
// newObjectIDForEntity and the reference table take no store lock and may be
// called with cache locks held; the others are called with none held.
class QuillonCacheSource {
 public:
  virtual ~QuillonCacheSource() = default;

  // ---- The model and identifiers ----
  virtual const std::unordered_map<std::string, const EntityDescription*>& entities() const = 0;
  virtual const EntityDescription* entityNamed(std::string_view name) const = 0;
  // Nullptr once the source is closed.
  virtual ManagedObjectIDPtr newObjectIDForEntity(const EntityDescription* entity,
                                                  Value referenceObject) = 0;
  // Identifiers made for stored references ("Entity/UID"), reused by cache items.
  virtual ManagedObjectIDPtr managedObjectIDForReference(std::string_view reference) = 0;
  virtual void setManagedObjectIDForReference(std::string_view reference,
                                              ManagedObjectIDPtr objectID) = 0;

  // ---- The package ----
  // A cache miss: the object's values read from its records (nullptr after a
  // loading issue, which the source reports). `upToChange` is a change-log
  // entry that cuts the history, or nil.
  virtual std::shared_ptr<QuillonCacheItem> loadValuesForObjectID(
      const ManagedObjectIDPtr& objectID, ManagedObjectContext* context,
      const Value& upToChange) = 0;
  // The plain bytes of one of the object's data files as its record names
  // it; nullopt (reported by the source) when it cannot be read or decrypted.
  virtual std::optional<std::vector<uint8_t>> readDataFile(const EntityDescription& entity,
                                                           const std::string& uid,
                                                           std::string_view fileName) = 0;
  // The object's record files whose change is in the change log, in change order.
  virtual std::vector<Url> changesFilesFor(const EntityDescription& entity,
                                           const std::string& uid) = 0;

  // ---- Reporting ----
  // A stored reference the model cannot hold: saving must stop so that it
  // is never written back.
  virtual void preventFromSaving() = 0;
};

}  // namespace quillon
