#include "quillon/base/error.h"

#include <cstring>

namespace quillon {

Error::Error(std::string domain, int64_t code, Value userInfo)
    : domain_(std::move(domain)),
      code_(code),
      userInfo_(userInfo.isDictionary() ? std::move(userInfo) : Value::dictionary()) {}

Error Error::posix(int code, std::string_view path) {
  Value info = Value::dictionary();
  info.set(kLocalizedDescriptionKey, std::string(std::strerror(code)));
  if (!path.empty()) info.set(kFilePathErrorKey, path);
  return Error(std::string(kPosixErrorDomain), code, info);
}

Error Error::withDescription(std::string domain, int64_t code, std::string_view description) {
  return Error(std::move(domain), code, Value::dictionary({{kLocalizedDescriptionKey, description}}));
}

std::string Error::localizedDescription() const {
  const Value& d = userInfo_.get(kLocalizedDescriptionKey);
  if (d.isString()) return std::string(d.str());
  return "The operation couldn\u2019t be completed. (" + domain_ + " error " +
         std::to_string(code_) + ".)";
}

std::string Error::description() const {
  return "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" +
         localizedDescription() + "\"";
}

Exception::Exception(std::string name, std::string reason, Value userInfo)
    : std::runtime_error(name + ": " + reason),
      name_(std::move(name)),
      reason_(std::move(reason)),
      userInfo_(std::move(userInfo)) {}

}  // namespace quillon
