#pragma once

#include <string>

namespace quillon::testing {

// A private Secret Service for the test program: a D-Bus session bus of its
// own (dbus-daemon with a configuration in a temporary folder, no service
// activation) and a gnome-keyring-daemon on it whose home and login keyring,
// unlocked with a test password, live in that folder. The user's bus and
// keyrings are never touched.
//
// Started on first call, once per process; from then on
// DBUS_SESSION_BUS_ADDRESS names the private bus. At exit the process's
// libsecret connection is dropped, then the keyring and the bus are stopped
// and the folder removed. Call from the test's thread.
class SecretServiceFixture {
 public:
  // Starts both daemons unless running. Answers "" when the service is
  // ready, else why it is not (the daemons' messages included); tests fail
  // on that rather than skip, so a machine without gnome-keyring is noticed.
  static std::string start();
  // Whether start() succeeded in this process.
  static bool running();
};

}  // namespace quillon::testing
