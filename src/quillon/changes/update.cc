// Applying other computers' changes to an open document.

#include <functional>
#include <vector>

#include "quillon/store/store.h"

namespace quillon {

// PENDING
void QuillonStore::updateChanges() {}

// PENDING
void QuillonStore::updateChangesWithCompletion(std::function<void(bool success)> completion) {
  (void)completion;
}

// PENDING
void QuillonStore::refreshInsertedObjects(const Value& inserts, const Value& updates,
                                          const Value& deletes) {
  (void)inserts;
  (void)updates;
  (void)deletes;
}

// PENDING
void QuillonStore::processChanges() {}

// PENDING
void QuillonStore::discardChangeFromMenu(const Url& changeURL) { (void)changeURL; }

// PENDING
void QuillonStore::insertChangeFromMenu(const Url& changeURL) { (void)changeURL; }

// PENDING
void QuillonStore::showInFinder(const Url& url) { (void)url; }

}  // namespace quillon
