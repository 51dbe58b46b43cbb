#pragma once

#include <memory>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/value.h"
#include "quillon/graph/managed_object_context.h"

namespace quillon {

class QuillonStore;

// The context applications use with QuillonStore: saves only on the main
// thread (elsewhere save() answers true without saving), repairs damaged
// objects before writing, and refuses while no store is attached ("No file
// to save to yet"). Confined like every context.
class QuillonManagedObjectContext : public ManagedObjectContext {
 public:
  static std::shared_ptr<QuillonManagedObjectContext> create(ConcurrencyType type);
  explicit QuillonManagedObjectContext(ConcurrencyType type) : ManagedObjectContext(type) {}
  bool save(Error* error = nullptr) override;
};

// The context category, free functions on any context.
bool isMergingExternally(const ManagedObjectContext& context);
void setIsMergingExternally(const ManagedObjectContext& context, bool merging);
// Always nil.
Value device(const ManagedObjectContext& context);
// Drops the object's cached values, then refreshes it keeping its unsaved
// changes, with isMergingExternally set meanwhile.
void quillonRefreshObject(ManagedObjectContext& context, const ManagedObjectPtr& object,
                          QuillonStore* store);
// The object a URI (an URL or its text) names, or nullptr.
ManagedObjectPtr storeObjectWithURI(ManagedObjectContext& context, const Value& uri);
std::vector<ManagedObjectPtr> storeObjectsWithURIs(ManagedObjectContext& context,
                                                   const Value& uris);

}  // namespace quillon
