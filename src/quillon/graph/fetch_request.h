#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "quillon/graph/persistent_store_request.h"
#include "quillon/graph/predicate.h"
#include "quillon/graph/sort_descriptor.h"

namespace quillon {

// What a fetch answers; the numbers are the classic ones.
enum class FetchRequestResultType : int {
  ManagedObject = 0,    // the context's objects (Value::object of a ManagedObject)
  ManagedObjectID = 1,  // their identifiers (Value::object of a ManagedObjectID)
  Dictionary = 2,       // dictionaries of property values
  Count = 4,            // one number: how many objects match
};

// A description of the objects to fetch: an entity (by name), an optional
// predicate, sort descriptors, a limit and offset, and the form of the
// result. A plain value built and read on one thread at a time.
class FetchRequest final : public PersistentStoreRequest {
 public:
  FetchRequest() = default;
  explicit FetchRequest(std::string entityName) : entityName_(std::move(entityName)) {}

  PersistentStoreRequestType requestType() const override {
    return PersistentStoreRequestType::Fetch;
  }

  const std::string& entityName() const { return entityName_; }
  void setEntityName(std::string name) { entityName_ = std::move(name); }
  // Nullptr matches every object.
  const std::shared_ptr<const Predicate>& predicate() const { return predicate_; }
  void setPredicate(std::shared_ptr<const Predicate> predicate) {
    predicate_ = std::move(predicate);
  }
  const std::vector<SortDescriptor>& sortDescriptors() const { return sortDescriptors_; }
  void setSortDescriptors(std::vector<SortDescriptor> descriptors) {
    sortDescriptors_ = std::move(descriptors);
  }
  // 0 means no limit.
  size_t fetchLimit() const { return fetchLimit_; }
  void setFetchLimit(size_t limit) { fetchLimit_ = limit; }
  size_t fetchOffset() const { return fetchOffset_; }
  void setFetchOffset(size_t offset) { fetchOffset_ = offset; }
  FetchRequestResultType resultType() const { return resultType_; }
  void setResultType(FetchRequestResultType type) { resultType_ = type; }
  // Whether objects of sub-entities match too (the default).
  bool includesSubentities() const { return includesSubentities_; }
  void setIncludesSubentities(bool include) { includesSubentities_ = include; }
  // Whether the context lays its unsaved inserts, updates and deletes over
  // the store's answer (the default).
  bool includesPendingChanges() const { return includesPendingChanges_; }
  void setIncludesPendingChanges(bool include) { includesPendingChanges_ = include; }
  // Dictionary results: the properties to include (all when empty) and to
  // group by.
  const std::vector<std::string>& propertiesToFetch() const { return propertiesToFetch_; }
  void setPropertiesToFetch(std::vector<std::string> names) {
    propertiesToFetch_ = std::move(names);
  }
  const std::vector<std::string>& propertiesToGroupBy() const { return propertiesToGroupBy_; }
  void setPropertiesToGroupBy(std::vector<std::string> names) {
    propertiesToGroupBy_ = std::move(names);
  }

 private:
  std::string entityName_;
  std::shared_ptr<const Predicate> predicate_;
  std::vector<SortDescriptor> sortDescriptors_;
  size_t fetchLimit_ = 0;
  size_t fetchOffset_ = 0;
  FetchRequestResultType resultType_ = FetchRequestResultType::ManagedObject;
  bool includesSubentities_ = true;
  bool includesPendingChanges_ = true;
  std::vector<std::string> propertiesToFetch_;
  std::vector<std::string> propertiesToGroupBy_;
};

}  // namespace quillon
