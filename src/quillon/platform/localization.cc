#include "quillon/platform/internal/localization.h"

#include <libintl.h>

#include <mutex>

namespace quillon {
namespace {

constexpr const char* kDomain = "quillon";

#ifndef QUILLON_LOCALE_DIR
#define QUILLON_LOCALE_DIR "/usr/local/share/locale"
#endif

std::once_flag& bindOnce() {
  static std::once_flag once;
  return once;
}

void bindDefault() {
  std::call_once(bindOnce(), [] {
    bindtextdomain(kDomain, QUILLON_LOCALE_DIR);
    bind_textdomain_codeset(kDomain, "UTF-8");
  });
}

}  // namespace

std::string localizedString(std::string_view key) {
  // gettext answers the catalogue's header for the empty key.
  if (key.empty()) return {};
  bindDefault();
  std::string text(key);  // gettext needs a terminated key
  // dgettext answers its argument itself when there is no translation.
  return dgettext(kDomain, text.c_str());
}

void setLocalizationDirectory(const std::string& directory) {
  bindDefault();
  bindtextdomain(kDomain, directory.c_str());
}

}  // namespace quillon
