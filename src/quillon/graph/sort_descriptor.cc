#include "quillon/graph/sort_descriptor.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <numeric>

#include "quillon/graph/internal/text_folding.h"

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

namespace {

// A value's key for one descriptor, prepared so that the common kinds compare
// without going through compareValues(): integers and floats directly,
// strings as bytes (folded once when the comparison ignores case). `value`
// points into the sorted value's tree, or at a value an object computed.
struct SortKey {
  enum class Class : uint8_t { None, Integer, Double, String, Other };
  const Value* value = nullptr;
  std::string_view text;
  union {
    int64_t integer;
    double real;
  };
  Class cls = Class::Other;
  size_t foldedLength = 0;  // case-folded strings, until the text is placed
};

int threeWay(auto a, auto b) { return a < b ? -1 : (a > b ? 1 : 0); }

int compareSortKeys(const SortKey& a, const SortKey& b, bool caseInsensitive) {
  if (a.cls == b.cls) {
    switch (a.cls) {
      case SortKey::Class::None:
        return 0;
      case SortKey::Class::Integer:
        return threeWay(a.integer, b.integer);
      case SortKey::Class::Double:
        return threeWay(a.real, b.real);
      case SortKey::Class::String:
        return threeWay(a.text.compare(b.text), 0);
      case SortKey::Class::Other:
        break;
    }
  }
  return compareValues(*a.value, *b.value, caseInsensitive);
}

}  // namespace

void SortDescriptor::sortValues(std::vector<Value>& values,
                                std::span<const SortDescriptor> descriptors) {
  if (descriptors.empty() || values.size() < 2) return;
  const size_t n = values.size(), width = descriptors.size();
  // keys[i * width + d] is value i's key for descriptor d. Case-folded
  // strings go one after another into `folded`; their keys hold the offset
  // (in `integer`) until it stops growing. Values that objects compute for a
  // key live in `computed`, which never moves them.
  std::vector<SortKey> keys(n * width);
  std::string folded;
  std::deque<Value> computed;
  std::vector<bool> caseInsensitive(width);
  for (size_t d = 0; d < width; ++d) {
    caseInsensitive[d] = descriptors[d].comparison_ == Comparison::CaseInsensitiveCompare;
  }
  bool anyFolded = false;
  for (size_t i = 0; i < n; ++i) {
    for (size_t d = 0; d < width; ++d) {
      Value storage;
      SortKey& key = keys[i * width + d];
      const Value* v = &descriptors[d].keyPath_.resolve(values[i], &storage);
      if (v == &storage) v = &computed.emplace_back(std::move(storage));
      key.value = v;
      if (v->isNil() || v->isNull()) {
        key.cls = SortKey::Class::None;
      } else if (v->isInteger()) {
        key.cls = SortKey::Class::Integer;
        key.integer = v->intValue();
      } else if (v->isFloat() && !std::isnan(v->doubleValue())) {
        key.cls = SortKey::Class::Double;
        key.real = v->doubleValue();
      } else if (v->isString()) {
        key.cls = SortKey::Class::String;
        if (caseInsensitive[d]) {
          size_t offset = folded.size();
          appendFoldedUtf8(v->str(), FoldOptions{true, false}, &folded);
          key.integer = static_cast<int64_t>(offset);
          key.foldedLength = folded.size() - offset;
          anyFolded = true;
        } else {
          key.text = v->str();
        }
      }
    }
  }
  if (anyFolded) {
    for (size_t k = 0; k < keys.size(); ++k) {
      SortKey& key = keys[k];
      if (key.cls == SortKey::Class::String && caseInsensitive[k % width]) {
        key.text = std::string_view(folded).substr(static_cast<size_t>(key.integer),
                                                   key.foldedLength);
      }
    }
  }
  // The first descriptor's key also goes into an 8-byte prefix that orders
  // like the key itself (the first bytes of a string, big-endian; an integer
  // with its sign bit flipped), so most comparisons never touch `keys`.
  // Values with equal prefixes, or a column of mixed kinds, compare in full.
  SortKey::Class firstClass = keys[0].cls;
  for (size_t i = 1; i < n && firstClass != SortKey::Class::Other; ++i) {
    if (keys[i * width].cls != firstClass) firstClass = SortKey::Class::Other;
  }
  struct Entry {
    uint64_t prefix;
    uint32_t index;
  };
  std::vector<Entry> order(n);
  for (size_t i = 0; i < n; ++i) {
    const SortKey& key = keys[i * width];
    uint64_t prefix = 0;
    if (firstClass == SortKey::Class::String) {
      for (size_t b = 0; b < 8; ++b) {
        prefix = (prefix << 8) | (b < key.text.size() ? static_cast<uint8_t>(key.text[b]) : 0);
      }
    } else if (firstClass == SortKey::Class::Integer) {
      prefix = static_cast<uint64_t>(key.integer) ^ (uint64_t{1} << 63);
    }
    order[i] = Entry{prefix, static_cast<uint32_t>(i)};
  }
  const bool firstAscending = descriptors[0].ascending_;
  std::stable_sort(order.begin(), order.end(), [&](const Entry& x, const Entry& y) {
    if (x.prefix != y.prefix) return firstAscending ? x.prefix < y.prefix : x.prefix > y.prefix;
    const SortKey* kx = &keys[x.index * width];
    const SortKey* ky = &keys[y.index * width];
    for (size_t d = 0; d < width; ++d) {
      int c = compareSortKeys(kx[d], ky[d], caseInsensitive[d]);
      if (c != 0) return descriptors[d].ascending_ ? c < 0 : c > 0;
    }
    return false;
  });
  std::vector<Value> sorted;
  sorted.reserve(n);
  for (const Entry& e : order) sorted.push_back(std::move(values[e.index]));
  values = std::move(sorted);
}

}  // namespace quillon
