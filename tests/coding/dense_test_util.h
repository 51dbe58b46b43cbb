#pragma once

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/value.h"
#include "support/log_capture.h"

namespace quillon {
// Readable values in test failure messages.
inline void PrintTo(const Value& v, std::ostream* os) { *os << v.description(); }
}  // namespace quillon

namespace quillon::testing {

// Builds DenseCoding bytes by hand, with the format's alignment rules.
class Bytes {
 public:
  Bytes& u8(uint8_t v) {
    b_.push_back(v);
    return *this;
  }
  template <typename T>
  Bytes& raw(T v) {
    size_t at = b_.size();
    b_.resize(at + sizeof v);
    std::memcpy(b_.data() + at, &v, sizeof v);
    return *this;
  }
  Bytes& align(size_t w) {
    while (b_.size() % w) b_.push_back(0);
    return *this;
  }
  template <typename T>
  Bytes& aligned(T v) {
    align(sizeof(T));
    return raw(v);
  }
  Bytes& cstr(std::string_view s) {
    b_.insert(b_.end(), s.begin(), s.end());
    b_.push_back(0);
    return *this;
  }
  // A version 3 header with the given counts.
  static Bytes header(uint32_t objects, uint32_t classes, uint32_t strings, uint16_t major = 3,
                      uint16_t minor = 3) {
    Bytes b;
    b.raw<uint32_t>(0x46415354).raw(major).raw(minor).raw(objects).raw(classes).raw(strings);
    return b;
  }
  std::vector<uint8_t> vec() const { return b_; }
  size_t size() const { return b_.size(); }

 private:
  std::vector<uint8_t> b_;
};

inline std::vector<uint8_t> bytesOf(const Value& data) {
  return std::vector<uint8_t>(data.bytes().begin(), data.bytes().end());
}

}  // namespace quillon::testing
