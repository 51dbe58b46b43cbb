#include "quillon/platform/internal/localization.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <clocale>
#include <cstdlib>

#include "quillon/base/env.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

// Unknown keys answer themselves; known ones come from a real catalogue
// compiled with msgfmt, in a language the process selects through LANGUAGE.
TEST(LocalizationTest, TranslatesFromABoundCatalogue) {
  EXPECT_EQ(localizedString("No such key in any catalogue"), "No such key in any catalogue");
  EXPECT_EQ(localizedString("Stop observing %@"), "Stop observing %@");
  EXPECT_EQ(localizedString(""), "");
  TempDir dir;
  std::string po = dir.file("quillon.po");
  ASSERT_FALSE(Env::Default()->writeFileAtomically(
      po, std::string_view("msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n\n"
                           "msgid \"Ignore\"\nmsgstr \"Ignorieren\"\n")));
  ASSERT_FALSE(Env::Default()->createDirectories(dir.file("qx/LC_MESSAGES")));
  std::string command =
      "msgfmt -o '" + dir.file("qx/LC_MESSAGES/quillon.mo") + "' '" + po + "' 2>/dev/null";
  if (std::system(command.c_str()) != 0) GTEST_SKIP() << "msgfmt is not installed";

  const char* previousLocale = std::setlocale(LC_ALL, nullptr);
  std::string savedLocale = previousLocale ? previousLocale : "C";
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  ::setenv("LANGUAGE", "qx", 1);
  setLocalizationDirectory(dir.path());

  EXPECT_EQ(localizedString("Ignore"), "Ignorieren");
  EXPECT_EQ(localizedString("Show in Finder"), "Show in Finder");

  ::unsetenv("LANGUAGE");
  std::setlocale(LC_ALL, savedLocale.c_str());
}

}  // namespace
}  // namespace quillon
