#include "quillon/platform/internal/directory_watcher.h"

#include <gio/gio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "quillon/base/env.h"

namespace quillon {
namespace {

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string parentOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

std::string baseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool isBelowOrAt(const std::string& path, const std::string& folder) {
  return path == folder ||
         (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
          path[folder.size()] == '/');
}

std::string pathOf(GFile* file) {
  if (!file) return {};
  char* p = g_file_get_path(file);
  std::string path = p ? p : "";
  g_free(p);
  return path;
}

// After the first event of an ignored path, the rest of the same write (the
// rename, the close) arrives within this many seconds.
constexpr double kIgnoreAfterSeenSeconds = 1.0;

}  // namespace

struct DirectoryWatcher::Impl {
  std::string root;
  double latency;
  Callback callback;

  GMainContext* context = nullptr;
  std::map<std::string, GFileMonitor*> monitors;  // watched folder → its monitor
  GFileMonitor* parentMonitor = nullptr;          // sees the root deleted or moved
  GSource* flushTimer = nullptr;
  std::vector<std::string> pending;
  std::unordered_set<std::string> pendingSet;

  std::mutex ignoreMutex;
  std::unordered_map<std::string, double> ignored;  // path → expiry
  double nextPurge = 0;
  const std::string ownTempPrefix = std::string(kTemporaryFilePrefix) + std::to_string(::getpid()) + "-";

  // A file still being written without a name (O_TMPFILE, as Env's atomic
  // writes do) reports its events under "#<inode>", the kernel's stand-in
  // name; it appears in the folder only once complete, with an event of
  // its own.
  static bool isUnnamedFile(std::string_view name) {
    return name.size() > 1 && name[0] == '#' &&
           std::all_of(name.begin() + 1, name.end(), [](char c) { return c >= '0' && c <= '9'; });
  }

  bool isIgnored(const std::string& path) {
    const std::string name = baseName(path);
    if (name.rfind(ownTempPrefix, 0) == 0 || isUnnamedFile(name)) return true;
    std::lock_guard lock(ignoreMutex);
    if (ignored.empty()) return false;
    double now = monotonicSeconds();
    if (now >= nextPurge) {  // at most once a second, so bursts stay linear
      for (auto it = ignored.begin(); it != ignored.end();) {
        it = it->second < now ? ignored.erase(it) : std::next(it);
      }
      nextPurge = now + 1.0;
    }
    auto found = ignored.find(path);
    if (found == ignored.end() || found->second < now) return false;
    found->second = std::min(found->second, now + kIgnoreAfterSeenSeconds);
    return true;
  }

  void note(const std::string& path) {
    if (path.empty() || isIgnored(path)) return;
    if (pendingSet.insert(path).second) pending.push_back(path);
    if (!flushTimer) {
      double ms = std::ceil(std::max(0.0, latency) * 1000.0);
      flushTimer = g_timeout_source_new(static_cast<guint>(std::min(ms, 86400000.0)));
      g_source_set_callback(flushTimer, &Impl::onFlush, this, nullptr);
      g_source_attach(flushTimer, context);
    }
  }

  static gboolean onFlush(gpointer data) {
    Impl* self = static_cast<Impl*>(data);
    g_source_unref(self->flushTimer);  // the loop keeps its own reference while dispatching
    self->flushTimer = nullptr;
    std::vector<std::string> paths;
    paths.swap(self->pending);
    self->pendingSet.clear();
    if (!paths.empty()) {
      // The callback may destroy the watcher: touch nothing of it afterwards.
      Callback callback = self->callback;
      callback(std::move(paths));
    }
    return G_SOURCE_REMOVE;
  }

  bool watchFolder(const std::string& folder) {
    if (monitors.count(folder)) return true;
    GFile* file = g_file_new_for_path(folder.c_str());
    GFileMonitor* monitor =
        g_file_monitor_directory(file, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
    g_object_unref(file);
    if (!monitor) return false;
    g_signal_connect(monitor, "changed", G_CALLBACK(&Impl::onChanged), this);
    monitors.emplace(folder, monitor);
    return true;
  }

  // Watches a folder and its subfolders; with `report`, the items already
  // inside are reported too (they may have arrived before the monitor).
  void watchTree(const std::string& folder, bool report) {
    if (!watchFolder(folder)) return;
    std::vector<std::string> names;
    if (Env::Default()->listDirectory(folder, &names)) return;
    for (const std::string& name : names) {
      std::string child = folder + "/" + name;
      if (report) note(child);
      if (Env::Default()->isDirectory(child)) watchTree(child, report);
    }
  }

  void unwatchTree(const std::string& folder) {
    for (auto it = monitors.begin(); it != monitors.end();) {
      if (isBelowOrAt(it->first, folder)) {
        release(it->second);
        it = monitors.erase(it);
      } else {
        ++it;
      }
    }
  }

  void release(GFileMonitor* monitor) {
    g_signal_handlers_disconnect_by_data(monitor, this);
    g_file_monitor_cancel(monitor);
    g_object_unref(monitor);
  }

  static void onChanged(GFileMonitor* monitor, GFile* file, GFile* other, GFileMonitorEvent event,
                        gpointer data) {
    Impl* self = static_cast<Impl*>(data);
    std::string path = pathOf(file);
    std::string otherPath = pathOf(other);

    if (monitor == self->parentMonitor) {
      // Only the watched folder itself matters here.
      bool rootGone = (path == self->root && (event == G_FILE_MONITOR_EVENT_DELETED ||
                                              event == G_FILE_MONITOR_EVENT_MOVED_OUT ||
                                              event == G_FILE_MONITOR_EVENT_RENAMED)) ||
                      (otherPath == self->root && event == G_FILE_MONITOR_EVENT_RENAMED);
      if (rootGone) self->note(self->root);
      return;
    }
    if (!isBelowOrAt(path, self->root)) return;

    switch (event) {
      case G_FILE_MONITOR_EVENT_CREATED:
      case G_FILE_MONITOR_EVENT_MOVED_IN:
        self->note(path);
        if (path != self->root && Env::Default()->isDirectory(path)) self->watchTree(path, true);
        break;
      case G_FILE_MONITOR_EVENT_RENAMED:
        self->note(path);
        if (path != self->root) self->unwatchTree(path);
        if (isBelowOrAt(otherPath, self->root)) {
          self->note(otherPath);
          if (Env::Default()->isDirectory(otherPath)) self->watchTree(otherPath, true);
        }
        break;
      case G_FILE_MONITOR_EVENT_DELETED:
      case G_FILE_MONITOR_EVENT_MOVED_OUT:
        self->note(path);
        // The root's own monitor stays until stop(); the caller decides.
        if (path != self->root) self->unwatchTree(path);
        break;
      case G_FILE_MONITOR_EVENT_UNMOUNTED:
      case G_FILE_MONITOR_EVENT_PRE_UNMOUNT:
        self->note(self->root);
        break;
      default:
        self->note(path);
        break;
    }
  }

  void stop() {
    if (flushTimer) {
      g_source_destroy(flushTimer);
      g_source_unref(flushTimer);
      flushTimer = nullptr;
    }
    pending.clear();
    pendingSet.clear();
    for (auto& [folder, monitor] : monitors) release(monitor);
    monitors.clear();
    if (parentMonitor) {
      release(parentMonitor);
      parentMonitor = nullptr;
    }
    if (context) {
      g_main_context_unref(context);
      context = nullptr;
    }
  }
};

DirectoryWatcher::DirectoryWatcher(std::string path, double latencySeconds, Callback callback)
    : impl_(std::make_unique<Impl>()) {
  impl_->root = withoutTrailingSlash(std::move(path));
  impl_->latency = latencySeconds;
  impl_->callback = std::move(callback);
}

DirectoryWatcher::~DirectoryWatcher() { impl_->stop(); }

bool DirectoryWatcher::start() {
  stop();
  struct stat st;
  if (impl_->root.empty() || ::stat(impl_->root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return false;
  }
  // Monitors deliver in the thread-default context of the thread creating
  // them; the flush timer goes to the same one.
  impl_->context = g_main_context_ref_thread_default();
  if (!impl_->watchFolder(impl_->root)) {
    impl_->stop();
    return false;
  }
  impl_->watchTree(impl_->root, false);
  if (impl_->root != "/") {
    GFile* parent = g_file_new_for_path(parentOf(impl_->root).c_str());
    impl_->parentMonitor =
        g_file_monitor_directory(parent, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
    g_object_unref(parent);
    if (impl_->parentMonitor) {
      g_signal_connect(impl_->parentMonitor, "changed", G_CALLBACK(&Impl::onChanged), impl_.get());
    }
  }
  return true;
}

void DirectoryWatcher::stop() { impl_->stop(); }

bool DirectoryWatcher::isWatching() const { return !impl_->monitors.empty(); }

const std::string& DirectoryWatcher::path() const { return impl_->root; }

double DirectoryWatcher::latency() const { return impl_->latency; }

void DirectoryWatcher::ignorePath(const std::string& path, double seconds) {
  std::lock_guard lock(impl_->ignoreMutex);
  impl_->ignored[withoutTrailingSlash(path)] = monotonicSeconds() + seconds;
}

}  // namespace quillon
