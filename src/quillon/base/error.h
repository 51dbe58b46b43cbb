#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "quillon/base/value.h"

namespace quillon {

// Keys of an Error's user info, with their classic values.
inline constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view kLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
inline constexpr std::string_view kLocalizedRecoverySuggestionErrorKey =
    "NSLocalizedRecoverySuggestion";
inline constexpr std::string_view kUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr std::string_view kFilePathErrorKey = "NSFilePath";
inline constexpr std::string_view kPosixErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view kCocoaErrorDomain = "NSCocoaErrorDomain";
// A file is not in the form it should be (or cannot be read as such).
inline constexpr int64_t kCocoaFileReadCorruptFileError = 259;
// A file could not be written for a reason no other code names.
inline constexpr int64_t kCocoaFileWriteUnknownError = 512;

// A recoverable failure reported to a caller: a domain, a code and a user-info
// dictionary. A value type; a default-constructed Error means "no error".
class Error {
 public:
  Error() = default;
  Error(std::string domain, int64_t code, Value userInfo = Value());
  // A POSIX error for errno `code`, describing `path` when given.
  static Error posix(int code, std::string_view path = {});
  static Error withDescription(std::string domain, int64_t code, std::string_view description);

  explicit operator bool() const { return !domain_.empty(); }
  const std::string& domain() const { return domain_; }
  int64_t code() const { return code_; }
  // Always a dictionary (empty when none was given).
  const Value& userInfo() const { return userInfo_; }
  // The localized description from the user info, or "The operation couldn't
  // be completed. (<domain> error <code>.)".
  std::string localizedDescription() const;
  std::string description() const;

  bool operator==(const Error& o) const {
    return domain_ == o.domain_ && code_ == o.code_ && userInfo_ == o.userInfo_;
  }

 private:
  std::string domain_;
  int64_t code_ = 0;
  Value userInfo_ = Value::dictionary();
};

// The exceptions the framework raises on programming errors and hostile
// binary input: a name ("DenseCodingException", "MergeException" …), a reason
// and optional user info. Everything else fails softly.
class Exception : public std::runtime_error {
 public:
  Exception(std::string name, std::string reason, Value userInfo = Value());
  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }
  const Value& userInfo() const { return userInfo_; }

 private:
  std::string name_;
  std::string reason_;
  Value userInfo_;
};

}  // namespace quillon
