#include "quillon/coding/internal/dc_index_set.h"

#include <fmt/format.h>

namespace quillon {

Value DCIndexSet::make(std::vector<Range> ranges, bool isMutable) {
  return Value::object(std::make_shared<DCIndexSet>(std::move(ranges), isMutable));
}

bool DCIndexSet::containsIndex(uint64_t index) const {
  for (const auto& [location, length] : ranges_) {
    if (index >= location && index - location < length) return true;
  }
  return false;
}

bool DCIndexSet::isEqual(const Object& other) const {
  auto* o = dynamic_cast<const DCIndexSet*>(&other);
  return o && o->ranges_ == ranges_;
}

size_t DCIndexSet::hash() const {
  size_t h = ranges_.size();
  for (const auto& [location, length] : ranges_) h = h * 31 + location * 7 + length;
  return h;
}

std::string DCIndexSet::description() const {
  std::string out = "<" + className() + " (";
  for (size_t i = 0; i < ranges_.size(); ++i) {
    if (i) out += ", ";
    out += fmt::format("{}-{}", ranges_[i].first, ranges_[i].second);
  }
  return out + ")>";
}

}  // namespace quillon
