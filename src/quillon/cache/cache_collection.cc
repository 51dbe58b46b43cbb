#include "quillon/cache/cache_collection.h"

namespace quillon {

// PENDING
QuillonCacheCollection::QuillonCacheCollection(QuillonStore* store, Url url)
    : url_(std::move(url)), store_(store) {}
// PENDING
QuillonCacheCollection::~QuillonCacheCollection() = default;
// PENDING
void QuillonCacheCollection::loadIfNeeded() {}
// PENDING
void QuillonCacheCollection::saveIfNeeded() {}
// PENDING
void QuillonCacheCollection::saveInBundle() {}
// PENDING
void QuillonCacheCollection::removeFile() {}
// PENDING
void QuillonCacheCollection::invalidate() {}
// PENDING
bool QuillonCacheCollection::invalid() const { return false; }
// PENDING
void QuillonCacheCollection::setInvalid(bool) {}
// PENDING
Value QuillonCacheCollection::content() { return Value(); }
// PENDING
void QuillonCacheCollection::setContent(Value) {}
// PENDING
std::vector<uint8_t> QuillonCacheCollection::encodedContent() { return {}; }

// PENDING
std::shared_ptr<QuillonCacheDictionary> QuillonCacheDictionary::dictionaryWithStore(
    QuillonStore*, Url) {
  return nullptr;
}
// PENDING
Value QuillonCacheDictionary::valueForKey(const std::string&) { return Value(); }
// PENDING
void QuillonCacheDictionary::setValue(Value, const std::string&) {}
// PENDING
void QuillonCacheDictionary::removeObjectForKey(const std::string&) {}
// PENDING
void QuillonCacheDictionary::initContent() {}

// PENDING
std::shared_ptr<QuillonCacheArray> QuillonCacheArray::arrayWithStore(QuillonStore*, Url) {
  return nullptr;
}
// PENDING
void QuillonCacheArray::addObject(Value) {}
// PENDING
void QuillonCacheArray::addObjects(const Value&) {}
// PENDING
void QuillonCacheArray::removeObject(const Value&) {}
// PENDING
void QuillonCacheArray::removeObjects(const Value&) {}
// PENDING
Value QuillonCacheArray::content() { return Value(); }
// PENDING
void QuillonCacheArray::setContent(Value) {}
// PENDING
void QuillonCacheArray::initContent() {}

// PENDING
std::shared_ptr<QuillonCacheSet> QuillonCacheSet::setWithStore(QuillonStore*, Url) {
  return nullptr;
}
// PENDING
void QuillonCacheSet::addObject(Value) {}
// PENDING
void QuillonCacheSet::addObjects(const Value&) {}
// PENDING
void QuillonCacheSet::removeObject(const Value&) {}
// PENDING
void QuillonCacheSet::removeObjects(const Value&) {}
// PENDING
Value QuillonCacheSet::content() { return Value(); }
// PENDING
void QuillonCacheSet::setContent(Value) {}
// PENDING
void QuillonCacheSet::initContent() {}
// PENDING
Value QuillonCacheSet::loadTransformer(const Value&) { return Value(); }
// PENDING
Value QuillonCacheSet::saveTransformer(const Value&) { return Value(); }

}  // namespace quillon
