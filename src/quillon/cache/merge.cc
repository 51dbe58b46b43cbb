#include "quillon/cache/merge.h"

namespace quillon {

// PENDING
bool Merge::mergeObj(const Value&, const Value&, Value*) { return false; }
// PENDING
bool canMergeWithObj(const Value&, const Value&) { return false; }
// PENDING
bool isMutableObj(const Value&) { return false; }
// PENDING
void mergeWithObj(Value&, const Value&) {}
// PENDING
void mergeWithDictionary(Value&, const Value&) {}
// PENDING
void mergeWithSet(Value&, const Value&) {}
// PENDING
void mergeWithArray(Value&, const Value&) {}
// PENDING
void mergeWithArray(Value&, const Value&, bool) {}
// PENDING
void mergeWithSet(Value&, const Value&, bool) {}
// PENDING
Value mergeMutableCopyWithDictionary(const Value&, const Value&) { return Value(); }

}  // namespace quillon
