#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "quillon/base/value.h"

namespace quillon {

// A boxed geometry struct carried in a Value: a point, size, rect, range,
// vector, affine transform or 3D transform, identified by its type encoding
// text as the binary format expects ("{CGPoint=dd}" …). Immutable after
// construction; safe to share between threads.
class DCGeometryValue final : public Object {
 public:
  enum class Kind { Point, Size, Rect, Range, Vector, Affine, Transform3D, Other };

  static Value point(double x, double y);
  static Value size(double width, double height);
  static Value rect(double x, double y, double width, double height);
  static Value range(uint64_t location, uint64_t length);
  static Value vector(double dx, double dy);
  static Value affine(double a, double b, double c, double d, double tx, double ty);
  // Sixteen numbers in row order m11 … m44.
  static Value transform3D(const std::array<double, 16>& m);
  // A 3D transform as the reader makes it: type text "[16d]".
  static Value readTransform3D(const std::array<double, 16>& m);
  // Any other boxed struct, known only by its type text.
  static Value other(std::string typeEncoding);

  DCGeometryValue(Kind kind, std::string typeEncoding);

  Kind kind() const { return kind_; }
  const std::string& typeEncoding() const { return type_; }
  // The number of meaningful entries of numbers(): 2, 4, 6 or 16 (0 for Other).
  int count() const;
  const std::array<double, 16>& numbers() const { return numbers_; }
  std::array<double, 16>& numbers() { return numbers_; }
  // Ranges keep their 64-bit location and length exactly.
  uint64_t location() const { return location_; }
  uint64_t length() const { return length_; }

  std::string className() const override { return "NSValue"; }
  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  std::string description() const override;

 private:
  friend class DCNSDecoder;
  Kind kind_;
  std::string type_;
  std::array<double, 16> numbers_{};
  uint64_t location_ = 0;
  uint64_t length_ = 0;
};

}  // namespace quillon
