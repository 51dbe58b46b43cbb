#include "quillon/cache/cache_item.h"
#include "quillon/store/store.h"

namespace quillon {

// PENDING
QuillonLoadingIssue QuillonLoadingIssue::loadingIssueWithType(std::string_view, const Url&, Value) {
  return QuillonLoadingIssue();
}

// PENDING
Value QuillonStore::executeFetchRequest(const FetchRequest&, ManagedObjectContext*) {
  return Value();
}

// PENDING
std::shared_ptr<IncrementalStoreNode> QuillonStore::newValuesForObjectWithID(
    const ManagedObjectIDPtr&, ManagedObjectContext*, Error*) {
  return nullptr;
}

// PENDING
Value QuillonStore::newValueForRelationship(const RelationshipDescription&,
                                            const ManagedObjectIDPtr&, ManagedObjectContext*,
                                            Error*) {
  return Value();
}

// PENDING
std::shared_ptr<QuillonCacheItem> QuillonStore::loadValuesForObjectID(const ManagedObjectIDPtr&,
                                                                      ManagedObjectContext*,
                                                                      const Value&) {
  return nullptr;
}

// PENDING
std::shared_ptr<QuillonCacheItem> QuillonStore::loadValuesForEntity(const EntityDescription&,
                                                                    const std::string&,
                                                                    ManagedObjectContext*,
                                                                    const Value&) {
  return nullptr;
}

// PENDING
void QuillonStore::resetAttributesForManagedObject(ManagedObject&) {}

// PENDING
Value QuillonStore::changesDictionaryForObjectIDs(const std::vector<ManagedObjectIDPtr>&) {
  return Value();
}

// PENDING
void QuillonStore::addLoadingIssue(QuillonLoadingIssue) {}

// PENDING
std::vector<QuillonLoadingIssue> QuillonStore::loadingIssues() const { return {}; }

// PENDING
void QuillonStore::incrementProgress() {}

// PENDING
void QuillonStore::setProgressInfo(Value) {}

// PENDING
Value QuillonStore::progressInfo() const { return Value(); }

}  // namespace quillon
