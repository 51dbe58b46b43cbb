#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "quillon/base/error.h"
#include "quillon/base/value.h"

namespace quillon {

// Error codes in kCocoaErrorDomain.
inline constexpr int64_t kPropertyListReadCorruptError = 3840;
inline constexpr int64_t kPropertyListWriteInvalidError = 3852;

// Arrays and dictionaries nested deeper than this are refused.
inline constexpr size_t kPropertyListMaximumDepth = 512;

// Reads an XML or binary property list: dictionaries (keys in stored order),
// arrays, strings, integers (as int64; unsigned values past INT64_MAX wrap),
// reals (Float64), booleans, dates (Date), data (Data), and keyed-archive
// uids (Integer). Containers are immutable. Malformed, truncated or empty
// input, nesting deeper than kPropertyListMaximumDepth, or a date that the
// underlying reader cannot hold (it keeps 32-bit seconds: 1933 to 2069)
// answers nil and sets *error (kPropertyListReadCorruptError). Thread-safe.
Value readPropertyList(std::span<const uint8_t> bytes, Error* error = nullptr);

// Writes a Value tree as an XML property list. Dates are written to the
// whole second (the XML form has no fraction) and must lie within about 68
// years of 2001; decimals and floats are written as reals. Nil, null, URLs,
// sets, ordered sets, objects, non-string keys, non-finite numbers and
// out-of-range dates answer the empty string and set *error
// (kPropertyListWriteInvalidError). Thread-safe.
std::string writePropertyListXML(const Value& value, Error* error = nullptr);

}  // namespace quillon
