#include "quillon/cache/internal/cache_collection.h"

#include "quillon/base/env.h"
#include "quillon/base/error.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/store/package_files.h"

namespace quillon {
namespace {

constexpr std::string_view kFileExtension = "fast";

}  // namespace

QuillonCacheCollection::QuillonCacheCollection(std::shared_ptr<PackageFiles> files, Url url)
    : url_(std::move(url)), files_(std::move(files)) {}

Env* QuillonCacheCollection::env() const { return files_ ? files_->env() : Env::Default(); }

QuillonCacheCollection::~QuillonCacheCollection() = default;

void QuillonCacheCollection::loadIfNeeded() {
  if (!content_.isNil()) return;
  if (!url_.isEmpty()) {
    const std::string path = url_.appendingPathExtension(kFileExtension).path();
    std::vector<uint8_t> plain;
    bool read = false;
    if (files_) {
      read = files_->readBytes(path, kCacheFileLimits.maximumSize, &plain).ok();
    } else {
      read = !env()->readFile(path, &plain);
    }
    if (read) {
      Value decoded;
      bool accepted = false;
      try {
        decoded = DenseCoder::objectWithData(plain);
        Value loaded = loadTransformer(decoded);
        // A file of another kind (damage, or a hostile file put in place)
        // counts as undecodable rather than being trusted.
        accepted = acceptsLoadedValue(loaded);
        if (accepted) content_ = std::move(loaded);
      } catch (const Exception&) {
        initContent();
      }
      // What was refused may hold a container that contains itself.
      if (!accepted) DenseCoder::breakCycles(decoded);
    }
  }
  if (content_.isNil()) initContent();
}

std::vector<uint8_t> QuillonCacheCollection::encodedContent() {
  try {
    std::vector<uint8_t> plain = DenseCoder::encode(saveTransformer(content_));
    if (plain.empty() || !files_) return plain;
    std::vector<uint8_t> stored;
    if (!files_->seal(plain, &stored)) return {};
    return stored;
  } catch (const Exception&) {
    return {};
  }
}

void QuillonCacheCollection::saveIfNeeded() {
  (void)writeIfNeeded(true, nullptr);  // a failed write removed the file; nothing else to do
}

bool QuillonCacheCollection::writeIfNeeded(bool flushed, std::string* written) {
  std::lock_guard lock(mutex_);
  if (!invalid_ || url_.isEmpty()) return true;
  loadIfNeeded();
  std::string path = url_.appendingPathExtension(kFileExtension).path();
  std::vector<uint8_t> bytes = encodedContent();
  if (!bytes.empty()) {
    Error error = flushed ? env()->writeFileAtomically(path, bytes)
                          : env()->writeFileAtomicallyUnflushed(path, bytes);
    if (!error) {
      invalid_ = false;
      if (written) *written = std::move(path);
      return true;
    }
  }
  // Never leave a stale file behind: the next open rebuilds from the package.
  (void)env()->removeItem(path);  // nothing to remove is fine too
  return false;
}

void QuillonCacheCollection::saveInBundle(const Url& bundleFolder) {
  if (!files_ || url_.isEmpty() || bundleFolder.isEmpty()) return;
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  std::vector<uint8_t> bytes = encodedContent();
  if (bytes.empty()) return;
  Url target = bundleFolder.appending(url_.lastPathComponent() + "." + std::string(kFileExtension));
  (void)env()->writeFileAtomically(target.path(), bytes);  // a copy for others; best effort
}

void QuillonCacheCollection::removeFile() {
  if (url_.isEmpty()) return;
  (void)env()->removeItem(url_.path());
}

// Writers take the lock so that a save in progress cannot clear a mark made
// after it encoded the content; readers need none.
void QuillonCacheCollection::invalidate() {
  std::lock_guard lock(mutex_);
  invalid_ = true;
}

bool QuillonCacheCollection::invalid() const { return invalid_; }

void QuillonCacheCollection::setInvalid(bool invalid) {
  std::lock_guard lock(mutex_);
  invalid_ = invalid;
}

Value QuillonCacheCollection::content() {
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  contentShared_ = true;
  return content_;
}

void QuillonCacheCollection::setContent(Value content) {
  std::lock_guard lock(mutex_);
  content_ = std::move(content);
  contentShared_ = false;
}

void QuillonCacheCollection::readContent(const std::function<void(const Value&)>& reader) {
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  reader(content_);
}

void QuillonCacheCollection::prepareForChange() {
  if (contentShared_ || !content_.isMutable()) {
    content_ = content_.mutableCopy();
    contentShared_ = false;
  }
}

// ---- Dictionary ----

std::shared_ptr<QuillonCacheDictionary> QuillonCacheDictionary::dictionaryWithStore(
    std::shared_ptr<PackageFiles> files, Url url) {
  return std::make_shared<QuillonCacheDictionary>(std::move(files), std::move(url));
}

void QuillonCacheDictionary::initContent() { setContent(Value::mutableDictionary()); }

Value QuillonCacheDictionary::valueForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  return content_.get(key);
}

Value QuillonCacheDictionary::loadTransformer(const Value& value) {
  // Items read from the file update themselves under this shard's lock.
  if (value.isDictionary()) {
    auto self = std::static_pointer_cast<QuillonCacheDictionary>(shared_from_this());
    for (const auto& [key, stored] : value.items()) {
      if (auto* item = stored.objectAs<QuillonCacheItem>()) item->setCollection(self);
    }
  }
  return value;
}

void QuillonCacheDictionary::setValue(Value value, const std::string& key) {
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  prepareForChange();
  if (auto* item = value.objectAs<QuillonCacheItem>()) {
    item->setCollection(std::static_pointer_cast<QuillonCacheDictionary>(shared_from_this()));
  }
  content_.set(Value(key), std::move(value));
  invalid_ = true;
}

void QuillonCacheDictionary::removeObjectForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  prepareForChange();
  content_.erase(Value(key));
  invalid_ = true;
}

// ---- Arrays and sets ----

void QuillonCacheSequence::setContent(Value content) {
  std::lock_guard lock(mutex_);
  QuillonCacheCollection::setContent(std::move(content));
  invalid_ = true;
}

void QuillonCacheSequence::addObject(Value value) {
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  prepareForChange();
  content_.append(std::move(value));
  invalid_ = true;
}

void QuillonCacheSequence::addObjects(const Value& array) {
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  prepareForChange();
  content_.reserve(content_.size() + array.size());
  for (const Value& element : array.elements()) content_.append(element);
  invalid_ = true;
}

void QuillonCacheSequence::removeObject(const Value& value) {
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  prepareForChange();
  content_.remove(value);
  invalid_ = true;
}

void QuillonCacheSequence::removeObjects(const Value& array) {
  std::lock_guard lock(mutex_);
  loadIfNeeded();
  prepareForChange();
  for (const Value& element : array.elements()) content_.remove(element);
  invalid_ = true;
}

std::shared_ptr<QuillonCacheArray> QuillonCacheArray::arrayWithStore(
    std::shared_ptr<PackageFiles> files, Url url) {
  return std::make_shared<QuillonCacheArray>(std::move(files), std::move(url));
}

void QuillonCacheArray::initContent() { setContent(Value::mutableArray()); }

std::shared_ptr<QuillonCacheSet> QuillonCacheSet::setWithStore(std::shared_ptr<PackageFiles> files,
                                                               Url url) {
  return std::make_shared<QuillonCacheSet>(std::move(files), std::move(url));
}

void QuillonCacheSet::initContent() { setContent(Value::mutableSet()); }

Value QuillonCacheSet::loadTransformer(const Value& value) {
  if (!value.isArray() && !value.isSet()) return Value();
  // The members are uids. Anything but text is damage, and comparing it
  // with another member might never end (two arrays that contain themselves).
  Value set = Value::mutableSet();
  set.reserve(value.size());
  for (const Value& member : value.elements()) {
    if (member.isString()) set.append(member);
  }
  // The file's containers are not kept; free them even when they hold cycles.
  DenseCoder::breakCycles(value);
  return set;
}

Value QuillonCacheSet::saveTransformer(const Value& value) {
  std::vector<Value> members(value.elements().begin(), value.elements().end());
  return Value::array(std::move(members));
}

}  // namespace quillon
