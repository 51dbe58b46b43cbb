#include "quillon/coding/internal/dc_ns_coding.h"

#include <deque>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace quillon {
namespace {

struct Registry {
  std::shared_mutex mutex;
  std::unordered_map<std::string, const DCNSCoding::Factory*> byName;
  std::deque<DCNSCoding::Factory> factories;  // never shrinks: pointers stay valid
};

Registry& registry() {
  static Registry* r = new Registry();
  return *r;
}

}  // namespace

void DCNSCoding::registerClass(std::string className, Factory factory) {
  Registry& r = registry();
  std::unique_lock lock(r.mutex);
  r.factories.push_back(std::move(factory));
  r.byName[std::move(className)] = &r.factories.back();
}

const DCNSCoding::Factory* DCNSCoding::factoryForClass(std::string_view className) {
  Registry& r = registry();
  std::shared_lock lock(r.mutex);
  auto it = r.byName.find(std::string(className));
  return it == r.byName.end() ? nullptr : it->second;
}

}  // namespace quillon
