#pragma once

#include <span>
#include <string>
#include <vector>

#include "quillon/base/value.h"
#include "quillon/graph/key_value_coding.h"

namespace quillon {

// One key of a sort order: a key path, a direction and how its values
// compare (compareValues(), optionally ignoring case). A value type; any
// thread.
class SortDescriptor {
 public:
  enum class Comparison { Compare, CaseInsensitiveCompare };

  explicit SortDescriptor(std::string keyPath, bool ascending = true,
                          Comparison comparison = Comparison::Compare);

  const std::string& key() const { return keyPath_.string(); }
  bool ascending() const { return ascending_; }
  Comparison comparison() const { return comparison_; }
  SortDescriptor reversed() const;

  // -1, 0 or 1: the order of a before b under this descriptor.
  int compareObjects(const Value& a, const Value& b) const;
  // Compares values already taken from the key path.
  int compareKeys(const Value& a, const Value& b) const;

  // Stable sort by the descriptors in order. Each value's keys are taken once,
  // not once per comparison.
  static void sortValues(std::vector<Value>& values, std::span<const SortDescriptor> descriptors);

 private:
  KeyPath keyPath_;
  bool ascending_;
  Comparison comparison_;
};

}  // namespace quillon
