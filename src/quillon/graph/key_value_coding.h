#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/value.h"

namespace quillon {

// The value at a dotted key path: dictionaries answer their entry,
// quillon::Object subclasses answer Object::valueForKey (managed objects fire
// their fault there), sequences map the rest of the path over their elements;
// "@count", "@sum", "@avg", "@min", "@max" collection operators; "self"/"SELF".
// Anything unanswerable is nil — never a crash.
Value valueForKeyPath(const Value& object, std::string_view keyPath);

// Orders two values: numbers by value across kinds, strings by UTF-8 code
// points (or case-insensitively), dates, nil/null first. -1, 0, 1. Values of
// kinds that have no common order are ordered by kind, so sorting a mixed
// collection is still a strict weak order.
int compareValues(const Value& a, const Value& b, bool caseInsensitive = false);

// A key path split once into its keys, for evaluating the same path against
// many objects without parsing it again. Mapping over a sequence keeps the
// sequence's kind (an array gives an array with null for missing values, a set
// a set without them); when the rest of the path crosses another to-many
// relationship the results are flattened into one collection, so that
// "folders.notes.title" gives every title. Immutable; any thread.
class KeyPath {
 public:
  KeyPath() = default;  // the object itself
  explicit KeyPath(std::string_view path);

  const std::string& string() const { return path_; }
  bool isSelf() const;

  // The value at the path. The answer refers into `object`'s tree or into
  // *storage, so it stays valid while both live unchanged; dictionaries and
  // GenericObjects are walked without copying anything.
  const Value& resolve(const Value& object, Value* storage) const;
  Value evaluate(const Value& object) const;

 private:
  enum class Op : uint8_t { Key, Self, Count, Sum, Avg, Min, Max, Unknown };
  struct Component {
    Component(Op o, std::string k) : op(o), key(std::move(k)) {}
    Component(const Component& other)
        : op(other.op), key(other.key), hint(other.hint.load(std::memory_order_relaxed)) {}
    Component& operator=(const Component& other) {
      op = other.op;
      key = other.key;
      hint.store(other.hint.load(std::memory_order_relaxed), std::memory_order_relaxed);
      return *this;
    }
    Op op;
    std::string key;
    // Where the key was last found in a small dictionary; only a hint, so
    // relaxed updates from several threads are fine.
    mutable std::atomic<uint32_t> hint{0};
  };

  static const Value* lookUp(const Value& container, const Component& component, Value* storage);

  const Value& resolveFrom(const Value& start, size_t index, Value* storage, bool* mapped) const;
  Value mapSequence(const Value& sequence, size_t index) const;
  Value aggregate(Op op, const Value& collection, size_t restIndex) const;

  std::string path_;
  std::vector<Component> components_;
  // One plain key: the common path, resolved without the general walk.
  bool singleKey_ = false;
};

}  // namespace quillon
