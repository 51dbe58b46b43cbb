#include "quillon/coding/internal/dense_coder.h"

#include <fmt/format.h>

#include <unordered_set>

#include "quillon/base/error.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/coding/internal/dc_ns_coder.h"
#include "quillon/coding/internal/dc_ns_decoder.h"
#include "quillon/coding/internal/dense_format.h"

namespace quillon {
namespace {

thread_local std::string lastReason;

void logReason(std::string reason) {
  systemLog(reason);
  lastReason = std::move(reason);
}

Value decode(std::span<const uint8_t> data, DCNSDecoder::Readers readers,
             DenseCoder::Objects objects) {
  lastReason.clear();
  if (data.size() < 8 || dense::load<uint32_t>(data.data()) != dense::kIdentifier) {
    return Value();
  }
  uint16_t major = dense::load<uint16_t>(data.data() + 4);
  uint16_t minor = dense::load<uint16_t>(data.data() + 6);
  if ((major & ~1u) != 2) {
    logReason(fmt::format(
        "This version of the DenseCoding library doesn't support DenseCoding version {}.{} files",
        major, minor));
    return Value();
  }
  DCNSDecoder decoder(data, readers);
  decoder.setMakesRegisteredObjects(objects == DenseCoder::Objects::kRegisteredClasses);
  if (major == 2) return decoder.decodeRootObject();  // failures reach the caller
  try {
    return decoder.decodeRootObject();
  } catch (const Exception& e) {
    logReason(e.reason());
  } catch (const std::exception& e) {
    logReason(e.what());
  }
  return Value();
}

}  // namespace

Value DenseCoder::dataWithRootObject(const Value& rootObject) {
  if (rootObject.isNil()) return Value();
  return Value::data(encode(rootObject));
}

std::vector<uint8_t> DenseCoder::encode(const Value& rootObject) {
  DCNSCoder coder(rootObject);
  return coder.encodeRootObject();
}

Value DenseCoder::objectWithData(std::span<const uint8_t> data, Objects objects) {
  return decode(data, DCNSDecoder::Readers::Full, objects);
}

Value DenseCoder::propertyListWithData(std::span<const uint8_t> data) {
  return decode(data, DCNSDecoder::Readers::PropertyList, Objects::kRegisteredClasses);
}

std::string DenseCoder::lastLoggedReason() { return lastReason; }

std::vector<Value> DenseCoder::reachableContainers(const Value& root) {
  std::vector<Value> containers;
  std::unordered_set<const void*> seen;
  std::vector<Value> pending{root};
  while (!pending.empty()) {
    Value v = std::move(pending.back());
    pending.pop_back();
    if (v.isObject()) {
      const Object* object = v.objectValue().get();
      if (!seen.insert(object).second) continue;
      object->forEachValue([&](const Value& held) { pending.push_back(held); });
      continue;
    }
    if (!v.isContainer() || !seen.insert(v.identity()).second) continue;
    if (v.isDictionary()) {
      for (const auto& [k, val] : v.items()) {
        pending.push_back(k);
        pending.push_back(val);
      }
    } else {
      for (const auto& e : v.elements()) pending.push_back(e);
    }
    containers.push_back(std::move(v));
  }
  return containers;
}

void DenseCoder::breakCycles(const Value& root) {
  // Collect first, then clear: clearing while walking would drop nodes that
  // the walk still refers to.
  for (Value& c : reachableContainers(root)) c.clear();
}

}  // namespace quillon
