#include "support/store_stack.h"

namespace quillon {

// PENDING
StoreStack::StoreStack(const std::string&, Value, std::string) {}
// PENDING
StoreStack::~StoreStack() = default;
// PENDING
bool StoreStack::waitUntilReady(double) { return false; }
// PENDING
bool StoreStack::saveAndWait(Error*) { return false; }
// PENDING
void StoreStack::close() {}

// PENDING
ScopedCacheHome::ScopedCacheHome(std::string folder) : previous_(std::move(folder)) {}
// PENDING
ScopedCacheHome::~ScopedCacheHome() = default;

}  // namespace quillon
