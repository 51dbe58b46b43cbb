#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "quillon/base/value.h"
#include "quillon/store/package_layout.h"

namespace quillon {

class EntityDescription;
class PackageFiles;

// What validation needs from the store it validates for.
class QuillonValidationHost {
 public:
  virtual ~QuillonValidationHost() = default;
  virtual PackageLayout layout() const = 0;
  // The entity's folder name, nullopt for an entity the model lacks (its
  // objects are not ours to judge).
  virtual std::optional<std::string> fileNameForEntityName(std::string_view name) const = 0;
  virtual const EntityDescription* entityNamed(std::string_view name) const = 0;
  // A log entry (any thread) and the store's error level.
  virtual void log(const std::string& message, std::string_view type, const Value& menu) = 0;
  virtual void setErrorLevel(std::string_view type) = 0;
};

// Checks one change file against the package before it is applied: its
// shape (every section a dictionary, every uid a safe folder name), each
// updated or inserted object's record (present, stored locally, readable
// within its limits, decryptable), and each data file it names (length, and
// the SHA-256 digest when the change gives one). Every problem is logged
// with the remedies it offers.
//
// Owned by the store; stateless between calls, so validate() may run on any
// thread (the read queue for updates, the cache's queue for checking every
// file).
class QuillonChangeValidator {
 public:
  QuillonChangeValidator(QuillonValidationHost& host, std::shared_ptr<PackageFiles> files);

  // The combined (entity → uid → entry) updates and inserts of a valid
  // change, nil otherwise; `recovering` answers the combination even after
  // problems (once they are logged). A light-weight validation looks at
  // data files' sizes only. With `loadedItems` (a mutable dictionary), a full
  // validation keeps what it read: entity name → uid → Value::object of the
  // QuillonCacheItem made from the record of each inserted object.
  Value validate(const Value& change, bool lightWeight, Value* loadedItems, bool recovering);

  // `first`'s entities with their objects, then the entities only `second`
  // lists. An entity in both keeps first's objects only.
  static Value combineChangeDictionary(const Value& first, const Value& second);

 private:
  QuillonValidationHost& host_;
  std::shared_ptr<PackageFiles> files_;
};

}  // namespace quillon
