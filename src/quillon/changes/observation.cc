// Watching the package's "Changes" folder for other computers' saves: the
// folder watcher groups events over the observation latency, and each burst
// restarts a one-second quiet period after which the store updates.

#include <fmt/format.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "quillon/base/system_log.h"
#include "quillon/platform/directory_watcher.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"

namespace quillon {
namespace {

constexpr double kQuietSeconds = 1.0;
constexpr std::string_view kProcessChangesSelector = "processChanges";

std::atomic<double> gObservationLatency{2.0};

// Whether `path` is the folder `folder` or lies below it.
bool isAtOrBelow(const std::string& path, const std::string& folder) {
  if (path.size() < folder.size() || path.compare(0, folder.size(), folder) != 0) return false;
  return path.size() == folder.size() || path[folder.size()] == '/';
}

}  // namespace

void QuillonStore::setObservationLatency(double seconds) { gObservationLatency.store(seconds); }

void QuillonStore::observeDirectory() {
  const Url changes = changesURL();
  if (changes.isEmpty()) return;
  unobserveDirectory();

  // A package that has no "Changes" yet gets it when its first change is
  // written; until then the package itself is watched, so that the folder's
  // creation and everything in it are seen.
  const std::string changesPath = changes.path();
  std::string watched = changesPath;
  if (!env()->isDirectory(changesPath)) watched = changes.deletingLastPathComponent().path();

  // The watcher is owned by the store and stopped before the store goes, so
  // a delivery always finds the store alive.
  auto watcher = std::make_unique<DirectoryWatcher>(
      watched, gObservationLatency.load(),
      [this, changesPath](std::vector<std::string> paths) {
        std::vector<std::string> relevant;
        for (std::string& path : paths) {
          if (!isAtOrBelow(path, changesPath)) continue;
          // The folder appearing (made by this store's first save) brings
          // nothing by itself: files arriving in it have events of their own.
          // Its removal or replacement does count.
          if (path.size() == changesPath.size() && env()->isDirectory(changesPath)) continue;
          relevant.push_back(std::move(path));
        }
        if (!relevant.empty()) invalidatePaths(relevant);
      });
  const bool started = watcher->start();
  {
    std::lock_guard lock(watcherMutex_);
    watcher_ = std::move(watcher);
  }
  if (started) {
    log(fmt::format("Added listener to: {}", changes.absoluteString()), kQuillonLogTypeSuccess);
  } else {
    log(fmt::format("Failed adding listener to: {}", changes.absoluteString()),
        kQuillonLogTypeError);
  }
}

void QuillonStore::unobserveDirectory() {
  std::unique_ptr<DirectoryWatcher> watcher;
  {
    std::lock_guard lock(watcherMutex_);
    watcher = std::move(watcher_);
  }
  // Events already delivered must not start an update after observation ended.
  MainQueue::cancelPreviousPerformRequests(this, kProcessChangesSelector);
  if (!watcher) return;
  watcher->stop();
  watcher.reset();
  systemLog(fmt::format("Stop observing {}", changesURL().absoluteString()));
}

void QuillonStore::setClosed(bool closed) {
  closed_.store(closed);
  unobserveDirectory();
}

void QuillonStore::invalidatePaths(const std::vector<std::string>& /*paths*/) {
  MainQueue::cancelPreviousPerformRequests(this, kProcessChangesSelector);
  std::weak_ptr<IncrementalStore> weak = weak_from_this();
  MainQueue::afterDelay(
      kQuietSeconds,
      [weak] {
        if (auto self = weak.lock()) static_cast<QuillonStore*>(self.get())->processChanges();
      },
      this, std::string(kProcessChangesSelector));
}

bool QuillonStore::isObservingDirectory() const {
  std::lock_guard lock(watcherMutex_);
  return watcher_ && watcher_->isWatching();
}

void QuillonStore::willWriteChangeFile(const std::string& path) {
  std::lock_guard lock(watcherMutex_);
  if (watcher_) watcher_->ignorePath(path);
}

}  // namespace quillon
