#include "quillon/graph/sort_descriptor.h"

#include <algorithm>
#include <numeric>

namespace quillon {

SortDescriptor::SortDescriptor(std::string keyPath, bool ascending, Comparison comparison)
    : keyPath_(keyPath), ascending_(ascending), comparison_(comparison) {}

SortDescriptor SortDescriptor::reversed() const {
  return SortDescriptor(keyPath_.string(), !ascending_, comparison_);
}

int SortDescriptor::compareKeys(const Value& a, const Value& b) const {
  int order = compareValues(a, b, comparison_ == Comparison::CaseInsensitiveCompare);
  return ascending_ ? order : -order;
}

int SortDescriptor::compareObjects(const Value& a, const Value& b) const {
  Value aStorage, bStorage;
  return compareKeys(keyPath_.resolve(a, &aStorage), keyPath_.resolve(b, &bStorage));
}

void SortDescriptor::sortValues(std::vector<Value>& values,
                                std::span<const SortDescriptor> descriptors) {
  if (descriptors.empty() || values.size() < 2) return;
  const size_t n = values.size(), width = descriptors.size();
  // keys[i * width + d] is value i's key for descriptor d.
  std::vector<Value> keys(n * width);
  for (size_t i = 0; i < n; ++i) {
    for (size_t d = 0; d < width; ++d) {
      Value storage;
      keys[i * width + d] = descriptors[d].keyPath_.resolve(values[i], &storage);
    }
  }
  std::vector<uint32_t> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](uint32_t x, uint32_t y) {
    const Value* kx = &keys[x * width];
    const Value* ky = &keys[y * width];
    for (size_t d = 0; d < width; ++d) {
      int c = descriptors[d].compareKeys(kx[d], ky[d]);
      if (c != 0) return c < 0;
    }
    return false;
  });
  std::vector<Value> sorted;
  sorted.reserve(n);
  for (uint32_t i : order) sorted.push_back(std::move(values[i]));
  values = std::move(sorted);
}

}  // namespace quillon
