#include "support/secret_service_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/platform/secret_store.h"

extern char** environ;

namespace quillon::testing {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kStartTimeout = std::chrono::seconds(20);
constexpr std::string_view kPassword = "quillon-test-password";

// A bus that answers only on its own socket, starts no services and lets
// every local peer talk to every other.
std::string busConfig(const std::string& socketFolder) {
  return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=)" +
         socketFolder + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
}

std::string readAll(const std::string& path) {
  std::vector<uint8_t> bytes;
  if (Env::Default()->readFile(path, &bytes)) return {};
  return std::string(bytes.begin(), bytes.end());
}

// Starts `argv` with the process's environment plus `extraEnv`, its
// standard streams on the given descriptors. Answers the pid, or -1.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, int in,
            int out, int err) {
  std::vector<std::string> env(extraEnv);
  for (char** e = environ; *e; ++e) {
    std::string_view entry(*e);
    std::string_view name = entry.substr(0, entry.find('='));
    bool overridden = false;
    for (const std::string& extra : extraEnv) {
      overridden = overridden || std::string_view(extra).substr(0, extra.find('=')) == name;
    }
    if (!overridden) env.emplace_back(entry);
  }
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in, 0);
  posix_spawn_file_actions_adddup2(&actions, out, 1);
  posix_spawn_file_actions_adddup2(&actions, err, 2);
  pid_t pid = -1;
  int failed = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return failed ? -1 : pid;
}

void stopProcess(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGTERM);
  int status = 0;
  ::waitpid(pid, &status, 0);
}

class Daemons {
 public:
  std::string start() {
    if (started_) return failure_;
    started_ = true;
    failure_ = launch();
    std::atexit([] { instance().stop(); });
    return failure_;
  }

  bool running() const { return started_ && failure_.empty(); }

  static Daemons& instance() {
    static auto* daemons = new Daemons();
    return *daemons;
  }

 private:
  std::string launch() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/quillon-keyring-XXXXXX";
    if (!::mkdtemp(pattern.data())) return "cannot create a folder for the keyring";
    folder_ = pattern;
    Env* env = Env::Default();
    for (const char* sub : {"/home/.local/share", "/home/.config", "/home/.cache", "/run"}) {
      if (Error e = env->createDirectories(folder_ + sub)) return e.description();
    }
    ::chmod((folder_ + "/run").c_str(), 0700);
    if (Error e = env->writeFileAtomically(folder_ + "/bus.conf", busConfig(folder_ + "/run"))) {
      return e.description();
    }
    int devNull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    int busLog = ::open((folder_ + "/bus.log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    int keyringLog =
        ::open((folder_ + "/keyring.log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    std::string why = launchWith(devNull, busLog, keyringLog);
    for (int fd : {devNull, busLog, keyringLog}) {
      if (fd >= 0) ::close(fd);
    }
    if (!why.empty()) {
      why += "\ndbus-daemon said: " + readAll(folder_ + "/bus.log");
      why += "\ngnome-keyring-daemon said: " + readAll(folder_ + "/keyring.log");
    }
    return why;
  }

  std::string launchWith(int devNull, int busLog, int keyringLog) {
    if (devNull < 0 || busLog < 0 || keyringLog < 0) return "cannot open the daemons' logs";

    int addressPipe[2];
    if (::pipe2(addressPipe, O_CLOEXEC) != 0) return "cannot make a pipe";
    bus_ = spawn(
        {"dbus-daemon", "--config-file=" + folder_ + "/bus.conf", "--nofork", "--print-address=1"},
        {}, devNull, addressPipe[1], busLog);
    ::close(addressPipe[1]);
    std::string address = readLine(addressPipe[0]);
    ::close(addressPipe[0]);
    if (bus_ < 0) return "cannot start dbus-daemon (is the dbus package installed?)";
    if (address.empty()) return "dbus-daemon printed no address";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);

    int passwordPipe[2];
    if (::pipe2(passwordPipe, O_CLOEXEC) != 0) return "cannot make a pipe";
    const std::string home = folder_ + "/home";
    keyring_ = spawn({"gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"},
                     {"HOME=" + home, "XDG_DATA_HOME=" + home + "/.local/share",
                      "XDG_CONFIG_HOME=" + home + "/.config", "XDG_CACHE_HOME=" + home + "/.cache",
                      "XDG_RUNTIME_DIR=" + folder_ + "/run", "DBUS_SESSION_BUS_ADDRESS=" + address},
                     passwordPipe[0], keyringLog, keyringLog);
    ::close(passwordPipe[0]);
    if (keyring_ < 0) {
      ::close(passwordPipe[1]);
      return "cannot start gnome-keyring-daemon (is gnome-keyring installed?)";
    }
    // A daemon that dies before reading must fail the test, not kill it.
    struct sigaction ignore = {}, previous = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &previous);
    ssize_t written = ::write(passwordPipe[1], kPassword.data(), kPassword.size());
    ::sigaction(SIGPIPE, &previous, nullptr);
    ::close(passwordPipe[1]);
    if (written != static_cast<ssize_t>(kPassword.size())) return "cannot hand over the password";
    return waitForDefaultCollection();
  }

  // The first line a process prints on `fd`, within the start timeout.
  static std::string readLine(int fd) {
    std::string line;
    const auto deadline = Clock::now() + kStartTimeout;
    while (Clock::now() < deadline) {
      pollfd p = {fd, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      char c;
      if (::read(fd, &c, 1) != 1) break;
      if (c == '\n') return line;
      line += c;
    }
    return {};
  }

  // Whether the keyring answers for the default collection, asked with
  // dbus-send so that the test's own libsecret connection is made only once
  // the service is there.
  static bool defaultCollectionReady(int devNull) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return false;
    pid_t pid = spawn(
        {"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.secrets",
         "/org/freedesktop/secrets", "org.freedesktop.Secret.Service.ReadAlias", "string:default"},
        {}, devNull, out[1], devNull);
    ::close(out[1]);
    std::string reply;
    char buffer[512];
    ssize_t n;
    while ((n = ::read(out[0], buffer, sizeof buffer)) > 0) reply.append(buffer, n);
    ::close(out[0]);
    int status = 0;
    if (pid > 0) ::waitpid(pid, &status, 0);
    return pid > 0 && reply.find("/org/freedesktop/secrets/collection/") != std::string::npos;
  }

  std::string waitForDefaultCollection() {
    int devNull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    const auto deadline = Clock::now() + kStartTimeout;
    bool ready = false;
    while (!ready && Clock::now() < deadline) {
      int status = 0;
      if (::waitpid(keyring_, &status, WNOHANG) == keyring_) {
        keyring_ = -1;
        break;
      }
      ready = defaultCollectionReady(devNull);
      if (!ready) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::close(devNull);
    if (keyring_ < 0) return "gnome-keyring-daemon exited at start";
    return ready ? "" : "gnome-keyring-daemon did not offer a default keyring in time";
  }

  void stop() {
    // libsecret's connection ends the process when its bus goes away.
    SecretServiceStore::disconnect();
    stopProcess(keyring_);
    stopProcess(bus_);
    keyring_ = bus_ = -1;
    if (!folder_.empty()) (void)Env::Default()->removeItem(folder_);
  }

  bool started_ = false;
  std::string failure_;
  std::string folder_;
  pid_t bus_ = -1;
  pid_t keyring_ = -1;
};

}  // namespace

std::string SecretServiceFixture::start() { return Daemons::instance().start(); }

bool SecretServiceFixture::running() { return Daemons::instance().running(); }

}  // namespace quillon::testing
