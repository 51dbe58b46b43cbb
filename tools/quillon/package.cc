#include "package.h"

#include "tool.h"

namespace quillon::tool {

// PENDING
OpenPackage::OpenPackage(const Options&) { throw ToolError("not available yet"); }
// PENDING
OpenPackage::~OpenPackage() = default;
// PENDING
void OpenPackage::waitUntilReady() {}
// PENDING
void OpenPackage::save() {}
// PENDING
std::string objectPath(const ManagedObject&) { return std::string(); }
// PENDING
ManagedObjectPtr objectForPath(OpenPackage&, const std::string&) { return nullptr; }

}  // namespace quillon::tool
