#include "quillon/store/quillon.h"

namespace quillon {

// PENDING
Quillon& Quillon::sharedKit() {
  static Quillon* kit = new Quillon();
  return *kit;
}
// PENDING
void Quillon::registerStore() {}
// PENDING
void Quillon::setApplicationInfo(Value) {}
// PENDING
Value Quillon::applicationInfo() { return Value(); }
// PENDING
std::string Quillon::applicationIdentifier() { return std::string(); }
// PENDING
Value Quillon::frameworkInfo() { return Value(); }
// PENDING
void Quillon::setRecoveryRequested(bool) {}
// PENDING
bool Quillon::recoveryRequested() { return false; }
// PENDING
void Quillon::setLogErrorStringHandler(LogErrorStringHandler) {}
// PENDING
void Quillon::logErrorString(const std::string&, const std::string&) {}
// PENDING
void Quillon::setAlertHandler(AlertHandler) {}
// PENDING
void Quillon::showAlert(const std::string&, const std::string&) {}

}  // namespace quillon
