// QuillonStore: fetching and loading, over QuillonFetcher (answers from the
// local cache) and QuillonRecordReader (objects read from their records).

#include <vector>

#include "quillon/cache/internal/cache_item.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/store/store.h"

namespace quillon {

Value QuillonStore::executeFetchRequest(const FetchRequest& request,
                                        ManagedObjectContext* context) {
  return fetcher_->execute(request, context);
}

std::shared_ptr<IncrementalStoreNode> QuillonStore::newValuesForObjectWithID(
    const ManagedObjectIDPtr& objectID, ManagedObjectContext* context, Error* /*error*/) {
  return fetcher_->valuesForObjectWithID(objectID, context);
}

Value QuillonStore::newValueForRelationship(const RelationshipDescription& relationship,
                                            const ManagedObjectIDPtr& objectID,
                                            ManagedObjectContext* context, Error* /*error*/) {
  return fetcher_->valueForRelationship(relationship, objectID, context);
}

std::shared_ptr<QuillonCacheItem> QuillonStore::loadValuesForObjectID(
    const ManagedObjectIDPtr& objectID, ManagedObjectContext* context, const Value& upToChange) {
  if (!objectID || !objectID->entity()) return nullptr;
  std::string uid = uidForObjectID(objectID, context);
  return loadValuesForEntity(*objectID->entity(), uid, context, upToChange);
}

std::optional<std::vector<uint8_t>> QuillonStore::readDataFile(const EntityDescription& entity,
                                                               const std::string& uid,
                                                               std::string_view fileName) {
  return records_->readDataFile(entity, uid, fileName);
}

std::shared_ptr<QuillonCacheItem> QuillonStore::loadValuesForEntity(
    const EntityDescription& entity, const std::string& uid, ManagedObjectContext* /*context*/,
    const Value& upToChange) {
  return records_->load(entity, uid, upToChange.isString() ? upToChange.str() : std::string_view());
}

void QuillonStore::resetAttributesForManagedObject(ManagedObject& object) {
  const ManagedObjectIDPtr& objectID = object.objectID();
  if (!objectID || !object.entity()) return;
  ManagedObjectContext* context = object.managedObjectContext();
  std::vector<Url> files = changesFilesFor(*object.entity(), uidForObjectID(objectID, context));
  if (files.empty()) return;
  Value firstChange = Value::string(files.front().lastPathComponent());
  std::shared_ptr<QuillonCacheItem> item = loadValuesForObjectID(objectID, context, firstChange);
  if (!item) return;
  Value values = item->allValuesForObjectID(objectID, this, context);
  for (const auto& [key, value] : values.items()) {
    if (!key.isString() || !object.entity()->attribute(key.str())) continue;
    object.setValue(key.str(), value);
  }
}

Value QuillonStore::changesDictionaryForObjectIDs(
    const std::vector<ManagedObjectIDPtr>& objectIDs) {
  Value changes = Value::dictionary(true);
  for (const ManagedObjectIDPtr& objectID : objectIDs) {
    if (!objectID || !objectID->entity()) continue;
    Value entityName = Value::string(objectID->entity()->name());
    Value uids = changes.get(entityName);
    if (uids.isNil()) {
      uids = Value::dictionary(true);
      changes.set(entityName, uids);
    }
    uids.set(Value::string(storeUID(*objectID)), Value::array());
  }
  return changes;
}

void QuillonStore::addLoadingIssue(QuillonLoadingIssue issue) {
  records_->addLoadingIssue(std::move(issue));
}

std::vector<QuillonLoadingIssue> QuillonStore::loadingIssues() const {
  return records_->loadingIssues();
}

}  // namespace quillon
