// The framework's shared object: store registration and the host's identity
// and hooks.

#include "quillon/store/quillon.h"

#include <atomic>
#include <mutex>

#include "quillon/base/internal/system_log.h"
#include "quillon/base/internal/user_defaults.h"
#include "quillon/base/version.h"
#include "quillon/store/store.h"

namespace quillon {

namespace {

constexpr const char* kToolIdentifier = "org.quillon.cli";

struct SharedState {
  std::mutex mutex;
  Value applicationInfo;
  Quillon::LogErrorStringHandler logHandler;
  Quillon::AlertHandler alertHandler;
};

SharedState& shared() {
  static SharedState* state = new SharedState();
  return *state;
}

std::atomic<bool> gRecoveryRequested{false};

Value defaultApplicationInfo() {
  return Value::dictionary({{"CFBundleIdentifier", kToolIdentifier},
                            {"CFBundleName", "quillon"},
                            {"CFBundleVersion", kQuillonFrameworkVersion},
                            {"CFBundleShortVersionString", kQuillonFrameworkShortVersion}});
}

}  // namespace

Quillon& Quillon::sharedKit() {
  static Quillon* kit = new Quillon();
  return *kit;
}

void Quillon::registerStore() {
  sharedKit();
  registerQuillonStoreType();
}

void Quillon::setApplicationInfo(Value info) {
  if (!info.isDictionary()) info = Value();
  std::string identifier = kToolIdentifier;
  if (info.get("CFBundleIdentifier").isString()) {
    identifier = std::string(info.get("CFBundleIdentifier").str());
  }
  {
    std::lock_guard<std::mutex> lock(shared().mutex);
    shared().applicationInfo = info.copy();
  }
  UserDefaults::setStandardApplicationIdentifier(identifier);
}

Value Quillon::applicationInfo() {
  std::lock_guard<std::mutex> lock(shared().mutex);
  if (shared().applicationInfo.isNil()) shared().applicationInfo = defaultApplicationInfo();
  return shared().applicationInfo;
}

std::string Quillon::applicationIdentifier() {
  Value identifier = applicationInfo().get("CFBundleIdentifier");
  return identifier.isString() ? std::string(identifier.str()) : std::string(kToolIdentifier);
}

Value Quillon::frameworkInfo() {
  return Value::dictionary({{"CFBundleIdentifier", kQuillonFrameworkIdentifier},
                            {"CFBundleVersion", kQuillonFrameworkVersion},
                            {"CFBundleShortVersionString", kQuillonFrameworkShortVersion},
                            {"StorageVersion", Value::integer(kQuillonStorageVersion)}});
}

void Quillon::setRecoveryRequested(bool requested) { gRecoveryRequested.store(requested); }

bool Quillon::recoveryRequested() { return gRecoveryRequested.load(); }

void Quillon::setLogErrorStringHandler(LogErrorStringHandler handler) {
  std::lock_guard<std::mutex> lock(shared().mutex);
  shared().logHandler = std::move(handler);
}

void Quillon::logErrorString(const std::string& text, const std::string& domain) {
  LogErrorStringHandler handler;
  {
    std::lock_guard<std::mutex> lock(shared().mutex);
    handler = shared().logHandler;
  }
  if (handler) {
    handler(text, domain);
  } else {
    systemLog(domain.empty() ? text : domain + ": " + text);
  }
}

void Quillon::setAlertHandler(AlertHandler handler) {
  std::lock_guard<std::mutex> lock(shared().mutex);
  shared().alertHandler = std::move(handler);
}

void Quillon::showAlert(const std::string& message, const std::string& informativeText) {
  AlertHandler handler;
  {
    std::lock_guard<std::mutex> lock(shared().mutex);
    handler = shared().alertHandler;
  }
  if (handler) {
    handler(message, informativeText);
  } else {
    systemLog(informativeText.empty() ? message : message + " " + informativeText);
  }
}

}  // namespace quillon
