#pragma once

#include <string>
#include <string_view>

namespace quillon {

// Localised texts through gettext, domain "quillon". An unknown key answers
// the key itself. Thread-safe; the catalogue is bound once per process.
std::string localizedString(std::string_view key);

// Binds the "quillon" domain to another locale folder (holding
// <language>/LC_MESSAGES/quillon.mo), for applications that ship their own
// catalogues and for tests. Thread-safe.
void setLocalizationDirectory(const std::string& directory);

}  // namespace quillon
