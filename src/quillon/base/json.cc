#include "quillon/base/json.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

namespace quillon {
namespace {

namespace dom = simdjson::dom;

// Documents above this size get a parser of their own, so that a thread's
// reusable parser never keeps a huge buffer alive.
constexpr size_t kReusableParserLimit = 16 << 20;

Error jsonError(std::string description, std::string_view debug = {}) {
  Value info = Value::dictionary({{kLocalizedDescriptionKey, Value(description)}});
  if (!debug.empty()) info.set("NSDebugDescription", Value(debug));
  return Error(std::string(kCocoaErrorDomain), kJSONErrorCode, info);
}

// The offset of the first byte that does not belong to a well-formed UTF-8
// sequence (overlongs, surrogates and code points past U+10FFFF included),
// or text.size() when there is none.
size_t firstInvalidUTF8(std::string_view text) {
  auto* p = reinterpret_cast<const unsigned char*>(text.data());
  size_t n = text.size(), i = 0;
  while (i < n) {
    unsigned c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len;
    unsigned lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      if (c == 0xE0) lo = 0xA0;
      if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      if (c == 0xF0) lo = 0x90;
      if (c == 0xF4) hi = 0x8F;
    } else {
      return i;
    }
    if (i + len > n) return i;
    if (p[i + 1] < lo || p[i + 1] > hi) return i;
    for (size_t k = 2; k < len; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return i;
    }
    i += len;
  }
  return n;
}

std::string describeParseError(simdjson::error_code code, std::string_view text, size_t depth) {
  using simdjson::error_code;
  switch (code) {
    case error_code::EMPTY:
      return "Invalid JSON: the text is empty.";
    case error_code::UTF8_ERROR:
      return "Invalid JSON: the text is not valid UTF-8 at byte " +
             std::to_string(firstInvalidUTF8(text)) + ".";
    case error_code::DEPTH_ERROR:
      return "Invalid JSON: arrays and objects are nested deeper than " + std::to_string(depth) +
             " levels.";
    case error_code::CAPACITY:
      return "Invalid JSON: the text is too large to parse.";
    case error_code::NUMBER_ERROR:
    case error_code::NUMBER_OUT_OF_RANGE:
      return "Invalid JSON: a number is malformed or out of range.";
    case error_code::STRING_ERROR:
    case error_code::UNESCAPED_CHARS:
      return "Invalid JSON: a string has an invalid escape or an unescaped control character.";
    case error_code::UNCLOSED_STRING:
      return "Invalid JSON: a string is not terminated.";
    case error_code::T_ATOM_ERROR:
    case error_code::F_ATOM_ERROR:
    case error_code::N_ATOM_ERROR:
      return "Invalid JSON: a literal is not one of true, false or null.";
    default:
      return "Invalid JSON: the text is truncated or not well-formed.";
  }
}

// The parser refuses integers beyond 64 bits, which are valid JSON and read
// as doubles. Copies the text with "e0" after every integer (outside strings)
// that does not fit in 64 signed bits, which makes the parser read it as a
// double. An integer that fits stays an integer, whether or not the text
// also holds one that needs widening: 9223372036854775807 reads the same
// beside 100000000000000000000 as on its own (a double written back as
// 100000000000000000000 must not turn its neighbours into doubles).
// Answers false when there is no integer to widen.
bool widenLongIntegers(std::string_view text, std::string* out) {
  bool changed = false;
  out->reserve(text.size() + 16);
  size_t i = 0, n = text.size();
  while (i < n) {
    char c = text[i];
    if (c == '"') {
      size_t j = i + 1;
      while (j < n && text[j] != '"') j += text[j] == '\\' ? 2 : 1;
      j = std::min(j + 1, n);
      out->append(text.substr(i, j - i));
      i = j;
    } else if (c == '-' || (c >= '0' && c <= '9')) {
      size_t j = i + (c == '-' ? 1 : 0), digits = 0;
      while (j < n && text[j] >= '0' && text[j] <= '9') ++j, ++digits;
      bool integral = j >= n || (text[j] != '.' && text[j] != 'e' && text[j] != 'E');
      out->append(text.substr(i, j - i));
      int64_t fits;
      if (integral && digits >= 19 &&
          std::from_chars(text.data() + i, text.data() + j, fits).ec != std::errc()) {
        *out += "e0";
        changed = true;
      }
      i = j;
    } else {
      *out += c;
      ++i;
    }
  }
  return changed;
}

// Builds Values from a parsed document. Recursion is bounded by the parser's
// own depth check, which runs before this walk.
//
// Children are collected on two stacks shared by every level (a container's
// children sit above those of its unfinished ancestors), so a container and
// the short strings in it (keys included) cost exactly one allocation, sized
// by its final count. The stacks belong to the thread and are reused across
// documents.
class ValueBuilder {
 public:
  explicit ValueBuilder(bool mutableContainers)
      : mutable_(mutableContainers), scratch_(threadScratch()) {}

  ~ValueBuilder() {
    // Also runs when an allocation failed halfway: nothing may stay behind.
    scratch_.elements.clear();
    scratch_.entries.clear();
    if (scratch_.elements.capacity() > kRetainedScratch) scratch_.elements = {};
    if (scratch_.entries.capacity() > kRetainedScratch) scratch_.entries = {};
  }

  Value build(dom::element e) {
    switch (e.type()) {
      case dom::element_type::ARRAY: {
        auto& stack = scratch_.elements;
        size_t base = stack.size();
        dom::array a = e.get_array().value_unsafe();
        for (dom::element element : a) stack.push_back(child(element));
        Value v = Value::arrayFromChildren(std::span(stack).subspan(base), mutable_);
        stack.resize(base);
        return v;
      }
      case dom::element_type::OBJECT: {
        auto& stack = scratch_.entries;
        size_t base = stack.size();
        dom::object o = e.get_object().value_unsafe();
        for (dom::key_value_pair field : o) {
          stack.emplace_back(Value::Child::string(field.key), child(field.value));
        }
        Value v = Value::dictionaryFromChildren(std::span(stack).subspan(base), mutable_);
        stack.resize(base);
        return v;
      }
      default:
        return buildScalar(e);
    }
  }

 private:
  struct Scratch {
    std::vector<Value::Child> elements;
    std::vector<Value::ChildEntry> entries;
  };

  // Larger stacks (a document with a huge flat array) are freed after use.
  static constexpr size_t kRetainedScratch = 1 << 16;

  static Scratch& threadScratch() {
    thread_local Scratch scratch;
    return scratch;
  }

  // Strings are left as text for their container to store in its own
  // allocation; the parser's copy of the text outlives the walk.
  Value::Child child(dom::element e) {
    if (e.type() == dom::element_type::STRING) {
      return Value::Child::string(e.get_string().value_unsafe());
    }
    return build(e);
  }

  // Kept out of build() so that the recursive frame stays small.
  __attribute__((noinline)) static Value buildScalar(dom::element e) {
    switch (e.type()) {
      case dom::element_type::INT64:
        return Value::integer(e.get_int64().value_unsafe());
      case dom::element_type::UINT64:
        return Value::float64(static_cast<double>(e.get_uint64().value_unsafe()));
      case dom::element_type::DOUBLE:
        return Value::float64(e.get_double().value_unsafe());
      case dom::element_type::STRING:
        return Value::string(e.get_string().value_unsafe());
      case dom::element_type::BOOL:
        return Value::boolean(e.get_bool().value_unsafe());
      case dom::element_type::NULL_VALUE:
        return Value::null();
      default:
        return Value();
    }
  }

  bool mutable_;
  Scratch& scratch_;
};

Value parseWith(dom::parser& parser, std::string_view text, Error* error,
                const JSONReadOptions& options) {
  size_t depth = std::clamp<size_t>(options.maximumDepth, 1, kJSONMaximumDepthLimit);
  size_t parserDepth = depth;
  simdjson::error_code code = simdjson::SUCCESS;
  if (parser.max_depth() != parserDepth) {
    code = parser.allocate(std::max(parser.capacity(), text.size()), parserDepth);
  }
  dom::element root;
  if (code == simdjson::SUCCESS) code = parser.parse(text.data(), text.size()).get(root);
  std::string widened;
  if (code == simdjson::NUMBER_ERROR && widenLongIntegers(text, &widened)) {
    code = parser.parse(widened.data(), widened.size()).get(root);
  }
  if (code != simdjson::SUCCESS) {
    if (error)
      *error = jsonError(describeParseError(code, text, depth), simdjson::error_message(code));
    return Value();
  }
  if (error) *error = Error();
  return ValueBuilder(options.mutableContainers).build(root);
}

}  // namespace

Value readJSON(std::string_view text, Error* error, JSONReadOptions options) {
  if (text.size() > kReusableParserLimit) {
    dom::parser parser;
    return parseWith(parser, text, error, options);
  }
  thread_local dom::parser parser;
  return parseWith(parser, text, error, options);
}

Value readJSON(std::span<const uint8_t> bytes, Error* error, JSONReadOptions options) {
  return readJSON(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                  error, options);
}

// ---- Writing ---------------------------------------------------------------

namespace {

class Writer {
 public:
  Writer(JSONStyle style, JSONSlashes slashes, std::string* out)
      : pretty_(style == JSONStyle::Pretty),
        escapeSlashes_(slashes == JSONSlashes::Escaped),
        out_(*out) {}

  // Answers false, with failure() saying what could not be written, when
  // the value cannot be written.
  bool write(const Value& v, size_t depth) {
    using K = Value::Kind;
    switch (v.kind()) {
      case K::Array: {
        if (depth >= kJSONMaximumDepthLimit)
          return fail("containers nested too deeply (or a cycle)");
        auto elements = v.elements();
        out_ += '[';
        for (size_t i = 0; i < elements.size(); ++i) {
          if (i) out_ += ',';
          newline(depth + 1);
          if (!write(elements[i], depth + 1)) return false;
        }
        if (!elements.empty()) newline(depth);
        out_ += ']';
        return true;
      }
      case K::Dictionary: {
        if (depth >= kJSONMaximumDepthLimit)
          return fail("containers nested too deeply (or a cycle)");
        auto items = v.items();
        out_ += '{';
        for (size_t i = 0; i < items.size(); ++i) {
          if (i) out_ += ',';
          newline(depth + 1);
          if (!items[i].first.isString()) {
            return fail(std::string("a dictionary key of kind ") +
                        Value::kindName(items[i].first.kind()));
          }
          if (!appendString(items[i].first.str())) return false;
          out_ += pretty_ ? " : " : ":";
          if (!write(items[i].second, depth + 1)) return false;
        }
        if (!items.empty()) newline(depth);
        out_ += '}';
        return true;
      }
      default:
        return writeScalar(v);
    }
  }

  const std::string& failure() const { return failure_; }

 private:
  // Kept out of write() so that the recursive frame stays small.
  __attribute__((noinline)) bool writeScalar(const Value& v) {
    using K = Value::Kind;
    switch (v.kind()) {
      case K::Null:
        out_ += "null";
        return true;
      case K::Boolean:
        out_ += v.boolValue() ? "true" : "false";
        return true;
      case K::Integer:
        return appendNumber(v.intValue());
      case K::Float32: {
        float f = v.floatValue();
        if (!std::isfinite(f)) return fail("a number that is not finite");
        return appendNumber(f);
      }
      case K::Float64: {
        double d = v.doubleValue();
        if (!std::isfinite(d)) return fail("a number that is not finite");
        return appendNumber(d);
      }
      case K::Decimal: {
        Decimal d = v.decimalValue();
        if (d.nan) return fail("a number that is not finite");
        out_ += d.toString();
        return true;
      }
      case K::String:
        return appendString(v.str());
      default:
        return fail(std::string("a value of kind ") + Value::kindName(v.kind()));
    }
  }

  bool fail(std::string why) {
    failure_ = std::move(why);
    return false;
  }

  template <typename T>
  bool appendNumber(T number) {
    char buf[32];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, number);
    out_.append(buf, end);
    return true;
  }

  void newline(size_t depth) {
    if (!pretty_) return;
    out_ += '\n';
    out_.append(depth * 2, ' ');
  }

  bool appendString(std::string_view s) {
    if (!simdjson::validate_utf8(s.data(), s.size()))
      return fail("a string that is not valid UTF-8");
    static constexpr char kHex[] = "0123456789abcdef";
    out_ += '"';
    size_t run = 0;
    for (size_t i = 0; i < s.size(); ++i) {
      auto c = static_cast<unsigned char>(s[i]);
      if (c >= 0x20 && c != '"' && c != '\\' && (c != '/' || !escapeSlashes_)) continue;
      out_.append(s.data() + run, i - run);
      run = i + 1;
      switch (c) {
        case '"':
          out_ += "\\\"";
          break;
        case '\\':
          out_ += "\\\\";
          break;
        case '/':
          out_ += "\\/";
          break;
        case '\b':
          out_ += "\\b";
          break;
        case '\f':
          out_ += "\\f";
          break;
        case '\n':
          out_ += "\\n";
          break;
        case '\r':
          out_ += "\\r";
          break;
        case '\t':
          out_ += "\\t";
          break;
        default: {
          char esc[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
          out_.append(esc, 6);
        }
      }
    }
    out_.append(s.data() + run, s.size() - run);
    out_ += '"';
    return true;
  }

  bool pretty_;
  bool escapeSlashes_;
  std::string& out_;
  std::string failure_;
};

}  // namespace

std::string writeJSON(const Value& value, JSONStyle style, Error* error, JSONSlashes slashes) {
  std::string out;
  Writer writer(style, slashes, &out);
  if (!writer.write(value, 0)) {
    if (error) {
      *error = jsonError("Invalid value for JSON: cannot write " + writer.failure() + ".");
    }
    return {};
  }
  if (error) *error = Error();
  return out;
}

}  // namespace quillon
