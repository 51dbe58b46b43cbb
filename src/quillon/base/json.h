#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "quillon/base/error.h"
#include "quillon/base/value.h"

namespace quillon {

// The code of every JSON reading or writing error, in kCocoaErrorDomain.
inline constexpr int64_t kJSONErrorCode = 3840;

// Depths above this are treated as this: the reader and the writer recurse
// once per level, and the limit keeps that recursion well inside a thread's
// stack.
inline constexpr size_t kJSONMaximumDepthLimit = 2048;

struct JSONReadOptions {
  // Arrays and dictionaries are created mutable (strings never are).
  bool mutableContainers = false;
  // Arrays and objects nested deeper than this are an error. The top-level
  // container is at depth 1.
  size_t maximumDepth = 1000;
};

// Parses one JSON text (any value at top level, surrounded by optional
// whitespace) into a Value tree: objects become dictionaries keeping the
// document's key order (a repeated key keeps its first position and its last
// value), integers that fit int64 become Integer, every other number Float64,
// strings String, true/false Boolean, null Null.
//
// Empty, truncated or invalid text, invalid UTF-8 and nesting deeper than
// options.maximumDepth answer nil and set *error (when given) to a
// kCocoaErrorDomain error with code kJSONErrorCode whose description says
// what is wrong, with the byte offset when it is known.
//
// Thread-safe: each thread reuses its own parser buffers.
Value readJSON(std::string_view text, Error* error = nullptr, JSONReadOptions options = {});
Value readJSON(std::span<const uint8_t> bytes, Error* error = nullptr,
               JSONReadOptions options = {});

enum class JSONStyle {
  // No whitespace at all.
  Compact,
  // One element or entry per line, two spaces of indentation per level,
  // entries written `"key" : value`, empty containers as `[]` and `{}`, and
  // no newline after the last bracket.
  Pretty,
};

// Whether "/" in strings is written as "\/" (as package files have it) or
// as is (for text people read).
enum class JSONSlashes { Escaped, Plain };

// Writes a Value tree as JSON text. Strings are escaped as \" \\ \/ \b \f \n
// \r \t (\/ only with JSONSlashes::Escaped), other control characters as \u00xx, and everything
// else (non-ASCII UTF-8 included) is written as is. Integers and booleans are written exactly;
// floats and doubles in their shortest form that reads back to the same number; decimals in their
// plain decimal text.
//
// Only null, booleans, numbers, strings (valid UTF-8), arrays and
// dictionaries with string keys can be written. Anything else (nil, data,
// dates, URLs, sets, ordered sets, objects, NaN or infinite numbers, a
// container nested more than kJSONMaximumDepthLimit deep, as a cycle is)
// answers the empty string and sets *error (when given).
std::string writeJSON(const Value& value, JSONStyle style = JSONStyle::Compact,
                      Error* error = nullptr, JSONSlashes slashes = JSONSlashes::Escaped);

}  // namespace quillon
