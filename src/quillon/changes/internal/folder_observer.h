#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/url.h"

namespace quillon {

class DirectoryWatcher;
class Env;

// Watches a package's "Changes" folder for other computers' saves. The
// folder watcher groups events over the observation latency; each burst
// restarts a one-second quiet period, after which `changed` runs on the main
// queue. A package without "Changes" yet is watched as a whole until its
// first save makes the folder. The store's own change files are announced
// with willWriteChangeFile() and their events ignored.
//
// Owned by its store. observe, unobserve and the destructor run on the main
// thread; willWriteChangeFile and isObserving on any thread. Deliveries and
// the quiet-period call never outlive the observer.
class QuillonFolderObserver {
 public:
  // `log(message, type)` receives "Added listener to: …" and "Failed adding
  // listener to: …".
  using Log = std::function<void(const std::string& message, std::string_view type)>;
  QuillonFolderObserver(Env* env, Log log, std::function<void()> changed);
  ~QuillonFolderObserver();
  QuillonFolderObserver(const QuillonFolderObserver&) = delete;
  QuillonFolderObserver& operator=(const QuillonFolderObserver&) = delete;

  // Starts watching `changesFolder` (stopping any earlier watch).
  void observe(const Url& changesFolder);
  // Stops watching; events already delivered no longer lead to `changed`.
  void unobserve();
  bool isObserving() const;
  // (Re)starts the quiet period for these changed paths (main thread).
  void invalidatePaths(const std::vector<std::string>& paths);
  // This file is about to be written by our own store: its event is not
  // another computer's.
  void willWriteChangeFile(const std::string& path);

  // The event-grouping window in seconds for observers started from now
  // on (2.0; tests shorten it).
  static void setLatency(double seconds);

 private:
  Env* env_;
  Log log_;
  std::function<void()> changed_;
  Url folder_;
  // Guards watcher_ against willWriteChangeFile() from the save threads.
  mutable std::mutex watcherMutex_;
  std::unique_ptr<DirectoryWatcher> watcher_;
};

}  // namespace quillon
