#include "quillon/store/managed_object_context.h"

namespace quillon {

// PENDING
std::shared_ptr<QuillonManagedObjectContext> QuillonManagedObjectContext::create(
    ConcurrencyType type) {
  return std::make_shared<QuillonManagedObjectContext>(type);
}
// PENDING
bool QuillonManagedObjectContext::save(Error*) { return false; }
// PENDING
bool isMergingExternally(const ManagedObjectContext&) { return false; }
// PENDING
void setIsMergingExternally(const ManagedObjectContext&, bool) {}
// PENDING
Value device(const ManagedObjectContext&) { return Value(); }
// PENDING
void quillonRefreshObject(ManagedObjectContext&, const ManagedObjectPtr&, QuillonStore*) {}
// PENDING
ManagedObjectPtr storeObjectWithURI(ManagedObjectContext&, const Value&) { return nullptr; }
// PENDING
std::vector<ManagedObjectPtr> storeObjectsWithURIs(ManagedObjectContext&, const Value&) {
  return {};
}

}  // namespace quillon
