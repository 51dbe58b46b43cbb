#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quillon {

// Watches a folder and everything below it (folders created later included)
// and reports changes in bursts: the first event opens a window of `latency`
// real seconds, and when it closes every path seen in it is delivered in one
// callback, without duplicates, in the order the events arrived. The deletion
// or renaming of the watched folder itself is reported with its own path.
//
// The process's own writes can be left out: paths registered with
// ignorePath() produce no events until the registration expires or shortly
// after their first event, and the temporary files of Env's atomic writes in
// this process are always left out. A burst made only of such paths delivers
// nothing.
//
// Owned by its creator. Construct, start(), stop() and destroy on the thread
// that runs the main loop (the main thread); the callback runs there, and may
// destroy the watcher. ignorePath() may be called from any thread.
class DirectoryWatcher {
 public:
  using Callback = std::function<void(std::vector<std::string> paths)>;
  // How long an ignored path stays ignored when no event for it arrives.
  static constexpr double kDefaultIgnoreSeconds = 5.0;

  DirectoryWatcher(std::string path, double latencySeconds, Callback callback);
  ~DirectoryWatcher();
  DirectoryWatcher(const DirectoryWatcher&) = delete;
  DirectoryWatcher& operator=(const DirectoryWatcher&) = delete;

  // Starts watching (restarting when already watching). Answers false when
  // the folder is missing or cannot be watched; the caller reports that.
  bool start();
  // Stops watching and drops events not yet delivered. Safe to call twice.
  void stop();
  bool isWatching() const;

  const std::string& path() const;
  double latency() const;

  // Drops events for this absolute path for `seconds` or until shortly after
  // the first one is seen: register before writing the file.
  void ignorePath(const std::string& path, double seconds = kDefaultIgnoreSeconds);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace quillon
