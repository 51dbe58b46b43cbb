#include "package.h"
#include "tool.h"

namespace quillon::tool {

Value jsonForProperty(ManagedObject&, const PropertyDescription&) {
  // PENDING
  return Value();
}

Value jsonForObject(ManagedObject&) {
  // PENDING
  return Value();
}

void setValuesFromJSON(OpenPackage&, ManagedObject&, const Value&) {
  // PENDING
  throw ToolError("not available yet");
}

}  // namespace quillon::tool
