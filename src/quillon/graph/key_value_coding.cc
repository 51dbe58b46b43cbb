#include "quillon/graph/key_value_coding.h"

#include <atomic>
#include <cmath>
#include <cstring>
#include <typeinfo>

#include "quillon/graph/internal/text_folding.h"

namespace quillon {
namespace {

const Value& nilValue() {
  static const Value* nil = new Value();
  return *nil;
}

bool isIntegral(const Value& v) { return v.isInteger() || v.isBool(); }

int sign(double d) { return d < 0 ? -1 : (d > 0 ? 1 : 0); }

// Exact comparison of an integer with a double; NaN sorts first.
int compareIntDouble(int64_t i, double d) {
  if (std::isnan(d)) return 1;
  if (d >= 9223372036854775808.0) return -1;
  if (d < -9223372036854775808.0) return 1;
  double floor = std::floor(d);
  auto di = static_cast<int64_t>(floor);
  if (i < di) return -1;
  if (i > di) return 1;
  return floor == d ? 0 : -1;
}

int compareNumbers(const Value& a, const Value& b) {
  if (isIntegral(a) && isIntegral(b)) {
    int64_t x = a.intValue(), y = b.intValue();
    return x < y ? -1 : (x > y ? 1 : 0);
  }
  if (a.isDecimal() || b.isDecimal()) {
    if (a.isDecimal() && b.isDecimal()) return a.decimalValue().compare(b.decimalValue());
    if (a.isDecimal() && isIntegral(b)) {
      return a.decimalValue().compare(Decimal::fromInteger(b.intValue()));
    }
    if (b.isDecimal() && isIntegral(a)) {
      return Decimal::fromInteger(a.intValue()).compare(b.decimalValue());
    }
  }
  if (isIntegral(a)) return compareIntDouble(a.intValue(), b.doubleValue());
  if (isIntegral(b)) return -compareIntDouble(b.intValue(), a.doubleValue());
  double x = a.doubleValue(), y = b.doubleValue();
  if (std::isnan(x) || std::isnan(y)) return std::isnan(x) ? (std::isnan(y) ? 0 : -1) : 1;
  return sign(x - y);
}

int compareBytes(std::span<const uint8_t> a, std::span<const uint8_t> b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

// Equality of two short keys without a call to memcmp: keys are mostly a few
// bytes long, read here as two overlapping words.
inline bool sameKey(std::string_view a, std::string_view b) {
  const size_t n = a.size();
  if (n != b.size()) return false;
  const char *x = a.data(), *y = b.data();
  auto same = [&]<typename Word>(Word) {
    Word x0, y0, x1, y1;
    std::memcpy(&x0, x, sizeof(Word));
    std::memcpy(&y0, y, sizeof(Word));
    std::memcpy(&x1, x + n - sizeof(Word), sizeof(Word));
    std::memcpy(&y1, y + n - sizeof(Word), sizeof(Word));
    return x0 == y0 && x1 == y1;
  };
  if (n > 16) return a == b;
  if (n >= 8) return same(uint64_t{});
  if (n >= 4) return same(uint32_t{});
  if (n >= 2) return same(uint16_t{});
  return n == 0 || *x == *y;
}

// Dictionaries up to this size are scanned rather than hashed.
constexpr size_t kScanLimit = 8;

// The entry for `key` in a dictionary, nil when absent. Small dictionaries are
// scanned starting at *hint, the position where the key was found last time:
// objects of one entity keep their keys in the same order, so the first probe
// usually hits and no hash is computed.
const Value* findEntry(const Value& dictionary, std::string_view key, std::atomic<uint32_t>* hint) {
  std::span<const Value::Entry> items = dictionary.items();
  if (items.size() > kScanLimit) {
    const Value* v = dictionary.find(key);
    return v ? v : &nilValue();
  }
  uint32_t start = hint->load(std::memory_order_relaxed);
  for (size_t k = 0; k < items.size(); ++k) {
    size_t i = (start + k) % items.size();
    const Value& candidate = items[i].first;
    if (candidate.isString() && sameKey(candidate.str(), key)) {
      if (i != start) hint->store(static_cast<uint32_t>(i), std::memory_order_relaxed);
      return &items[i].second;
    }
  }
  return &nilValue();
}

}  // namespace

// The entry for a key of a dictionary or an object. An object that answers
// through valueForKey leaves its answer in *storage.
const Value* KeyPath::lookUp(const Value& container, const Component& component, Value* storage) {
  if (container.isDictionary()) return findEntry(container, component.key, &component.hint);
  if (container.isObject()) {
    Object* object = container.objectValue().get();
    if (!object) return &nilValue();
    if (typeid(*object) == typeid(GenericObject)) {
      return findEntry(static_cast<GenericObject*>(object)->properties(), component.key,
                       &component.hint);
    }
    Value v = object->valueForKey(component.key);
    *storage = std::move(v);
    return storage;
  }
  return &nilValue();
}

Value valueForKeyPath(const Value& object, std::string_view keyPath) {
  return KeyPath(keyPath).evaluate(object);
}

int compareValues(const Value& a, const Value& b, bool caseInsensitive) {
  bool aNone = a.isNil() || a.isNull(), bNone = b.isNil() || b.isNull();
  if (aNone || bNone) return aNone == bNone ? 0 : (aNone ? -1 : 1);
  if (a.isString() && b.isString()) {
    return compareFolded(a.str(), b.str(), FoldOptions{caseInsensitive, false});
  }
  if (a.isNumber() && b.isNumber()) return compareNumbers(a, b);
  if (a.kind() != b.kind()) return a.kind() < b.kind() ? -1 : 1;
  switch (a.kind()) {
    case Value::Kind::Date:
      return sign(a.dateValue() - b.dateValue());
    case Value::Kind::Data:
      return compareBytes(a.bytes(), b.bytes());
    case Value::Kind::Url:
      return compareFolded(a.urlValue().absoluteString(), b.urlValue().absoluteString(), {});
    default:
      return 0;
  }
}

KeyPath::KeyPath(std::string_view path) : path_(path) {
  if (path.empty()) return;
  size_t start = 0;
  for (;;) {
    size_t dot = path.find('.', start);
    std::string_view part =
        path.substr(start, dot == std::string_view::npos ? path.npos : dot - start);
    Component c{Op::Key, std::string(part)};
    if (part == "self" || part == "SELF") {
      c.op = Op::Self;
    } else if (!part.empty() && part[0] == '@') {
      if (part == "@count")
        c.op = Op::Count;
      else if (part == "@sum")
        c.op = Op::Sum;
      else if (part == "@avg")
        c.op = Op::Avg;
      else if (part == "@min")
        c.op = Op::Min;
      else if (part == "@max")
        c.op = Op::Max;
      else
        c.op = Op::Unknown;
    }
    components_.push_back(std::move(c));
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  singleKey_ = components_.size() == 1 && components_[0].op == Op::Key;
}

bool KeyPath::isSelf() const {
  for (const auto& c : components_) {
    if (c.op != Op::Self) return false;
  }
  return true;
}

Value KeyPath::evaluate(const Value& object) const {
  Value storage;
  return resolve(object, &storage);
}

const Value& KeyPath::resolve(const Value& object, Value* storage) const {
  if (singleKey_ && !object.isSequence()) return *lookUp(object, components_[0], storage);
  bool mapped = false;
  return resolveFrom(object, 0, storage, &mapped);
}

const Value& KeyPath::resolveFrom(const Value& start, size_t index, Value* storage,
                                  bool* mapped) const {
  const Value* current = &start;
  for (size_t i = index; i < components_.size(); ++i) {
    const Component& c = components_[i];
    switch (c.op) {
      case Op::Self:
        break;
      case Op::Key:
        if (current->isSequence()) {
          *storage = mapSequence(*current, i);
          *mapped = true;
          return *storage;
        }
        current = lookUp(*current, c, storage);
        break;
      case Op::Count:
        if (!current->isContainer()) return nilValue();
        *storage = Value::integer(static_cast<int64_t>(current->size()));
        current = storage;
        break;
      case Op::Sum:
      case Op::Avg:
      case Op::Min:
      case Op::Max:
        *storage = aggregate(c.op, *current, i + 1);
        return *storage;
      case Op::Unknown:
        return nilValue();
    }
  }
  return *current;
}

Value KeyPath::mapSequence(const Value& sequence, size_t index) const {
  bool keepNils = sequence.isArray();
  Value result = sequence.isArray() ? Value::array()
                 : sequence.isSet() ? Value::set()
                                    : Value::orderedSet();
  result.reserve(sequence.size());
  for (const Value& element : sequence.elements()) {
    Value storage;
    bool mapped = false;
    const Value& v = resolveFrom(element, index, &storage, &mapped);
    if (mapped && v.isSequence()) {
      for (const Value& inner : v.elements()) {
        if (keepNils || !inner.isNull()) result.append(inner);
      }
    } else if (v.isNil() || v.isNull()) {
      if (keepNils) result.append(Value::null());
    } else {
      result.append(v);
    }
  }
  return result;
}

Value KeyPath::aggregate(Op op, const Value& collection, size_t restIndex) const {
  if (!collection.isContainer()) return Value();
  std::vector<Value> dictionaryValues;
  std::span<const Value> elements;
  if (collection.isDictionary()) {
    for (const auto& entry : collection.items()) dictionaryValues.push_back(entry.second);
    elements = dictionaryValues;
  } else {
    elements = collection.elements();
  }
  int64_t intSum = 0;
  double doubleSum = 0;
  bool integral = true;
  size_t count = 0;
  Value best;
  for (const Value& element : elements) {
    Value storage;
    bool mapped = false;
    const Value& v = resolveFrom(element, restIndex, &storage, &mapped);
    if (v.isNil() || v.isNull()) continue;
    if (op == Op::Min || op == Op::Max) {
      int order = best.isNil() ? 0 : compareValues(v, best);
      if (best.isNil() || (op == Op::Min ? order < 0 : order > 0)) best = v;
      continue;
    }
    if (!v.isNumber()) continue;
    ++count;
    doubleSum += v.doubleValue();
    if (integral && isIntegral(v) && !__builtin_add_overflow(intSum, v.intValue(), &intSum)) {
      continue;
    }
    integral = false;
  }
  switch (op) {
    case Op::Sum:
      return integral ? Value::integer(intSum) : Value::float64(doubleSum);
    case Op::Avg:
      return count == 0 ? Value() : Value::float64(doubleSum / static_cast<double>(count));
    default:
      return best;
  }
}

}  // namespace quillon
