#include <string>

#include "quillon/store/store.h"

namespace quillon {

// PENDING
Value QuillonStore::validatedChanges(const Value&, bool) { return Value(); }
// PENDING
Value QuillonStore::combineChangeDictionary(const Value&, const Value&) { return Value(); }
// PENDING
std::string QuillonStore::shortURL(const Url&) const { return {}; }

}  // namespace quillon
