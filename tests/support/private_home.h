#pragma once

#include <string>

namespace quillon::testing {

// A private home for the test program: before main() runs, HOME and the XDG
// data, config and cache folders are pointed into a fresh temporary folder,
// so tests that trash files or write user settings never touch the real
// user's folders, and GLib (which reads these variables once) sees them from
// the start. The folder is removed when the program exits. Referencing
// privateHome() links this in.
const std::string& privateHome();

}  // namespace quillon::testing
