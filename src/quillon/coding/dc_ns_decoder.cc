#include "quillon/coding/internal/dc_ns_decoder.h"

#include <fmt/format.h>

#include <cstring>
#include <unordered_set>

#include "quillon/base/error.h"
#include "quillon/coding/internal/dc_geometry_value.h"
#include "quillon/coding/internal/dc_index_set.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/coding/internal/dense_format.h"

namespace quillon {

using namespace dense;  // NOLINT: the type codes

namespace {

// Work allowed for comparing container-valued set members and keys in one
// run (members × nodes), and the node count of one such member.
constexpr uint64_t kCompareWorkLimit = uint64_t{1} << 26;
constexpr size_t kComparableNodes = 64;

[[noreturn]] void raise(std::string reason) {
  throw Exception(std::string(kDenseCodingException), std::move(reason));
}

struct DepthGuard {
  explicit DepthGuard(int& depth, size_t offset) : depth_(depth) {
    if (++depth_ > kMaxDepth) {
      --depth_;
      raise(fmt::format("DenseCoding cannot decode values nested deeper than {} levels (at {})",
                        kMaxDepth, offset));
    }
  }
  ~DepthGuard() { --depth_; }
  int& depth_;
};

bool isValidUtf8(const uint8_t* p, size_t n) {
  size_t i = 0;
  while (i < n) {
    if (i + 8 <= n) {
      uint64_t word;
      std::memcpy(&word, p + i, 8);
      if ((word & 0x8080808080808080ULL) == 0) {
        i += 8;
        continue;
      }
    }
    uint8_t c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t extra;
    uint32_t cp;
    if ((c & 0xe0) == 0xc0) {
      extra = 1, cp = c & 0x1f;
    } else if ((c & 0xf0) == 0xe0) {
      extra = 2, cp = c & 0x0f;
    } else if ((c & 0xf8) == 0xf0) {
      extra = 3, cp = c & 0x07;
    } else {
      return false;
    }
    if (i + extra >= n) return false;
    for (size_t k = 1; k <= extra; ++k) {
      if ((p[i + k] & 0xc0) != 0x80) return false;
      cp = (cp << 6) | (p[i + k] & 0x3f);
    }
    static constexpr uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMinimum[extra] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return false;
    i += extra + 1;
  }
  return true;
}

Decimal decodeDecimal(const uint8_t* p) {
  uint32_t word = load<uint32_t>(p);
  auto exponent = static_cast<int8_t>(word & 0xff);
  unsigned length = (word >> 8) & 0xf;
  bool negative = (word >> 12) & 1;
  if (length == 0) return negative ? Decimal::notANumber() : Decimal{};
  if (length > 8) length = 8;
  uint128_t mantissa = 0;
  for (unsigned i = 0; i < length; ++i) {
    mantissa |= static_cast<uint128_t>(load<uint16_t>(p + 4 + 2 * i)) << (16 * i);
  }
  Decimal d;
  d.mantissa = mantissa;
  d.exponent = exponent;
  d.negative = negative && mantissa != 0;
  return d;
}

}  // namespace

DCNSDecoder::DCNSDecoder(std::span<const uint8_t> input, Readers readers)
    : input_(input.data()), total_(input.size()), readers_(readers) {}

// ---- Failures --------------------------------------------------------------

void DCNSDecoder::eof(size_t at) const {
  raise(fmt::format("Unexpected EOF when parsing object starting at {}", at));
}

void DCNSDecoder::cannotDecode(int64_t code) const {
  raise(fmt::format("DenseCoding cannot decode object of type: {}", code));
}

void DCNSDecoder::badIndex(size_t index, size_t count) const {
  raise(fmt::format("Attempted to read cache object at index {}, but cache object count is {}",
                    index, count));
}

// ---- Primitive reads -------------------------------------------------------

// UTF-8 up to the next zero byte, which is consumed.
std::string_view DCNSDecoder::readCString() {
  size_t start = offset_;
  if (start >= total_) eof(start);
  const void* zero = std::memchr(input_ + start, 0, total_ - start);
  if (!zero) eof(start);
  size_t length = static_cast<size_t>(static_cast<const uint8_t*>(zero) - (input_ + start));
  if (!isValidUtf8(input_ + start, length)) {
    raise(fmt::format("DenseCoding cannot decode a string that is not UTF-8 at {}", start));
  }
  offset_ = start + length + 1;
  return std::string_view(reinterpret_cast<const char*>(input_ + start), length);
}

Value DCNSDecoder::makeString(std::string_view s, bool isMutable) const {
  return Value::string(s, isMutable);
}

// An element count, refused when the rest of the buffer cannot hold that many
// elements of at least minimumBytesEach bytes.
uint32_t DCNSDecoder::readCount(size_t minimumBytesEach) {
  uint32_t count = readAligned<uint32_t>();
  if (static_cast<uint64_t>(count) * minimumBytesEach > total_ - offset_) eof(offset_ - 4);
  return count;
}

// ---- Guards against hostile graphs ----------------------------------------

void DCNSDecoder::checkComparable(const Value& member, size_t containerSize) {
  bool generic = member.isObject() && member.objectAs<GenericObject>();
  if (!member.isContainer() && !generic) return;
  size_t nodes = 0;
  std::vector<const void*> path;
  auto refuse = [&] {
    raise(fmt::format(
        "DenseCoding cannot use a cyclic, incomplete or oversized collection as a set member or "
        "key (at {})",
        offset_));
  };
  auto visit = [&](auto& self, const Value& v) -> void {
    if (++nodes > kComparableNodes) refuse();
    const Value* inner = &v;
    if (v.isObject()) {
      auto* g = v.objectAs<GenericObject>();
      if (!g) return;
      inner = &g->properties();
    }
    if (!inner->isContainer()) return;
    const void* id = inner->identity();
    for (const void* p : path) {
      if (p == id) refuse();
    }
    for (const void* p : openContainers_) {
      if (p == id) refuse();
    }
    path.push_back(id);
    if (inner->isDictionary()) {
      for (const auto& [k, val] : inner->items()) {
        self(self, k);
        self(self, val);
      }
    } else {
      for (const auto& e : inner->elements()) self(self, e);
    }
    path.pop_back();
  };
  visit(visit, member);
  compareWork_ += static_cast<uint64_t>(containerSize + 1) * nodes;
  if (compareWork_ > kCompareWorkLimit) refuse();
}

void DCNSDecoder::addMember(Value& container, Value member) {
  if (!container.isArray()) checkComparable(member, container.size());
  container.append(std::move(member));
}

void DCNSDecoder::setEntry(Value& dictionary, Value key, Value value) {
  if (!key.isString()) {
    if (key.isNil()) return;
    checkComparable(key, dictionary.size());
  }
  dictionary.set(std::move(key), std::move(value));
}

// An object-table entry named by an alias. A cycle needs an alias to a
// container whose contents are still being read: everything else was
// complete before the alias could name it.
Value DCNSDecoder::aliased(size_t index) {
  if (index >= objectCache_.size()) badIndex(index, objectCache_.size());
  const Value& entry = objectCache_[index];
  if (!mayHoldCycles_ && entry.isContainer()) {
    const void* id = entry.identity();
    for (const void* open : openContainers_) {
      if (open == id) {
        mayHoldCycles_ = true;
        break;
      }
    }
  }
  return entry;
}

// An instance's properties give way to the object its class made from them.
// They may contain themselves, so they stay listed for the cycle breaking.
void DCNSDecoder::replaceEntry(size_t slot, Value made) {
  if (mayHoldCycles_) replacedEntries_.push_back(std::move(objectCache_[slot]));
  objectCache_[slot] = std::move(made);
}

// Cycles can only run through object-table entries (and the entries that
// objects replaced); emptying every container there frees a graph that a
// failure left half built.
void DCNSDecoder::breakCycles() {
  for (auto* table : {&objectCache_, &replacedEntries_}) {
    for (Value& v : *table) {
      if (v.isContainer()) {
        Value handle = v;
        handle.clear();
      }
    }
    table->clear();
  }
}

// After a successful read, a cycle the root does not reach (an entry dropped
// for its nil key, a coded object's keys its class does not read, an earlier
// value for a repeated key) would never be freed: nobody holds it to break
// it. Empties every object-table container the root does not reach; those
// it reaches are the caller's, cycles included.
void DCNSDecoder::releaseUnreachable(const Value& root) {
  if (!mayHoldCycles_) return;
  std::unordered_set<const void*> reached;
  for (const Value& c : DenseCoder::reachableContainers(root)) reached.insert(c.identity());
  for (auto* table : {&objectCache_, &replacedEntries_}) {
    for (Value& v : *table) {
      if (v.isContainer() && !reached.contains(v.identity())) {
        Value handle = v;
        handle.clear();
      }
    }
  }
}

// ---- Entry -----------------------------------------------------------------

Value DCNSDecoder::decodeRootObject() {
  try {
    offset_ = 0;
    header_.identifier = readUnaligned<uint32_t>();
    header_.majorVersion = readUnaligned<uint16_t>();
    header_.minorVersion = readUnaligned<uint16_t>();
    uint32_t objectCount = readUnaligned<uint32_t>();
    size_t remaining = total_ - offset_;
    objectCache_.reserve(std::min<size_t>(objectCount, remaining));
    Value root;
    if (header_.majorVersion == 2) {
      root = readLegacyValue();
    } else {
      uint32_t classCount = readUnaligned<uint32_t>();
      uint32_t stringCount = readUnaligned<uint32_t>();
      remaining = total_ - offset_;
      classCache_.reserve(std::min<size_t>(classCount, remaining / 5));
      stringCache_.reserve(std::min<size_t>(stringCount, remaining / 2));
      root = readValue();
    }
    releaseUnreachable(root);
    return root;
  } catch (...) {
    breakCycles();
    throw;
  }
}

// ---- Version 3 -------------------------------------------------------------

Value DCNSDecoder::readValue() {
  DepthGuard guard(depth_, offset_);
  size_t start = offset_;
  if (start >= total_) eof(start);
  uint8_t code = input_[offset_++];
  if (code >= kCodeCount) cannotDecode(code);
  if (readers_ == Readers::PropertyList) {
    switch (code) {
      case kNil:
      case kClassDefinition:
      case kObject8:
      case kObject16:
      case kObject32:
      case kCodedObject:
      case kKeyedArchive:
        cannotDecode(code);
      default:
        break;
    }
  }
  switch (code) {
    case kNil:
      return Value();
    case kNull:
      return Value::null();
    case kAlias8:
    case kAlias16:
    case kAlias32: {
      size_t index = code == kAlias8    ? read8()
                     : code == kAlias16 ? readAligned<uint16_t>()
                                        : readAligned<uint32_t>();
      return aliased(index);
    }
    case kStringAlias8:
    case kStringAlias16:
    case kStringAlias32: {
      size_t index = code == kStringAlias8    ? read8()
                     : code == kStringAlias16 ? readAligned<uint16_t>()
                                              : readAligned<uint32_t>();
      if (index >= stringCache_.size()) badIndex(index, stringCache_.size());
      return stringCache_[index];
    }
    case kString: {
      Value s = makeString(readCString(), false);
      stringCache_.push_back(s);
      return s;
    }
    case kMutableString: {
      Value s = makeString(readCString(), true);
      objectCache_.push_back(s);
      return s;
    }
    case kDictionary:
      return readDictionary(false);
    case kMutableDictionary:
      return readDictionary(true);
    case kArray:
    case kSet:
    case kOrderedSet:
    case kMutableArray:
    case kMutableSet:
    case kMutableOrderedSet:
      return readSequence(code);
    case kTrue:
      return Value::boolean(true);
    case kFalse:
      return Value::boolean(false);
    case kInt8:
      return Value::integer(static_cast<int8_t>(read8()));
    case kInt16:
      return Value::integer(readAligned<int16_t>());
    case kInt32:
      return Value::integer(readAligned<int32_t>());
    case kInt64:
      return Value::integer(readAligned<int64_t>());
    case kFloat32:
      return Value::float32(readAligned<float>());
    case kFloat64:
      return Value::float64(readAligned<double>());
    case kData:
    case kMutableData: {
      uint32_t length = readAligned<uint32_t>();
      need(offset_, length);
      Value data =
          Value::data(std::span<const uint8_t>(input_ + offset_, length), code == kMutableData);
      offset_ = std::min(total_, (offset_ + length + 3) & ~size_t{3});
      objectCache_.push_back(data);
      return data;
    }
    case kLegacyDate: {
      Value date = Value::date(readAligned<double>() - kReferenceDateOffset);
      objectCache_.push_back(date);
      return date;
    }
    case kDate: {
      Value date = Value::date(readAligned<double>());
      objectCache_.push_back(date);
      return date;
    }
    case kClassDefinition:
      return readClassDefinition();
    case kObject8:
      return readObjectInstance(read8());
    case kObject16:
      return readObjectInstance(readAligned<uint16_t>());
    case kObject32:
      return readObjectInstance(readAligned<uint32_t>());
    case kUrl: {
      // The parts may be nil even where the property-list readers refuse a nil value.
      Value relative = readOptionalValue();
      Value base = readOptionalValue();
      Value url = readUrl(std::move(relative), std::move(base));
      stringCache_.push_back(url);
      return url;
    }
    case kPoint: {
      double x = readAligned<double>(), y = readAligned<double>();
      return DCGeometryValue::point(x, y);
    }
    case kSize: {
      double w = readAligned<double>(), h = readAligned<double>();
      return DCGeometryValue::size(w, h);
    }
    case kRect: {
      double x = readAligned<double>(), y = readAligned<double>();
      double w = readAligned<double>(), h = readAligned<double>();
      return DCGeometryValue::rect(x, y, w, h);
    }
    case kRange: {
      uint64_t location = readAligned<uint64_t>(), length = readAligned<uint64_t>();
      return DCGeometryValue::range(location, length);
    }
    case kVector: {
      double dx = readAligned<double>(), dy = readAligned<double>();
      return DCGeometryValue::vector(dx, dy);
    }
    case kAffineTransform: {
      double m[6];
      for (double& d : m) d = readAligned<double>();
      return DCGeometryValue::affine(m[0], m[1], m[2], m[3], m[4], m[5]);
    }
    case kTransform3D: {
      std::array<double, 16> m;
      for (double& d : m) d = readAligned<double>();
      return DCGeometryValue::readTransform3D(m);
    }
    case kMutableIndexSet:
      return readIndexSet(true);
    case kIndexSet:
      return readIndexSet(false);
    case kCodedObject:
      return readCodedObject();
    case kDecimal:
      return readDecimal();
    case kOne:
      return Value::integer(1);
    case kZero:
      return Value::integer(0);
    default:
      cannotDecode(code);  // keyed archives are not supported
  }
}

Value DCNSDecoder::readOptionalValue() {
  if (offset_ < total_ && input_[offset_] == kNil) {
    ++offset_;
    return Value();
  }
  return readValue();
}

Value DCNSDecoder::readSequence(uint8_t code) {
  bool isMutable = code >= kMutableArray;
  uint8_t base = isMutable ? static_cast<uint8_t>(code - (kMutableArray - kArray)) : code;
  uint32_t count = readCount(1);
  if (base == kArray && !isMutable) {
    std::vector<Value> elements;
    elements.reserve(count);
    for (uint32_t i = 0; i < count; ++i) elements.push_back(readValue());
    Value array = Value::array(std::move(elements));
    objectCache_.push_back(array);
    return array;
  }
  Value container = base == kArray ? Value::array(isMutable)
                    : base == kSet ? Value::set(isMutable)
                                   : Value::orderedSet(isMutable);
  return fillSequence(std::move(container), isMutable, count, &DCNSDecoder::readValue);
}

Value DCNSDecoder::readDictionary(bool isMutable) {
  return fillDictionary(isMutable, readCount(2), &DCNSDecoder::readValue);
}

// A mutable container enters the object table before its contents, so that
// it may contain itself; an immutable one after them, as the writer numbers
// them.
Value DCNSDecoder::fillSequence(Value container, bool isMutable, uint32_t count, ValueReader read) {
  container.reserve(count);
  if (isMutable) {
    objectCache_.push_back(container);
    openContainers_.push_back(container.identity());
  }
  for (uint32_t i = 0; i < count; ++i) addMember(container, (this->*read)());
  if (isMutable) {
    openContainers_.pop_back();
  } else {
    objectCache_.push_back(container);
  }
  return container;
}

// Entries stand value first, then key; an entry whose value is nil is dropped.
Value DCNSDecoder::fillDictionary(bool isMutable, uint32_t count, ValueReader read) {
  Value dictionary = Value::dictionaryWithCapacity(count, isMutable);
  if (isMutable) {
    objectCache_.push_back(dictionary);
    openContainers_.push_back(dictionary.identity());
  }
  for (uint32_t i = 0; i < count; ++i) {
    Value value = (this->*read)();
    Value key = (this->*read)();
    if (value.isNil()) continue;
    setEntry(dictionary, std::move(key), std::move(value));
  }
  if (isMutable) {
    openContainers_.pop_back();
  } else {
    objectCache_.push_back(dictionary);
  }
  return dictionary;
}

// A class definition, then at once the value that uses it.
Value DCNSDecoder::readClassDefinition() {
  classCache_.push_back(readClassRecord(&DCNSDecoder::readCString, &DCNSDecoder::readCount, 1));
  return readValue();
}

// A class name, a key count and the property keys.
DCNSDecoder::ClassRecord DCNSDecoder::readClassRecord(StringReader readString,
                                                      CountReader readKeyCount,
                                                      size_t minimumBytesPerKey) {
  ClassRecord record;
  std::string_view name = (this->*readString)();
  record.definition.className = std::string(name);
  record.className = makeString(name, false);
  record.factory = factoryFor(name);
  uint32_t count = (this->*readKeyCount)(minimumBytesPerKey);
  record.definition.propertyKeys.reserve(count);
  record.keys.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    std::string_view key = (this->*readString)();
    record.definition.propertyKeys.emplace_back(key);
    record.keys.push_back(makeString(key, false));
  }
  return record;
}

// An instance of a class definition: a registered class is made by its
// factory from the property values; any other class reads back as a mutable
// dictionary whose "$class" names it.
Value DCNSDecoder::readObjectInstance(uint32_t classIndex) {
  if (classIndex >= classCache_.size()) badIndex(classIndex, classCache_.size());
  ClassRecord& record = classCache_[classIndex];
  Value instance = Value::dictionary(true);
  instance.reserve(record.keys.size() + 1);
  instance.set(Value("$class"), record.className);
  size_t slot = objectCache_.size();
  objectCache_.push_back(instance);
  openContainers_.push_back(instance.identity());
  // Index-based: reading a value may add class definitions.
  size_t keyCount = record.keys.size();
  for (size_t i = 0; i < keyCount; ++i) {
    Value value = readValue();
    setEntry(instance, classCache_[classIndex].keys[i], std::move(value));
  }
  openContainers_.pop_back();
  ClassRecord& current = classCache_[classIndex];
  if (current.factory) {
    Value made = makeObject(current, instance);
    replaceEntry(slot, made);
    return made;
  }
  return instance;
}

Value DCNSDecoder::makeObject(ClassRecord& record, Value properties) {
  Value saved = std::move(properties_);
  properties_ = std::move(properties);
  struct Restore {
    Value& target;
    Value& saved;
    ~Restore() { target = std::move(saved); }
  } restore{properties_, saved};
  return Value::object((*record.factory)(*this));
}

const DCNSCoding::Factory* DCNSDecoder::factoryFor(std::string_view className) {
  if (!makesRegisteredObjects_) return nullptr;
  // Objects of one class come one after another, their class name read back
  // as the same text each time.
  if (lastFactory_.first == className) return lastFactory_.second;
  std::string name(className);
  auto it = factories_.find(name);
  const DCNSCoding::Factory* f = nullptr;
  if (it != factories_.end()) {
    f = it->second;
  } else {
    f = DCNSCoding::factoryForClass(className);
    it = factories_.emplace(std::move(name), f).first;
  }
  lastFactory_ = {it->first, f};
  return f;
}

Value DCNSDecoder::readCodedProperties(bool legacy) {
  Value properties;
  if (!propertyDictionaryPool_.empty()) {
    properties = std::move(propertyDictionaryPool_.back());
    propertyDictionaryPool_.pop_back();
  } else {
    properties = Value::dictionary(true);
  }
  for (;;) {
    if (legacy) {
      need(offset_, 4);
      if (load<uint32_t>(input_ + offset_) == 23) {  // the version 2 nil
        offset_ += 4;
        break;
      }
      Value value = readLegacyValue();
      Value key = readLegacyValue();
      setEntry(properties, std::move(key), std::move(value));
    } else {
      need(offset_, 1);
      if (input_[offset_] == kNil) {
        ++offset_;
        break;
      }
      Value value = readValue();
      Value key = readValue();
      setEntry(properties, std::move(key), std::move(value));
    }
  }
  return properties;
}

// Makes the object of a coded-object value from its keyed values.
Value DCNSDecoder::finishCodedObject(const Value& className, Value properties) {
  const DCNSCoding::Factory* factory = factoryFor(className.str());
  if (!factory) {
    return Value::object(
        std::make_shared<GenericObject>(std::string(className.str()), std::move(properties)));
  }
  Value saved = std::move(properties_);
  properties_ = properties;
  Value made;
  try {
    made = Value::object((*factory)(*this));
  } catch (...) {
    properties_ = std::move(saved);
    throw;
  }
  properties_ = std::move(saved);
  properties.clear();
  propertyDictionaryPool_.push_back(std::move(properties));
  return made;
}

Value DCNSDecoder::readCodedObject() {
  Value className = readValue();
  if (!className.isString()) cannotDecode(kCodedObject);
  Value made = finishCodedObject(className, readCodedProperties(false));
  objectCache_.push_back(made);
  return made;
}

Value DCNSDecoder::readUrl(Value relative, Value base) {
  if (!(relative.isString() || relative.isNil()) || !(base.isUrl() || base.isNil())) {
    cannotDecode(kUrl);
  }
  if (relative.isNil()) return Value();
  std::optional<Url> url = Url::parse(relative.str(), base.isUrl() ? &base.urlValue() : nullptr);
  return url ? Value::url(std::move(*url)) : Value();
}

Value DCNSDecoder::readIndexSet(bool isMutable) {
  uint32_t count = readCount(8);
  auto set = std::make_shared<DCIndexSet>(std::vector<DCIndexSet::Range>{}, isMutable);
  Value value = Value::object(set);
  if (isMutable) objectCache_.push_back(value);
  set->ranges().reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t location = readAligned<uint32_t>();
    uint32_t length = readAligned<uint32_t>();
    set->ranges().emplace_back(location, length);
  }
  if (!isMutable) objectCache_.push_back(value);
  return value;
}

Value DCNSDecoder::readDecimal() {
  size_t at = (offset_ + kDecimalAlignment - 1) / kDecimalAlignment * kDecimalAlignment;
  need(at, kDecimalAlignment);
  offset_ = at + kDecimalAlignment;
  return Value::decimal(decodeDecimal(input_ + at));
}

// ---- Keyed decoding --------------------------------------------------------

bool DCNSDecoder::containsValueForKey(std::string_view key) const {
  return properties_.find(key) != nullptr;
}

Value DCNSDecoder::decodeObjectForKey(std::string_view key) const { return properties_.get(key); }

bool DCNSDecoder::decodeBoolForKey(std::string_view key) const {
  return properties_.get(key).boolValue();
}

int DCNSDecoder::decodeIntForKey(std::string_view key) const {
  return static_cast<int>(properties_.get(key).intValue());
}

int64_t DCNSDecoder::decodeIntegerForKey(std::string_view key) const {
  return properties_.get(key).intValue();
}

int32_t DCNSDecoder::decodeInt32ForKey(std::string_view key) const {
  return static_cast<int32_t>(properties_.get(key).intValue());
}

int64_t DCNSDecoder::decodeInt64ForKey(std::string_view key) const {
  return properties_.get(key).intValue();
}

float DCNSDecoder::decodeFloatForKey(std::string_view key) const {
  return properties_.get(key).floatValue();
}

double DCNSDecoder::decodeDoubleForKey(std::string_view key) const {
  return properties_.get(key).doubleValue();
}

std::span<const uint8_t> DCNSDecoder::decodeBytesForKey(std::string_view key) const {
  return properties_.get(key).bytes();
}

}  // namespace quillon
