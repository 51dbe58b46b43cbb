#include "quillon/base/value.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

namespace quillon {
namespace detail {

// The shared part of a heap-kind Value. Nodes have no virtual functions: the
// handle's kind (and, for strings, the mutable flag) says which node type
// follows this header, so the header is 8 bytes and destruction is a switch.
struct Node {
  std::atomic<uint32_t> refs{1};
  bool isMutable = false;
  bool inBlock = false;  // shares a Block's allocation

  // Handle internals for the code below (Value befriends Node).
  static Node* of(const Value& v) { return v.u_.n; }
  static Value adopt(Value::Kind kind, Node* n) noexcept {
    Value v(kind);
    v.u_.n = n;
    return v;
  }
  // Empties a handle without releasing its node.
  static void forget(Value& v) noexcept {
    v.kind_ = Value::Kind::Nil;
    v.u_.i = 0;
  }
};

// One allocation shared by a container and the short immutable strings it
// was built with: the header, the container's node, its element buffer, then
// each string's node preceded by the header's address. It goes once the
// container and each of those strings have gone.
struct alignas(8) Block {
  std::atomic<uint32_t> refs{1};  // the container while it lives, plus each live string
};

struct DecimalNode final : Node {
  Decimal value;
};
// An immutable string: its bytes (and a terminating NUL) follow the node in
// the same allocation.
struct InlineStringNode final : Node {
  size_t length = 0;
  char* bytes() { return reinterpret_cast<char*>(this + 1); }
  std::string_view view() { return {bytes(), length}; }
};
// A mutable string owns a std::string, which mutableStr() hands out.
struct MutableStringNode final : Node {
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

static_assert(std::is_trivially_destructible_v<InlineStringNode>);

// Strings up to this length are put in their container's block, until its
// strings take kEmbeddedBytesLimit; both bound what a retained string keeps.
constexpr size_t kEmbeddedStringLimit = 1024;
constexpr size_t kEmbeddedBytesLimit = 16 << 10;

constexpr size_t embeddedSize(size_t length) {
  return (sizeof(Block*) + sizeof(InlineStringNode) + length + 1 + 7) & ~size_t{7};
}

inline Block* blockOfContainer(Node* n) { return reinterpret_cast<Block*>(n) - 1; }
inline Block* blockOfString(Node* n) { return *(reinterpret_cast<Block**>(n) - 1); }

// Drops `count` references to the block, freeing it with the last.
inline void releaseBlock(Block* b, uint32_t count) {
  // As in Value::release: when ours are the only references, no other thread
  // can touch the count.
  if (b->refs.load(std::memory_order_acquire) == count ||
      b->refs.fetch_sub(count, std::memory_order_acq_rel) == count) {
    ::operator delete(static_cast<void*>(b));
  }
}

// Where a container's short strings go while it is built.
class StringArea {
 public:
  StringArea() = default;
  StringArea(Block* block, char* begin, char* end) : block_(block), cursor_(begin), end_(end) {}

  Value take(Value::Child& child) {
    if (!child.isText) return std::move(child.value);
    std::string_view text = child.text;
    size_t size = embeddedSize(text.size());
    if (text.size() > kEmbeddedStringLimit || size > static_cast<size_t>(end_ - cursor_)) {
      return Value::string(text);
    }
    *reinterpret_cast<Block**>(cursor_) = block_;
    auto* n = new (cursor_ + sizeof(Block*)) InlineStringNode();
    n->inBlock = true;
    n->length = text.size();
    if (!text.empty()) std::memcpy(n->bytes(), text.data(), text.size());
    n->bytes()[text.size()] = '\0';
    cursor_ += size;
    // Nothing else sees the block yet, but a repeated key may already have
    // released one of its strings: the count must be right at every step.
    block_->refs.store(block_->refs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return Node::adopt(Value::Kind::String, n);
  }

 private:
  Block* block_ = nullptr;
  char* cursor_ = nullptr;
  char* end_ = nullptr;
};

// The bytes a block needs for the short texts among `children`.
inline void countEmbedded(const Value::Child& child, size_t* total) {
  if (!child.isText || child.text.size() > kEmbeddedStringLimit) return;
  size_t size = embeddedSize(child.text.size());
  if (*total + size <= kEmbeddedBytesLimit) *total += size;
}

// Frees a string of block `b` held by `v` alone, without touching the
// block's count; answers whether it did.
inline bool dropIfLastInBlock(Value& v, Block* b) {
  if (v.kind() != Value::Kind::String) return false;
  Node* n = Node::of(v);
  if (!n->inBlock || blockOfString(n) != b || n->refs.load(std::memory_order_acquire) != 1) {
    return false;
  }
  Node::forget(v);
  return true;
}

// Allocates a node of type N with `extra` bytes behind it.
template <typename N>
N* newNode(bool isMutable, size_t extra = 0) {
  static_assert(alignof(N) <= alignof(std::max_align_t));
  N* n = new (::operator new(sizeof(N) + extra)) N();
  n->isMutable = isMutable;
  return n;
}

// The same at the start of a block, with `stringBytes` behind the node and
// its `extra` bytes for `area` to hand out.
template <typename N>
N* newNodeInBlock(bool isMutable, size_t extra, size_t stringBytes, StringArea* area) {
  static_assert(alignof(N) <= alignof(Block) && sizeof(N) % alignof(Block) == 0);
  size_t head = sizeof(Block) + sizeof(N) + extra;
  char* p = static_cast<char*>(::operator new(head + stringBytes));
  auto* b = new (p) Block();
  N* n = new (p + sizeof(Block)) N();
  n->isMutable = isMutable;
  n->inBlock = true;
  *area = StringArea(b, p + head, p + head + stringBytes);
  return n;
}

template <typename N>
void deleteNode(Node* node) {
  N* n = static_cast<N*>(node);
  n->~N();
  ::operator delete(static_cast<void*>(n));
}

inline void prefetchNode(const Value& v) { __builtin_prefetch(v.identity(), 1); }
inline void prefetchNode(const Value::Entry& e) { __builtin_prefetch(e.second.identity(), 1); }

// The element storage of a container: a growable array whose first buffer
// may be part of the node's own allocation (containers built with a known
// count need no second allocation). Growing moves the elements to the heap;
// an outgrown inline buffer stays unused.
template <typename T>
class Elements {
 public:
  static constexpr size_t kMaxCapacity = (size_t{1} << 31) - 1;

  Elements() = default;
  Elements(const Elements&) = delete;
  Elements& operator=(const Elements&) = delete;
  ~Elements() {
    // Dropping a large tree is bound by cache misses on the children's
    // counts; fetching a few children ahead overlaps them.
    constexpr size_t kAhead = 4;
    for (size_t i = 0; i < size_; ++i) {
      if (i + kAhead < size_) prefetchNode(data_[i + kAhead]);
      data_[i].~T();
    }
    if (heap_) ::operator delete(static_cast<void*>(data_));
  }

  // Adopts an empty buffer with room for `capacity` elements that the owner
  // keeps alive as long as this.
  void adoptInlineBuffer(T* buffer, size_t capacity) {
    data_ = buffer;
    capacity_ = static_cast<uint32_t>(capacity);
  }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T& back() { return data_[size_ - 1]; }
  std::span<const T> span() const { return {data_, size_}; }

  void reserve(size_t n) {
    if (n > capacity_) reallocate(n, nullptr);
  }

  // The arguments may refer to an element of this container.
  template <typename... Args>
  void emplaceBack(Args&&... args) {
    if (size_ < capacity_) {
      new (data_ + size_) T(std::forward<Args>(args)...);
    } else {
      T value(std::forward<Args>(args)...);
      reallocate(std::max<size_t>({size_t{size_} + 1, size_t{capacity_} * 2, 4}), &value);
    }
    ++size_;
  }

  void insert(size_t index, T&& value) {
    emplaceBack(std::move(value));
    std::rotate(begin() + index, end() - 1, end());
  }

  void erase(size_t index) {
    std::move(begin() + index + 1, end(), begin() + index);
    truncate(size_ - 1);
  }

  // Removes every element matching `pred`; answers whether any was removed.
  template <typename Pred>
  bool eraseIf(Pred pred) {
    T* last = std::remove_if(begin(), end(), pred);
    if (last == end()) return false;
    truncate(static_cast<size_t>(last - begin()));
    return true;
  }

  void truncate(size_t n) {
    std::destroy(begin() + n, end());
    size_ = static_cast<uint32_t>(n);
  }

  // Moves every element out, leaving this empty, so that the caller can
  // destroy them once its node is consistent again.
  std::vector<T> takeAll() {
    std::vector<T> out(std::make_move_iterator(begin()), std::make_move_iterator(end()));
    truncate(0);
    return out;
  }

  // Empties the container, destroying the elements only once it is empty
  // (a destructor may look at it); a few elements wait on the stack.
  void clear() {
    constexpr size_t kOnStack = 8;
    if (size_ > kOnStack) {
      std::vector<T> old = takeAll();
      return;
    }
    T old[kOnStack];
    std::move(begin(), end(), old);
    truncate(0);
  }

 private:
  // Moves the elements to a heap buffer of `capacity`; `appended`, when
  // given, is moved in behind them.
  void reallocate(size_t capacity, T* appended) {
    if (capacity > kMaxCapacity) throw std::length_error("Value: container too large");
    T* fresh = static_cast<T*>(::operator new(capacity * sizeof(T)));
    if (appended) new (fresh + size_) T(std::move(*appended));
    std::uninitialized_move(begin(), end(), fresh);
    std::destroy(begin(), end());
    if (heap_) ::operator delete(static_cast<void*>(data_));
    data_ = fresh;
    capacity_ = static_cast<uint32_t>(capacity);
    heap_ = 1;
  }

  static_assert(std::is_nothrow_move_constructible_v<T>);
  T* data_ = nullptr;
  uint32_t size_ = 0;
  uint32_t capacity_ : 31 = 0;
  uint32_t heap_ : 1 = 0;
};

// Open-addressing index from element hash to position, built once a
// container grows past a few entries; small containers are scanned.
class HashIndex {
 public:
  static constexpr size_t kThreshold = 8;

  bool active() const { return capacity_ != 0; }
  void reset() {
    slots_.reset();
    capacity_ = 0;
  }

  template <typename KeyAt>
  void rebuild(size_t count, KeyAt keyAt) {
    prepare(count);
    for (size_t i = 0; i < count; ++i) place(keyAt(i).hash(), static_cast<uint32_t>(i));
  }

  void place(size_t h, uint32_t position) {
    const uint64_t slot = (uint64_t{static_cast<uint32_t>(h)} << 32) | (uint64_t{position} + 1);
    size_t mask = capacity_ - 1;
    for (size_t s = h & mask;; s = (s + 1) & mask) {
      if (slots_[s] == 0) {
        slots_[s] = slot;
        return;
      }
    }
  }

  // Calls match(position) on candidates with the same hash until it
  // answers true. Keeping part of each hash in its slot means a probe past
  // other keys never touches them.
  template <typename Match>
  std::optional<size_t> lookup(size_t h, Match match) const {
    const auto fragment = static_cast<uint32_t>(h);
    size_t mask = capacity_ - 1;
    for (size_t s = h & mask;; s = (s + 1) & mask) {
      uint64_t slot = slots_[s];
      if (slot == 0) return std::nullopt;
      if (static_cast<uint32_t>(slot >> 32) != fragment) continue;
      size_t position = static_cast<uint32_t>(slot) - 1;
      if (match(position)) return position;
    }
  }

  // Empties the index and sizes it for `count` positions.
  void prepare(size_t count) {
    slots_.reset(new uint64_t[capacityFor(count)]());
    capacity_ = capacityFor(count);
  }

  // Makes room for `count` positions, keeping those placed; the kept part
  // of each hash is enough to place it again (capacities stay below 2^32).
  void grow(size_t count) {
    if (!needsGrowth(count)) return;
    std::unique_ptr<uint64_t[]> old = std::move(slots_);
    size_t oldCapacity = capacity_;
    prepare(count);
    for (size_t i = 0; i < oldCapacity; ++i) {
      if (old[i] == 0) continue;
      size_t mask = capacity_ - 1;
      for (size_t s = (old[i] >> 32) & mask;; s = (s + 1) & mask) {
        if (slots_[s] == 0) {
          slots_[s] = old[i];
          break;
        }
      }
    }
  }

  bool needsGrowth(size_t count) const { return count * 2 + 2 > capacity_; }

  // Forgets `position` (its element's hash is `h`) and moves every later
  // position one down, as erasing the element from its container does. No
  // key is hashed again: the slots' own hash parts say where each belongs.
  void erase(size_t h, size_t position) {
    const size_t mask = capacity_ - 1;
    const uint64_t target = (uint64_t{static_cast<uint32_t>(h)} << 32) | (uint64_t{position} + 1);
    size_t hole = h & mask;
    while (slots_[hole] != target) hole = (hole + 1) & mask;
    // Backward-shift deletion keeps every probe sequence unbroken.
    for (size_t next = (hole + 1) & mask; slots_[next] != 0; next = (next + 1) & mask) {
      const size_t home = (slots_[next] >> 32) & mask;
      const bool staysAfterHole =
          hole <= next ? (home > hole && home <= next) : (home > hole || home <= next);
      if (staysAfterHole) continue;
      slots_[hole] = slots_[next];
      hole = next;
    }
    slots_[hole] = 0;
    for (size_t i = 0; i < capacity_; ++i) {
      if (static_cast<uint32_t>(slots_[i]) > position + 1) --slots_[i];
    }
  }

 private:
  static size_t capacityFor(size_t count) {
    size_t capacity = 16;
    while (capacity < count * 2 + 2) capacity <<= 1;
    return capacity;
  }

  std::unique_ptr<uint64_t[]> slots_;  // (hash low 32 bits << 32) | (position + 1); 0 = empty
  size_t capacity_ = 0;
};

struct SequenceNode final : Node {
  Elements<Value> elements;
  HashIndex index;  // sets and ordered sets only

  // A node whose first `capacity` elements need no further allocation.
  static SequenceNode* create(bool isMutable, size_t capacity) {
    if (capacity > Elements<Value>::kMaxCapacity) {
      throw std::length_error("Value: container too large");
    }
    auto* n = newNode<SequenceNode>(isMutable, capacity * sizeof(Value));
    n->elements.adoptInlineBuffer(reinterpret_cast<Value*>(n + 1), capacity);
    return n;
  }
  // The same in a block with `stringBytes` for strings, which `area` hands out.
  static SequenceNode* createInBlock(bool isMutable, size_t capacity, size_t stringBytes,
                                     StringArea* area) {
    if (capacity > Elements<Value>::kMaxCapacity) {
      throw std::length_error("Value: container too large");
    }
    auto* n = newNodeInBlock<SequenceNode>(isMutable, capacity * sizeof(Value), stringBytes, area);
    n->elements.adoptInlineBuffer(reinterpret_cast<Value*>(n + 1), capacity);
    return n;
  }

  std::optional<size_t> find(const Value& v) const {
    return find(v, index.active() ? v.hash() : 0);
  }
  std::optional<size_t> find(const Value& v, size_t h) const {
    if (index.active()) {
      return index.lookup(h, [&](size_t i) { return elements[i] == v; });
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
  // After appending an element whose hash is `h`.
  void appended(size_t h) {
    if (index.active()) {
      index.grow(elements.size());
      index.place(h, static_cast<uint32_t>(elements.size() - 1));
    } else if (elements.size() > HashIndex::kThreshold) {
      reindex();
    }
  }
  // Sizes the index for `count` elements ahead of appending them.
  void reserveIndex(size_t count) {
    if (count <= HashIndex::kThreshold) return;
    if (index.active()) {
      index.grow(count);
    } else {
      index.rebuild(elements.size(), [&](size_t i) -> const Value& { return elements[i]; });
      index.grow(count);
    }
  }
};

struct DictionaryNode final : Node {
  Elements<Value::Entry> entries;
  HashIndex index;

  static DictionaryNode* create(bool isMutable, size_t capacity) {
    if (capacity > Elements<Value::Entry>::kMaxCapacity) {
      throw std::length_error("Value: container too large");
    }
    auto* n = newNode<DictionaryNode>(isMutable, capacity * sizeof(Value::Entry));
    n->entries.adoptInlineBuffer(reinterpret_cast<Value::Entry*>(n + 1), capacity);
    return n;
  }
  static DictionaryNode* createInBlock(bool isMutable, size_t capacity, size_t stringBytes,
                                       StringArea* area) {
    if (capacity > Elements<Value::Entry>::kMaxCapacity) {
      throw std::length_error("Value: container too large");
    }
    auto* n = newNodeInBlock<DictionaryNode>(isMutable, capacity * sizeof(Value::Entry),
                                             stringBytes, area);
    n->entries.adoptInlineBuffer(reinterpret_cast<Value::Entry*>(n + 1), capacity);
    return n;
  }

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
  // After appending an entry whose key's hash is `h`.
  void appended(size_t h) {
    if (index.active()) {
      index.grow(entries.size());
      index.place(h, static_cast<uint32_t>(entries.size() - 1));
    } else if (entries.size() > HashIndex::kThreshold) {
      reindex();
    }
  }
  // Sizes the index for `count` entries ahead of adding them.
  void reserveIndex(size_t count) {
    if (count <= HashIndex::kThreshold) return;
    if (!index.active()) {
      index.rebuild(entries.size(), [&](size_t i) -> const Value& { return entries[i].first; });
    }
    index.grow(count);
  }
};

// A container of a block goes before the block does. Its own strings that
// nothing else holds go with it at no cost of their own, so dropping a
// parsed container of strings costs one count update and one free.
void deleteBlockContainer(SequenceNode* n) {
  Block* b = blockOfContainer(n);
  uint32_t dropped = 0;
  for (Value& v : n->elements) dropped += dropIfLastInBlock(v, b);
  n->~SequenceNode();
  releaseBlock(b, dropped + 1);
}

void deleteBlockContainer(DictionaryNode* n) {
  Block* b = blockOfContainer(n);
  uint32_t dropped = 0;
  for (Value::Entry& e : n->entries) {
    dropped += dropIfLastInBlock(e.first, b);
    dropped += dropIfLastInBlock(e.second, b);
  }
  n->~DictionaryNode();
  releaseBlock(b, dropped + 1);
}

// Frees a node whose last handle, of kind `kind`, has gone.
void destroyNode(Value::Kind kind, Node* n) {
  using K = Value::Kind;
  switch (kind) {
    case K::Decimal:
      return deleteNode<DecimalNode>(n);
    case K::String:
      if (n->isMutable) return deleteNode<MutableStringNode>(n);
      if (n->inBlock) return releaseBlock(blockOfString(n), 1);
      return deleteNode<InlineStringNode>(n);
    case K::Data:
      return deleteNode<DataNode>(n);
    case K::Url:
      return deleteNode<UrlNode>(n);
    case K::Array:
    case K::Set:
    case K::OrderedSet:
      if (n->inBlock) return deleteBlockContainer(static_cast<SequenceNode*>(n));
      return deleteNode<SequenceNode>(n);
    case K::Dictionary:
      if (n->inBlock) return deleteBlockContainer(static_cast<DictionaryNode*>(n));
      return deleteNode<DictionaryNode>(n);
    case K::Object:
      return deleteNode<ObjectNode>(n);
    default:
      return;
  }
}

}  // namespace detail

using detail::DataNode;
using detail::DecimalNode;
using detail::DictionaryNode;
using detail::InlineStringNode;
using detail::MutableStringNode;
using detail::Node;
using detail::ObjectNode;
using detail::SequenceNode;
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

}  // namespace

Value Object::valueForKey(std::string_view) const { return Value(); }

void Object::forEachValue(const std::function<void(const Value&)>&) const {}

// ---- GenericObject ---------------------------------------------------------

GenericObject::GenericObject(std::string className, Value properties)
    : className_(std::move(className)),
      properties_(std::make_unique<Value>(std::move(properties))) {}

const Value& GenericObject::properties() const { return *properties_; }

bool GenericObject::isEqual(const Object& other) const {
  auto* o = dynamic_cast<const GenericObject*>(&other);
  return o && o->className_ == className_ && *o->properties_ == *properties_;
}

Value GenericObject::valueForKey(std::string_view key) const { return properties_->get(key); }

void GenericObject::forEachValue(const std::function<void(const Value&)>& visit) const {
  visit(*properties_);
}

size_t GenericObject::hash() const { return hashString(className_); }

std::string GenericObject::description() const {
  return "<" + className_ + " " + properties_->description() + ">";
}

// ---- Handle lifetime -------------------------------------------------------

void Value::retain() const noexcept { u_.n->refs.fetch_add(1, std::memory_order_relaxed); }

void Value::release() noexcept {
  // A count of one means this handle is the only one, so no other thread can
  // touch the count: the node goes without an atomic read-modify-write, the
  // common case when a parsed tree is dropped.
  if (u_.n->refs.load(std::memory_order_acquire) == 1 ||
      u_.n->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    detail::destroyNode(kind_, u_.n);
  }
}

bool Value::isSoleHandle() const noexcept {
  return hasNode() && u_.n->refs.load(std::memory_order_relaxed) == 1;
}

Value& Value::operator=(const Value& other) noexcept {
  if (this != &other) {
    Value copy(other);
    *this = std::move(copy);
  }
  return *this;
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
  auto* n = detail::newNode<DecimalNode>(false);
  n->value = d;
  Value v(Kind::Decimal);
  v.u_.n = n;
  return v;
}

Value Value::string(std::string_view s, bool isMutable) {
  Node* node;
  if (isMutable) {
    auto* n = detail::newNode<MutableStringNode>(true);
    try {
      n->value.assign(s.data(), s.size());
    } catch (...) {
      detail::deleteNode<MutableStringNode>(n);
      throw;
    }
    node = n;
  } else {
    auto* n = detail::newNode<InlineStringNode>(false, s.size() + 1);
    n->length = s.size();
    if (!s.empty()) std::memcpy(n->bytes(), s.data(), s.size());
    n->bytes()[s.size()] = '\0';
    node = n;
  }
  Value v(Kind::String);
  v.u_.n = node;
  return v;
}

Value Value::data(std::span<const uint8_t> bytes, bool isMutable) {
  return data(std::vector<uint8_t>(bytes.begin(), bytes.end()), isMutable);
}

Value Value::data(std::vector<uint8_t>&& bytes, bool isMutable) {
  auto* n = detail::newNode<DataNode>(isMutable);
  n->value = std::move(bytes);
  Value v(Kind::Data);
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
  auto* n = detail::newNode<UrlNode>(false);
  n->value = std::move(u);
  Value v(Kind::Url);
  v.u_.n = n;
  return v;
}

Value Value::array(bool isMutable) {
  Value v(Kind::Array);
  v.u_.n = SequenceNode::create(isMutable, 0);
  return v;
}

Value Value::array(std::initializer_list<Value> elements, bool isMutable) {
  auto* n = SequenceNode::create(isMutable, elements.size());
  Value v(Kind::Array);
  v.u_.n = n;
  for (const Value& e : elements) n->elements.emplaceBack(e);
  return v;
}

Value Value::array(std::vector<Value>&& elements, bool isMutable) {
  Value v = arrayMovingFrom(elements, isMutable);
  elements.clear();
  return v;
}

Value Value::arrayMovingFrom(std::span<Value> elements, bool isMutable) {
  auto* n = SequenceNode::create(isMutable, elements.size());
  Value v(Kind::Array);
  v.u_.n = n;
  for (Value& e : elements) n->elements.emplaceBack(std::move(e));
  return v;
}

std::string_view Value::stringOf(const Value& v) {
  if (v.u_.n->isMutable) return static_cast<MutableStringNode*>(v.u_.n)->value;
  return static_cast<InlineStringNode*>(v.u_.n)->view();
}

Value Value::dictionary(bool isMutable) {
  Value v(Kind::Dictionary);
  v.u_.n = DictionaryNode::create(isMutable, 0);
  return v;
}

Value Value::dictionaryWithCapacity(size_t capacity, bool isMutable) {
  Value v(Kind::Dictionary);
  auto* n = DictionaryNode::create(isMutable, capacity);
  v.u_.n = n;
  n->reserveIndex(capacity);
  return v;
}

Value Value::dictionary(std::initializer_list<Entry> entries, bool isMutable) {
  Value v(Kind::Dictionary);
  v.u_.n = DictionaryNode::create(isMutable, entries.size());
  for (const auto& [k, val] : entries) v.set(k, val);
  return v;
}

Value Value::dictionary(std::vector<Entry>&& entries, bool isMutable) {
  Value v = dictionaryMovingFrom(entries, isMutable);
  entries.clear();
  return v;
}

namespace {

// A key being added by the dictionary builders: a value, or text that will
// become a string.
struct KeyProbe {
  const Value* value = nullptr;
  std::string_view text;  // a string key's bytes
  bool isString = false;
};

bool isAbsent(const Value& v) { return v.isNil(); }
bool isAbsent(const Value::Child& c) { return !c.isText && c.value.isNil(); }

Value take(detail::StringArea&, Value& v) { return std::move(v); }
Value take(detail::StringArea& area, Value::Child& c) { return area.take(c); }

}  // namespace

template <typename E>
Value Value::dictionaryFrom(std::span<E> entries, bool isMutable, size_t stringBytes) {
  detail::StringArea area;
  auto* n = stringBytes
                ? DictionaryNode::createInBlock(isMutable, entries.size(), stringBytes, &area)
                : DictionaryNode::create(isMutable, entries.size());
  Value v(Kind::Dictionary);
  v.u_.n = n;
  auto& e = n->entries;
  // Parsers build string keys, often shared ones; comparing nodes, lengths
  // and first bytes skips the general cross-kind equality and most calls to
  // memcmp.
  auto matches = [](const Value& other, const KeyProbe& key) {
    if (key.isString && other.isString()) {
      if (key.value && other.u_.n == key.value->u_.n) return true;
      std::string_view o = stringOf(other);
      return o.size() == key.text.size() && (o.empty() || o[0] == key.text[0]) && o == key.text;
    }
    return key.value && other == *key.value;
  };
  bool indexed = entries.size() > detail::HashIndex::kThreshold;
  if (indexed) n->index.prepare(entries.size());
  // Without an index, a bit per string key added so far (strings equal only
  // strings): most keys need no scan for an earlier repeat.
  uint64_t stringKeys = 0;
  auto fingerprint = [](std::string_view text) {
    auto last = text.empty() ? 0u : static_cast<unsigned char>(text.back());
    return uint64_t{1} << ((text.size() * 5 + last * 3) & 63);
  };
  for (E& entry : entries) {
    if (isAbsent(entry.second)) continue;
    KeyProbe key;
    if constexpr (std::is_same_v<E, Entry>) {
      key.value = &entry.first;
    } else if (!entry.first.isText) {
      key.value = &entry.first.value;
    } else {
      key.text = entry.first.text;
      key.isString = true;
    }
    if (key.value && key.value->isString()) {
      key.text = stringOf(*key.value);
      key.isString = true;
    }
    size_t h = !indexed ? 0 : key.isString ? hashString(key.text) : key.value->hash();
    std::optional<size_t> earlier;
    if (indexed) {
      earlier = n->index.lookup(h, [&](size_t j) { return matches(e[j].first, key); });
    } else if (!key.isString || (stringKeys & fingerprint(key.text))) {
      for (size_t j = 0; j < e.size(); ++j) {
        if (matches(e[j].first, key)) {
          earlier = j;
          break;
        }
      }
    }
    if (earlier) {
      e[*earlier].second = take(area, entry.second);
      continue;
    }
    if (indexed) n->index.place(h, static_cast<uint32_t>(e.size()));
    if (key.isString) stringKeys |= fingerprint(key.text);
    Value k = take(area, entry.first);
    e.emplaceBack(std::move(k), take(area, entry.second));
  }
  if (indexed && e.size() <= detail::HashIndex::kThreshold) n->index.reset();
  return v;
}

Value Value::dictionaryMovingFrom(std::span<Entry> entries, bool isMutable) {
  return dictionaryFrom(entries, isMutable, 0);
}

Value Value::dictionaryFromChildren(std::span<ChildEntry> entries, bool isMutable) {
  size_t stringBytes = 0;
  for (const ChildEntry& entry : entries) {
    if (isAbsent(entry.second)) continue;
    detail::countEmbedded(entry.first, &stringBytes);
    detail::countEmbedded(entry.second, &stringBytes);
  }
  return dictionaryFrom(entries, isMutable, stringBytes);
}

Value Value::arrayFromChildren(std::span<Child> elements, bool isMutable) {
  size_t stringBytes = 0;
  for (const Child& c : elements) detail::countEmbedded(c, &stringBytes);
  detail::StringArea area;
  auto* n = stringBytes
                ? SequenceNode::createInBlock(isMutable, elements.size(), stringBytes, &area)
                : SequenceNode::create(isMutable, elements.size());
  Value v(Kind::Array);
  v.u_.n = n;
  for (Child& c : elements) n->elements.emplaceBack(area.take(c));
  return v;
}

Value Value::set(bool isMutable) {
  Value v(Kind::Set);
  v.u_.n = SequenceNode::create(isMutable, 0);
  return v;
}

Value Value::set(std::initializer_list<Value> elements, bool isMutable) {
  Value v(Kind::Set);
  v.u_.n = SequenceNode::create(isMutable, elements.size());
  for (const auto& e : elements) v.append(e);
  return v;
}

Value Value::orderedSet(bool isMutable) {
  Value v(Kind::OrderedSet);
  v.u_.n = SequenceNode::create(isMutable, 0);
  return v;
}

Value Value::orderedSet(std::initializer_list<Value> elements, bool isMutable) {
  Value v(Kind::OrderedSet);
  v.u_.n = SequenceNode::create(isMutable, elements.size());
  for (const auto& e : elements) v.append(e);
  return v;
}

Value Value::object(std::shared_ptr<Object> o) {
  if (!o) return Value();
  auto* n = detail::newNode<ObjectNode>(false);
  n->value = std::move(o);
  Value v(Kind::Object);
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
    case Kind::Nil:
      return "nil";
    case Kind::Null:
      return "null";
    case Kind::Boolean:
      return "boolean";
    case Kind::Integer:
      return "integer";
    case Kind::Float32:
      return "float";
    case Kind::Float64:
      return "double";
    case Kind::Decimal:
      return "decimal";
    case Kind::String:
      return "string";
    case Kind::Data:
      return "data";
    case Kind::Date:
      return "date";
    case Kind::Url:
      return "url";
    case Kind::Array:
      return "array";
    case Kind::Dictionary:
      return "dictionary";
    case Kind::Set:
      return "set";
    case Kind::OrderedSet:
      return "ordered set";
    case Kind::Object:
      return "object";
  }
  return "?";
}

bool Value::boolValue() const {
  switch (kind_) {
    case Kind::Boolean:
      return u_.b;
    case Kind::Integer:
      return u_.i != 0;
    case Kind::Float32:
      return u_.f != 0;
    case Kind::Float64:
      return u_.d != 0;
    case Kind::Decimal:
      return !decimalValue().isZero();
    default:
      return false;
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
    case Kind::Boolean:
      return u_.b ? 1 : 0;
    case Kind::Integer:
      return u_.i;
    case Kind::Float32:
      return clamp(u_.f);
    case Kind::Float64:
      return clamp(u_.d);
    case Kind::Decimal:
      return clamp(decimalValue().toDouble());
    default:
      return 0;
  }
}

double Value::doubleValue() const {
  switch (kind_) {
    case Kind::Boolean:
      return u_.b ? 1 : 0;
    case Kind::Integer:
      return static_cast<double>(u_.i);
    case Kind::Float32:
      return u_.f;
    case Kind::Float64:
      return u_.d;
    case Kind::Decimal:
      return decimalValue().toDouble();
    default:
      return 0;
  }
}

Decimal Value::decimalValue() const {
  switch (kind_) {
    case Kind::Decimal:
      return static_cast<DecimalNode*>(u_.n)->value;
    case Kind::Boolean:
    case Kind::Integer:
      return Decimal::fromInteger(intValue());
    case Kind::Float32:
    case Kind::Float64: {
      double d = doubleValue();
      if (std::isnan(d)) return Decimal::notANumber();
      char buf[64];
      std::snprintf(buf, sizeof buf, "%.17g", d);
      return Decimal::parse(buf).value_or(Decimal{});
    }
    default:
      return Decimal{};
  }
}

std::string_view Value::str() const {
  return kind_ == Kind::String ? stringOf(*this) : std::string_view();
}

std::string& Value::mutableStr() {
  if (kind_ != Kind::String || !u_.n->isMutable) {
    throw std::logic_error("Value::mutableStr on a value that is not a mutable string");
  }
  return static_cast<MutableStringNode*>(u_.n)->value;
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
  return static_cast<SequenceNode*>(u_.n)->elements.span();
}

bool Value::append(Value v) {
  if (!isSequence()) throw std::logic_error("Value::append on a non-sequence");
  auto* n = static_cast<SequenceNode*>(u_.n);
  if (kind_ == Kind::Array) {
    n->elements.emplaceBack(std::move(v));
    return true;
  }
  // Small sets search without an index and so without hashing.
  size_t h = n->index.active() ? v.hash() : 0;
  if (n->find(v, h)) return false;
  n->elements.emplaceBack(std::move(v));
  n->appended(h);
  return true;
}

void Value::insert(size_t index, Value v) {
  if (kind_ != Kind::Array && kind_ != Kind::OrderedSet) {
    throw std::logic_error("Value::insert on a non-array");
  }
  auto* n = static_cast<SequenceNode*>(u_.n);
  if (kind_ == Kind::OrderedSet && n->find(v)) return;
  if (index > n->elements.size()) index = n->elements.size();
  n->elements.insert(index, std::move(v));
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
  n->elements.erase(index);
  if (kind_ != Kind::Array) n->reindex();
}

bool Value::remove(const Value& v) {
  if (!isSequence()) return false;
  auto* n = static_cast<SequenceNode*>(u_.n);
  if (kind_ != Kind::Array && n->index.active()) {
    // A set holds `v` once at most: the index finds it and follows the erase.
    const size_t h = v.hash();
    auto i = n->find(v, h);
    if (!i) return false;
    n->elements.erase(*i);
    if (n->elements.size() > detail::HashIndex::kThreshold) {
      n->index.erase(h, *i);
    } else {
      n->reindex();
    }
    return true;
  }
  if (!n->elements.eraseIf([&](const Value& e) { return e == v; })) return false;
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
  return static_cast<DictionaryNode*>(u_.n)->entries.span();
}

std::vector<Value> Value::keys() const {
  std::vector<Value> out;
  for (const auto& e : items()) out.push_back(e.first);
  return out;
}

const Value* Value::find(const Value& key) const {
  if (kind_ != Kind::Dictionary) return nullptr;
  auto* n = static_cast<DictionaryNode*>(u_.n);
  auto i = n->find(key, n->index.active() ? key.hash() : 0);
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
  auto i = n->find(StringKey{key}, n->index.active() ? hashString(key) : 0);
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
  // Small dictionaries search without an index and so without hashing.
  size_t h = n->index.active() ? key.hash() : 0;
  if (auto i = n->find(key, h)) {
    n->entries[*i].second = std::move(v);
    return;
  }
  n->entries.emplaceBack(std::move(key), std::move(v));
  n->appended(h);
}

bool Value::erase(const Value& key) {
  if (kind_ != Kind::Dictionary) return false;
  auto* n = static_cast<DictionaryNode*>(u_.n);
  const size_t h = n->index.active() ? key.hash() : 0;
  auto i = n->find(key, h);
  if (!i) return false;
  n->entries.erase(*i);
  if (n->index.active() && n->entries.size() > detail::HashIndex::kThreshold) {
    n->index.erase(h, *i);
  } else {
    n->reindex();
  }
  return true;
}

void Value::clear() {
  if (isSequence()) {
    auto* n = static_cast<SequenceNode*>(u_.n);
    n->index.reset();
    n->elements.clear();
  } else if (kind_ == Kind::Dictionary) {
    auto* n = static_cast<DictionaryNode*>(u_.n);
    n->index.reset();
    n->entries.clear();
  }
}

void Value::reserve(size_t count) {
  if (isSequence()) {
    auto* n = static_cast<SequenceNode*>(u_.n);
    n->elements.reserve(count);
    if (kind_ != Kind::Array) n->reserveIndex(count);
  } else if (kind_ == Kind::Dictionary) {
    auto* n = static_cast<DictionaryNode*>(u_.n);
    n->entries.reserve(count);
    n->reserveIndex(count);
  }
}

// ---- Copies ----------------------------------------------------------------

namespace {
Value shallowCopy(const Value& v, bool isMutable) {
  using K = Value::Kind;
  switch (v.kind()) {
    case K::String:
      return Value::string(v.str(), isMutable);
    case K::Data:
      return Value::data(v.bytes(), isMutable);
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
    default:
      return v;
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
    case Kind::String:
      return string(str(), isMutable());
    case Kind::Data:
      return data(bytes(), isMutable());
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
    default:
      return *this;
  }
}

// ---- Identity and equality -------------------------------------------------

bool Value::identical(const Value& a, const Value& b) {
  if (a.kind_ != b.kind_) return false;
  if (a.hasNode()) return a.u_.n == b.u_.n;
  switch (a.kind_) {
    case Kind::Nil:
    case Kind::Null:
      return true;
    case Kind::Boolean:
      return a.u_.b == b.u_.b;
    case Kind::Float32:
      return a.u_.f == b.u_.f;
    case Kind::Float64:
    case Kind::Date:
      return a.u_.d == b.u_.d;
    default:
      return a.u_.i == b.u_.i;
  }
}

bool Value::operator==(const Value& o) const {
  if (hasNode() && kind_ == o.kind_ && u_.n == o.u_.n) return true;
  if (isNumber() && o.isNumber()) return numbersEqual(*this, o);
  if (kind_ != o.kind_) return false;
  switch (kind_) {
    case Kind::Nil:
    case Kind::Null:
      return true;
    case Kind::String:
      return str() == o.str();
    case Kind::Data: {
      auto a = bytes(), b = o.bytes();
      return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0);
    }
    case Kind::Date:
      return u_.d == o.u_.d;
    case Kind::Url:
      return urlValue() == o.urlValue();
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
    default:
      return false;
  }
}

size_t Value::hash() const {
  switch (kind_) {
    case Kind::Nil:
      return 0x11;
    case Kind::Null:
      return 0x13;
    case Kind::Boolean:
    case Kind::Integer:
      return std::hash<int64_t>{}(intValue()) * (intValue() != 0);
    case Kind::Float32:
    case Kind::Float64:
    case Kind::Decimal:
      return hashNumber(doubleValue());
    case Kind::String:
      return hashString(str());
    case Kind::Data: {
      auto b = bytes();
      return std::hash<std::string_view>{}(
          std::string_view(reinterpret_cast<const char*>(b.data()), b.size()));
    }
    case Kind::Date:
      return std::hash<double>{}(u_.d) ^ 0xda7e;
    case Kind::Url:
      return std::hash<std::string>{}(urlValue().absoluteString());
    // Containers hash by kind and size only: cheap, stable under in-place
    // changes of their elements, and consistent with deep equality.
    case Kind::Array:
    case Kind::OrderedSet:
      return mix(0xa11a, size());
    case Kind::Set:
      return mix(0x5e7, size());
    case Kind::Dictionary:
      return mix(0xd1c7, size());
    case Kind::Object:
      return objectValue()->hash();
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
    case K::Nil:
      out += "nil";
      break;
    case K::Null:
      out += "<null>";
      break;
    case K::Boolean:
      out += v.boolValue() ? "1" : "0";
      break;
    case K::Integer:
      out += std::to_string(v.intValue());
      break;
    case K::Float32:
    case K::Float64: {
      char buf[40];
      std::snprintf(buf, sizeof buf, "%.17g", v.doubleValue());
      out += buf;
      break;
    }
    case K::Decimal:
      out += v.decimalValue().toString();
      break;
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
    case K::Date:
      out += "date(" + std::to_string(v.dateValue()) + ")";
      break;
    case K::Url:
      out += v.urlValue().absoluteString();
      break;
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
    case K::Object:
      out += v.objectValue()->description();
      break;
  }
}
}  // namespace

std::string Value::description() const {
  std::string out;
  describe(*this, out, 0);
  return out;
}

}  // namespace quillon
