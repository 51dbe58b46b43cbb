#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/value.h"

namespace quillon {

// Validation error codes, domain "NSCocoaErrorDomain"; the numbers are the
// classic ones that hosts and the framework's healing compare against.
inline constexpr int64_t kManagedObjectValidationError = 1550;
inline constexpr int64_t kValidationMultipleErrorsError = 1560;
inline constexpr int64_t kValidationMissingMandatoryPropertyError = 1570;
inline constexpr int64_t kValidationRelationshipLacksMinimumCountError = 1580;
inline constexpr int64_t kValidationRelationshipExceedsMaximumCountError = 1590;
inline constexpr int64_t kValidationRelationshipDeniedDeleteError = 1600;
inline constexpr int64_t kValidationNumberTooLargeError = 1610;
inline constexpr int64_t kValidationNumberTooSmallError = 1620;
inline constexpr int64_t kValidationDateTooLateError = 1630;
inline constexpr int64_t kValidationDateTooSoonError = 1640;
inline constexpr int64_t kValidationInvalidDateError = 1650;
inline constexpr int64_t kValidationStringTooLongError = 1660;
inline constexpr int64_t kValidationStringTooShortError = 1670;
inline constexpr int64_t kValidationStringPatternMatchingError = 1680;

// User-info keys of validation errors.
inline constexpr std::string_view kValidationObjectErrorKey = "NSValidationErrorObject";
inline constexpr std::string_view kValidationKeyErrorKey = "NSValidationErrorKey";
inline constexpr std::string_view kValidationValueErrorKey = "NSValidationErrorValue";
inline constexpr std::string_view kDetailedErrorsKey = "NSDetailedErrors";

// An Error inside a value tree (the entries of "NSDetailedErrors").
class ErrorObject final : public Object {
 public:
  explicit ErrorObject(Error error) : error_(std::move(error)) {}
  const Error& error() const { return error_; }
  std::string className() const override { return "NSError"; }
  bool isEqual(const Object& other) const override;
  std::string description() const override { return error_.description(); }

 private:
  Error error_;
};

// One error as it is: several as a 1560 error listing them under
// "NSDetailedErrors". No error for an empty list.
Error combinedValidationError(const std::vector<Error>& errors);
// The single errors of a combined error, or the error itself.
std::vector<Error> detailedErrors(const Error& error);

}  // namespace quillon
