#include "quillon/graph/validation_error.h"

#include <fmt/format.h>

namespace quillon {

bool ErrorObject::isEqual(const Object& other) const {
  auto* o = dynamic_cast<const ErrorObject*>(&other);
  return o && o->error_ == error_;
}

Error combinedValidationError(const std::vector<Error>& errors) {
  if (errors.empty()) return Error();
  if (errors.size() == 1) return errors.front();
  Value details = Value::array();
  for (const auto& e : errors) details.append(Value::object(std::make_shared<ErrorObject>(e)));
  Value info =
      Value::dictionary({{"NSLocalizedDescription",
                          fmt::format("Multiple validation errors occurred ({}).", errors.size())},
                         {std::string(kDetailedErrorsKey), details}});
  return Error(std::string(kCocoaErrorDomain), kValidationMultipleErrorsError, info);
}

std::vector<Error> detailedErrors(const Error& error) {
  if (error.code() != kValidationMultipleErrorsError) return {error};
  std::vector<Error> out;
  for (const Value& e : error.userInfo().get(kDetailedErrorsKey).elements()) {
    if (auto* object = e.objectAs<ErrorObject>()) out.push_back(object->error());
  }
  return out;
}

}  // namespace quillon
