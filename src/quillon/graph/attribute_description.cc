// GCC 12 reports false "may be used uninitialized" warnings inside <regex>
// when building with sanitizers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "quillon/graph/attribute_description.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "quillon/graph/entity_description.h"

namespace quillon {

namespace {

struct TypeInfo {
  AttributeType type;
  std::string_view name;
  std::string_view className;
};

constexpr TypeInfo kTypes[] = {
    {AttributeType::Integer16, "integer16", "NSNumber"},
    {AttributeType::Integer32, "integer32", "NSNumber"},
    {AttributeType::Integer64, "integer64", "NSNumber"},
    {AttributeType::Decimal, "decimal", "NSDecimalNumber"},
    {AttributeType::Double, "double", "NSNumber"},
    {AttributeType::Float, "float", "NSNumber"},
    {AttributeType::String, "string", "NSString"},
    {AttributeType::Boolean, "boolean", "NSNumber"},
    {AttributeType::Date, "date", "NSDate"},
    {AttributeType::Binary, "binary", "NSData"},
    {AttributeType::UUID, "uuid", "NSUUID"},
    {AttributeType::URI, "uri", "NSURL"},
    {AttributeType::Transformable, "transformable", ""},
};

bool isHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The canonical 8-4-4-4-12 text form, either case.
bool isUUIDText(std::string_view s) {
  if (s.size() != 36) return false;
  for (size_t i = 0; i < s.size(); ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? s[i] != '-' : !isHex(s[i])) return false;
  }
  return true;
}

// The integral value of a number, when it has one.
std::optional<int64_t> integralValue(const Value& v) {
  if (v.isInteger() || v.isBool()) return v.intValue();
  double d = v.doubleValue();
  if (!std::isfinite(d) || d != std::floor(d)) return std::nullopt;
  if (d < -9.2233720368547758e18 || d >= 9.2233720368547758e18) return std::nullopt;
  return static_cast<int64_t>(d);
}

}  // namespace

std::string_view attributeTypeName(AttributeType type) {
  for (const auto& t : kTypes) {
    if (t.type == type) return t.name;
  }
  return "undefined";
}

std::optional<AttributeType> attributeTypeFromName(std::string_view name) {
  for (const auto& t : kTypes) {
    if (t.name == name) return t.type;
  }
  return std::nullopt;
}

AttributeDescription::AttributeDescription(std::string name, const EntityDescription* entity,
                                           bool optional, AttributeType type, Value defaultValue)
    : PropertyDescription(std::move(name), entity, optional),
      type_(type),
      defaultValue_(std::move(defaultValue)) {}

std::string AttributeDescription::attributeValueClassName() const {
  for (const auto& t : kTypes) {
    if (t.type == type_) return std::string(t.className);
  }
  return {};
}

bool AttributeDescription::matchesPattern(std::string_view text) const {
  if (!regex_) return true;
  return std::regex_match(text.begin(), text.end(), *regex_);
}

bool AttributeDescription::acceptValue(const Value& value, Value* normalized, Error* error) const {
  auto refuse = [&](int64_t code, std::string_view problem) {
    if (error) {
      std::string entityName = entity() ? entity()->name() : std::string();
      std::string text;
      if (problem.empty()) {
        text = fmt::format(
            "Unacceptable type of value for attribute: entity = {}; property = \"{}\"; "
            "desired type = {}; given type = {}; value = {}.",
            entityName, name(), attributeTypeName(type_), Value::kindName(value.kind()),
            value.description());
      } else {
        text = fmt::format("Unacceptable value for attribute: entity = {}; property = \"{}\"; {}.",
                           entityName, name(), problem);
      }
      *error = Error("NSCocoaErrorDomain", code,
                     Value::dictionary({{"NSLocalizedDescription", text},
                                        {"NSValidationErrorKey", name()},
                                        {"NSValidationErrorValue", value}}));
    }
    return false;
  };
  Value result;
  if (value.isNil() || value.isNull()) {
    *normalized = Value();
    return true;
  }
  switch (type_) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64: {
      if (!value.isNumber()) return refuse(1550, {});
      auto i = integralValue(value);
      if (!i) return refuse(1550, "the value is not a whole number");
      int64_t lo = std::numeric_limits<int64_t>::min(), hi = std::numeric_limits<int64_t>::max();
      if (type_ == AttributeType::Integer16) {
        lo = INT16_MIN;
        hi = INT16_MAX;
      } else if (type_ == AttributeType::Integer32) {
        lo = INT32_MIN;
        hi = INT32_MAX;
      }
      if (*i > hi)
        return refuse(1610, fmt::format("{} is too large for {}", *i, attributeTypeName(type_)));
      if (*i < lo)
        return refuse(1620, fmt::format("{} is too small for {}", *i, attributeTypeName(type_)));
      result = Value::integer(*i);
      break;
    }
    case AttributeType::Decimal:
      if (!value.isNumber()) return refuse(1550, {});
      result = value.isDecimal() ? value : Value::decimal(value.decimalValue());
      break;
    case AttributeType::Double:
      if (!value.isNumber()) return refuse(1550, {});
      result = value.kind() == Value::Kind::Float64 ? value : Value::float64(value.doubleValue());
      break;
    case AttributeType::Float:
      if (!value.isNumber()) return refuse(1550, {});
      result = value.kind() == Value::Kind::Float32 ? value : Value::float32(value.floatValue());
      break;
    case AttributeType::String:
      if (!value.isString()) return refuse(1550, {});
      result = value;
      break;
    case AttributeType::Boolean:
      if (value.isBool()) {
        result = value;
      } else if (value.isInteger() && (value.intValue() == 0 || value.intValue() == 1)) {
        result = Value::boolean(value.intValue() == 1);
      } else {
        return refuse(1550, {});
      }
      break;
    case AttributeType::Date:
      if (!value.isDate()) return refuse(1550, {});
      result = value;
      break;
    case AttributeType::Binary:
      if (!value.isData()) return refuse(1550, {});
      result = value;
      break;
    case AttributeType::UUID:
      if (!value.isString() || !isUUIDText(value.str())) return refuse(1550, {});
      result = value;
      break;
    case AttributeType::URI:
      if (value.isUrl()) {
        result = value;
      } else if (value.isString()) {
        auto url = Url::parse(value.str());
        if (!url) return refuse(1550, "the text is not a URL");
        result = Value::url(*url);
      } else {
        return refuse(1550, {});
      }
      break;
    case AttributeType::Transformable:
      result = value;
      break;
    case AttributeType::Undefined:
    case AttributeType::ObjectID:
      return refuse(1550, {});
  }
  *normalized = result;
  return true;
}

}  // namespace quillon
