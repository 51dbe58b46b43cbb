#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quillon/base/url.h"
#include "quillon/base/value.h"

namespace quillon {

class Env;
class PackageFiles;

// One file of the local cache held in memory: a dictionary, array or set,
// read from "<url>.fast" on first use (the package's cipher, then
// DenseCoding), marked dirty by every change and written back only when
// dirty. A missing or undecodable file gives empty content.
//
// Owned by the QuillonCache (shared_ptr); cache items point back weakly.
// Each collection is its own lock (lock()) for its mutators, the content
// accessors, saveIfNeeded and saveInBundle; any thread. The content is
// copied on write once it has been handed out by content(), so a caller may
// read what it got without the lock while others go on changing the
// collection.
class QuillonCacheCollection : public std::enable_shared_from_this<QuillonCacheCollection> {
 public:
  // `files` gives the Env and the package's cipher; nullptr reads and writes
  // plain files through Env::Default() (tools and tests).
  QuillonCacheCollection(std::shared_ptr<PackageFiles> files, Url url);
  virtual ~QuillonCacheCollection();
  QuillonCacheCollection(const QuillonCacheCollection&) = delete;
  QuillonCacheCollection& operator=(const QuillonCacheCollection&) = delete;

  void loadIfNeeded();
  void saveIfNeeded();
  // saveIfNeeded, answering whether the file now holds the content (false:
  // the write failed and the file was removed, so that a stale one is never
  // trusted). With `flushed` false the write is not flushed to stable
  // storage: the caller flushes it together with others, by the path put
  // in `written` when a file was written.
  bool writeIfNeeded(bool flushed, std::string* written);
  // Writes a copy into `bundleFolder` (the package's "Cache" folder); the
  // dirty flag stays.
  void saveInBundle(const Url& bundleFolder);
  // Removes the item at url() (without ".fast", so the cache file stays).
  void removeFile();
  void invalidate();

  bool invalid() const;
  void setInvalid(bool invalid);
  bool fromBundle() const { return fromBundle_; }
  void setFromBundle(bool fromBundle) { fromBundle_ = fromBundle; }
  const Url& url() const { return url_; }
  // The content, loading it first; nil only for the base class, which has no
  // empty form. The caller must not change it.
  virtual Value content();
  virtual void setContent(Value content);
  // Calls `reader` with the loaded content under the lock, without handing
  // the content out (no copy on the next change).
  void readContent(const std::function<void(const Value&)>& reader);
  std::recursive_mutex& lock() const { return mutex_; }

 protected:
  virtual void initContent() {}
  virtual Value loadTransformer(const Value& value) { return value; }
  virtual Value saveTransformer(const Value& value) { return value; }
  // Whether a value read from the file has the kind of this collection.
  virtual bool acceptsLoadedValue(const Value& value) const { return !value.isNil(); }
  // The encoded and encrypted bytes of the content; empty on failure.
  std::vector<uint8_t> encodedContent();
  // Makes content_ safe to change in place: a mutable copy when it was
  // handed out or is immutable. Requires the lock and loaded content.
  void prepareForChange();

  mutable std::recursive_mutex mutex_;
  bool contentShared_ = false;
  std::atomic<bool> invalid_{false};  // read without the lock
  bool fromBundle_ = false;
  Url url_;
  Env* env() const;
  std::shared_ptr<PackageFiles> files_;
  Value content_;
};

// A dictionary file: the value shards (uid → Value::object of a cache item).
// Every item it holds, read from the file or stored, has it as collection.
class QuillonCacheDictionary final : public QuillonCacheCollection {
 public:
  static std::shared_ptr<QuillonCacheDictionary> dictionaryWithStore(
      std::shared_ptr<PackageFiles> files, Url url);
  using QuillonCacheCollection::QuillonCacheCollection;
  Value valueForKey(const std::string& key);
  // Nil removes the key.
  void setValue(Value value, const std::string& key);
  void removeObjectForKey(const std::string& key);

 protected:
  void initContent() override;
  bool acceptsLoadedValue(const Value& value) const override { return value.isDictionary(); }
  Value loadTransformer(const Value& value) override;
};

// What the array and set files share: members added and removed, each
// change loading the content first and marking the file dirty, as setting
// the whole content does.
class QuillonCacheSequence : public QuillonCacheCollection {
 public:
  using QuillonCacheCollection::QuillonCacheCollection;
  void addObject(Value value);
  void addObjects(const Value& array);
  void removeObject(const Value& value);
  void removeObjects(const Value& array);
  void setContent(Value content) override;
};

// An array file: the change log.
class QuillonCacheArray final : public QuillonCacheSequence {
 public:
  static std::shared_ptr<QuillonCacheArray> arrayWithStore(std::shared_ptr<PackageFiles> files,
                                                           Url url);
  using QuillonCacheSequence::QuillonCacheSequence;

 protected:
  void initContent() override;
  bool acceptsLoadedValue(const Value& value) const override { return value.isArray(); }
};

// A set file, stored as an array of its members: an entity's uids.
class QuillonCacheSet final : public QuillonCacheSequence {
 public:
  static std::shared_ptr<QuillonCacheSet> setWithStore(std::shared_ptr<PackageFiles> files,
                                                       Url url);
  using QuillonCacheSequence::QuillonCacheSequence;

 protected:
  void initContent() override;
  bool acceptsLoadedValue(const Value& value) const override { return value.isSet(); }
  Value loadTransformer(const Value& value) override;
  Value saveTransformer(const Value& value) override;
};

}  // namespace quillon
