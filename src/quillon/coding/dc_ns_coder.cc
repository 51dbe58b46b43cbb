#include "quillon/coding/internal/dc_ns_coder.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>

#include "quillon/base/error.h"
#include "quillon/coding/internal/dc_geometry_value.h"
#include "quillon/coding/internal/dc_index_set.h"
#include "quillon/coding/internal/dc_ns_coding.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/coding/internal/dense_format.h"

namespace quillon {

using namespace dense;  // NOLINT: the type codes

namespace {

// The finaliser of splitmix64: pointers and date bits have long runs of
// equal low bits, which linear probing on a mask would pile up.
inline uint64_t mix64(uint64_t x) {
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

// Objects are identified by the instance, not by the handle's node: two
// handles made for one instance are the same object.
inline const void* identityOf(const Value& v) {
  return v.isObject() ? static_cast<const void*>(v.objectValue().get()) : v.identity();
}

inline uint64_t load64(const char* p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  return w;
}

inline uint32_t load32(const char* p) {
  uint32_t w;
  std::memcpy(&w, p, 4);
  return w;
}

// A fast hash for the texts that fill the string table: short ones (keys,
// identifiers) in a few loads and no loop, longer ones sixteen bytes a step
// in two independent lanes.
inline uint64_t hashText(std::string_view s) {
  const char* p = s.data();
  size_t n = s.size();
  uint64_t a = 0, b = 0;
  if (n > 16) {
    a = load64(p);
    b = load64(p + 8);
    const char* last = p + n - 16;
    for (const char* q = p + 16; q < last; q += 16) {
      a = (a ^ load64(q)) * 0xbf58476d1ce4e5b9ULL;
      b = (b ^ load64(q + 8)) * 0x94d049bb133111ebULL;
      a ^= a >> 31;
      b ^= b >> 29;
    }
    a ^= load64(last) * 0x9e3779b97f4a7c15ULL;
    b ^= load64(last + 8);
  } else if (n >= 8) {
    a = load64(p);
    b = load64(p + n - 8);
  } else if (n >= 4) {
    a = load32(p);
    b = load32(p + n - 4);
  } else if (n > 0) {
    a = static_cast<uint64_t>(static_cast<uint8_t>(p[0])) << 16 |
        static_cast<uint64_t>(static_cast<uint8_t>(p[n / 2])) << 8 | static_cast<uint8_t>(p[n - 1]);
  }
  uint64_t h = (a ^ (n * 0xff51afd7ed558ccdULL)) * 0xbf58476d1ce4e5b9ULL;
  h ^= std::rotl(b * 0x94d049bb133111ebULL, 29);
  h *= 0x9e3779b97f4a7c15ULL;
  return h ^ (h >> 32);
}

// Tables bigger than these are not kept for the thread's next run.
constexpr size_t kRetainedSlots = size_t{1} << 18;
constexpr size_t kRetainedArena = size_t{16} << 20;

[[noreturn]] void raise(std::string reason) {
  throw Exception(std::string(kDenseCodingException), std::move(reason));
}

// Keeps the nesting depth of the current write; the writer refuses graphs
// nested deeper than the reader would accept (and immutable containers that
// contain themselves, which would otherwise never end).
struct DepthGuard {
  explicit DepthGuard(int& depth) : depth_(depth) {
    if (++depth_ > kMaxDepth) {
      --depth_;
      raise(fmt::format("Unable to encode values nested deeper than {} levels", kMaxDepth));
    }
  }
  ~DepthGuard() { --depth_; }
  int& depth_;
};

// The 20-byte decimal: a control word, then eight 16-bit mantissa words.
void encodeDecimal(const Decimal& in, uint8_t* out) {
  uint32_t word = 0;
  uint16_t mantissa[8] = {};
  if (in.nan) {
    word = 1u << 12;  // length 0 with the sign bit set is NaN
  } else {
    uint128_t m = in.mantissa;
    int64_t e = in.exponent;
    while (e > 127 && m != 0 && m <= ~static_cast<uint128_t>(0) / 10) {
      m *= 10;
      --e;
    }
    while (e < -128 && m != 0) {
      m /= 10;
      ++e;
    }
    if (m == 0) e = 0;
    if (e > 127) {
      raise(fmt::format("Unable to encode decimal number {}", in.toScientificString()));
    }
    if (e < -128) e = 0;  // the mantissa has vanished: zero
    int length = 0;
    for (int i = 0; i < 8; ++i) {
      mantissa[i] = static_cast<uint16_t>(m >> (16 * i));
      if (mantissa[i] != 0) length = i + 1;
    }
    bool compact = m == 0 || m % 10 != 0;
    word = static_cast<uint8_t>(static_cast<int8_t>(e)) | (static_cast<uint32_t>(length) << 8) |
           ((in.negative && m != 0) ? 1u << 12 : 0u) | (compact ? 1u << 13 : 0u);
  }
  store<uint32_t>(out, word);
  for (int i = 0; i < 8; ++i) store<uint16_t>(out + 4 + 2 * i, mantissa[i]);
}

}  // namespace

DCNSCoder::DCNSCoder(const Value& rootObject) : rootObject_(rootObject) {
  thread_local Tables threadTables;
  if (threadTables.inUse) {
    ownTables_ = std::make_unique<Tables>();
    tables_ = ownTables_.get();
  } else {
    tables_ = &threadTables;
  }
  tables_->inUse = true;
  if (++tables_->generation == 0) {
    // Slots of a run 2^32 runs ago would look current.
    std::fill(tables_->objects.begin(), tables_->objects.end(), ObjectSlot{});
    std::fill(tables_->dates.begin(), tables_->dates.end(), ObjectSlot{});
    std::fill(tables_->strings.begin(), tables_->strings.end(), StringSlot{});
    tables_->generation = 1;
  }
  generation_ = tables_->generation;
  tables_->arena.clear();
  tables_->pending.clear();
}

DCNSCoder::~DCNSCoder() {
  tables_->inUse = false;
  if (tables_->objects.size() > kRetainedSlots) tables_->objects = {};
  if (tables_->dates.size() > kRetainedSlots) tables_->dates = {};
  if (tables_->strings.size() > kRetainedSlots) tables_->strings = {};
  if (tables_->arena.capacity() > kRetainedArena) tables_->arena = {};
  if (tables_->pending.capacity() > kRetainedSlots) tables_->pending = {};
}

// ---- Output ----------------------------------------------------------------

// output_ is kept larger than size_ and zero beyond it, so padding is only an
// advance of size_.
void DCNSCoder::grow(size_t n) { output_.resize(std::max(output_.size() * 2, size_ + n + 256)); }

inline void DCNSCoder::put8(uint8_t b) {
  reserve(1);
  output_[size_++] = b;
}

inline void DCNSCoder::align(size_t width) {
  size_t padded = (size_ + width - 1) & ~(width - 1);
  reserve(padded - size_);
  size_ = padded;
}

template <typename T>
inline void DCNSCoder::putAligned(T v) {
  size_t at = (size_ + sizeof(T) - 1) & ~(sizeof(T) - 1);
  reserve(at - size_ + sizeof(T));
  store<T>(output_.data() + at, v);
  size_ = at + sizeof(T);
}

inline void DCNSCoder::putBytes(const void* p, size_t n) {
  reserve(n);
  if (n) std::memcpy(output_.data() + size_, p, n);
  size_ += n;
}

inline void DCNSCoder::putCString(std::string_view s) {
  reserve(s.size() + 1);
  if (!s.empty()) std::memcpy(output_.data() + size_, s.data(), s.size());
  size_ += s.size();
  output_[size_++] = 0;
}

// ---- Tables ----------------------------------------------------------------

uint32_t DCNSCoder::findSlot(const std::vector<ObjectSlot>& slots, uint64_t key) const {
  if (slots.empty()) return 0;
  size_t mask = slots.size() - 1;
  for (size_t s = mix64(key) & mask;; s = (s + 1) & mask) {
    const ObjectSlot& slot = slots[s];
    if (slot.generation != generation_) return 0;
    if (slot.key == key) return slot.index;
  }
}

// Sets the index of a key, adding it when absent; keeps the load under half.
void DCNSCoder::insertSlot(std::vector<ObjectSlot>& slots, uint32_t& used, uint64_t key,
                           uint32_t index) {
  if ((used + 1) * 2 > slots.size()) {
    std::vector<ObjectSlot> old = std::move(slots);
    slots.assign(std::max<size_t>(old.size() * 2, 256), ObjectSlot{});
    size_t mask = slots.size() - 1;
    for (const ObjectSlot& o : old) {
      if (o.generation != generation_) continue;
      size_t s = mix64(o.key) & mask;
      while (slots[s].generation == generation_) s = (s + 1) & mask;
      slots[s] = o;
    }
  }
  size_t mask = slots.size() - 1;
  size_t s = mix64(key) & mask;
  while (slots[s].generation == generation_) {
    if (slots[s].key == key) {
      slots[s].index = index;
      return;
    }
    s = (s + 1) & mask;
  }
  slots[s] = ObjectSlot{key, index, generation_};
  ++used;
}

uint32_t DCNSCoder::findObject(const void* key) {
  uint32_t found = findSlot(tables_->objects, reinterpret_cast<uintptr_t>(key));
  if (found || tables_->pending.empty()) return found;
  enterPending();
  return findSlot(tables_->objects, reinterpret_cast<uintptr_t>(key));
}

void DCNSCoder::enterPending() {
  for (const auto& [key, index] : tables_->pending) {
    insertSlot(tables_->objects, objectSlotsUsed_, reinterpret_cast<uintptr_t>(key), index);
  }
  tables_->pending.clear();
}

uint32_t DCNSCoder::findValue(const Value& v) {
  return v.isSoleHandle() ? 0 : findObject(v.identity());
}

void DCNSCoder::enterValue(const Value& v) {
  if (v.isSoleHandle()) {
    tables_->pending.emplace_back(v.identity(), ++objectCount_);
  } else {
    enterObject(v.identity());
  }
}

// Enters the value with this identity as the next object-table entry.
uint32_t DCNSCoder::enterObject(const void* key) {
  uint32_t index = objectCount_++;
  insertSlot(tables_->objects, objectSlotsUsed_, reinterpret_cast<uintptr_t>(key), index + 1);
  return index;
}

uint32_t DCNSCoder::findString(std::string_view text, uint64_t hash) const {
  const std::vector<StringSlot>& slots = tables_->strings;
  if (slots.empty()) return 0;
  size_t mask = slots.size() - 1;
  for (size_t s = hash & mask;; s = (s + 1) & mask) {
    const StringSlot& slot = slots[s];
    if (slot.generation != generation_) return 0;
    if (slot.hash == hash && slot.length == text.size() &&
        std::memcmp(tables_->arena.data() + slot.begin, text.data(), text.size()) == 0) {
      return slot.index;
    }
  }
}

void DCNSCoder::growStrings() {
  std::vector<StringSlot>& slots = tables_->strings;
  std::vector<StringSlot> old = std::move(slots);
  slots.assign(std::max<size_t>(old.size() * 2, 1024), StringSlot{});
  size_t mask = slots.size() - 1;
  for (const StringSlot& o : old) {
    if (o.generation != generation_) continue;
    size_t s = o.hash & mask;
    while (slots[s].generation == generation_) s = (s + 1) & mask;
    slots[s] = o;
  }
}

uint32_t DCNSCoder::enterString(std::string_view text, uint64_t hash) {
  uint32_t index = stringCount_++;
  if ((stringSlotsUsed_ + 1) * 2 > tables_->strings.size()) growStrings();
  std::vector<StringSlot>& slots = tables_->strings;
  size_t mask = slots.size() - 1;
  size_t s = hash & mask;
  while (slots[s].generation == generation_) s = (s + 1) & mask;
  std::string& arena = tables_->arena;
  slots[s] = StringSlot{hash, static_cast<uint32_t>(arena.size()),
                        static_cast<uint32_t>(text.size()), index + 1, generation_};
  arena.append(text);
  ++stringSlotsUsed_;
  return index;
}

// ---- Entry point -----------------------------------------------------------

std::vector<uint8_t> DCNSCoder::encodeRootObject() {
  if (used_) raise("A DCNSCoder writes one root object");
  used_ = true;
  output_.assign(4096, 0);
  store<uint32_t>(output_.data(), kIdentifier);
  store<uint16_t>(output_.data() + 4, kMajorVersion);
  store<uint16_t>(output_.data() + 6, kMinorVersion);
  size_ = kHeaderSize;
  encodeValue(rootObject_);
  store<uint32_t>(output_.data() + 8, objectCount_);
  store<uint32_t>(output_.data() + 12, classCount_);
  store<uint32_t>(output_.data() + 16, stringCount_);
  output_.resize(size_);
  return std::move(output_);
}

// ---- Per-kind writers ------------------------------------------------------

void DCNSCoder::encodeValue(const Value& v) {
  switch (v.kind()) {
    case Value::Kind::Nil:
      put8(kNil);
      return;
    case Value::Kind::Null:
      put8(kNull);
      return;
    case Value::Kind::Boolean:
      put8(v.boolValue() ? kTrue : kFalse);
      return;
    case Value::Kind::Integer:
      writeInteger(v.intValue());
      return;
    case Value::Kind::Float32:
      put8(kFloat32);
      putAligned<float>(v.floatValue());
      return;
    case Value::Kind::Float64:
      put8(kFloat64);
      putAligned<double>(v.doubleValue());
      return;
    case Value::Kind::Decimal:
      writeDecimal(v);
      return;
    case Value::Kind::String:
      if (v.isMutable()) {
        writeMutableString(v);
      } else {
        writeImmutableString(v.str());
      }
      return;
    case Value::Kind::Data:
      writeData(v);
      return;
    case Value::Kind::Date:
      writeDate(v.dateValue());
      return;
    case Value::Kind::Url:
      writeUrl(v);
      return;
    case Value::Kind::Array:
    case Value::Kind::Set:
    case Value::Kind::OrderedSet:
      writeSequence(v);
      return;
    case Value::Kind::Dictionary:
      writeDictionary(v);
      return;
    case Value::Kind::Object:
      writeObject(v);
      return;
  }
}

void DCNSCoder::writeInteger(int64_t v) {
  if (v >= -128 && v <= 127) {
    if (v == 0) {
      put8(kZero);
    } else if (v == 1) {
      put8(kOne);
    } else {
      reserve(2);
      output_[size_++] = kInt8;
      output_[size_++] = static_cast<uint8_t>(static_cast<int8_t>(v));
    }
  } else if (v >= -32768 && v <= 32767) {
    put8(kInt16);
    putAligned<int16_t>(static_cast<int16_t>(v));
  } else if (v >= INT32_MIN && v <= INT32_MAX) {
    put8(kInt32);
    putAligned<int32_t>(static_cast<int32_t>(v));
  } else {
    put8(kInt64);
    putAligned<int64_t>(v);
  }
}

// baseCode is kAlias8 or kStringAlias8; the wider forms follow it.
void DCNSCoder::writeAlias(uint8_t baseCode, uint32_t index) {
  if (index < 256) {
    reserve(2);
    output_[size_++] = baseCode;
    output_[size_++] = static_cast<uint8_t>(index);
  } else if (index < 65536) {
    put8(static_cast<uint8_t>(baseCode + 1));
    putAligned<uint16_t>(static_cast<uint16_t>(index));
  } else {
    put8(static_cast<uint8_t>(baseCode + 2));
    putAligned<uint32_t>(index);
  }
}

void DCNSCoder::writeClassIndex(uint32_t index) {
  if (index < 256) {
    reserve(2);
    output_[size_++] = kObject8;
    output_[size_++] = static_cast<uint8_t>(index);
  } else if (index < 65536) {
    put8(kObject16);
    putAligned<uint16_t>(static_cast<uint16_t>(index));
  } else {
    put8(kObject32);
    putAligned<uint32_t>(index);
  }
}

void DCNSCoder::writeImmutableString(std::string_view s) {
  uint64_t h = hashText(s);
  if (uint32_t found = findString(s, h)) {
    writeAlias(kStringAlias8, found - 1);
    return;
  }
  enterString(s, h);
  put8(kString);
  putCString(s);
}

void DCNSCoder::writeKey(std::string_view key) { writeImmutableString(key); }

void DCNSCoder::writeMutableString(const Value& v) {
  if (uint32_t found = findValue(v)) {
    writeAlias(kAlias8, found - 1);
    return;
  }
  enterValue(v);
  put8(kMutableString);
  putCString(v.str());
}

void DCNSCoder::writeData(const Value& v) {
  if (uint32_t found = findValue(v)) {
    writeAlias(kAlias8, found - 1);
    return;
  }
  enterValue(v);
  put8(v.isMutable() ? kMutableData : kData);
  auto bytes = v.bytes();
  if (bytes.size() > UINT32_MAX) raise("Unable to encode data longer than 4 GB");
  putAligned<uint32_t>(static_cast<uint32_t>(bytes.size()));
  putBytes(bytes.data(), bytes.size());
  align(4);
}

// Dates have no identity of their own here: equal dates share one entry.
void DCNSCoder::writeDate(double seconds) {
  uint64_t bits = std::bit_cast<uint64_t>(seconds);
  if (uint32_t found = findSlot(tables_->dates, bits)) {
    writeAlias(kAlias8, found - 1);
    return;
  }
  insertSlot(tables_->dates, dateSlotsUsed_, bits, ++objectCount_);
  put8(kDate);
  putAligned<double>(seconds);
}

void DCNSCoder::writeDecimal(const Value& v) {
  put8(kDecimal);
  // A multiple of 20 from the buffer start, unlike the power-of-two widths.
  size_t padded = (size_ + kDecimalAlignment - 1) / kDecimalAlignment * kDecimalAlignment;
  reserve(padded - size_ + kDecimalAlignment);
  size_ = padded;
  encodeDecimal(v.decimalValue(), output_.data() + size_);
  size_ += kDecimalAlignment;
}

void DCNSCoder::writeSequence(const Value& v) {
  if (uint32_t found = findValue(v)) {
    writeAlias(kAlias8, found - 1);
    return;
  }
  DepthGuard guard(depth_);
  bool isMutable = v.isMutable();
  uint8_t code = v.isArray() ? kArray : v.isSet() ? kSet : kOrderedSet;
  if (isMutable) {
    enterValue(v);
    code = static_cast<uint8_t>(code + (kMutableArray - kArray));
  }
  auto elements = v.elements();
  put8(code);
  putAligned<uint32_t>(static_cast<uint32_t>(elements.size()));
  // Index-based: a mutable container may be reached again while it is written.
  for (size_t i = 0; i < elements.size(); ++i) encodeValue(elements[i]);
  if (!isMutable) enterValue(v);
}

void DCNSCoder::writeDictionary(const Value& v) {
  if (uint32_t found = findValue(v)) {
    writeAlias(kAlias8, found - 1);
    return;
  }
  DepthGuard guard(depth_);
  auto items = v.items();
  if (items.size() == 1 && items[0].first.isString() && items[0].first.str() == "$alias") {
    writeAliasReference(items[0].second);
    return;
  }
  // The keys' nodes are read below and again when they are written: fetch
  // them all at once rather than one miss at a time.
  for (const auto& item : items) __builtin_prefetch(item.first.identity());
  for (const auto& [key, value] : items) {
    if (value.isString() && key.isString() && key.str() == "$class") {
      writeClassSubstitute(v, value.str());
      return;
    }
  }
  bool isMutable = v.isMutable();
  if (isMutable) enterValue(v);
  put8(isMutable ? kMutableDictionary : kDictionary);
  putAligned<uint32_t>(static_cast<uint32_t>(items.size()));
  for (size_t i = 0; i < items.size(); ++i) {
    encodeValue(items[i].second);
    encodeValue(items[i].first);
  }
  if (!isMutable) enterValue(v);
}

// {"$alias": "a.0.b"} stands for the value at that key path from the root.
void DCNSCoder::writeAliasReference(const Value& path) {
  Value current = rootObject_;
  std::string_view rest = path.str();
  while (!current.isNil()) {
    size_t dot = rest.find('.');
    std::string_view component = rest.substr(0, dot);
    if (current.isArray()) {
      size_t index = 0;
      auto [end, ec] =
          std::from_chars(component.data(), component.data() + component.size(), index);
      bool valid = ec == std::errc() && end == component.data() + component.size();
      current = valid && index < current.size() ? current[index] : Value();
    } else if (current.isDictionary()) {
      current = current.get(component);
    } else if (current.isObject()) {
      current = current.objectValue()->valueForKey(component);
    } else {
      current = Value();
    }
    if (dot == std::string_view::npos) break;
    rest.remove_prefix(dot + 1);
  }
  // Kept, so that the value is not taken for unshared where the graph
  // reaches it again.
  if (current.identity()) retained_.push_back(current);
  encodeValue(current);
}

// A dictionary with "$class" is written as an instance of that class: the
// reader's stand-in for classes it does not know goes back as it came.
void DCNSCoder::writeClassSubstitute(const Value& v, std::string_view className) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : v.items()) {
    if (key.isString() && key.str() == "$class") continue;
    keys.push_back(key.isString() ? std::string(key.str()) : key.description());
  }
  auto [it, inserted] = classesByName_.try_emplace(std::string(className));
  ClassEntry* entry = &it->second;
  if (inserted) {
    entry->definition.className = std::string(className);
    entry->definition.propertyKeys = std::move(keys);
  } else {
    std::vector<std::string> missing;
    for (auto& k : keys) {
      bool known = false;
      for (const auto& have : entry->definition.propertyKeys) {
        if (have == k) {
          known = true;
          break;
        }
      }
      if (!known) missing.push_back(std::move(k));
    }
    if (!missing.empty()) {
      // A definition already in the data cannot grow: readers have its key
      // count. Later instances get a wider definition of the same name.
      if (entry->tableIndex >= 0) entry->tableIndex = -1;
      for (auto& k : missing) entry->definition.propertyKeys.push_back(std::move(k));
    }
  }
  const DCClassDefinition& def = entry->definition;
  if (entry->tableIndex < 0) {
    entry->tableIndex = classCount_++;
    put8(kClassDefinition);
    putCString(def.className);
    putAligned<uint32_t>(static_cast<uint32_t>(def.propertyKeys.size()));
    for (const auto& k : def.propertyKeys) putCString(k);
  }
  enterValue(v);
  writeClassIndex(static_cast<uint32_t>(entry->tableIndex));
  // Copy: values written below may reach this class again and widen it.
  std::vector<std::string> propertyKeys = def.propertyKeys;
  for (const auto& k : propertyKeys) encodeValue(v.get(k));
}

void DCNSCoder::writeUrl(const Value& v) {
  const Url& url = v.urlValue();
  std::string key = url.relativeString();
  if (const Url* base = url.baseURL()) {
    key += '\0';
    key += base->absoluteString();
  }
  if (auto it = urlCache_.find(key); it != urlCache_.end()) {
    writeAlias(kStringAlias8, it->second);
    return;
  }
  DepthGuard guard(depth_);
  put8(kUrl);
  writeImmutableString(url.relativeString());
  if (const Url* base = url.baseURL()) {
    encodeValue(Value::url(*base));
  } else {
    put8(kNil);
  }
  urlCache_.emplace(std::move(key), stringCount_++);
}

void DCNSCoder::writeObject(const Value& v) {
  const std::shared_ptr<Object>& object = v.objectValue();
  if (auto* geometry = dynamic_cast<const DCGeometryValue*>(object.get())) {
    ++objectCount_;  // entered, never looked up: the reader does not enter these
    const std::string& type = geometry->typeEncoding();
    const auto& n = geometry->numbers();
    int count = 0;
    if (type == "{CGPoint=dd}") {
      put8(kPoint);
      count = 2;
    } else if (type == "{CGSize=dd}") {
      put8(kSize);
      count = 2;
    } else if (type == "{CGRect={CGPoint=dd}{CGSize=dd}}") {
      put8(kRect);
      count = 4;
    } else if (type == "{_NSRange=QQ}") {
      put8(kRange);
      putAligned<uint64_t>(geometry->location());
      putAligned<uint64_t>(geometry->length());
      return;
    } else if (type == "{CGVector=dd}") {
      put8(kVector);
      count = 2;
    } else if (type == "{CGAffineTransform=dddddd}") {
      put8(kAffineTransform);
      count = 6;
    } else if (type.starts_with("{CATransform3D")) {
      put8(kTransform3D);
      count = 16;
    } else {
      --objectCount_;
      raise(fmt::format("Unable to encode NSValue data of type {}", type));
    }
    for (int i = 0; i < count; ++i) putAligned<double>(n[static_cast<size_t>(i)]);
    return;
  }

  const void* id = object.get();
  if (uint32_t found = findObject(id)) {
    writeAlias(kAlias8, found - 1);
    return;
  }
  DepthGuard guard(depth_);

  if (auto* indexSet = dynamic_cast<const DCIndexSet*>(object.get())) {
    bool isMutable = indexSet->isMutable();
    if (isMutable) enterObject(id);
    put8(isMutable ? kMutableIndexSet : kIndexSet);
    putAligned<uint32_t>(static_cast<uint32_t>(indexSet->ranges().size()));
    for (const auto& [location, length] : indexSet->ranges()) {
      putAligned<uint32_t>(location);
      putAligned<uint32_t>(length);
    }
    if (!isMutable) enterObject(id);
    return;
  }

  if (auto* coding = dynamic_cast<const DCNSCoding*>(object.get())) {
    put8(kCodedObject);
    writeImmutableString(object->className());
    coding->encodeWithCoder(*this);
    put8(kNil);
    enterObject(id);
    return;
  }

  if (auto* generic = dynamic_cast<const GenericObject*>(object.get())) {
    // A keyed-coded object of a class without a factory: its stored pairs.
    put8(kCodedObject);
    writeImmutableString(generic->className());
    for (const auto& [key, value] : generic->properties().items()) {
      if (value.isNil()) continue;
      encodeValue(value);
      encodeValue(key);
    }
    put8(kNil);
    enterObject(id);
    return;
  }

  // Any other object: an instance of its class with no coded properties.
  std::string name = object->className();
  auto [it, inserted] = classCache_.try_emplace(name, classCount_);
  if (inserted) {
    ++classCount_;
    put8(kClassDefinition);
    putCString(name);
    putAligned<uint32_t>(0);
  }
  enterObject(id);
  writeClassIndex(it->second);
}

// ---- Keyed coding ----------------------------------------------------------

void DCNSCoder::encodeObject(const Value& object, std::string_view key) {
  if (object.isNil()) return;
  if (object.identity()) retained_.push_back(object);
  encodeValue(object);
  writeKey(key);
}

void DCNSCoder::encodeConditionalObject(const Value& object, std::string_view key) {
  const void* id = identityOf(object);
  if (!id || !findObject(id)) return;
  encodeValue(object);
  writeKey(key);
}

void DCNSCoder::encodeBool(bool value, std::string_view key) {
  put8(value ? kTrue : kFalse);
  writeKey(key);
}

void DCNSCoder::encodeInteger(int64_t value, std::string_view key) {
  writeInteger(value);
  writeKey(key);
}

// The integer widths share one encoding: the narrowest code that holds the value.
void DCNSCoder::encodeInt(int value, std::string_view key) { encodeInteger(value, key); }
void DCNSCoder::encodeInt32(int32_t value, std::string_view key) { encodeInteger(value, key); }
void DCNSCoder::encodeInt64(int64_t value, std::string_view key) { encodeInteger(value, key); }

void DCNSCoder::encodeFloat(float value, std::string_view key) {
  put8(kFloat32);
  putAligned<float>(value);
  writeKey(key);
}

void DCNSCoder::encodeDouble(double value, std::string_view key) {
  put8(kFloat64);
  putAligned<double>(value);
  writeKey(key);
}

void DCNSCoder::encodeBytes(std::span<const uint8_t> bytes, std::string_view key) {
  encodeObject(Value::data(bytes), key);
}

}  // namespace quillon
