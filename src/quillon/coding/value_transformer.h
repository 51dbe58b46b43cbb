#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "quillon/base/value.h"

namespace quillon {

// The exception raised when no transformer exists for an attribute.
inline constexpr std::string_view kNoTransformerExceptionName = "No Transformer";

// Converts attribute values between their model form and the form stored in
// JSON object records. transformedValue() reads (JSON form → model value);
// reverseTransformedValue() writes (model value → JSON form). Both answer nil
// for nil.
//
// Transformers are found by class name through a process-wide registry (see
// valueTransformerForName) and shared by everyone who asks; they hold no
// mutable state, so any thread may call them.
class ValueTransformer {
 public:
  using Factory = std::function<std::shared_ptr<ValueTransformer>()>;

  virtual ~ValueTransformer() = default;
  // The class name this transformer is registered and found under.
  virtual std::string className() const = 0;
  virtual Value transformedValue(const Value& value) const = 0;
  virtual Value reverseTransformedValue(const Value& value) const = 0;

  // The transformer registered under `name`, otherwise an instance of the
  // transformer class of that exact name, made on first request and kept;
  // nullptr when there is neither. Thread-safe.
  static std::shared_ptr<ValueTransformer> valueTransformerForName(std::string_view name);
  // Registers (or, with nullptr, removes) a transformer instance under a name;
  // it takes precedence over a class of the same name.
  static void setValueTransformer(std::shared_ptr<ValueTransformer> transformer,
                                  std::string_view name);
  // Makes a transformer class known by name. Factories run under the
  // registry's lock and must not call back into it.
  static void registerValueTransformerClass(std::string_view className, Factory factory);
};

// The transformer for an attribute with value class `valueClassName` (such
// as "NSNumber") and attribute type `attributeType` (such as 800) in a record
// of storage version `version` (nil for none). The first of these names that
// yields a transformer wins, with C the class, T the type, V the version text:
//   "Quillon<C><T>ValueTransformer<V>", "Quillon<C><T>ValueTransformer",
//   "Quillon<C>ValueTransformer<V>",    "Quillon<C>ValueTransformer".
// Throws Exception "No Transformer" with reason "Not found: <last name>" when
// none does (UUID, URI and transformable attributes among others).
std::shared_ptr<ValueTransformer> QuillonValueTransformerForAttribute(
    std::string_view valueClassName, int64_t attributeType, const Value& version = Value());

// The same for an attribute description.
template <typename Attribute>
requires requires(const Attribute& a) {
  a.attributeValueClassName();
  a.attributeType();
}
std::shared_ptr<ValueTransformer> QuillonValueTransformerForAttribute(
    const Attribute& attribute, const Value& version = Value()) {
  return QuillonValueTransformerForAttribute(attribute.attributeValueClassName(),
                                             static_cast<int64_t>(attribute.attributeType()),
                                             version);
}

// String attributes: a copy of the string both ways.
class QuillonNSStringValueTransformer : public ValueTransformer {
 public:
  std::string className() const override { return "QuillonNSStringValueTransformer"; }
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;
};

// Integer, float and double attributes. Written as the number's description
// text (42, 3.5, -0.25: the shortest text that reads back to the same number,
// integers without a fraction), read back as a decimal number; text that is
// not a number reads as the not-a-number decimal.
class QuillonNSNumberValueTransformer : public ValueTransformer {
 public:
  std::string className() const override { return "QuillonNSNumberValueTransformer"; }
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;
};

// Decimal attributes: exactly as numbers.
class QuillonNSDecimalNumberValueTransformer : public QuillonNSNumberValueTransformer {
 public:
  std::string className() const override { return "QuillonNSDecimalNumberValueTransformer"; }
};

// Boolean attributes: kept as they are, so JSON holds true and false.
class QuillonNSNumber800ValueTransformer : public ValueTransformer {
 public:
  std::string className() const override { return "QuillonNSNumber800ValueTransformer"; }
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;
};

// Date attributes: "yyyy-MM-dd'T'HH:mm:ss.SSSZ" text written in GMT (ending
// in +0000); any offset reads back to the same instant. Text that does not
// match reads as nil.
class QuillonNSDateValueTransformer : public ValueTransformer {
 public:
  QuillonNSDateValueTransformer() : QuillonNSDateValueTransformer(true) {}
  std::string className() const override { return "QuillonNSDateValueTransformer"; }
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;
  // Whether dates are written in GMT rather than the local zone.
  bool writesGMT() const { return gmt_; }

 protected:
  explicit QuillonNSDateValueTransformer(bool gmt) : gmt_(gmt) {}

 private:
  bool gmt_;
};

// Date attributes in records of version "2": the same text, written in the
// machine's local zone.
class QuillonNSDateValueTransformer2 : public QuillonNSDateValueTransformer {
 public:
  QuillonNSDateValueTransformer2() : QuillonNSDateValueTransformer(false) {}
  std::string className() const override { return "QuillonNSDateValueTransformer2"; }
};

// Binary attributes. The record holds the name of the data file with the
// bytes, so writing answers a fresh upper-case UUID text for every non-nil
// value (a new file name on every save); reading answers the name as it is.
class QuillonNSDataValueTransformer : public ValueTransformer {
 public:
  std::string className() const override { return "QuillonNSDataValueTransformer"; }
  Value transformedValue(const Value& value) const override;
  Value reverseTransformedValue(const Value& value) const override;
};

}  // namespace quillon
