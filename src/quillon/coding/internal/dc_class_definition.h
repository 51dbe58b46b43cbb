#pragma once

#include <string>
#include <vector>

namespace quillon {

// The shape of a class as DenseCoding data records it once per run: its name
// and the property keys whose values follow every instance, in this order.
// A plain value owned by the coder or decoder of one run.
struct DCClassDefinition {
  std::string className;
  std::vector<std::string> propertyKeys;
};

}  // namespace quillon
