#include "quillon/platform/internal/user_info.h"

#include <glib.h>
#include <sys/utsname.h>

#include <vector>

#include "quillon/base/env.h"

namespace quillon {
namespace {

std::optional<std::string> readText(const std::string& path) {
  std::vector<uint8_t> bytes;
  if (Env::Default()->readFile(path, &bytes)) return std::nullopt;
  return std::string(bytes.begin(), bytes.end());
}

std::string trimmed(std::string_view s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string_view::npos) return {};
  size_t e = s.find_last_not_of(" \t\r\n");
  return std::string(s.substr(b, e - b + 1));
}

}  // namespace

std::string UserInfo::userName() {
  const char* name = g_get_user_name();
  return name ? name : "";
}

std::string UserInfo::fullUserName() {
  // GLib answers "Unknown" when the user database has no full name.
  const char* real = g_get_real_name();
  std::string name = real ? trimmed(real) : "";
  if (name.empty() || name == "Unknown") return userName();
  return name;
}

std::string UserInfo::hostName() {
  const char* name = g_get_host_name();
  return name ? name : "";
}

std::optional<std::string> UserInfo::prettyNameFromOsRelease(std::string_view text) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string line = trimmed(text.substr(start, end - start));
    start = end + 1;
    if (line.rfind("PRETTY_NAME=", 0) != 0) continue;
    std::string_view value = std::string_view(line).substr(12);
    std::string out;
    if (!value.empty() && (value[0] == '"' || value[0] == '\'')) {
      char quote = value[0];
      for (size_t i = 1; i < value.size() && value[i] != quote; ++i) {
        if (value[i] == '\\' && quote == '"' && i + 1 < value.size()) ++i;
        out.push_back(value[i]);
      }
    } else {
      out = std::string(value);
    }
    if (out.empty()) return std::nullopt;
    return out;
  }
  return std::nullopt;
}

std::string UserInfo::osVersionString() {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    if (std::optional<std::string> text = readText(path)) {
      if (std::optional<std::string> pretty = prettyNameFromOsRelease(*text)) return *pretty;
    }
  }
  struct utsname names;
  if (::uname(&names) == 0) return std::string(names.sysname) + " " + names.release;
  return "Linux";
}

std::string UserInfo::hardwareIdentifier() {
  for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
    if (std::optional<std::string> text = readText(path)) {
      std::string id = trimmed(*text);
      if (!id.empty()) return id;
    }
  }
  return {};
}

}  // namespace quillon
