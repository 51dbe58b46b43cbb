#include "quillon/store/fetcher.h"

#include <vector>

#include "quillon/cache/internal/cache.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/cache/cache_source.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/relationship_description.h"
#include "quillon/store/internal/request_item.h"

namespace quillon {
namespace {

Value emptyFetchAnswer(const FetchRequest& request) {
  if (request.resultType() == FetchRequestResultType::Count) {
    return Value::array({Value::integer(0)});
  }
  return Value::array();
}

// Whether an identifier carries a uid of its own (a reference string or one
// computed earlier), rather than needing a fresh one.
bool hasUID(const ManagedObjectIDPtr& objectID) {
  if (!objectID) return false;
  if (objectID->cachedUID()) return true;
  const Value& reference = objectID->referenceObject();
  return reference.isString() && !reference.str().empty();
}

}  // namespace

QuillonFetcher::QuillonFetcher(QuillonCacheSource& source, std::shared_ptr<QuillonCache> cache)
    : source_(source), cache_(std::move(cache)) {}

Value QuillonFetcher::execute(const FetchRequest& request, ManagedObjectContext* context) const {
  if (!cache_->changeLog()) return emptyFetchAnswer(request);

  FetchRequestResultType type = request.resultType();
  if (!request.propertiesToGroupBy().empty()) type = FetchRequestResultType::Dictionary;
  const bool counting = type == FetchRequestResultType::Count;
  const bool wantObjects = type == FetchRequestResultType::ManagedObject;
  const auto& predicate = request.predicate();

  const EntityDescription* entity = source_.entityNamed(request.entityName());
  if (!entity) return Value::array();
  std::vector<const EntityDescription*> searched{entity};
  if (request.includesSubentities()) {
    for (const EntityDescription* sub : entity->allSubentities()) searched.push_back(sub);
  }

  if (wantObjects && predicate) {
    for (const EntityDescription* e : searched) cache_->loadCachesForEntity(*e);
  }

  const bool needValues =
      predicate || !request.sortDescriptors().empty() || type == FetchRequestResultType::Dictionary;
  int64_t count = 0;
  std::vector<Value> items;
  for (const EntityDescription* e : searched) {
    std::vector<QuillonCache::CachedItem> entries = cache_->cachedItemsForEntity(
        *e, needValues ? QuillonCache::Lookup::kItems : QuillonCache::Lookup::kUIDs);
    if (counting && !predicate) {
      count += static_cast<int64_t>(entries.size());
      continue;
    }
    items.reserve(items.size() + entries.size());
    for (QuillonCache::CachedItem& entry : entries) {
      auto item = std::make_shared<QuillonRequestItem>(context, e, entry.uid, &source_);
      if (needValues) {
        // Objects the shards lack yet (indexing still runs) come from their records.
        if (!entry.item) entry.item = cache_->cacheItemForObjectID(item->objectID(), context);
        item->setCacheItem(std::move(entry.item));
      }
      if (wantObjects && context && item->objectID()) {
        item->setManagedObject(context->objectWithID(item->objectID()));
      }
      items.push_back(Value::object(std::move(item)));
    }
  }
  if (counting && !predicate) return Value::array({Value::integer(count)});

  if (predicate) {
    std::erase_if(items, [&](const Value& item) { return !predicate->evaluate(item); });
  }
  if (!request.sortDescriptors().empty()) {
    SortDescriptor::sortValues(items, request.sortDescriptors());
  }
  if (request.fetchLimit() > 0 && items.size() > request.fetchLimit()) {
    items.resize(request.fetchLimit());
  }
  if (counting) return Value::array({Value::integer(static_cast<int64_t>(items.size()))});

  std::vector<Value> answer;
  answer.reserve(items.size());
  for (const Value& value : items) {
    const auto* item = value.objectAs<QuillonRequestItem>();
    switch (type) {
      case FetchRequestResultType::ManagedObjectID:
        if (item->objectID()) answer.push_back(Value::object(item->objectID()));
        break;
      case FetchRequestResultType::Dictionary:
        answer.push_back(item->dictionary());
        break;
      default:
        if (item->managedObject()) answer.push_back(Value::object(item->managedObject()));
        break;
    }
  }
  return Value::array(std::move(answer));
}

std::shared_ptr<IncrementalStoreNode> QuillonFetcher::valuesForObjectWithID(
    const ManagedObjectIDPtr& objectID, ManagedObjectContext* context) const {
  Value values;
  if (hasUID(objectID)) values = cache_->valuesForObjectID(objectID, context);
  if (!values.isDictionary()) values = Value::dictionary();
  return std::make_shared<TessIncrementalStoreNode>(objectID, values, 1);
}

Value QuillonFetcher::valueForRelationship(const RelationshipDescription& relationship,
                                           const ManagedObjectIDPtr& objectID,
                                           ManagedObjectContext* context) const {
  if (!hasUID(objectID)) return Value();
  Value values = cache_->allValuesForObjectID(objectID, context);
  Value entry = values.get(relationship.name());
  if (relationship.isToMany()) return entry;
  if (entry.isSequence()) return entry.empty() ? Value() : entry[0];
  return entry;
}

}  // namespace quillon
