#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "quillon/base/decimal.h"
#include "quillon/base/url.h"

namespace quillon {

class Value;

// An instance of a named class inside a value tree: keyed-coded framework
// objects (cache items), boxed values of the binary format (geometry, index
// sets), managed objects, and instances of classes that this process does
// not know, kept by name with their properties. A Value holds an object by
// shared ownership; mutable subclasses guard their own state.
class Object {
 public:
  virtual ~Object() = default;
  virtual std::string className() const = 0;
  // Deep equality with another object; the default is identity.
  virtual bool isEqual(const Object& other) const { return this == &other; }
  virtual size_t hash() const { return std::hash<const void*>{}(this); }
  virtual std::string description() const { return "<" + className() + ">"; }
  // Key-value access used by predicates and sort descriptors; nil when the
  // object has no such key.
  virtual Value valueForKey(std::string_view key) const;
  // Calls visit with every value the object holds, for walks over a whole
  // graph (freeing one that holds cycles). An object that holds values must
  // list them all; the default holds none.
  virtual void forEachValue(const std::function<void(const Value&)>& visit) const;
};

// An instance of a class known only by name: its properties in stored order.
class GenericObject final : public Object {
 public:
  GenericObject(std::string className, Value properties);
  std::string className() const override { return className_; }
  const Value& properties() const;  // a dictionary
  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  std::string description() const override;
  Value valueForKey(std::string_view key) const override;
  void forEachValue(const std::function<void(const Value&)>& visit) const override;

 private:
  std::string className_;
  std::unique_ptr<Value> properties_;
};

namespace detail {
struct Node;
}

struct ValueChild;

// Value is the property-list-like tree that records, change files, property
// lists, the cache and DenseCoding share.
//
// A Value is a 16-byte handle. Scalars live in the handle; strings, data,
// decimals, URLs, containers and objects live in a shared, reference-counted
// node, so copies of a handle are the same object: identity is observable with
// identical(), and a change made through one handle is seen through every
// other (a mutable array may even contain itself; such cycles must be broken
// by their owner before the last handle goes, as with any reference counting).
//
// Nil (absent) and null (the null object) are different kinds. Numbers of
// every kind compare and hash by value: 1 == 1.0 == true == Decimal 1.
// Dictionaries, sets and ordered sets keep insertion order, so everything
// written from them is deterministic.
//
// The mutable flag records whether a string, data or container is the mutable
// variant; the binary format and the merge observe it. Mutators do not check
// it (parsers fill immutable containers through them).
//
// Thread safety: reference counts are atomic, so handles can be copied and
// destroyed on any thread; a node that is mutated must not be read
// concurrently.
class Value {
 public:
  enum class Kind : uint8_t {
    Nil,
    Null,
    Boolean,
    Integer,
    Float32,
    Float64,
    Decimal,
    String,
    Data,
    Date,
    Url,
    Array,
    Dictionary,
    Set,
    OrderedSet,
    Object,
  };

  using Entry = std::pair<Value, Value>;

  Value() noexcept : kind_(Kind::Nil) { u_.i = 0; }
  Value(const Value& other) noexcept : u_(other.u_), kind_(other.kind_) {
    if (hasNode()) retain();
  }
  Value(Value&& other) noexcept : u_(other.u_), kind_(other.kind_) {
    other.kind_ = Kind::Nil;
    other.u_.i = 0;
  }
  Value& operator=(const Value& other) noexcept;
  Value& operator=(Value&& other) noexcept {
    if (this != &other) {
      Value old(std::move(*this));  // released once this holds the new value
      u_ = other.u_;
      kind_ = other.kind_;
      other.kind_ = Kind::Nil;
      other.u_.i = 0;
    }
    return *this;
  }
  ~Value() {
    if (hasNode()) release();
  }

  // Convenience conversions for literals.
  Value(const char* s) : Value(string(s)) {}
  Value(std::string_view s) : Value(string(s)) {}
  Value(const std::string& s) : Value(string(s)) {}
  template <typename T, std::enable_if_t<std::is_same_v<T, bool>, int> = 0>
  Value(T b) : Value(boolean(b)) {}
  template <typename T,
            std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
  Value(T i) : Value(integer(static_cast<int64_t>(i))) {}
  Value(double d) : Value(float64(d)) {}
  Value(float f) : Value(float32(f)) {}

  // Factories.
  static Value nil() { return Value(); }
  static Value null();
  static Value boolean(bool b);
  static Value integer(int64_t i);
  static Value float32(float f);
  static Value float64(double d);
  static Value decimal(const Decimal& d);
  static Value string(std::string_view s, bool isMutable = false);
  static Value mutableString(std::string_view s) { return string(s, true); }
  static Value data(std::span<const uint8_t> bytes, bool isMutable = false);
  static Value data(std::vector<uint8_t>&& bytes, bool isMutable = false);
  static Value data(std::string_view bytes, bool isMutable = false);
  // Seconds since 2001-01-01 00:00:00 UTC.
  static Value date(double secondsSinceReferenceDate);
  static Value url(Url u);
  static Value array(bool isMutable = false);
  static Value array(std::initializer_list<Value> elements, bool isMutable = false);
  static Value array(std::vector<Value>&& elements, bool isMutable = false);
  static Value mutableArray() { return array(true); }
  static Value dictionary(bool isMutable = false);
  // An empty dictionary whose first `capacity` entries need no further
  // allocation (and whose index, for many entries, is sized for them).
  static Value dictionaryWithCapacity(size_t capacity, bool isMutable = false);
  static Value dictionary(std::initializer_list<Entry> entries, bool isMutable = false);
  // Takes the entries in order without copying them; a repeated key keeps its
  // first position and its last value, and entries with a nil value are
  // dropped, as set() would do. The fast way to build large dictionaries.
  static Value dictionary(std::vector<Entry>&& entries, bool isMutable = false);
  // Builders that collect children in a reusable buffer: these move the
  // elements or entries out of the span (leaving nil handles behind) into a
  // container whose storage shares the node's single allocation. The
  // dictionary form treats repeated keys and nil values as above.
  static Value arrayMovingFrom(std::span<Value> elements, bool isMutable = false);
  static Value dictionaryMovingFrom(std::span<Entry> entries, bool isMutable = false);
  // A child for the parser factories below (see ValueChild).
  using Child = ValueChild;
  using ChildEntry = std::pair<Child, Child>;
  // As arrayMovingFrom and dictionaryMovingFrom, but short text children
  // become strings that share the container's allocation: building a
  // container of strings costs one allocation, and dropping it one free. A
  // string that outlives its container keeps that allocation (the container's
  // element buffer and its other short strings, a bounded size) alive, never
  // the container's other children.
  static Value arrayFromChildren(std::span<Child> elements, bool isMutable = false);
  static Value dictionaryFromChildren(std::span<ChildEntry> entries, bool isMutable = false);
  static Value mutableDictionary() { return dictionary(true); }
  static Value set(bool isMutable = false);
  static Value set(std::initializer_list<Value> elements, bool isMutable = false);
  static Value mutableSet() { return set(true); }
  static Value orderedSet(bool isMutable = false);
  static Value orderedSet(std::initializer_list<Value> elements, bool isMutable = false);
  static Value mutableOrderedSet() { return orderedSet(true); }
  static Value object(std::shared_ptr<Object> o);

  // Kind tests.
  Kind kind() const { return kind_; }
  bool isNil() const { return kind_ == Kind::Nil; }
  bool isNull() const { return kind_ == Kind::Null; }
  bool isBool() const { return kind_ == Kind::Boolean; }
  bool isInteger() const { return kind_ == Kind::Integer; }
  bool isFloat() const { return kind_ == Kind::Float32 || kind_ == Kind::Float64; }
  // Booleans, integers, floats and decimals.
  bool isNumber() const {
    return kind_ == Kind::Boolean || kind_ == Kind::Integer || kind_ == Kind::Float32 ||
           kind_ == Kind::Float64 || kind_ == Kind::Decimal;
  }
  bool isDecimal() const { return kind_ == Kind::Decimal; }
  bool isString() const { return kind_ == Kind::String; }
  bool isData() const { return kind_ == Kind::Data; }
  bool isDate() const { return kind_ == Kind::Date; }
  bool isUrl() const { return kind_ == Kind::Url; }
  bool isArray() const { return kind_ == Kind::Array; }
  bool isDictionary() const { return kind_ == Kind::Dictionary; }
  bool isSet() const { return kind_ == Kind::Set; }
  bool isOrderedSet() const { return kind_ == Kind::OrderedSet; }
  bool isObject() const { return kind_ == Kind::Object; }
  // Arrays, sets and ordered sets: the kinds with elements().
  bool isSequence() const {
    return kind_ == Kind::Array || kind_ == Kind::Set || kind_ == Kind::OrderedSet;
  }
  bool isContainer() const { return isSequence() || kind_ == Kind::Dictionary; }
  // Strings, data and containers can be mutable; everything else answers false.
  bool isMutable() const;
  static const char* kindName(Kind k);

  // Scalar access. Numbers convert between kinds; other kinds answer 0/false.
  bool boolValue() const;
  int64_t intValue() const;
  double doubleValue() const;
  float floatValue() const { return static_cast<float>(doubleValue()); }
  Decimal decimalValue() const;
  // Seconds since the reference date; 0 for non-dates.
  double dateValue() const { return kind_ == Kind::Date ? u_.d : 0; }

  // Strings: the empty view for other kinds.
  std::string_view str() const;
  // The string itself, for editing in place; requires a mutable string
  // (immutable strings keep their bytes inside the node and cannot grow).
  std::string& mutableStr();
  // Data: the empty span for other kinds.
  std::span<const uint8_t> bytes() const;
  std::vector<uint8_t>& mutableBytes();  // requires isData()
  // URLs; requires isUrl().
  const Url& urlValue() const;
  // Objects; nullptr for other kinds.
  const std::shared_ptr<Object>& objectValue() const;
  template <typename T>
  T* objectAs() const {
    return dynamic_cast<T*>(objectValue().get());
  }

  // Containers. size() is the element or entry count, 0 for non-containers.
  size_t size() const;
  bool empty() const { return size() == 0; }

  // Arrays, sets and ordered sets.
  std::span<const Value> elements() const;
  const Value& operator[](size_t i) const { return elements()[i]; }
  // Arrays: append always; sets and ordered sets: add when absent. Answers
  // whether the element was added.
  bool append(Value v);
  void insert(size_t index, Value v);   // arrays and ordered sets
  void replace(size_t index, Value v);  // arrays and ordered sets
  void removeAt(size_t index);
  bool remove(const Value& v);  // every equal element
  bool contains(const Value& v) const;
  std::optional<size_t> indexOf(const Value& v) const;

  // Dictionaries.
  std::span<const Entry> items() const;
  std::vector<Value> keys() const;
  // The value for a key, or nil.
  const Value& get(const Value& key) const;
  const Value& get(std::string_view key) const;
  const Value& get(const char* key) const { return get(std::string_view(key)); }
  const Value& get(const std::string& key) const { return get(std::string_view(key)); }
  const Value* find(const Value& key) const;
  const Value* find(std::string_view key) const;
  const Value* find(const char* key) const { return find(std::string_view(key)); }
  const Value* find(const std::string& key) const { return find(std::string_view(key)); }
  // Replaces the value of an existing key in place (keeping its position) or
  // appends the entry. Setting nil removes the key.
  void set(Value key, Value v);
  bool erase(const Value& key);

  // Sequences and dictionaries.
  void clear();
  void reserve(size_t n);

  // Copies: copy() is a shallow immutable copy, mutableCopy() a shallow mutable
  // one (containers get a new node holding the same elements); scalars and
  // objects answer themselves. deepCopy() copies every nested string, data and
  // container, making containers mutable when asked.
  Value copy() const;
  Value mutableCopy() const;
  Value deepCopy(bool mutableContainers = false) const;

  // Identity: the same node (or equal scalars of the same kind).
  static bool identical(const Value& a, const Value& b);
  // The address of the shared node, nullptr for scalars: a key for identity
  // maps (valid while some handle to the node lives).
  const void* identity() const noexcept { return node(); }
  // Whether this is the only handle on its node (false for scalars): a node
  // held once is reached once by a walk that does not copy handles. Only
  // meaningful while no other thread copies or drops handles to it.
  bool isSoleHandle() const noexcept;
  // Deep equality; numbers by value across kinds, sets regardless of order.
  bool operator==(const Value& other) const;
  size_t hash() const;

  // A debugging text in the style of an old-style property list.
  std::string description() const;

 private:
  friend struct detail::Node;
  explicit Value(Kind k) noexcept : kind_(k) { u_.i = 0; }
  bool hasNode() const {
    return kind_ == Kind::Decimal || kind_ == Kind::String || kind_ == Kind::Data ||
           kind_ >= Kind::Url;
  }
  detail::Node* node() const { return hasNode() ? u_.n : nullptr; }
  // The bytes of a string; requires isString().
  static std::string_view stringOf(const Value& v);
  // The dictionary builders' common part, over Entry or ChildEntry.
  template <typename E>
  static Value dictionaryFrom(std::span<E> entries, bool isMutable, size_t stringBytes);
  // Reference counting of the node; both require hasNode().
  void retain() const noexcept;
  void release() noexcept;

  union {
    bool b;
    int64_t i;
    float f;
    double d;
    detail::Node* n;
  } u_;
  Kind kind_;
};

// A child for Value's parser factories: a finished value, or the text of an
// immutable string that the container keeps in its own allocation.
struct ValueChild {
  ValueChild() = default;
  ValueChild(Value v) : value(std::move(v)) {}
  static ValueChild string(std::string_view s) {
    ValueChild c;
    c.text = s;
    c.isText = true;
    return c;
  }
  Value value;
  std::string_view text;  // with isText; must stay valid until the factory returns
  bool isText = false;
};

struct ValueHash {
  size_t operator()(const Value& v) const { return v.hash(); }
};

}  // namespace quillon
