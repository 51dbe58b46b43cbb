#include "quillon/changes/internal/folder_observer.h"

#include <fmt/format.h>

#include <atomic>

#include "quillon/base/env.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/platform/internal/directory_watcher.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"

namespace quillon {
namespace {

constexpr double kQuietSeconds = 1.0;
constexpr std::string_view kChangedSelector = "processChanges";

std::atomic<double> gObservationLatency{2.0};

// Whether `path` is the folder `folder` or lies below it.
bool isAtOrBelow(const std::string& path, const std::string& folder) {
  if (path.size() < folder.size() || path.compare(0, folder.size(), folder) != 0) return false;
  return path.size() == folder.size() || path[folder.size()] == '/';
}

}  // namespace

void QuillonFolderObserver::setLatency(double seconds) { gObservationLatency.store(seconds); }

QuillonFolderObserver::QuillonFolderObserver(Env* env, Log log, std::function<void()> changed)
    : env_(env), log_(std::move(log)), changed_(std::move(changed)) {}

QuillonFolderObserver::~QuillonFolderObserver() { unobserve(); }

void QuillonFolderObserver::observe(const Url& changesFolder) {
  if (changesFolder.isEmpty()) return;
  unobserve();
  folder_ = changesFolder;

  const std::string changesPath = changesFolder.path();
  std::string watched = changesPath;
  if (!env_->isDirectory(changesPath)) watched = changesFolder.deletingLastPathComponent().path();

  // The watcher is stopped before the observer goes, so a delivery always
  // finds the observer alive.
  auto watcher = std::make_unique<DirectoryWatcher>(
      watched, gObservationLatency.load(), [this, changesPath](std::vector<std::string> paths) {
        std::vector<std::string> relevant;
        for (std::string& path : paths) {
          if (!isAtOrBelow(path, changesPath)) continue;
          // The folder appearing (made by this store's first save) brings
          // nothing by itself: files arriving in it have events of their own.
          // Its removal or replacement does count.
          if (path.size() == changesPath.size() && env_->isDirectory(changesPath)) continue;
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
    log_(fmt::format("Added listener to: {}", changesFolder.absoluteString()),
         kQuillonLogTypeSuccess);
  } else {
    log_(fmt::format("Failed adding listener to: {}", changesFolder.absoluteString()),
         kQuillonLogTypeError);
  }
}

void QuillonFolderObserver::unobserve() {
  std::unique_ptr<DirectoryWatcher> watcher;
  {
    std::lock_guard lock(watcherMutex_);
    watcher = std::move(watcher_);
  }
  // Events already delivered must not start an update after observation ended.
  MainQueue::cancelPreviousPerformRequests(this, kChangedSelector);
  if (!watcher) return;
  watcher->stop();
  watcher.reset();
  systemLog(fmt::format("Stop observing {}", folder_.absoluteString()));
}

void QuillonFolderObserver::invalidatePaths(const std::vector<std::string>& /*paths*/) {
  MainQueue::cancelPreviousPerformRequests(this, kChangedSelector);
  MainQueue::afterDelay(
      kQuietSeconds, [this] { changed_(); }, this, std::string(kChangedSelector));
}

bool QuillonFolderObserver::isObserving() const {
  std::lock_guard lock(watcherMutex_);
  return watcher_ && watcher_->isWatching();
}

void QuillonFolderObserver::willWriteChangeFile(const std::string& path) {
  std::lock_guard lock(watcherMutex_);
  if (watcher_) watcher_->ignorePath(path);
}

}  // namespace quillon
