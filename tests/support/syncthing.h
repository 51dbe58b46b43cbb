#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "quillon/base/value.h"

namespace quillon::testing {

// A GET on a loopback HTTP server; the body's JSON (nil when the request
// failed or the body is not JSON). `status` receives the HTTP status.
Value httpGetJSON(int port, const std::string& path, const std::string& apiKey,
                  int* status = nullptr);

// A TCP port on 127.0.0.1 that nothing listens on right now.
int freeLoopbackPort();

struct SyncthingOptions {
  // The order in which each instance pulls the files it lacks
  // ("random", Syncthing's default; "newestFirst" brings a change file
  // before the older records and data files it names).
  std::string pullOrder = "random";
  // Each instance's receiving rate in KiB/s (0: unlimited), loopback included.
  int maxRecvKbps = 0;
};

// Real Syncthing instances on one machine sharing one folder: each with its
// own home, listening and serving its REST API on loopback ports chosen at
// run time; discovery, relays, NAT, upgrades, usage and crash reporting off.
// Every instance is stopped (SIGTERM, then SIGKILL) by the destructor, so a
// failing test leaves no process behind.
//
//   SyncthingMesh mesh(dir.path(), 3);
//   ASSERT_TRUE(mesh.start());
//   ... write into mesh.folder(0) ...
//   ASSERT_TRUE(mesh.waitUntilInSync(60));
class SyncthingMesh {
 public:
  struct Peer {
    std::string home;
    std::string folder;  // the shared folder
    std::string deviceID;
    int listenPort = 0;
    int guiPort = 0;
    pid_t pid = -1;
  };


  // Nothing runs until start(). `root` holds every peer's home and folder.
  SyncthingMesh(std::string root, int peers, SyncthingOptions options = {});
  ~SyncthingMesh();
  SyncthingMesh(const SyncthingMesh&) = delete;
  SyncthingMesh& operator=(const SyncthingMesh&) = delete;

  // Whether the syncthing binary is installed.
  static bool available();

  // Generates the keys, writes the configurations, starts every instance and
  // waits until each answers its REST API and sees all the others
  // connected. False (with the reason in lastError()) otherwise.
  bool start(double timeoutSeconds = 60);
  void stop();

  // Waits, running the main loop between polls, until every instance is
  // idle, needs nothing, reports every other one 100% complete, and every
  // folder holds the same files (names and sizes, hidden files aside).
  // `settledPolls` consecutive agreeing polls are required.
  bool waitUntilInSync(double timeoutSeconds, int settledPolls = 2);

  const std::string& folder(int i) const { return peers_[i].folder; }
  const Peer& peer(int i) const { return peers_[i]; }
  int size() const { return static_cast<int>(peers_.size()); }
  Value rest(int i, const std::string& path) const;
  // The folder errors every instance reports, and the lines of its log that
  // mention `fragment`.
  std::vector<std::string> folderErrors() const;
  std::vector<std::string> logLinesContaining(const std::string& fragment) const;
  const std::string& lastError() const { return lastError_; }

  static constexpr const char* kFolderID = "quillon-e2e";

 private:
  bool inSyncOnce(std::string* why) const;
  bool connected() const;

  std::string root_;
  SyncthingOptions options_;
  std::string apiKey_ = "quillon-e2e-api-key";
  std::vector<Peer> peers_;
  std::string lastError_;
};

// Every regular file below `folder` (hidden names aside) with its size, one
// "path size" line each, sorted.
std::string fileListing(const std::string& folder);

}  // namespace quillon::testing
