#pragma once

#include "quillon/base/value.h"

namespace quillon {

// A recursive merge of property-list-like values: keys are united; where both
// sides hold a value, collections of the same family (dictionaries; sets and
// arrays) are merged recursively and for anything else the target keeps its
// value. Mutability is the Value's mutable flag: immutable collections are
// never changed, a merged mutable copy replaces them. Stateless; callers own
// the values they merge.
class Merge {
 public:
  // Picks the target (A when it is a mutable collection that accepts B, else
  // B the same way, else a mutable copy of A, else of B), merges the other
  // into it and answers it in *result. False when the two cannot be merged.
  static bool mergeObj(const Value& a, const Value& b, Value* result);
};

// The protocol, by the receiver's kind: a dictionary accepts dictionaries,
// a set or an array accepts sets and arrays.
bool canMergeWithObj(const Value& receiver, const Value& other);
bool isMutableObj(const Value& receiver);
// Merges `other` into the mutable `receiver`. Sets and arrays raise
// Exception "MergeException" for an argument of another family.
void mergeWithObj(Value& receiver, const Value& other);
void mergeWithDictionary(Value& receiver, const Value& dictionary);
void mergeWithSet(Value& receiver, const Value& set);
void mergeWithArray(Value& receiver, const Value& array);
void mergeWithArray(Value& receiver, const Value& array, bool allowDuplicateEntries);
void mergeWithSet(Value& receiver, const Value& set, bool allowDuplicateEntries);
// A mutable copy of `dictionary` with `other` merged in; the receiver stays.
Value mergeMutableCopyWithDictionary(const Value& dictionary, const Value& other);

}  // namespace quillon
