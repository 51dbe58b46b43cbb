#include "quillon/coding/value_transformer.h"

#include <charconv>
#include <map>
#include <mutex>
#include <system_error>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/error.h"
#include "quillon/base/internal/uuid.h"

namespace quillon {

namespace {

template <typename Float>
std::string shortestText(Float f) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, f);
  if (ec != std::errc()) return "nan";
  return std::string(buf, end);
}

// The text a number shows when described: integers plainly, floats as the
// shortest text that reads back to the same float, decimals without
// trailing zeros, booleans as 1 and 0.
std::string numberDescription(const Value& number) {
  switch (number.kind()) {
    case Value::Kind::Boolean:
      return number.boolValue() ? "1" : "0";
    case Value::Kind::Integer:
      return std::to_string(number.intValue());
    case Value::Kind::Float32:
      return shortestText(number.floatValue());
    case Value::Kind::Float64:
      return shortestText(number.doubleValue());
    case Value::Kind::Decimal:
      return number.decimalValue().compact().toString();
    default:
      return number.description();
  }
}

// What "%@" shows for a version: nothing for nil, a string as itself.
std::string versionText(const Value& version) {
  if (version.isNil()) return {};
  if (version.isString()) return std::string(version.str());
  return numberDescription(version);
}

class Registry {
 public:
  static Registry& shared() {
    static Registry* registry = new Registry;  // never destroyed: used at exit
    return *registry;
  }

  std::shared_ptr<ValueTransformer> find(std::string_view name) {
    std::lock_guard lock(mutex_);
    return findLocked(name);
  }

  void setInstance(std::shared_ptr<ValueTransformer> transformer, std::string_view name) {
    std::lock_guard lock(mutex_);
    if (transformer) {
      instances_[std::string(name)] = std::move(transformer);
    } else if (auto it = instances_.find(name); it != instances_.end()) {
      instances_.erase(it);
    }
    attributeCache_.clear();
  }

  void setFactory(std::string_view className, ValueTransformer::Factory factory) {
    std::lock_guard lock(mutex_);
    factories_[std::string(className)] = std::move(factory);
    classInstances_.erase(std::string(className));
    attributeCache_.clear();
  }

  std::shared_ptr<ValueTransformer> forAttribute(std::string_view valueClass, int64_t type,
                                                 const Value& version) {
    const std::string c(valueClass);
    const std::string t = std::to_string(type);
    const std::string v = versionText(version);
    std::string cacheKey = c;
    cacheKey.append(1, '\0').append(t).append(1, '\0').append(v);

    std::lock_guard lock(mutex_);
    if (auto it = attributeCache_.find(cacheKey); it != attributeCache_.end()) return it->second;
    const std::string names[] = {
        "Quillon" + c + t + "ValueTransformer" + v,
        "Quillon" + c + t + "ValueTransformer",
        "Quillon" + c + "ValueTransformer" + v,
        "Quillon" + c + "ValueTransformer",
    };
    for (const std::string& name : names) {
      if (auto transformer = findLocked(name)) {
        attributeCache_.emplace(std::move(cacheKey), transformer);
        return transformer;
      }
    }
    throw Exception(std::string(kNoTransformerExceptionName), "Not found: " + names[3]);
  }

 private:
  Registry() {
    auto add = [this](ValueTransformer::Factory factory) {
      std::string name = factory()->className();
      factories_[name] = std::move(factory);
    };
    add([] { return std::make_shared<QuillonNSStringValueTransformer>(); });
    add([] { return std::make_shared<QuillonNSNumberValueTransformer>(); });
    add([] { return std::make_shared<QuillonNSDecimalNumberValueTransformer>(); });
    add([] { return std::make_shared<QuillonNSNumber800ValueTransformer>(); });
    add([] { return std::make_shared<QuillonNSDateValueTransformer>(); });
    add([] { return std::make_shared<QuillonNSDateValueTransformer2>(); });
    add([] { return std::make_shared<QuillonNSDataValueTransformer>(); });
  }

  std::shared_ptr<ValueTransformer> findLocked(std::string_view name) {
    if (auto it = instances_.find(name); it != instances_.end()) return it->second;
    if (auto it = classInstances_.find(name); it != classInstances_.end()) return it->second;
    auto factory = factories_.find(name);
    if (factory == factories_.end()) return nullptr;
    std::shared_ptr<ValueTransformer> made = factory->second();
    if (made) classInstances_.emplace(std::string(name), made);
    return made;
  }

  std::mutex mutex_;
  // Registered by name; looked up before classes.
  std::map<std::string, std::shared_ptr<ValueTransformer>, std::less<>> instances_;
  std::map<std::string, ValueTransformer::Factory, std::less<>> factories_;
  // The one instance of each class, made on first use.
  std::map<std::string, std::shared_ptr<ValueTransformer>, std::less<>> classInstances_;
  // Lookups already resolved, by class, type and version; records are read
  // attribute by attribute, so this is the hot path.
  std::map<std::string, std::shared_ptr<ValueTransformer>, std::less<>> attributeCache_;
};

}  // namespace

std::shared_ptr<ValueTransformer> ValueTransformer::valueTransformerForName(std::string_view name) {
  return Registry::shared().find(name);
}

void ValueTransformer::setValueTransformer(std::shared_ptr<ValueTransformer> transformer,
                                           std::string_view name) {
  Registry::shared().setInstance(std::move(transformer), name);
}

void ValueTransformer::registerValueTransformerClass(std::string_view className, Factory factory) {
  Registry::shared().setFactory(className, std::move(factory));
}

std::shared_ptr<ValueTransformer> QuillonValueTransformerForAttribute(
    std::string_view valueClassName, int64_t attributeType, const Value& version) {
  return Registry::shared().forAttribute(valueClassName, attributeType, version);
}

Value QuillonNSStringValueTransformer::transformedValue(const Value& value) const {
  return value.copy();
}

Value QuillonNSStringValueTransformer::reverseTransformedValue(const Value& value) const {
  return value.copy();
}

Value QuillonNSNumberValueTransformer::transformedValue(const Value& value) const {
  if (value.isNil()) return Value();
  if (value.isNumber()) return Value::decimal(value.decimalValue());
  if (!value.isString()) return Value::decimal(Decimal::notANumber());
  return Value::decimal(Decimal::parse(value.str()).value_or(Decimal::notANumber()));
}

Value QuillonNSNumberValueTransformer::reverseTransformedValue(const Value& value) const {
  if (value.isNil()) return Value();
  if (value.isString()) return value.copy();
  return Value::string(numberDescription(value));
}

Value QuillonNSNumber800ValueTransformer::transformedValue(const Value& value) const {
  return value.copy();
}

Value QuillonNSNumber800ValueTransformer::reverseTransformedValue(const Value& value) const {
  return value.copy();
}

Value QuillonNSDateValueTransformer::transformedValue(const Value& value) const {
  if (!value.isString()) return Value();
  std::optional<double> date = parseISODate(value.str());
  return date ? Value::date(*date) : Value();
}

Value QuillonNSDateValueTransformer::reverseTransformedValue(const Value& value) const {
  if (!value.isDate()) return Value();
  return Value::string(formatISODate(value.dateValue(), gmt_));
}

Value QuillonNSDataValueTransformer::transformedValue(const Value& value) const {
  return value.copy();
}

Value QuillonNSDataValueTransformer::reverseTransformedValue(const Value& value) const {
  if (value.isNil()) return Value();
  return Value::string(makeUUIDString());
}

}  // namespace quillon
