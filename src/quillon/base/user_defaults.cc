#include "quillon/base/internal/user_defaults.h"

#include <cctype>
#include <charconv>
#include <cstdlib>
#include <map>
#include <memory>

#include "quillon/base/env.h"
#include "quillon/base/internal/plist.h"
#include "quillon/base/internal/system_log.h"

namespace quillon {
namespace {

std::string configFolder() {
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/') return xdg;
  const char* home = std::getenv("HOME");
  return std::string(home && home[0] ? home : "/tmp") + "/.config";
}

std::string parentFolder(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos || slash == 0 ? std::string("/") : path.substr(0, slash);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != b[i]) return false;
  }
  return true;
}

std::optional<int64_t> parseInteger(std::string_view s) {
  int64_t v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || s.empty()) return std::nullopt;
  return v;
}

// The standard instances, one per identifier ever made standard, kept for
// the life of the process so that references handed out stay valid.
struct StandardRegistry {
  std::mutex mutex;
  std::string identifier = "org.quillon.cli";
  std::map<std::string, std::unique_ptr<UserDefaults>> instances;
};

StandardRegistry& registry() {
  static auto* r = new StandardRegistry();
  return *r;
}

}  // namespace

UserDefaults& UserDefaults::standard() {
  StandardRegistry& r = registry();
  std::lock_guard lock(r.mutex);
  auto& slot = r.instances[r.identifier];
  if (!slot) slot = std::make_unique<UserDefaults>(r.identifier);
  return *slot;
}

void UserDefaults::setStandardApplicationIdentifier(std::string identifier) {
  StandardRegistry& r = registry();
  std::lock_guard lock(r.mutex);
  r.identifier = std::move(identifier);
}

UserDefaults::UserDefaults(std::string applicationIdentifier, std::string folder)
    : path_((folder.empty() ? configFolder() : folder) + "/" + applicationIdentifier + ".plist") {}

void UserDefaults::loadLocked() {
  if (loaded_) return;
  loaded_ = true;
  values_ = Value::mutableDictionary();
  std::vector<uint8_t> contents;
  if (Env::Default()->readFile(path_, &contents)) return;  // none yet
  Error error;
  Value stored = readPropertyList(contents, &error);
  if (!stored.isDictionary()) {
    // Left in place: it is replaced only when a value is set.
    systemLog("Ignoring the damaged user defaults file " + path_ + ": " +
              (error ? error.localizedDescription() : std::string("not a dictionary")));
    return;
  }
  values_ = stored.mutableCopy();
}

Value UserDefaults::objectForKey(std::string_view key) {
  std::lock_guard lock(mutex_);
  loadLocked();
  return values_.get(key);
}

bool UserDefaults::boolForKey(std::string_view key) {
  Value v = objectForKey(key);
  if (v.isNumber()) return v.boolValue();
  if (v.isString()) {
    std::string_view s = v.str();
    if (equalsIgnoringCase(s, "yes") || equalsIgnoringCase(s, "true")) return true;
    auto n = parseInteger(s);
    return n && *n != 0;
  }
  return false;
}

int64_t UserDefaults::integerForKey(std::string_view key) {
  Value v = objectForKey(key);
  if (v.isNumber()) return v.intValue();
  if (v.isString()) return parseInteger(v.str()).value_or(0);
  return 0;
}

std::string UserDefaults::stringForKey(std::string_view key) {
  Value v = objectForKey(key);
  if (v.isString()) return std::string(v.str());
  if (v.isBool() || v.isInteger()) return std::to_string(v.intValue());
  if (v.isNumber()) {
    char buf[32];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v.doubleValue());
    return std::string(buf, end);
  }
  return {};
}

void UserDefaults::setObject(std::string_view key, Value value) {
  std::lock_guard lock(mutex_);
  loadLocked();
  if (value.isNil() && !values_.find(key)) return;
  // Stored as an immutable deep copy so that later changes to the caller's
  // containers do not leak in.
  Value next = values_.mutableCopy();
  next.set(Value(key), value.isNil() ? Value() : value.deepCopy(false));
  Error error;
  std::string xml = writePropertyListXML(next, &error);
  if (error) {
    systemLog("Not storing the user default \"" + std::string(key) +
              "\": " + error.localizedDescription());
    return;
  }
  values_ = std::move(next);
  Env* env = Env::Default();
  if (Error e = env->createDirectories(parentFolder(path_))) {
    systemLog("Cannot create the folder for " + path_ + ": " + e.localizedDescription());
    return;
  }
  if (Error e = env->writeFileAtomically(path_, xml)) {
    systemLog("Cannot write the user defaults " + path_ + ": " + e.localizedDescription());
  }
}

void UserDefaults::reload() {
  std::lock_guard lock(mutex_);
  loaded_ = false;
  values_ = Value();
}

}  // namespace quillon
