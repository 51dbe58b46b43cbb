// Feeds arbitrary bytes to the cache's collection files as they are loaded
// from disk: a value shard (a dictionary of cache items), the change log
// (an array) or an entity's uids (a set), plain or sealed with a package's
// password. Whatever loads is used as the cache uses it, saved, and must
// load again with as many members.
//
// Input: one byte of flags (bits 0-1: the kind; 4: seal the rest with the
// package's cipher; 8: read with the password without sealing), then the
// file's bytes.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>

#include "fuzz_support.h"
#include "quillon/cache/internal/cache_collection.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/coding/internal/dc_geometry_value.h"
#include "quillon/coding/internal/dense_coder.h"

namespace {

using quillon::QuillonCacheCollection;
using quillon::Url;
using quillon::Value;

const quillon::fuzz::ScratchPackage& package() {
  static const quillon::fuzz::ScratchPackage p = [] {
    quillon::QuillonCacheItem::registerCoding();
    return quillon::fuzz::makeScratchPackage("Cache.quillon");
  }();
  return p;
}

std::shared_ptr<QuillonCacheCollection> collection(int kind,
                                                   std::shared_ptr<quillon::PackageFiles> files,
                                                   const Url& url) {
  switch (kind) {
    case 1:
      return quillon::QuillonCacheArray::arrayWithStore(std::move(files), url);
    case 2:
      return quillon::QuillonCacheSet::setWithStore(std::move(files), url);
    default:
      return quillon::QuillonCacheDictionary::dictionaryWithStore(std::move(files), url);
  }
}

// Uses what was loaded as the cache would: items answer their values.
void use(QuillonCacheCollection& loaded, const Value& content) {
  auto* dictionary = dynamic_cast<quillon::QuillonCacheDictionary*>(&loaded);
  if (!dictionary) return;
  for (const auto& [key, value] : content.items()) {
    if (!key.isString()) continue;
    Value item = dictionary->valueForKey(std::string(key.str()));
    if (auto* cacheItem = item.objectAs<quillon::QuillonCacheItem>()) {
      (void)cacheItem->allValuesForObjectID(nullptr, nullptr, nullptr);
      if (cacheItem->collection().get() != dictionary) std::abort();
    }
  }
}

// Whether a geometry value (a point, a size…) is anywhere in the content.
// The writer numbers those in the object table and the reader does not, as
// the format has it, so later aliases in what was written point elsewhere:
// such a file does not read back, and the next open rebuilds the cache.
bool holdsGeometry(const Value& content) {
  auto isGeometry = [](const Value& v) { return v.objectAs<quillon::DCGeometryValue>() != nullptr; };
  if (isGeometry(content)) return true;
  for (const Value& container : quillon::DenseCoder::reachableContainers(content)) {
    if (container.isDictionary()) {
      for (const auto& [key, value] : container.items()) {
        if (isGeometry(key) || isGeometry(value)) return true;
      }
    } else {
      for (const Value& element : container.elements()) {
        if (isGeometry(element)) return true;
      }
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const auto& p = package();
  const uint8_t flags = data[0];
  const int kind = flags & 3;
  std::span<const uint8_t> contents(data + 1, size - 1);

  // Collections share their files with the store; these live as long as the
  // process, so they are handed out without ownership.
  std::shared_ptr<quillon::PackageFiles> files;
  std::vector<uint8_t> stored(contents.begin(), contents.end());
  if (flags & 4) {
    if (!p.sealed->seal(contents, &stored)) std::abort();
    files = std::shared_ptr<quillon::PackageFiles>(p.sealed.get(), [](auto*) {});
  } else if (flags & 8) {
    files = std::shared_ptr<quillon::PackageFiles>(p.sealed.get(), [](auto*) {});
  }
  const Url url = p.url.appending("Cache", true).appending("Shard");
  const std::string path = url.appendingPathExtension("fast").path();
  quillon::fuzz::writeScratchFile(path, stored);

  auto loaded = collection(kind, files, url);
  Value content = loaded->content();
  if (content.isNil()) std::abort();
  use(*loaded, content);

  // Saved and loaded again, the content keeps its members (unless it holds
  // geometry values; see holdsGeometry). A content the writer refuses leaves
  // no file behind.
  loaded->invalidate();
  loaded->saveIfNeeded();
  if (quillon::Env::Default()->exists(path)) {
    auto reloaded = collection(kind, files, url);
    Value again = reloaded->content();
    if (again.size() != content.size() && !holdsGeometry(content)) std::abort();
    quillon::DenseCoder::breakCycles(again);
  }
  quillon::DenseCoder::breakCycles(content);
  return 0;
}
