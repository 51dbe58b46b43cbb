#include "quillon/base/internal/plist.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <memory>

namespace quillon {
namespace {

struct PlistDeleter {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

Error plistError(int64_t code, std::string description) {
  return Error::withDescription(std::string(kCocoaErrorDomain), code, description);
}

// The deepest array/dict nesting of an XML text, counted on the tags alone,
// so that hostile nesting is refused before the recursive XML reader sees it.
size_t xmlNestingDepth(std::string_view text) {
  size_t depth = 0, deepest = 0;
  for (size_t i = text.find('<'); i != std::string_view::npos; i = text.find('<', i + 1)) {
    std::string_view rest = text.substr(i + 1);
    bool closing = !rest.empty() && rest[0] == '/';
    if (closing) rest.remove_prefix(1);
    size_t nameLength = rest.starts_with("array") ? 5 : rest.starts_with("dict") ? 4 : 0;
    if (nameLength == 0) continue;
    size_t end = rest.find('>');
    bool selfClosing = end != std::string_view::npos && end > 0 && rest[end - 1] == '/';
    if (closing) {
      if (depth) --depth;
    } else if (!selfClosing) {
      deepest = std::max(deepest, ++depth);
    }
  }
  return deepest;
}

uint64_t readBigEndian(const uint8_t* p, size_t size) {
  uint64_t v = 0;
  for (size_t i = 0; i < size; ++i) v = v << 8 | p[i];
  return v;
}

// Whether a binary property list holds a UTF-16 string with a U+0000 in it.
// The binary reader accepts such strings, but reading one back as a
// dictionary key trips an assertion in the library, so such lists are
// refused up front. Structural damage is left to the reader to report.
bool binaryHasNulInUTF16String(std::span<const uint8_t> b) {
  constexpr size_t kHeader = 8, kTrailer = 32;
  if (b.size() < kHeader + kTrailer) return false;
  const uint8_t* trailer = b.data() + b.size() - kTrailer;
  size_t offsetSize = trailer[6];
  uint64_t objects = readBigEndian(trailer + 8, 8);
  uint64_t table = readBigEndian(trailer + 24, 8);
  if (offsetSize == 0 || offsetSize > 8 || table >= b.size() ||
      objects > (b.size() - table) / offsetSize) {
    return false;
  }
  for (uint64_t i = 0; i < objects; ++i) {
    uint64_t offset = readBigEndian(b.data() + table + i * offsetSize, offsetSize);
    if (offset >= b.size() || (b[offset] >> 4) != 0x6) continue;
    uint64_t units = b[offset] & 0x0F;
    uint64_t start = offset + 1;
    if (units == 0x0F) {
      if (start >= b.size() || (b[start] >> 4) != 0x1) continue;
      size_t intSize = size_t{1} << (b[start] & 0x03);
      if (start + 1 + intSize > b.size()) continue;
      units = readBigEndian(b.data() + start + 1, intSize);
      start += 1 + intSize;
    }
    if (start > b.size() || units > (b.size() - start) / 2) continue;
    for (uint64_t u = 0; u < units; ++u) {
      if (b[start + 2 * u] == 0 && b[start + 2 * u + 1] == 0) return true;
    }
  }
  return false;
}

// Converts a parsed node; answers nil with *failure set when it cannot.
Value fromPlist(plist_t node, size_t depth, std::string* failure) {
  if (depth > kPropertyListMaximumDepth) {
    *failure = "containers are nested too deeply";
    return Value();
  }
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value::boolean(b != 0);
    }
    case PLIST_UINT: {
      uint64_t u = 0;
      plist_get_uint_val(node, &u);
      return Value::integer(static_cast<int64_t>(u));
    }
    case PLIST_UID: {
      uint64_t u = 0;
      plist_get_uid_val(node, &u);
      return Value::integer(static_cast<int64_t>(u));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value::float64(d);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      return Value::string(s ? std::string_view(s, length) : std::string_view());
    }
    case PLIST_DATA: {
      uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      return Value::data(std::string_view(p ? p : "", p ? length : 0));
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      // Dates are held in 32 bits; the reader pins those it cannot hold
      // (before 1933 or after 2069) to the limits.
      if (sec == INT32_MIN || sec == INT32_MAX) {
        *failure = "a date is out of the supported range";
        return Value();
      }
      return Value::date(sec + usec / 1e6);
    }
    case PLIST_ARRAY: {
      uint32_t count = plist_array_get_size(node);
      std::vector<Value> elements;
      elements.reserve(count);
      for (uint32_t i = 0; i < count; ++i) {
        plist_t item = plist_array_get_item(node, i);
        if (!item) {
          *failure = "an array is incomplete";
          return Value();
        }
        elements.push_back(fromPlist(item, depth + 1, failure));
        if (!failure->empty()) return Value();
      }
      return Value::array(std::move(elements));
    }
    case PLIST_DICT: {
      std::vector<Value::Entry> entries;
      entries.reserve(plist_dict_get_size(node));
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (!key) break;
        Value keyValue = Value::string(key);
        std::free(key);
        if (!item) {
          *failure = "a dictionary key has no value";
          break;
        }
        entries.emplace_back(std::move(keyValue), fromPlist(item, depth + 1, failure));
        if (!failure->empty()) break;
      }
      std::free(it);
      if (!failure->empty()) return Value();
      return Value::dictionary(std::move(entries));
    }
    default:
      *failure = "an item has no known type";
      return Value();
  }
}

// Builds a libplist node; answers null with *failure set when it cannot.
plist_t toPlist(const Value& v, size_t depth, std::string* failure) {
  using K = Value::Kind;
  if (depth > kPropertyListMaximumDepth) {
    *failure = "containers nested too deeply (or a cycle)";
    return nullptr;
  }
  switch (v.kind()) {
    case K::Boolean:
      return plist_new_bool(v.boolValue() ? 1 : 0);
    case K::Integer:
      return plist_new_uint(static_cast<uint64_t>(v.intValue()));
    case K::Float32:
    case K::Float64:
    case K::Decimal: {
      double d = v.doubleValue();
      if (!std::isfinite(d)) break;
      return plist_new_real(d);
    }
    case K::String:
      return plist_new_string(std::string(v.str()).c_str());
    case K::Data: {
      auto b = v.bytes();
      return plist_new_data(reinterpret_cast<const char*>(b.data()), b.size());
    }
    case K::Date: {
      double seconds = std::floor(v.dateValue());
      if (!(seconds >= INT32_MIN && seconds <= INT32_MAX)) {
        *failure = "a date out of range";
        return nullptr;
      }
      return plist_new_date(static_cast<int32_t>(seconds), 0);
    }
    case K::Array: {
      PlistPtr array(plist_new_array());
      for (const Value& e : v.elements()) {
        plist_t item = toPlist(e, depth + 1, failure);
        if (!item) return nullptr;
        plist_array_append_item(array.get(), item);
      }
      return array.release();
    }
    case K::Dictionary: {
      PlistPtr dict(plist_new_dict());
      for (const auto& [key, value] : v.items()) {
        if (!key.isString()) {
          *failure = std::string("a dictionary key of kind ") + Value::kindName(key.kind());
          return nullptr;
        }
        plist_t item = toPlist(value, depth + 1, failure);
        if (!item) return nullptr;
        plist_dict_set_item(dict.get(), std::string(key.str()).c_str(), item);
      }
      return dict.release();
    }
    default:
      break;
  }
  if (failure->empty()) *failure = std::string("a value of kind ") + Value::kindName(v.kind());
  return nullptr;
}

}  // namespace

Value readPropertyList(std::span<const uint8_t> bytes, Error* error) {
  auto fail = [&](std::string why) {
    if (error)
      *error = plistError(kPropertyListReadCorruptError, "Invalid property list: " + why + ".");
    return Value();
  };
  if (bytes.empty()) return fail("the data is empty");
  if (bytes.size() > UINT32_MAX) return fail("the data is too large");
  const char* data = reinterpret_cast<const char*>(bytes.data());
  auto length = static_cast<uint32_t>(bytes.size());
  bool binary = plist_is_binary(data, length);
  if (!binary) {
    std::string_view text(data, length);
    // XML cannot contain NUL, and the XML reader asserts on keys that do.
    if (text.find('\0') != std::string_view::npos) return fail("the XML contains a NUL character");
    if (xmlNestingDepth(text) > kPropertyListMaximumDepth) {
      return fail("containers are nested too deeply");
    }
  }
  if (binary && binaryHasNulInUTF16String(bytes)) return fail("a string contains a NUL character");
  plist_t raw = nullptr;
  if (binary) {
    plist_from_bin(data, length, &raw);
  } else {
    plist_from_xml(data, length, &raw);
  }
  PlistPtr root(raw);
  if (!root) return fail(binary ? "the binary data is damaged" : "the XML is not a property list");
  std::string failure;
  Value v = fromPlist(root.get(), 1, &failure);
  if (!failure.empty()) return fail(failure);
  if (error) *error = Error();
  return v;
}

std::string writePropertyListXML(const Value& value, Error* error) {
  std::string failure;
  PlistPtr root(toPlist(value, 1, &failure));
  if (!root) {
    if (error) {
      *error = plistError(kPropertyListWriteInvalidError,
                          "Cannot write a property list containing " + failure + ".");
    }
    return {};
  }
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(root.get(), &xml, &length);
  if (!xml) {
    if (error)
      *error =
          plistError(kPropertyListWriteInvalidError, "The property list could not be written.");
    return {};
  }
  std::string out(xml, length);
  plist_to_xml_free(xml);
  if (error) *error = Error();
  return out;
}

}  // namespace quillon
