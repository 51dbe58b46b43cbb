#include "quillon/coding/internal/dc_geometry_value.h"

#include <fmt/format.h>

#include <cstring>

namespace quillon {
namespace {

Value make(DCGeometryValue::Kind kind, const char* type, std::initializer_list<double> numbers) {
  auto g = std::make_shared<DCGeometryValue>(kind, type);
  size_t i = 0;
  for (double d : numbers) g->numbers()[i++] = d;
  return Value::object(std::move(g));
}

}  // namespace

DCGeometryValue::DCGeometryValue(Kind kind, std::string typeEncoding)
    : kind_(kind), type_(std::move(typeEncoding)) {}

Value DCGeometryValue::point(double x, double y) { return make(Kind::Point, "{CGPoint=dd}", {x, y}); }

Value DCGeometryValue::size(double width, double height) {
  return make(Kind::Size, "{CGSize=dd}", {width, height});
}

Value DCGeometryValue::rect(double x, double y, double width, double height) {
  return make(Kind::Rect, "{CGRect={CGPoint=dd}{CGSize=dd}}", {x, y, width, height});
}

Value DCGeometryValue::range(uint64_t location, uint64_t length) {
  auto g = std::make_shared<DCGeometryValue>(Kind::Range, "{_NSRange=QQ}");
  g->location_ = location;
  g->length_ = length;
  g->numbers_[0] = static_cast<double>(location);
  g->numbers_[1] = static_cast<double>(length);
  return Value::object(std::move(g));
}

Value DCGeometryValue::vector(double dx, double dy) {
  return make(Kind::Vector, "{CGVector=dd}", {dx, dy});
}

Value DCGeometryValue::affine(double a, double b, double c, double d, double tx, double ty) {
  return make(Kind::Affine, "{CGAffineTransform=dddddd}", {a, b, c, d, tx, ty});
}

Value DCGeometryValue::transform3D(const std::array<double, 16>& m) {
  auto g = std::make_shared<DCGeometryValue>(
      Kind::Transform3D, "{CATransform3D=dddddddddddddddd}");
  g->numbers_ = m;
  return Value::object(std::move(g));
}

Value DCGeometryValue::readTransform3D(const std::array<double, 16>& m) {
  auto g = std::make_shared<DCGeometryValue>(Kind::Transform3D, "[16d]");
  g->numbers_ = m;
  return Value::object(std::move(g));
}

Value DCGeometryValue::other(std::string typeEncoding) {
  return Value::object(std::make_shared<DCGeometryValue>(Kind::Other, std::move(typeEncoding)));
}

int DCGeometryValue::count() const {
  switch (kind_) {
    case Kind::Point:
    case Kind::Size:
    case Kind::Range:
    case Kind::Vector: return 2;
    case Kind::Rect: return 4;
    case Kind::Affine: return 6;
    case Kind::Transform3D: return 16;
    case Kind::Other: return 0;
  }
  return 0;
}

bool DCGeometryValue::isEqual(const Object& other) const {
  auto* o = dynamic_cast<const DCGeometryValue*>(&other);
  if (!o || o->kind_ != kind_ || o->type_ != type_) return false;
  if (kind_ == Kind::Range) return location_ == o->location_ && length_ == o->length_;
  for (int i = 0; i < count(); ++i) {
    if (numbers_[static_cast<size_t>(i)] != o->numbers_[static_cast<size_t>(i)]) return false;
  }
  return true;
}

size_t DCGeometryValue::hash() const {
  size_t h = std::hash<std::string>{}(type_);
  for (int i = 0; i < count(); ++i) {
    h = h * 31 + std::hash<double>{}(numbers_[static_cast<size_t>(i)]);
  }
  return h;
}

std::string DCGeometryValue::description() const {
  if (kind_ == Kind::Range) return fmt::format("NSRange: {{{}, {}}}", location_, length_);
  std::string out = "NSValue " + type_ + " {";
  for (int i = 0; i < count(); ++i) {
    if (i) out += ", ";
    out += fmt::format("{}", numbers_[static_cast<size_t>(i)]);
  }
  return out + "}";
}

}  // namespace quillon
