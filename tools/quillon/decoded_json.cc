#include "decoded_json.h"

#include <cmath>
#include <vector>

#include "quillon/base/internal/base64.h"
#include "quillon/base/json.h"
#include "quillon/coding/internal/dc_geometry_value.h"
#include "quillon/coding/internal/dc_index_set.h"
#include "tool.h"

namespace quillon::tool {
namespace {

// Shared values print in full wherever they occur, so a small file can
// describe an enormous tree; stop well before that exhausts memory.
constexpr size_t kMaximumNodes = 20'000'000;

class Converter {
 public:
  Value convert(const Value& v) {
    if (++nodes_ > kMaximumNodes) {
      throw ToolError("the decoded value is too large to print (more than 20000000 values)");
    }
    switch (v.kind()) {
      case Value::Kind::Nil:
      case Value::Kind::Null: return Value::null();
      case Value::Kind::Boolean:
      case Value::Kind::Integer: return v;
      case Value::Kind::Float32:
      case Value::Kind::Float64: return number(v.doubleValue());
      case Value::Kind::Decimal:
        return tagged("$decimal", Value(v.decimalValue().toScientificString()));
      case Value::Kind::String: return v;
      case Value::Kind::Data: return tagged("$base64", Value(base64Encode(v.bytes())));
      case Value::Kind::Date: return tagged("$date", number(v.dateValue()));
      case Value::Kind::Url: {
        const Url& url = v.urlValue();
        Value out = Value::dictionary({{"$url", Value(url.relativeString())}});
        if (const Url* base = url.baseURL()) out.set(Value("$base"), Value(base->absoluteString()));
        return out;
      }
      case Value::Kind::Array:
      case Value::Kind::Set:
      case Value::Kind::OrderedSet: {
        Enter enter(*this, v.identity());
        if (enter.cycle) return cycle();
        std::vector<Value> elements;
        elements.reserve(v.size());
        for (const auto& e : v.elements()) elements.push_back(convert(e));
        return Value::array(std::move(elements));
      }
      case Value::Kind::Dictionary: {
        Enter enter(*this, v.identity());
        if (enter.cycle) return cycle();
        Value out = Value::dictionary();
        for (const auto& [key, value] : v.items()) {
          out.set(keyText(key), convert(value));
        }
        return out;
      }
      case Value::Kind::Object: return object(v);
    }
    return Value::null();
  }

 private:
  // Marks a container as being printed for the lifetime of the guard.
  struct Enter {
    Enter(Converter& c, const void* id) : converter(c) {
      for (const void* open : c.path_) {
        if (open == id) {
          cycle = true;
          return;
        }
      }
      c.path_.push_back(id);
    }
    ~Enter() {
      if (!cycle) converter.path_.pop_back();
    }
    Converter& converter;
    bool cycle = false;
  };

  static Value tagged(const char* tag, Value v) { return Value::dictionary({{tag, std::move(v)}}); }
  static Value cycle() { return tagged("$cycle", Value(true)); }

  // JSON has no NaN or infinities: those are written as text.
  static Value number(double d) {
    if (std::isnan(d)) return Value("NaN");
    if (std::isinf(d)) return Value(d > 0 ? "Infinity" : "-Infinity");
    return Value::float64(d);
  }

  Value keyText(const Value& key) {
    if (key.isString()) return key;
    return Value(writeJSON(convert(key), JSONStyle::Compact, nullptr, JSONSlashes::Plain));
  }

  Value numbers(const DCGeometryValue& g) {
    std::vector<Value> out;
    for (int i = 0; i < g.count(); ++i) out.push_back(number(g.numbers()[static_cast<size_t>(i)]));
    return Value::array(std::move(out));
  }

  Value object(const Value& v) {
    const Object* o = v.objectValue().get();
    if (auto* g = dynamic_cast<const DCGeometryValue*>(o)) {
      switch (g->kind()) {
        case DCGeometryValue::Kind::Point: return tagged("$point", numbers(*g));
        case DCGeometryValue::Kind::Size: return tagged("$size", numbers(*g));
        case DCGeometryValue::Kind::Rect: return tagged("$rect", numbers(*g));
        case DCGeometryValue::Kind::Range:
          return tagged("$range", Value::array({Value::integer(static_cast<int64_t>(g->location())),
                                                Value::integer(static_cast<int64_t>(g->length()))}));
        case DCGeometryValue::Kind::Vector: return tagged("$vector", numbers(*g));
        case DCGeometryValue::Kind::Affine: return tagged("$affine", numbers(*g));
        case DCGeometryValue::Kind::Transform3D: return tagged("$transform3d", numbers(*g));
        case DCGeometryValue::Kind::Other: return tagged("$value", Value(g->typeEncoding()));
      }
    }
    if (auto* indexes = dynamic_cast<const DCIndexSet*>(o)) {
      std::vector<Value> ranges;
      for (const auto& [location, length] : indexes->ranges()) {
        ranges.push_back(Value::array({Value(location), Value(length)}));
      }
      return tagged("$indexes", Value::array(std::move(ranges)));
    }
    Value out = Value::dictionary({{"$class", Value(o->className())}});
    if (auto* generic = dynamic_cast<const GenericObject*>(o)) {
      Enter enter(*this, o);
      if (enter.cycle) return cycle();
      for (const auto& [key, value] : generic->properties().items()) {
        if (value.isNil()) continue;
        out.set(keyText(key), convert(value));
      }
    }
    return out;
  }

  std::vector<const void*> path_;
  size_t nodes_ = 0;
};

}  // namespace

std::string decodedValueAsJSON(const Value& root) {
  Converter converter;
  Value form = converter.convert(root);
  Error error;
  std::string text = writeJSON(form, JSONStyle::Pretty, &error, JSONSlashes::Plain);
  if (error) throw ToolError("cannot print the decoded value: " + error.localizedDescription());
  return text;
}

}  // namespace quillon::tool
