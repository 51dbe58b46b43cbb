#pragma once

#include <optional>
#include <regex>
#include <string>
#include <string_view>

#include "quillon/base/error.h"
#include "quillon/base/value.h"
#include "quillon/graph/property_description.h"

namespace quillon {

// The classic attribute type numbers; they are part of what stores and value
// transformers agree on, so they never change.
enum class AttributeType : int {
  Undefined = 0,
  Integer16 = 100,
  Integer32 = 200,
  Integer64 = 300,
  Decimal = 400,
  Double = 500,
  Float = 600,
  String = 700,
  Boolean = 800,
  Date = 900,
  Binary = 1000,
  UUID = 1100,
  URI = 1200,
  Transformable = 1800,
  ObjectID = 2000,
};

// The model-file name of a type ("integer16" … "transformable"), and back.
std::string_view attributeTypeName(AttributeType type);
std::optional<AttributeType> attributeTypeFromName(std::string_view name);

// An attribute of an entity: its type, the class name of its values, whether
// it may be absent, its default value and optional value constraints checked
// by validation. Owned by its ManagedObjectModel; immutable and readable from
// any thread once the model is built.
class AttributeDescription final : public PropertyDescription {
 public:
  AttributeDescription(std::string name, const EntityDescription* entity, bool optional,
                       AttributeType type, Value defaultValue);

  bool isAttribute() const override { return true; }
  AttributeType attributeType() const { return type_; }
  // "NSNumber", "NSString", "NSDate" …; empty for transformable attributes.
  std::string attributeValueClassName() const;
  const Value& defaultValue() const { return defaultValue_; }
  // The value transformer named in the model for a transformable attribute.
  const std::string& valueTransformerName() const { return valueTransformerName_; }

  // Constraints: numbers and dates compare their value, strings their length
  // in characters. Nil when the model sets none.
  const Value& minValue() const { return minValue_; }
  const Value& maxValue() const { return maxValue_; }
  const std::string& regularExpression() const { return pattern_; }

  // Whether `value` may be stored in this attribute. On success `*normalized`
  // holds the value as the attribute keeps it (an integer attribute keeps an
  // Integer, a float attribute a Float32, a URI attribute a Url …); otherwise
  // `*error` says which property refused which kind of value. Nil and null
  // are always acceptable here (optionality is validation's business).
  bool acceptValue(const Value& value, Value* normalized, Error* error) const;

  // Whether a string matches the regular expression (true when there is none).
  bool matchesPattern(std::string_view text) const;

 private:
  friend class ManagedObjectModel;
  AttributeType type_;
  Value defaultValue_;
  Value minValue_;
  Value maxValue_;
  std::string pattern_;
  std::optional<std::regex> regex_;
  std::string valueTransformerName_;
};

}  // namespace quillon
