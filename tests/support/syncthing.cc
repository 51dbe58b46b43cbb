#include "support/syncthing.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <fstream>
#include <sstream>
#include <thread>

#include "quillon/base/json.h"
#include "quillon/platform/main_queue.h"

extern char** environ;

namespace quillon::testing {
namespace {

double monotonic() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Runs a program to its end and answers its standard output, or nullopt.
std::optional<std::string> capture(const std::vector<std::string>& argv) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) return std::nullopt;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  std::string out;
  if (spawned == 0) {
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) out.append(buffer, n);
  }
  ::close(pipeFds[0]);
  if (spawned != 0) return std::nullopt;
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return out;
}

std::string trimmed(std::string text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
  return text;
}

void listInto(const std::filesystem::path& root, const std::filesystem::path& folder,
              std::vector<std::string>* lines) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    std::string name = entry.path().filename().string();
    if (name.starts_with('.') || name.starts_with("~syncthing~")) continue;
    if (entry.is_directory(error)) {
      listInto(root, entry.path(), lines);
    } else if (entry.is_regular_file(error)) {
      lines->push_back(std::filesystem::relative(entry.path(), root).string() + " " +
                       std::to_string(entry.file_size(error)));
    }
  }
}

}  // namespace

Value httpGetJSON(int port, const std::string& path, const std::string& apiKey, int* status) {
  if (status) *status = 0;
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Value();
  timeval timeout{5, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return Value();
  }
  // HTTP/1.0: the answer is not chunked and ends when the server closes.
  std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\nX-API-Key: " + apiKey +
                        "\r\nConnection: close\r\n\r\n";
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size())) {
    ::close(fd);
    return Value();
  }
  std::string response;
  char buffer[16384];
  ssize_t n;
  while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) response.append(buffer, n);
  ::close(fd);
  size_t headerEnd = response.find("\r\n\r\n");
  if (headerEnd == std::string::npos || response.compare(0, 5, "HTTP/") != 0) return Value();
  size_t space = response.find(' ');
  int code = std::atoi(response.c_str() + space + 1);
  if (status) *status = code;
  if (code != 200) return Value();
  Error error;
  return readJSON(std::string_view(response).substr(headerEnd + 4), &error);
}

int freeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

std::string fileListing(const std::string& folder) {
  std::vector<std::string> lines;
  listInto(folder, folder, &lines);
  std::sort(lines.begin(), lines.end());
  std::string out;
  for (const std::string& line : lines) out += line + "\n";
  return out;
}

SyncthingMesh::SyncthingMesh(std::string root, int peers, SyncthingOptions options)
    : root_(std::move(root)), options_(std::move(options)) {
  for (int i = 0; i < peers; ++i) {
    Peer peer;
    peer.home = root_ + "/syncthing-" + std::to_string(i);
    peer.folder = root_ + "/computer-" + std::to_string(i);
    peers_.push_back(peer);
  }
}

SyncthingMesh::~SyncthingMesh() { stop(); }

bool SyncthingMesh::available() {
  return capture({"syncthing", "--version"}).has_value();
}

bool SyncthingMesh::start(double timeoutSeconds) {
  for (Peer& peer : peers_) {
    // The marker tells Syncthing the folder is there on purpose (not an
    // unmounted disk it should not empty).
    std::filesystem::create_directories(peer.folder + "/.stfolder");
    if (!capture({"syncthing", "generate", "--home=" + peer.home, "--no-default-folder"})) {
      lastError_ = "syncthing generate failed for " + peer.home;
      return false;
    }
    auto id = capture({"syncthing", "--home=" + peer.home, "--device-id"});
    if (!id || trimmed(*id).empty()) {
      lastError_ = "no device id for " + peer.home;
      return false;
    }
    peer.deviceID = trimmed(*id);
    peer.listenPort = freeLoopbackPort();
    peer.guiPort = freeLoopbackPort();
  }
  for (size_t i = 0; i < peers_.size(); ++i) {
    const Peer& self = peers_[i];
    std::ostringstream xml;
    xml << "<configuration version=\"36\">\n";
    // fsWatcherDelayS: the watcher reports changes after 1 s instead of 10;
    // the full rescan is only the watcher's safety net.
    xml << "  <folder id=\"" << kFolderID << "\" label=\"e2e\" path=\"" << self.folder
        << "\" type=\"sendreceive\" rescanIntervalS=\"3600\" fsWatcherEnabled=\"true\""
        << " fsWatcherDelayS=\"1\" ignorePerms=\"false\" autoNormalize=\"true\">\n"
        << "    <filesystemType>basic</filesystemType>\n";
    for (const Peer& peer : peers_) xml << "    <device id=\"" << peer.deviceID << "\"></device>\n";
    xml << "    <minDiskFree unit=\"%\">0</minDiskFree>\n"
        << "    <order>" << options_.pullOrder << "</order>\n"
        << "    <markerName>.stfolder</markerName>\n"
        << "  </folder>\n";
    for (size_t j = 0; j < peers_.size(); ++j) {
      const Peer& peer = peers_[j];
      xml << "  <device id=\"" << peer.deviceID << "\" name=\"computer-" << j
          << "\" compression=\"metadata\" introducer=\"false\">\n"
          << "    <address>" << (j == i ? std::string("dynamic")
                                        : "tcp://127.0.0.1:" + std::to_string(peer.listenPort))
          << "</address>\n"
          << "    <autoAcceptFolders>false</autoAcceptFolders>\n"
          << "  </device>\n";
    }
    xml << "  <gui enabled=\"true\" tls=\"false\">\n"
        << "    <address>127.0.0.1:" << self.guiPort << "</address>\n"
        << "    <apikey>" << apiKey_ << "</apikey>\n"
        << "  </gui>\n"
        << "  <options>\n"
        << "    <listenAddress>tcp://127.0.0.1:" << self.listenPort << "</listenAddress>\n"
        << "    <globalAnnounceEnabled>false</globalAnnounceEnabled>\n"
        << "    <localAnnounceEnabled>false</localAnnounceEnabled>\n"
        << "    <relaysEnabled>false</relaysEnabled>\n"
        << "    <natEnabled>false</natEnabled>\n"
        << "    <startBrowser>false</startBrowser>\n"
        << "    <urAccepted>-1</urAccepted>\n"
        << "    <autoUpgradeIntervalH>0</autoUpgradeIntervalH>\n"
        << "    <crashReportingEnabled>false</crashReportingEnabled>\n"
        << "    <reconnectionIntervalS>1</reconnectionIntervalS>\n"
        << "    <minHomeDiskFree unit=\"%\">0</minHomeDiskFree>\n"
        << "    <setLowPriority>false</setLowPriority>\n"
        << "    <maxRecvKbps>" << options_.maxRecvKbps << "</maxRecvKbps>\n"
        << "    <limitBandwidthInLan>" << (options_.maxRecvKbps > 0 ? "true" : "false")
        << "</limitBandwidthInLan>\n"
        << "  </options>\n"
        << "</configuration>\n";
    std::ofstream(self.home + "/config.xml") << xml.str();
  }
  for (Peer& peer : peers_) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string logPath = peer.home + "/syncthing.log";
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, logPath.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    std::vector<std::string> argv = {"syncthing", "serve", "--home=" + peer.home,
                                     "--no-browser", "--no-restart", "--no-upgrade",
                                     "--logflags=3"};
    std::vector<std::string> environment = {"STNORESTART=1", "STNOUPGRADE=1",
                                            "HOME=" + peer.home, "PATH=/usr/bin:/bin"};
    std::vector<char*> args, env;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    for (const std::string& e : environment) env.push_back(const_cast<char*>(e.c_str()));
    env.push_back(nullptr);
    int spawned = posix_spawnp(&peer.pid, "syncthing", &actions, &attributes, args.data(),
                               env.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) {
      peer.pid = -1;
      lastError_ = "cannot start syncthing";
      return false;
    }
  }
  const double deadline = monotonic() + timeoutSeconds;
  while (monotonic() < deadline) {
    if (connected()) return true;
    for (const Peer& peer : peers_) {
      int status = 0;
      if (::waitpid(peer.pid, &status, WNOHANG) == peer.pid) {
        lastError_ = "syncthing exited early; see " + peer.home + "/syncthing.log";
        const_cast<Peer&>(peer).pid = -1;
        return false;
      }
    }
    MainQueue::runFor(0.2);
  }
  lastError_ = "the syncthing instances did not connect to each other";
  return false;
}

bool SyncthingMesh::connected() const {
  for (size_t i = 0; i < peers_.size(); ++i) {
    Value connections = rest(static_cast<int>(i), "/rest/system/connections");
    const Value& byDevice = connections.isDictionary() ? connections.get("connections") : Value();
    if (!byDevice.isDictionary()) return false;
    for (size_t j = 0; j < peers_.size(); ++j) {
      if (i == j) continue;
      const Value& c = byDevice.get(peers_[j].deviceID);
      if (!c.isDictionary() || !c.get("connected").isBool() || !c.get("connected").boolValue()) {
        return false;
      }
    }
  }
  return true;
}

void SyncthingMesh::stop() {
  for (Peer& peer : peers_) {
    if (peer.pid > 0) ::kill(-peer.pid, SIGTERM);
  }
  for (Peer& peer : peers_) {
    if (peer.pid <= 0) continue;
    const double deadline = monotonic() + 10;
    int status = 0;
    while (::waitpid(peer.pid, &status, WNOHANG) == 0) {
      if (monotonic() > deadline) {
        ::kill(-peer.pid, SIGKILL);
        ::waitpid(peer.pid, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    peer.pid = -1;
  }
}

Value SyncthingMesh::rest(int i, const std::string& path) const {
  return httpGetJSON(peers_[i].guiPort, path, apiKey_);
}

bool SyncthingMesh::inSyncOnce(std::string* why) const {
  const std::string folderQuery = std::string("folder=") + kFolderID;
  for (size_t i = 0; i < peers_.size(); ++i) {
    Value status = rest(static_cast<int>(i), "/rest/db/status?" + folderQuery);
    if (!status.isDictionary()) {
      *why = "no folder status from computer-" + std::to_string(i);
      return false;
    }
    const Value& state = status.get("state");
    if (!state.isString() || state.str() != "idle") {
      *why = "computer-" + std::to_string(i) + " is " + (state.isString() ? std::string(state.str()) : "?");
      return false;
    }
    if (status.get("needTotalItems").intValue() != 0) {
      *why = "computer-" + std::to_string(i) + " needs items";
      return false;
    }
    for (size_t j = 0; j < peers_.size(); ++j) {
      if (i == j) continue;
      Value completion = rest(static_cast<int>(i), "/rest/db/completion?" + folderQuery +
                                                       "&device=" + peers_[j].deviceID);
      if (!completion.isDictionary() || completion.get("completion").doubleValue() < 100.0 ||
          completion.get("needItems").intValue() != 0) {
        *why = "computer-" + std::to_string(j) + " incomplete as seen from computer-" +
               std::to_string(i);
        return false;
      }
    }
  }
  const std::string first = fileListing(peers_[0].folder);
  for (size_t i = 1; i < peers_.size(); ++i) {
    if (fileListing(peers_[i].folder) != first) {
      *why = "the folders differ";
      return false;
    }
  }
  return true;
}

bool SyncthingMesh::waitUntilInSync(double timeoutSeconds, int settledPolls) {
  const double deadline = monotonic() + timeoutSeconds;
  int agreeing = 0;
  std::string why;
  while (monotonic() < deadline) {
    if (inSyncOnce(&why)) {
      if (++agreeing >= settledPolls) return true;
    } else {
      agreeing = 0;
    }
    MainQueue::runFor(0.3);
  }
  lastError_ = "not in sync: " + why;
  return false;
}

std::vector<std::string> SyncthingMesh::folderErrors() const {
  std::vector<std::string> errors;
  for (size_t i = 0; i < peers_.size(); ++i) {
    Value answer = rest(static_cast<int>(i), std::string("/rest/folder/errors?folder=") + kFolderID);
    if (!answer.isDictionary()) {
      errors.push_back("computer-" + std::to_string(i) + ": no answer about folder errors");
      continue;
    }
    const Value& list = answer.get("errors");
    if (!list.isArray()) continue;  // null: none
    for (const Value& e : list.elements()) errors.push_back("computer-" + std::to_string(i) + ": " + e.description());
  }
  return errors;
}

std::vector<std::string> SyncthingMesh::logLinesContaining(const std::string& fragment) const {
  std::vector<std::string> lines;
  for (const Peer& peer : peers_) {
    std::ifstream log(peer.home + "/syncthing.log");
    std::string line;
    while (std::getline(log, line)) {
      if (line.find(fragment) != std::string::npos) lines.push_back(line);
    }
  }
  return lines;
}

}  // namespace quillon::testing
