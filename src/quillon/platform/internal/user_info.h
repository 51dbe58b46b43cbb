#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillon {

// Who and where this process runs, for session records and diagnostics.
// Stateless and thread-safe.
class UserInfo {
 public:
  // The login name.
  static std::string userName();
  // The full name from the user database, else the login name.
  static std::string fullUserName();
  static std::string hostName();
  // The system's PRETTY_NAME from /etc/os-release ("Debian GNU/Linux 12
  // (bookworm)"), else the kernel's name and release ("Linux 6.1.0").
  static std::string osVersionString();
  // The machine's stable identifier from /etc/machine-id; empty when the
  // system has none.
  static std::string hardwareIdentifier();

  // The PRETTY_NAME of os-release text, with quotes and escapes undone;
  // nullopt when absent or empty.
  static std::optional<std::string> prettyNameFromOsRelease(std::string_view text);
};

}  // namespace quillon
