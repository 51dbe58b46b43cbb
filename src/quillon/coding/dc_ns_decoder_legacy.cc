// Reading of DenseCoding version 2 data: 32-bit type codes read where they
// stand, strings and data padded to 4 bytes, and one object table for every
// value including numbers and class definitions.

#include <fmt/format.h>

#include <cstring>

#include "quillon/base/error.h"
#include "quillon/coding/internal/dc_geometry_value.h"
#include "quillon/coding/internal/dc_index_set.h"
#include "quillon/coding/internal/dc_ns_decoder.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/coding/internal/dense_format.h"

namespace quillon {

namespace {

using dense::kMaxDepth;
using dense::kReferenceDateOffset;

enum LegacyCode : uint32_t {
  kNull = 0,
  kAlias = 1,
  kString = 2,
  kDictionary = 3,
  kArray = 4,
  kSet = 5,
  kOrderedSet = 6,
  kTrue = 7,
  kFalse = 8,
  kInt32 = 9,
  kInt64 = 10,
  kFloat32 = 11,
  kFloat64 = 12,
  kData = 13,
  kDate = 14,
  kMutableString = 15,
  kMutableDictionary = 16,
  kMutableArray = 17,
  kMutableSet = 18,
  kMutableOrderedSet = 19,
  kMutableData = 20,
  kClassDefinition = 21,
  kObject = 22,
  kNil = 23,
  kUrl = 24,
  kPoint = 25,
  kSize = 26,
  kRect = 27,
  kRange = 28,
  kAffineTransform = 29,
  kTransform3D = 30,
  kMutableIndexSet = 31,
  kIndexSet = 32,
  kCodedObject = 33,
  kLegacyCodeCount = 34,
};

constexpr size_t padded4(size_t n) { return (n + 3) & ~size_t{3}; }

}  // namespace

// A count of elements that take at least minimumBytesEach bytes each.
uint32_t DCNSDecoder::readLegacyCount(size_t minimumBytesEach) {
  uint32_t count = readUnaligned<uint32_t>();
  if (static_cast<uint64_t>(count) * minimumBytesEach > total_ - offset_) eof(offset_ - 4);
  return count;
}

// UTF-8, a zero byte, and padding so that length + 1 is a multiple of 4.
std::string_view DCNSDecoder::readLegacyCString() {
  size_t start = offset_;
  std::string_view s = readCString();
  size_t end = start + padded4(s.size() + 1);
  if (end > total_) eof(start);
  offset_ = end;
  return s;
}

Value DCNSDecoder::readLegacyValue() {
  if (++depth_ > kMaxDepth) {
    --depth_;
    throw Exception(
        std::string(kDenseCodingException),
        fmt::format("DenseCoding cannot decode values nested deeper than {} levels (at {})",
                    kMaxDepth, offset_));
  }
  struct Leave {
    int& depth;
    ~Leave() { --depth; }
  } leave{depth_};

  uint32_t code = readUnaligned<uint32_t>();
  if (code >= kLegacyCodeCount) cannotDecode(static_cast<int32_t>(code));
  if (readers_ == Readers::PropertyList &&
      (code == kNil || code == kClassDefinition || code == kObject || code == kCodedObject)) {
    cannotDecode(static_cast<int32_t>(code));
  }
  auto entered = [this](Value v) {
    objectCache_.push_back(v);
    return v;
  };
  switch (code) {
    case kNull: return Value::null();
    case kNil: return Value();
    case kAlias: {
      return aliased(readUnaligned<uint32_t>());
    }
    case kString: return entered(makeString(readLegacyCString(), false));
    case kMutableString: return entered(makeString(readLegacyCString(), true));
    case kDictionary: return readLegacyDictionary(false);
    case kMutableDictionary: return readLegacyDictionary(true);
    case kArray:
    case kSet:
    case kOrderedSet:
    case kMutableArray:
    case kMutableSet:
    case kMutableOrderedSet: return readLegacySequence(code);
    case kTrue: return Value::boolean(true);
    case kFalse: return Value::boolean(false);
    case kInt32: return entered(Value::integer(readUnaligned<int32_t>()));
    case kInt64: return entered(Value::integer(readUnaligned<int64_t>()));
    case kFloat32: return entered(Value::float32(readUnaligned<float>()));
    case kFloat64: return entered(Value::float64(readUnaligned<double>()));
    case kData:
    case kMutableData: {
      uint32_t length = readUnaligned<uint32_t>();
      size_t start = offset_;
      need(start, padded4(length));
      offset_ = start + padded4(length);
      return entered(
          Value::data(std::span<const uint8_t>(input_ + start, length), code == kMutableData));
    }
    case kDate: return entered(Value::date(readUnaligned<double>() - kReferenceDateOffset));
    case kClassDefinition: {
      ClassRecord record =
          readClassRecord(&DCNSDecoder::readLegacyCString, &DCNSDecoder::readLegacyCount, 4);
      legacyClasses_[objectCache_.size()] = classCache_.size();
      classCache_.push_back(std::move(record));
      objectCache_.push_back(Value());  // the definition's slot
      return readLegacyValue();
    }
    case kObject: {
      uint32_t index = readUnaligned<uint32_t>();
      if (index >= objectCache_.size()) badIndex(index, objectCache_.size());
      auto it = legacyClasses_.find(index);
      if (it == legacyClasses_.end()) cannotDecode(static_cast<int32_t>(code));
      size_t classIndex = it->second;
      Value instance = Value::dictionary(true);
      instance.set(Value("$class"), classCache_[classIndex].className);
      size_t slot = objectCache_.size();
      objectCache_.push_back(instance);
      openContainers_.push_back(instance.identity());
      size_t keyCount = classCache_[classIndex].keys.size();
      for (size_t i = 0; i < keyCount; ++i) {
        Value value = readLegacyValue();
        setEntry(instance, classCache_[classIndex].keys[i], std::move(value));
      }
      openContainers_.pop_back();
      if (classCache_[classIndex].factory) {
        Value made = makeObject(classCache_[classIndex], instance);
        replaceEntry(slot, made);
        return made;
      }
      return instance;
    }
    case kUrl: {
      auto optional = [this]() -> Value {
        if (total_ - offset_ >= 4 && dense::load<uint32_t>(input_ + offset_) == kNil) {
          offset_ += 4;
          return Value();
        }
        return readLegacyValue();
      };
      Value relative = optional();
      Value base = optional();
      return entered(readUrl(std::move(relative), std::move(base)));
    }
    case kPoint:
    case kSize: {
      double a = readUnaligned<double>(), b = readUnaligned<double>();
      return entered(code == kPoint ? DCGeometryValue::point(a, b) : DCGeometryValue::size(a, b));
    }
    case kRect: {
      double m[4];
      for (double& d : m) d = readUnaligned<double>();
      return entered(DCGeometryValue::rect(m[0], m[1], m[2], m[3]));
    }
    case kRange: {
      uint32_t location = readUnaligned<uint32_t>(), length = readUnaligned<uint32_t>();
      return entered(DCGeometryValue::range(location, length));
    }
    case kAffineTransform: {
      double m[6];
      for (double& d : m) d = readUnaligned<double>();
      return entered(DCGeometryValue::affine(m[0], m[1], m[2], m[3], m[4], m[5]));
    }
    case kTransform3D: {
      std::array<double, 16> m;
      for (double& d : m) d = readUnaligned<double>();
      return entered(DCGeometryValue::readTransform3D(m));
    }
    case kMutableIndexSet:
    case kIndexSet: {
      bool isMutable = code == kMutableIndexSet;
      uint32_t count = readLegacyCount(8);
      auto set = std::make_shared<DCIndexSet>(std::vector<DCIndexSet::Range>{}, isMutable);
      Value value = Value::object(set);
      if (isMutable) objectCache_.push_back(value);
      set->ranges().reserve(count);
      for (uint32_t i = 0; i < count; ++i) {
        uint32_t location = readUnaligned<uint32_t>();
        uint32_t length = readUnaligned<uint32_t>();
        set->ranges().emplace_back(location, length);
      }
      if (!isMutable) objectCache_.push_back(value);
      return value;
    }
    case kCodedObject: {
      Value className = readLegacyValue();
      if (!className.isString()) cannotDecode(static_cast<int32_t>(code));
      return entered(finishCodedObject(className, readCodedProperties(true)));
    }
    default: cannotDecode(static_cast<int32_t>(code));
  }
}

Value DCNSDecoder::readLegacySequence(uint32_t code) {
  bool isMutable = code >= kMutableArray;
  uint32_t base = isMutable ? code - (kMutableArray - kArray) : code;
  uint32_t count = readLegacyCount(4);
  Value container = base == kArray ? Value::array(isMutable)
                    : base == kSet ? Value::set(isMutable)
                                   : Value::orderedSet(isMutable);
  return fillSequence(std::move(container), isMutable, count, &DCNSDecoder::readLegacyValue);
}

Value DCNSDecoder::readLegacyDictionary(bool isMutable) {
  return fillDictionary(isMutable, readLegacyCount(8), &DCNSDecoder::readLegacyValue);
}

}  // namespace quillon
