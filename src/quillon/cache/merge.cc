#include "quillon/cache/internal/merge.h"

#include <fmt/format.h>

#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "quillon/base/error.h"

namespace quillon {
namespace {

// The three collection families that take part in a merge. Ordered sets and
// every scalar belong to none of them and are never merged.
bool isMergeFamily(const Value& v) { return v.isDictionary() || v.isSet() || v.isArray(); }

[[noreturn]] void throwDifferentTypes(const Value& receiver, const Value& other) {
  throw Exception("MergeException",
                  fmt::format("Attempted to merge objects of different types: {}\n,\n {}",
                              receiver.description(), other.description()));
}

// Appends the members of `source` that `receiver` lacks (or all of them when
// duplicates are allowed), in `source`'s order. The receiver's own order and
// duplicates stay as they are.
void appendMembers(Value& receiver, const Value& source, bool allowDuplicateEntries) {
  // A copy of the handles: the receiver may be the source itself, and
  // appending would move the span we walk.
  std::vector<Value> incoming(source.elements().begin(), source.elements().end());
  // A set keeps each member once by itself.
  if (allowDuplicateEntries || receiver.isSet()) {
    for (Value& v : incoming) receiver.append(std::move(v));
    return;
  }
  std::unordered_set<Value, ValueHash> present(receiver.elements().begin(),
                                               receiver.elements().end());
  for (Value& v : incoming) {
    if (present.insert(v).second) receiver.append(std::move(v));
  }
}

}  // namespace

bool canMergeWithObj(const Value& receiver, const Value& other) {
  if (receiver.isDictionary()) return other.isDictionary();
  if (receiver.isSet() || receiver.isArray()) return other.isSet() || other.isArray();
  return false;
}

bool isMutableObj(const Value& receiver) { return isMergeFamily(receiver) && receiver.isMutable(); }

bool Merge::mergeObj(const Value& a, const Value& b, Value* result) {
  Value target;
  Value other;
  if (canMergeWithObj(a, b) && isMutableObj(a)) {
    target = a;
    other = b;
  } else if (canMergeWithObj(b, a) && isMutableObj(b)) {
    target = b;
    other = a;
  } else if (canMergeWithObj(a, b)) {
    // A mutable copy of a collection is of the same family, so it accepts
    // exactly what the original does.
    target = a.mutableCopy();
    other = b;
  } else if (canMergeWithObj(b, a)) {
    target = b.mutableCopy();
    other = a;
  } else {
    return false;
  }
  mergeWithObj(target, other);
  if (result) *result = std::move(target);
  return true;
}

void mergeWithObj(Value& receiver, const Value& other) {
  if (receiver.isDictionary()) {
    mergeWithDictionary(receiver, other);
  } else if (receiver.isSet()) {
    if (other.isSet()) {
      mergeWithSet(receiver, other);
    } else if (other.isArray()) {
      mergeWithArray(receiver, other);
    } else {
      throwDifferentTypes(receiver, other);
    }
  } else if (receiver.isArray()) {
    if (other.isArray()) {
      mergeWithArray(receiver, other, false);
    } else if (other.isSet()) {
      mergeWithSet(receiver, other, false);
    } else {
      throwDifferentTypes(receiver, other);
    }
  } else {
    // Nothing outside the three families can receive a merge.
    throwDifferentTypes(receiver, other);
  }
}

void mergeWithDictionary(Value& receiver, const Value& dictionary) {
  // Anything but a dictionary adds nothing: callers hand in sections of
  // change files, which other computers may have filled with anything.
  if (!dictionary.isDictionary() || !receiver.isDictionary()) return;
  std::vector<Value::Entry> entries(dictionary.items().begin(), dictionary.items().end());
  for (auto& [key, value] : entries) {
    const Value* mine = receiver.find(key);
    if (!mine) {
      receiver.set(key, value);
      continue;
    }
    Value merged;
    if (Merge::mergeObj(*mine, value, &merged)) receiver.set(key, std::move(merged));
  }
}

void mergeWithSet(Value& receiver, const Value& set) {
  if (!set.isSequence()) return;
  appendMembers(receiver, set, false);
}

void mergeWithArray(Value& receiver, const Value& array) {
  if (!array.isSequence()) return;
  appendMembers(receiver, array, true);
}

void mergeWithArray(Value& receiver, const Value& array, bool allowDuplicateEntries) {
  if (!array.isSequence()) return;
  appendMembers(receiver, array, allowDuplicateEntries);
}

void mergeWithSet(Value& receiver, const Value& set, bool allowDuplicateEntries) {
  if (!set.isSequence()) return;
  appendMembers(receiver, set, allowDuplicateEntries);
}

Value mergeMutableCopyWithDictionary(const Value& dictionary, const Value& other) {
  if (!dictionary.isDictionary()) return Value();
  Value copy = dictionary.mutableCopy();
  mergeWithDictionary(copy, other);
  return copy;
}

}  // namespace quillon
