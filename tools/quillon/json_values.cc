// Property values as the tool reads and prints them: JSON with dates as
// text, binary data as {"$base64": …} and relationships as "Entity/UID".

#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "package.h"
#include "quillon/base/internal/base64.h"
#include "quillon/base/internal/date_format.h"
#include "quillon/base/decimal.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/graph/attribute_description.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/relationship_description.h"
#include "tool.h"

namespace quillon::tool {
namespace {

constexpr std::string_view kBase64Key = "$base64";

Value jsonForAttributeValue(const Value& value) {
  if (value.isNil() || value.isNull()) return Value::null();
  if (value.isDate()) return Value::string(formatISODate(value.dateValue(), /*gmt=*/true));
  if (value.isData()) {
    return Value::dictionary({{Value::string(kBase64Key), Value::string(base64Encode(value.bytes()))}});
  }
  if (value.isUrl()) return Value::string(value.urlValue().absoluteString());
  if (value.isString() || value.isNumber() || value.isBool()) return value;
  return Value::string(value.description());
}

std::string propertyName(const ManagedObject& object, const PropertyDescription& property) {
  return object.entity()->name() + "." + property.name();
}

[[noreturn]] void refuse(const ManagedObject& object, const PropertyDescription& property,
                         std::string_view what) {
  throw ToolError(fmt::format("{}: {}", propertyName(object, property), what));
}

bool isIntegral(const Value& value) {
  if (value.isInteger()) return true;
  if (!value.isFloat()) return false;
  double d = value.doubleValue();
  return std::isfinite(d) && std::trunc(d) == d &&
         std::fabs(d) < static_cast<double>(std::numeric_limits<int64_t>::max());
}

// The model value a JSON value stands for; ToolError when it cannot be one.
Value attributeValueFromJSON(const ManagedObject& object, const AttributeDescription& attribute,
                             const Value& json) {
  if (json.isNull()) return Value();
  switch (attribute.attributeType()) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
      if (json.isBool() || !isIntegral(json)) refuse(object, attribute, "expected an integer");
      return Value::integer(json.isInteger() ? json.intValue()
                                             : static_cast<int64_t>(json.doubleValue()));
    case AttributeType::Double:
    case AttributeType::Float:
      if (json.isBool() || !json.isNumber()) refuse(object, attribute, "expected a number");
      return json;
    case AttributeType::Decimal: {
      if (json.isBool()) refuse(object, attribute, "expected a number");
      if (json.isInteger()) return Value::decimal(Decimal::fromInteger(json.intValue()));
      std::optional<Decimal> parsed;
      if (json.isString()) parsed = Decimal::parse(json.str());
      if (json.isFloat()) parsed = Decimal::parse(fmt::format("{}", json.doubleValue()));
      if (!parsed) refuse(object, attribute, "expected a number");
      return Value::decimal(*parsed);
    }
    case AttributeType::String:
      if (!json.isString()) refuse(object, attribute, "expected a string");
      return json;
    case AttributeType::Boolean:
      if (!json.isBool()) refuse(object, attribute, "expected true or false");
      return json;
    case AttributeType::Date: {
      std::optional<double> date;
      if (json.isString()) date = parseISODate(json.str());
      if (!date) refuse(object, attribute, "expected a date like \"2024-01-31T12:00:00.000+0000\"");
      return Value::date(*date);
    }
    case AttributeType::Binary: {
      const Value* text = json.isDictionary() && json.size() == 1 ? json.find(kBase64Key) : nullptr;
      std::optional<std::vector<uint8_t>> bytes;
      if (text && text->isString()) bytes = base64Decode(text->str());
      if (!bytes) refuse(object, attribute, "expected {\"$base64\": \"…\"}");
      return Value::data(std::move(*bytes));
    }
    default:
      refuse(object, attribute,
             fmt::format("values of type {} cannot be stored",
                         attributeTypeName(attribute.attributeType())));
  }
}

ManagedObjectPtr relatedObject(OpenPackage& package, const ManagedObject& object,
                               const RelationshipDescription& relationship, const Value& json) {
  if (!json.isString()) refuse(object, relationship, "expected an \"Entity/UID\" path");
  ManagedObjectPtr related = savedObjectForPath(package, std::string(json.str()));
  if (!related || !related->entity()->isKindOfEntity(relationship.destinationEntity())) {
    refuse(object, relationship,
           fmt::format("{} is not a {}", json.str(), relationship.destinationEntity()->name()));
  }
  return related;
}

}  // namespace

ManagedObjectPtr savedObjectForPath(OpenPackage& package, const std::string& path) {
  ManagedObjectPtr object = objectForPath(package, path);
  if (!object->isInserted() &&
      !package.store().cache().objectUIDsForEntity(*object->entity()).contains(
          Value::string(storeUID(*object)))) {
    throw ToolError("no object " + path);
  }
  return object;
}

Value jsonForProperty(ManagedObject& object, const PropertyDescription& property) {
  Value value = object.value(property.name());
  if (property.isAttribute()) return jsonForAttributeValue(value);
  const auto& relationship = static_cast<const RelationshipDescription&>(property);
  if (!relationship.isToMany()) {
    ManagedObjectPtr related = managedObjectFromValue(value);
    return related ? Value::string(objectPath(*related)) : Value::null();
  }
  Value paths = Value::array(true);
  Value members = arrayForStore(value);
  for (const Value& member : members.elements()) {
    if (ManagedObjectPtr related = managedObjectFromValue(member)) {
      paths.append(Value::string(objectPath(*related)));
    }
  }
  return paths;
}

Value jsonForObject(ManagedObject& object) {
  Value json = Value::dictionary(true);
  json.set(Value::string("$id"), Value::string(objectPath(object)));
  for (const PropertyDescription* property : object.entity()->properties()) {
    json.set(Value::string(property->name()), jsonForProperty(object, *property));
  }
  return json;
}

void setValuesFromJSON(OpenPackage& package, ManagedObject& object, const Value& values) {
  if (!values.isDictionary()) throw ToolError("--values must be a JSON object");
  const EntityDescription& entity = *object.entity();
  // Everything is converted and checked before anything is set.
  std::vector<std::pair<std::string, Value>> converted;
  for (const auto& [key, json] : values.items()) {
    const PropertyDescription* property = entity.property(key.str());
    if (!property) throw ToolError(fmt::format("{} has no property \"{}\"", entity.name(), key.str()));
    Value value;
    if (property->isAttribute()) {
      const auto& attribute = static_cast<const AttributeDescription&>(*property);
      value = attributeValueFromJSON(object, attribute, json);
      Value normalized;
      Error error;
      if (!value.isNil() && !attribute.acceptValue(value, &normalized, &error)) {
        refuse(object, attribute, error.localizedDescription());
      }
      if (!value.isNil()) value = normalized;
    } else {
      const auto& relationship = static_cast<const RelationshipDescription&>(*property);
      if (!relationship.isToMany()) {
        if (!json.isNull()) value = Value::object(relatedObject(package, object, relationship, json));
      } else {
        if (!json.isNull() && !json.isArray()) {
          refuse(object, relationship, "expected an array of \"Entity/UID\" paths");
        }
        value = relationship.isOrdered() ? Value::orderedSet(true) : Value::set(true);
        if (json.isArray()) {
          for (const Value& path : json.elements()) {
            value.append(Value::object(relatedObject(package, object, relationship, path)));
          }
        }
      }
    }
    converted.emplace_back(key.str(), std::move(value));
  }
  for (auto& [key, value] : converted) {
    Error error;
    if (!object.setValue(key, value, &error)) {
      throw ToolError(fmt::format("{}.{}: {}", entity.name(), key, error.localizedDescription()));
    }
  }
}

}  // namespace quillon::tool
