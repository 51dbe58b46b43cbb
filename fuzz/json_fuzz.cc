// Feeds arbitrary bytes to the JSON reader with the limits package files
// use. What it accepts is written compact and pretty; both must read back to
// an equal value.
//
// Input: one byte choosing the depth limit and mutable containers, then the
// text.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "fuzz_support.h"
#include "quillon/base/error.h"
#include "quillon/base/json.h"
#include "quillon/store/internal/package_format.h"

namespace {

using quillon::Value;

void checkRoundTrip(const Value& value, quillon::JSONStyle style,
                    const quillon::JSONReadOptions& options) {
  quillon::Error error;
  std::string text = quillon::writeJSON(value, style, &error);
  if (text.empty()) std::abort();  // everything the reader makes can be written
  Value again = quillon::readJSON(text, &error, options);
  if (!(again == value)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  quillon::fuzz::quietLog();
  quillon::JSONReadOptions options;
  static constexpr size_t kDepths[] = {quillon::kMaximumChangeFileDepth,
                                       quillon::kMaximumRecordFileDepth, 1000, 4};
  options.maximumDepth = kDepths[data[0] & 3];
  options.mutableContainers = (data[0] & 4) != 0;
  std::span<const uint8_t> text(data + 1, size - 1);

  quillon::Error error;
  Value value = quillon::readJSON(text, &error, options);
  if (value.isNil()) {
    if (!error) std::abort();
    return 0;
  }
  if (error) std::abort();
  checkRoundTrip(value, quillon::JSONStyle::Compact, options);
  checkRoundTrip(value, quillon::JSONStyle::Pretty, options);
  return 0;
}
