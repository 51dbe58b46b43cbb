// Feeds arbitrary bytes to the path an object record takes from its file to
// the cache: JSON within the record limits, then the payload applied to a
// cache item of every entity of a sample model (twice, as a later record of
// the same object would be), then the item written as the cache writes it
// and read back, which must give the same fields.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

#include "fuzz_support.h"
#include "quillon/base/error.h"
#include "quillon/base/json.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/store/package_files.h"
#include "quillon/store/internal/package_format.h"
#include "support/sample_models.h"

namespace {

using quillon::Value;

const quillon::ManagedObjectModel& model() {
  static const std::shared_ptr<const quillon::ManagedObjectModel> m = [] {
    quillon::fuzz::quietLog();
    quillon::QuillonCacheItem::registerCoding();
    auto parsed = quillon::ManagedObjectModel::fromJSON(quillon::kNotesModelJSON);
    if (!parsed) std::abort();
    return parsed;
  }();
  return *m;
}

void checkRoundTrip(const std::shared_ptr<quillon::QuillonCacheItem>& item) {
  Value encoded;
  try {
    encoded = quillon::DenseCoder::dataWithRootObject(Value::object(item));
  } catch (const quillon::Exception&) {
    return;  // a value the writer refuses is a lost cache entry, not a crash
  }
  Value decoded = quillon::DenseCoder::objectWithData(encoded);
  auto* again = decoded.objectAs<quillon::QuillonCacheItem>();
  if (!again) std::abort();
  if (!(again->attributes() == item->attributes()) || !(again->relations() == item->relations()) ||
      !(again->data() == item->data())) {
    std::abort();
  }
  quillon::DenseCoder::breakCycles(decoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const quillon::ManagedObjectModel& m = model();
  quillon::JSONReadOptions options;
  options.maximumDepth = quillon::kRecordFileLimits.maximumDepth;
  Value record = quillon::readJSON(std::span<const uint8_t>(data, size), nullptr, options);
  if (!record.isDictionary()) return 0;
  const Value& payload = record.get(quillon::kRecordPayloadKey);
  if (!payload.isDictionary()) return 0;
  const Value& version = record.get(quillon::kRecordVersionKey);

  for (const quillon::EntityDescription* entity : m.entities()) {
    auto item = std::make_shared<quillon::QuillonCacheItem>();
    try {
      item->updateValues(payload, *entity, quillon::Url(), version);
      item->updateValues(payload, *entity, quillon::Url(), version);
    } catch (const quillon::Exception&) {
      continue;  // an attribute type without a transformer: the load reports it
    }
    (void)item->allValuesForObjectID(nullptr, nullptr, nullptr);
    checkRoundTrip(item);
  }
  return 0;
}
