// Feeds arbitrary text to the predicate parser, as `quillon fetch --where`
// hands it what a user typed. A parsed predicate is evaluated against a
// sample object and written back as text, which must parse to an equal
// predicate.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "quillon/base/error.h"
#include "quillon/graph/predicate.h"

namespace {

using quillon::Value;

const Value& sampleObject() {
  static const Value object = Value::dictionary({
      {"title", Value("Groceries")},
      {"priority", Value(3)},
      {"score", Value(2.5)},
      {"done", Value(false)},
      {"created", Value::date(800000000)},
      {"tags", Value::array({Value::dictionary({{"name", Value("home")}}),
                             Value::dictionary({{"name", Value("work")}})})},
      {"folder", Value::dictionary({{"name", Value("Inbox")}, {"count", Value(12)}})},
  });
  return object;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quillon::fuzz::quietLog();
  std::string_view text(reinterpret_cast<const char*>(data), size);
  quillon::Error error;
  auto predicate = quillon::Predicate::parse(text, {}, &error);
  if (!predicate) {
    if (!error) std::abort();
    return 0;
  }
  (void)predicate->evaluate(sampleObject());
  (void)predicate->evaluate(sampleObject(), Value::dictionary({{"X", Value(1)}}));

  // Without arguments every constant in the text has a literal form, so
  // the canonical text must parse back to the same predicate.
  std::string canonical = predicate->format();
  quillon::Error again;
  auto reparsed = quillon::Predicate::parse(canonical, {}, &again);
  if (!reparsed || !(*reparsed == *predicate)) std::abort();
  return 0;
}
