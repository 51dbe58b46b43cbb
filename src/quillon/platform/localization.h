#pragma once

#include <string>
#include <string_view>

namespace quillon {

// Localised texts through gettext, domain "quillon". An unknown key answers
// the key itself. Thread-safe; the catalogue is bound once per process.
std::string localizedString(std::string_view key);

}  // namespace quillon
