#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "quillon/base/value.h"

namespace quillon {

// A set of unsigned indexes stored as (location, length) ranges, carried in a
// Value; the mutable flag decides the binary form (mutable index sets enter
// the object table before their ranges, immutable ones after). Owned through
// the Value; not synchronised, like the containers of Value.
class DCIndexSet final : public Object {
 public:
  using Range = std::pair<uint32_t, uint32_t>;  // location, length

  explicit DCIndexSet(std::vector<Range> ranges = {}, bool isMutable = false)
      : ranges_(std::move(ranges)), mutable_(isMutable) {}
  static Value make(std::vector<Range> ranges, bool isMutable = false);

  const std::vector<Range>& ranges() const { return ranges_; }
  std::vector<Range>& ranges() { return ranges_; }
  bool isMutable() const { return mutable_; }
  bool containsIndex(uint64_t index) const;

  std::string className() const override {
    return mutable_ ? "NSMutableIndexSet" : "NSIndexSet";
  }
  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  std::string description() const override;

 private:
  std::vector<Range> ranges_;
  bool mutable_;
};

}  // namespace quillon
