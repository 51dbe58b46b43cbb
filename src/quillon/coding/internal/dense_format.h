#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace quillon::dense {

// Type codes of DenseCoding version 3 data: one byte before every value.
enum Code : uint8_t {
  kNil = 0,
  kNull = 1,
  kAlias8 = 2,
  kAlias16 = 3,
  kAlias32 = 4,
  kStringAlias8 = 5,
  kStringAlias16 = 6,
  kStringAlias32 = 7,
  kString = 8,
  kDictionary = 9,
  kArray = 10,
  kSet = 11,
  kOrderedSet = 12,
  kTrue = 13,
  kFalse = 14,
  kInt8 = 15,
  kInt16 = 16,
  kInt32 = 17,
  kInt64 = 18,
  kFloat32 = 19,
  kFloat64 = 20,
  kData = 21,
  kLegacyDate = 22,
  kMutableString = 23,
  kMutableDictionary = 24,
  kMutableArray = 25,
  kMutableSet = 26,
  kMutableOrderedSet = 27,
  kMutableData = 28,
  kClassDefinition = 29,
  kObject8 = 30,
  kObject16 = 31,
  kObject32 = 32,
  kUrl = 33,
  kPoint = 34,
  kSize = 35,
  kRect = 36,
  kRange = 37,
  kVector = 38,
  kAffineTransform = 39,
  kTransform3D = 40,
  kMutableIndexSet = 41,
  kIndexSet = 42,
  kCodedObject = 43,
  kDecimal = 44,
  kOne = 45,
  kZero = 46,
  kKeyedArchive = 47,
  kDate = 48,
  kCodeCount = 49,
};

inline constexpr uint32_t kIdentifier = 0x46415354;  // "TSAF" little-endian
inline constexpr uint16_t kMajorVersion = 3;
inline constexpr uint16_t kMinorVersion = 3;
inline constexpr size_t kHeaderSize = 20;
inline constexpr size_t kLegacyHeaderSize = 12;
inline constexpr size_t kDecimalAlignment = 20;
// Seconds from 1970-01-01 to 2001-01-01.
inline constexpr double kReferenceDateOffset = 978307200.0;
// Nesting deeper than this is refused by the writer and the reader.
inline constexpr int kMaxDepth = 512;

// Little-endian loads and stores of fixed-width fields at any address.
template <typename T>
inline T load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  if constexpr (std::endian::native == std::endian::big && sizeof(T) > 1) {
    auto* b = reinterpret_cast<uint8_t*>(&v);
    for (size_t i = 0; i < sizeof(T) / 2; ++i) std::swap(b[i], b[sizeof(T) - 1 - i]);
  }
  return v;
}

template <typename T>
inline void store(uint8_t* p, T v) {
  if constexpr (std::endian::native == std::endian::big && sizeof(T) > 1) {
    auto* b = reinterpret_cast<uint8_t*>(&v);
    for (size_t i = 0; i < sizeof(T) / 2; ++i) std::swap(b[i], b[sizeof(T) - 1 - i]);
  }
  std::memcpy(p, &v, sizeof v);
}

}  // namespace quillon::dense
