#include "quillon/base/value.h"

#include <atomic>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace quillon {
namespace detail {

// The shared part of a heap-kind Value. One allocation per node; the element
// storage of containers is a second one.
struct Node {
  std::atomic<uint32_t> refs{1};
  bool isMutable = false;
  virtual ~Node() = default;
};

struct DecimalNode final : Node {
  Decimal value;
};
struct StringNode final : Node {
  std::string value;
};
struct DataNode final : Node {
  std::vector<uint8_t> value;
};
struct UrlNode final : Node {
  Url value;
};
struct ObjectNode final : Node {
  std::shared_ptr<Object> value;
};

// Open-addressing index from element hash to position, built once a
// container grows past a few entries; small containers are scanned.
class HashIndex {
 public:
  static constexpr size_t kThreshold = 8;

  bool active() const { return !slots_.empty(); }
  void reset() { slots_.clear(); }

  template <typename KeyAt>
  void rebuild(size_t count, KeyAt keyAt) {
    size_t capacity = 16;
    while (capacity < count * 2 + 2) capacity <<= 1;
    slots_.assign(capacity, 0);
    for (size_t i = 0; i < count; ++i) place(keyAt(i).hash(), static_cast<uint32_t>(i));
  }

  void place(size_t h, uint32_t position) {
    size_t mask = slots_.size() - 1;
    for (size_t s = h & mask;; s = (s + 1) & mask) {
      if (slots_[s] == 0) {
        slots_[s] = position + 1;
        return;
      }
    }
  }

  // Calls match(position) on candidates until it answers true.
  template <typename Match>
  std::optional<size_t> lookup(size_t h, Match match) const {
    size_t mask = slots_.size() - 1;
    for (size_t s = h & mask;; s = (s + 1) & mask) {
      uint32_t slot = slots_[s];
      if (slot == 0) return std::nullopt;
      if (match(slot - 1)) return slot - 1;
    }
  }

  // Empties the index and sizes it for `count` positions.
  void prepare(size_t count) {
    size_t capacity = 16;
    while (capacity < count * 2 + 2) capacity <<= 1;
    slots_.assign(capacity, 0);
  }

  bool needsGrowth(size_t count) const { return count * 2 + 2 > slots_.size(); }

 private:
  std::vector<uint32_t> slots_;
};

struct SequenceNode final : Node {
  std::vector<Value> elements;
  HashIndex index;  // sets and ordered sets only

  std::optional<size_t> find(const Value& v) const {
    if (index.active()) {
      return index.lookup(v.hash(), [&](size_t i) { return elements[i] == v; });
    }
    for (size_t i = 0; i < elements.size(); ++i) {
      if (elements[i] == v) return i;
    }
    return std::nullopt;
  }
  void reindex() {
    if (elements.size() > HashIndex::kThreshold) {
      index.rebuild(elements.size(), [&](size_t i) -> const Value& { return elements[i]; });
    } else {
      index.reset();
    }
  }
  void appended() {
    if (index.active() && !index.needsGrowth(elements.size())) {
      index.place(elements.back().hash(), static_cast<uint32_t>(elements.size() - 1));
    } else if (elements.size() > HashIndex::kThreshold) {
      reindex();
    }
  }
};

struct DictionaryNode final : Node {
  std::vector<Value::Entry> entries;
  HashIndex index;

  template <typename Key>
  std::optional<size_t> find(const Key& key, size_t h) const {
    if (index.active()) {
      return index.lookup(h, [&](size_t i) { return entries[i].first == key; });
    }
    for (size_t i = 0; i < entries.size(); ++i) {
      if (entries[i].first == key) return i;
    }
    return std::nullopt;
  }
  void reindex() {
    if (entries.size() > HashIndex::kThreshold) {
      index.rebuild(entries.size(), [&](size_t i) -> const Value& { return entries[i].first; });
    } else {
      index.reset();
    }
  }
  void appended() {
    if (index.active() && !index.needsGrowth(entries.size())) {
      index.place(entries.back().first.hash(), static_cast<uint32_t>(entries.size() - 1));
    } else if (entries.size() > HashIndex::kThreshold) {
      reindex();
    }
  }
};

}  // namespace detail

using detail::DataNode;
using detail::DecimalNode;
using detail::DictionaryNode;
using detail::Node;
using detail::ObjectNode;
using detail::SequenceNode;
using detail::StringNode;
using detail::UrlNode;

namespace {

const Value& nilValue() {
  static const Value nil;
  return nil;
}

// Hash of a string's bytes, shared by string keys and string Values so that
// lookups by std::string_view find Value keys.
size_t hashString(std::string_view s) { return std::hash<std::string_view>{}(s) ^ 0x5bd1e995u; }

size_t hashNumber(double d) {
  if (d == 0) return 0;  // +0 and -0
  if (std::isnan(d)) return 0x7ff8;
  if (d >= -9.2e18 && d <= 9.2e18 && d == std::floor(d)) {
    return std::hash<int64_t>{}(static_cast<int64_t>(d));
  }
  return std::hash<double>{}(d);
}

size_t mix(size_t h, size_t v) { return h ^ (v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2)); }

// Compares an integer with a double exactly.
int compareIntDouble(int64_t i, double d) {
  if (std::isnan(d)) return 1;
  if (d >= 9223372036854775808.0) return -1;
  if (d < -9223372036854775808.0) return 1;
  double fl = std::floor(d);
  auto di = static_cast<int64_t>(fl);
  if (i < di) return -1;
  if (i > di) return 1;
  return fl == d ? 0 : -1;
}

bool numbersEqual(const Value& a, const Value& b) {
  using K = Value::Kind;
  K ka = a.kind(), kb = b.kind();
  if (ka == K::Decimal || kb == K::Decimal) {
    if (ka == K::Decimal && kb == K::Decimal) return a.decimalValue() == b.decimalValue();
    const Value& dec = ka == K::Decimal ? a : b;
    const Value& other = ka == K::Decimal ? b : a;
    if (other.kind() == K::Integer || other.kind() == K::Boolean) {
      return dec.decimalValue() == Decimal::fromInteger(other.intValue());
    }
    return dec.decimalValue().toDouble() == other.doubleValue();
  }
  bool aInt = ka == K::Integer || ka == K::Boolean;
  bool bInt = kb == K::Integer || kb == K::Boolean;
  if (aInt && bInt) return a.intValue() == b.intValue();
  if (aInt) return compareIntDouble(a.intValue(), b.doubleValue()) == 0;
  if (bInt) return compareIntDouble(b.intValue(), a.doubleValue()) == 0;
  return a.doubleValue() == b.doubleValue();
}

template <typename N>
N* makeNode(bool isMutable) {
  auto* n = new N();
  n->isMutable = isMutable;
  return n;
}

}  // namespace

Value Object::valueForKey(std::string_view) const { return Value(); }

// ---- GenericObject ---------------------------------------------------------

GenericObject::GenericObject(std::string className, Value properties)
    : className_(std::move(className)), properties_(std::make_unique<Value>(std::move(properties))) {}

const Value& GenericObject::properties() const { return *properties_; }

bool GenericObject::isEqual(const Object& other) const {
  auto* o = dynamic_cast<const GenericObject*>(&other);
  return o && o->className_ == className_ && *o->properties_ == *properties_;
}

Value GenericObject::valueForKey(std::string_view key) const { return properties_->get(key); }

size_t GenericObject::hash() const { return hashString(className_); }

std::string GenericObject::description() const {
  return "<" + className_ + " " + properties_->description() + ">";
}

// ---- Handle lifetime -------------------------------------------------------

Value::Value(const Value& other) noexcept : u_(other.u_), kind_(other.kind_) {
  if (Node* n = node()) n->refs.fetch_add(1, std::memory_order_relaxed);
}

Value::Value(Value&& other) noexcept : u_(other.u_), kind_(other.kind_) {
  other.kind_ = Kind::Nil;
  other.u_.i = 0;
}

Value& Value::operator=(const Value& other) noexcept {
  if (this != &other) {
    Value copy(other);
    *this = std::move(copy);
  }
  return *this;
}

Value& Value::operator=(Value&& other) noexcept {
  if (this != &other) {
    Node* old = node();
    u_ = other.u_;
    kind_ = other.kind_;
    other.kind_ = Kind::Nil;
    other.u_.i = 0;
    if (old && old->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete old;
  }
  return *this;
}

Value::~Value() {
  if (Node* n = node()) {
    if (n->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete n;
  }
}

// ---- Factories -------------------------------------------------------------

Value Value::null() { return Value(Kind::Null); }

Value Value::boolean(bool b) {
  Value v(Kind::Boolean);
  v.u_.b = b;
  return v;
}

Value Value::integer(int64_t i) {
  Value v(Kind::Integer);
  v.u_.i = i;
  return v;
}

Value Value::float32(float f) {
  Value v(Kind::Float32);
  v.u_.f = f;
  return v;
}

Value Value::float64(double d) {
  Value v(Kind::Float64);
  v.u_.d = d;
  return v;
}

Value Value::decimal(const Decimal& d) {
  Value v(Kind::Decimal);
  auto* n = makeNode<DecimalNode>(false);
  n->value = d;
  v.u_.n = n;
  return v;
}

Value Value::string(std::string_view s, bool isMutable) {
  Value v(Kind::String);
  auto* n = makeNode<StringNode>(isMutable);
  n->value.assign(s.data(), s.size());
  v.u_.n = n;
  return v;
}

Value Value::data(std::span<const uint8_t> bytes, bool isMutable) {
  return data(std::vector<uint8_t>(bytes.begin(), bytes.end()), isMutable);
}

Value Value::data(std::vector<uint8_t>&& bytes, bool isMutable) {
  Value v(Kind::Data);
  auto* n = makeNode<DataNode>(isMutable);
  n->value = std::move(bytes);
  v.u_.n = n;
  return v;
}

Value Value::data(std::string_view bytes, bool isMutable) {
  auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
  return data(std::vector<uint8_t>(p, p + bytes.size()), isMutable);
}

Value Value::date(double secondsSinceReferenceDate) {
  Value v(Kind::Date);
  v.u_.d = secondsSinceReferenceDate;
  return v;
}

Value Value::url(Url u) {
  Value v(Kind::Url);
  auto* n = makeNode<UrlNode>(false);
  n->value = std::move(u);
  v.u_.n = n;
  return v;
}

Value Value::array(bool isMutable) {
  Value v(Kind::Array);
  v.u_.n = makeNode<SequenceNode>(isMutable);
  return v;
}

Value Value::array(std::initializer_list<Value> elements, bool isMutable) {
  return array(std::vector<Value>(elements), isMutable);
}

Value Value::array(std::vector<Value>&& elements, bool isMutable) {
  Value v(Kind::Array);
  auto* n = makeNode<SequenceNode>(isMutable);
  n->elements = std::move(elements);
  v.u_.n = n;
  return v;
}

Value Value::dictionary(bool isMutable) {
  Value v(Kind::Dictionary);
  v.u_.n = makeNode<DictionaryNode>(isMutable);
  return v;
}

Value Value::dictionary(std::initializer_list<Entry> entries, bool isMutable) {
  Value v = dictionary(isMutable);
  for (const auto& [k, val] : entries) v.set(k, val);
  return v;
}

Value Value::dictionary(std::vector<Entry>&& entries, bool isMutable) {
  Value v(Kind::Dictionary);
  auto* n = makeNode<DictionaryNode>(isMutable);
  v.u_.n = n;
  n->entries = std::move(entries);
  auto& e = n->entries;
  bool indexed = e.size() > detail::HashIndex::kThreshold;
  if (indexed) n->index.prepare(e.size());
  size_t kept = 0;
  for (size_t i = 0; i < e.size(); ++i) {
    if (e[i].second.isNil()) continue;
    const Value& key = e[i].first;
    size_t h = indexed ? key.hash() : 0;
    std::optional<size_t> earlier;
    if (indexed) {
      earlier = n->index.lookup(h, [&](size_t j) { return e[j].first == key; });
    } else {
      bool stringKey = key.isString();
      for (size_t j = 0; j < kept; ++j) {
        // Parsers build string keys; comparing their bytes skips the
        // general cross-kind equality.
        if (stringKey && e[j].first.isString() ? e[j].first.str() == key.str()
                                              : e[j].first == key) {
          earlier = j;
          break;
        }
      }
    }
    if (earlier) {
      e[*earlier].second = std::move(e[i].second);
      continue;
    }
    if (kept != i) e[kept] = std::move(e[i]);
    if (indexed) n->index.place(h, static_cast<uint32_t>(kept));
    ++kept;
  }
  if (kept != e.size()) {
    e.resize(kept);
    n->reindex();
  }
  return v;
}

Value Value::set(bool isMutable) {
  Value v(Kind::Set);
  v.u_.n = makeNode<SequenceNode>(isMutable);
  return v;
}

Value Value::set(std::initializer_list<Value> elements, bool isMutable) {
  Value v = set(isMutable);
  for (const auto& e : elements) v.append(e);
  return v;
}

Value Value::orderedSet(bool isMutable) {
  Value v(Kind::OrderedSet);
  v.u_.n = makeNode<SequenceNode>(isMutable);
  return v;
}

Value Value::orderedSet(std::initializer_list<Value> elements, bool isMutable) {
  Value v = orderedSet(isMutable);
  for (const auto& e : elements) v.append(e);
  return v;
}

Value Value::object(std::shared_ptr<Object> o) {
  if (!o) return Value();
  Value v(Kind::Object);
  auto* n = makeNode<ObjectNode>(false);
  n->value = std::move(o);
  v.u_.n = n;
  return v;
}

// ---- Access ----------------------------------------------------------------

bool Value::isMutable() const {
  Node* n = node();
  return n && n->isMutable;
}

const char* Value::kindName(Kind k) {
  switch (k) {
    case Kind::Nil: return "nil";
    case Kind::Null: return "null";
    case Kind::Boolean: return "boolean";
    case Kind::Integer: return "integer";
    case Kind::Float32: return "float";
    case Kind::Float64: return "double";
    case Kind::Decimal: return "decimal";
    case Kind::String: return "string";
    case Kind::Data: return "data";
    case Kind::Date: return "date";
    case Kind::Url: return "url";
    case Kind::Array: return "array";
    case Kind::Dictionary: return "dictionary";
    case Kind::Set: return "set";
    case Kind::OrderedSet: return "ordered set";
    case Kind::Object: return "object";
  }
  return "?";
}

bool Value::boolValue() const {
  switch (kind_) {
    case Kind::Boolean: return u_.b;
    case Kind::Integer: return u_.i != 0;
    case Kind::Float32: return u_.f != 0;
    case Kind::Float64: return u_.d != 0;
    case Kind::Decimal: return !decimalValue().isZero();
    default: return false;
  }
}

int64_t Value::intValue() const {
  auto clamp = [](double d) -> int64_t {
    if (std::isnan(d)) return 0;
    if (d >= 9.2233720368547758e18) return INT64_MAX;
    if (d <= -9.2233720368547758e18) return INT64_MIN;
    return static_cast<int64_t>(d);
  };
  switch (kind_) {
    case Kind::Boolean: return u_.b ? 1 : 0;
    case Kind::Integer: return u_.i;
    case Kind::Float32: return clamp(u_.f);
    case Kind::Float64: return clamp(u_.d);
    case Kind::Decimal: return clamp(decimalValue().toDouble());
    default: return 0;
  }
}

double Value::doubleValue() const {
  switch (kind_) {
    case Kind::Boolean: return u_.b ? 1 : 0;
    case Kind::Integer: return static_cast<double>(u_.i);
    case Kind::Float32: return u_.f;
    case Kind::Float64: return u_.d;
    case Kind::Decimal: return decimalValue().toDouble();
    default: return 0;
  }
}

Decimal Value::decimalValue() const {
  switch (kind_) {
    case Kind::Decimal: return static_cast<DecimalNode*>(u_.n)->value;
    case Kind::Boolean:
    case Kind::Integer: return Decimal::fromInteger(intValue());
    case Kind::Float32:
    case Kind::Float64: {
      double d = doubleValue();
      if (std::isnan(d)) return Decimal::notANumber();
      char buf[64];
      std::snprintf(buf, sizeof buf, "%.17g", d);
      return Decimal::parse(buf).value_or(Decimal{});
    }
    default: return Decimal{};
  }
}

std::string_view Value::str() const {
  if (kind_ != Kind::String) return {};
  return static_cast<StringNode*>(u_.n)->value;
}

std::string& Value::mutableStr() {
  if (kind_ != Kind::String) throw std::logic_error("Value::mutableStr on a non-string");
  return static_cast<StringNode*>(u_.n)->value;
}

std::span<const uint8_t> Value::bytes() const {
  if (kind_ != Kind::Data) return {};
  return static_cast<DataNode*>(u_.n)->value;
}

std::vector<uint8_t>& Value::mutableBytes() {
  if (kind_ != Kind::Data) throw std::logic_error("Value::mutableBytes on non-data");
  return static_cast<DataNode*>(u_.n)->value;
}

const Url& Value::urlValue() const {
  static const Url empty;
  if (kind_ != Kind::Url) return empty;
  return static_cast<UrlNode*>(u_.n)->value;
}

const std::shared_ptr<Object>& Value::objectValue() const {
  static const std::shared_ptr<Object> none;
  if (kind_ != Kind::Object) return none;
  return static_cast<ObjectNode*>(u_.n)->value;
}

// ---- Containers ------------------------------------------------------------

size_t Value::size() const {
  if (isSequence()) return static_cast<SequenceNode*>(u_.n)->elements.size();
  if (kind_ == Kind::Dictionary) return static_cast<DictionaryNode*>(u_.n)->entries.size();
  return 0;
}

std::span<const Value> Value::elements() const {
  if (!isSequence()) return {};
  return static_cast<SequenceNode*>(u_.n)->elements;
}

bool Value::append(Value v) {
  if (!isSequence()) throw std::logic_error("Value::append on a non-sequence");
  auto* n = static_cast<SequenceNode*>(u_.n);
  if (kind_ != Kind::Array && n->find(v)) return false;
  n->elements.push_back(std::move(v));
  if (kind_ != Kind::Array) n->appended();
  return true;
}

void Value::insert(size_t index, Value v) {
  if (kind_ != Kind::Array && kind_ != Kind::OrderedSet) {
    throw std::logic_error("Value::insert on a non-array");
  }
  auto* n = static_cast<SequenceNode*>(u_.n);
  if (kind_ == Kind::OrderedSet && n->find(v)) return;
  if (index > n->elements.size()) index = n->elements.size();
  n->elements.insert(n->elements.begin() + static_cast<ptrdiff_t>(index), std::move(v));
  if (kind_ == Kind::OrderedSet) n->reindex();
}

void Value::replace(size_t index, Value v) {
  if (!isSequence()) throw std::logic_error("Value::replace on a non-sequence");
  auto* n = static_cast<SequenceNode*>(u_.n);
  if (index >= n->elements.size()) throw std::out_of_range("Value::replace");
  n->elements[index] = std::move(v);
  if (kind_ != Kind::Array) n->reindex();
}

void Value::removeAt(size_t index) {
  if (!isSequence()) throw std::logic_error("Value::removeAt on a non-sequence");
  auto* n = static_cast<SequenceNode*>(u_.n);
  if (index >= n->elements.size()) throw std::out_of_range("Value::removeAt");
  n->elements.erase(n->elements.begin() + static_cast<ptrdiff_t>(index));
  if (kind_ != Kind::Array) n->reindex();
}

bool Value::remove(const Value& v) {
  if (!isSequence()) return false;
  auto* n = static_cast<SequenceNode*>(u_.n);
  size_t before = n->elements.size();
  std::erase_if(n->elements, [&](const Value& e) { return e == v; });
  if (n->elements.size() == before) return false;
  if (kind_ != Kind::Array) n->reindex();
  return true;
}

bool Value::contains(const Value& v) const { return indexOf(v).has_value(); }

std::optional<size_t> Value::indexOf(const Value& v) const {
  if (!isSequence()) return std::nullopt;
  return static_cast<SequenceNode*>(u_.n)->find(v);
}

std::span<const Value::Entry> Value::items() const {
  if (kind_ != Kind::Dictionary) return {};
  return static_cast<DictionaryNode*>(u_.n)->entries;
}

std::vector<Value> Value::keys() const {
  std::vector<Value> out;
  for (const auto& e : items()) out.push_back(e.first);
  return out;
}

const Value* Value::find(const Value& key) const {
  if (kind_ != Kind::Dictionary) return nullptr;
  auto* n = static_cast<DictionaryNode*>(u_.n);
  auto i = n->find(key, key.hash());
  return i ? &n->entries[*i].second : nullptr;
}

namespace {
// A string key compared against Value keys without building a Value.
struct StringKey {
  std::string_view s;
};
bool operator==(const Value& v, const StringKey& k) { return v.isString() && v.str() == k.s; }
}  // namespace

const Value* Value::find(std::string_view key) const {
  if (kind_ != Kind::Dictionary) return nullptr;
  auto* n = static_cast<DictionaryNode*>(u_.n);
  auto i = n->find(StringKey{key}, hashString(key));
  return i ? &n->entries[*i].second : nullptr;
}

const Value& Value::get(const Value& key) const {
  const Value* v = find(key);
  return v ? *v : nilValue();
}

const Value& Value::get(std::string_view key) const {
  const Value* v = find(key);
  return v ? *v : nilValue();
}

void Value::set(Value key, Value v) {
  if (kind_ != Kind::Dictionary) throw std::logic_error("Value::set on a non-dictionary");
  if (v.isNil()) {
    erase(key);
    return;
  }
  auto* n = static_cast<DictionaryNode*>(u_.n);
  size_t h = key.hash();
  if (auto i = n->find(key, h)) {
    n->entries[*i].second = std::move(v);
    return;
  }
  n->entries.emplace_back(std::move(key), std::move(v));
  n->appended();
}

bool Value::erase(const Value& key) {
  if (kind_ != Kind::Dictionary) return false;
  auto* n = static_cast<DictionaryNode*>(u_.n);
  auto i = n->find(key, key.hash());
  if (!i) return false;
  n->entries.erase(n->entries.begin() + static_cast<ptrdiff_t>(*i));
  n->reindex();
  return true;
}

void Value::clear() {
  if (isSequence()) {
    auto* n = static_cast<SequenceNode*>(u_.n);
    std::vector<Value> old;
    old.swap(n->elements);  // destroyed after the node is consistent
    n->index.reset();
  } else if (kind_ == Kind::Dictionary) {
    auto* n = static_cast<DictionaryNode*>(u_.n);
    std::vector<Entry> old;
    old.swap(n->entries);
    n->index.reset();
  }
}

void Value::reserve(size_t count) {
  if (isSequence()) {
    static_cast<SequenceNode*>(u_.n)->elements.reserve(count);
  } else if (kind_ == Kind::Dictionary) {
    static_cast<DictionaryNode*>(u_.n)->entries.reserve(count);
  }
}

// ---- Copies ----------------------------------------------------------------

namespace {
Value shallowCopy(const Value& v, bool isMutable) {
  using K = Value::Kind;
  switch (v.kind()) {
    case K::String: return Value::string(v.str(), isMutable);
    case K::Data: return Value::data(v.bytes(), isMutable);
    case K::Array: {
      std::vector<Value> e(v.elements().begin(), v.elements().end());
      return Value::array(std::move(e), isMutable);
    }
    case K::Set:
    case K::OrderedSet: {
      Value out = v.isSet() ? Value::set(isMutable) : Value::orderedSet(isMutable);
      out.reserve(v.size());
      for (const auto& e : v.elements()) out.append(e);
      return out;
    }
    case K::Dictionary: {
      Value out = Value::dictionary(isMutable);
      out.reserve(v.size());
      for (const auto& [k, val] : v.items()) out.set(k, val);
      return out;
    }
    default: return v;
  }
}
}  // namespace

Value Value::copy() const {
  if (!isMutable()) return *this;  // immutable values are their own copies
  return shallowCopy(*this, false);
}

Value Value::mutableCopy() const { return shallowCopy(*this, true); }

Value Value::deepCopy(bool mutableContainers) const {
  switch (kind_) {
    case Kind::String: return string(str(), isMutable());
    case Kind::Data: return data(bytes(), isMutable());
    case Kind::Array: {
      std::vector<Value> e;
      e.reserve(size());
      for (const auto& x : elements()) e.push_back(x.deepCopy(mutableContainers));
      return array(std::move(e), mutableContainers || isMutable());
    }
    case Kind::Set:
    case Kind::OrderedSet: {
      bool m = mutableContainers || isMutable();
      Value out = kind_ == Kind::Set ? set(m) : orderedSet(m);
      for (const auto& x : elements()) out.append(x.deepCopy(mutableContainers));
      return out;
    }
    case Kind::Dictionary: {
      Value out = dictionary(mutableContainers || isMutable());
      out.reserve(size());
      for (const auto& [k, v] : items()) out.set(k.deepCopy(false), v.deepCopy(mutableContainers));
      return out;
    }
    default: return *this;
  }
}

// ---- Identity and equality -------------------------------------------------

bool Value::identical(const Value& a, const Value& b) {
  if (a.kind_ != b.kind_) return false;
  if (a.hasNode()) return a.u_.n == b.u_.n;
  switch (a.kind_) {
    case Kind::Nil:
    case Kind::Null: return true;
    case Kind::Boolean: return a.u_.b == b.u_.b;
    case Kind::Float32: return a.u_.f == b.u_.f;
    case Kind::Float64:
    case Kind::Date: return a.u_.d == b.u_.d;
    default: return a.u_.i == b.u_.i;
  }
}

bool Value::operator==(const Value& o) const {
  if (hasNode() && kind_ == o.kind_ && u_.n == o.u_.n) return true;
  if (isNumber() && o.isNumber()) return numbersEqual(*this, o);
  if (kind_ != o.kind_) return false;
  switch (kind_) {
    case Kind::Nil:
    case Kind::Null: return true;
    case Kind::String: return str() == o.str();
    case Kind::Data: {
      auto a = bytes(), b = o.bytes();
      return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0);
    }
    case Kind::Date: return u_.d == o.u_.d;
    case Kind::Url: return urlValue() == o.urlValue();
    case Kind::Array:
    case Kind::OrderedSet: {
      auto a = elements(), b = o.elements();
      if (a.size() != b.size()) return false;
      for (size_t i = 0; i < a.size(); ++i) {
        if (!(a[i] == b[i])) return false;
      }
      return true;
    }
    case Kind::Set: {
      if (size() != o.size()) return false;
      for (const auto& e : elements()) {
        if (!o.contains(e)) return false;
      }
      return true;
    }
    case Kind::Dictionary: {
      if (size() != o.size()) return false;
      for (const auto& [k, v] : items()) {
        const Value* ov = o.find(k);
        if (!ov || !(*ov == v)) return false;
      }
      return true;
    }
    case Kind::Object: {
      const auto& a = objectValue();
      const auto& b = o.objectValue();
      return a == b || a->isEqual(*b);
    }
    default: return false;
  }
}

size_t Value::hash() const {
  switch (kind_) {
    case Kind::Nil: return 0x11;
    case Kind::Null: return 0x13;
    case Kind::Boolean:
    case Kind::Integer: return std::hash<int64_t>{}(intValue()) * (intValue() != 0);
    case Kind::Float32:
    case Kind::Float64:
    case Kind::Decimal: return hashNumber(doubleValue());
    case Kind::String: return hashString(str());
    case Kind::Data: {
      auto b = bytes();
      return std::hash<std::string_view>{}(
          std::string_view(reinterpret_cast<const char*>(b.data()), b.size()));
    }
    case Kind::Date: return std::hash<double>{}(u_.d) ^ 0xda7e;
    case Kind::Url: return std::hash<std::string>{}(urlValue().absoluteString());
    // Containers hash by kind and size only: cheap, stable under in-place
    // changes of their elements, and consistent with deep equality.
    case Kind::Array:
    case Kind::OrderedSet: return mix(0xa11a, size());
    case Kind::Set: return mix(0x5e7, size());
    case Kind::Dictionary: return mix(0xd1c7, size());
    case Kind::Object: return objectValue()->hash();
  }
  return 0;
}

// ---- Description -----------------------------------------------------------

namespace {
void describe(const Value& v, std::string& out, int depth) {
  using K = Value::Kind;
  if (depth > 64) {
    out += "...";
    return;
  }
  switch (v.kind()) {
    case K::Nil: out += "nil"; break;
    case K::Null: out += "<null>"; break;
    case K::Boolean: out += v.boolValue() ? "1" : "0"; break;
    case K::Integer: out += std::to_string(v.intValue()); break;
    case K::Float32:
    case K::Float64: {
      char buf[40];
      std::snprintf(buf, sizeof buf, "%.17g", v.doubleValue());
      out += buf;
      break;
    }
    case K::Decimal: out += v.decimalValue().toString(); break;
    case K::String:
      out += '"';
      out += v.str();
      out += '"';
      break;
    case K::Data: {
      static const char* hex = "0123456789abcdef";
      out += '<';
      for (uint8_t b : v.bytes()) {
        out += hex[b >> 4];
        out += hex[b & 15];
      }
      out += '>';
      break;
    }
    case K::Date: out += "date(" + std::to_string(v.dateValue()) + ")"; break;
    case K::Url: out += v.urlValue().absoluteString(); break;
    case K::Array:
    case K::Set:
    case K::OrderedSet: {
      out += v.isArray() ? "(" : v.isSet() ? "{(" : "[(";
      bool first = true;
      for (const auto& e : v.elements()) {
        if (!first) out += ", ";
        first = false;
        describe(e, out, depth + 1);
      }
      out += v.isArray() ? ")" : ")}";
      if (v.isOrderedSet()) out.back() = ']';
      break;
    }
    case K::Dictionary: {
      out += "{";
      for (const auto& [k, val] : v.items()) {
        describe(k, out, depth + 1);
        out += " = ";
        describe(val, out, depth + 1);
        out += "; ";
      }
      out += "}";
      break;
    }
    case K::Object: out += v.objectValue()->description(); break;
  }
}
}  // namespace

std::string Value::description() const {
  std::string out;
  describe(*this, out, 0);
  return out;
}

}  // namespace quillon
