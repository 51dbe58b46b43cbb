// The store's side of watching "Changes": QuillonFolderObserver does the
// watching; a quiet period after other computers' files arrived starts an
// update.

#include <memory>
#include <string>
#include <vector>

#include "quillon/changes/internal/folder_observer.h"
#include "quillon/store/store.h"

namespace quillon {

void QuillonStore::setObservationLatency(double seconds) {
  QuillonFolderObserver::setLatency(seconds);
}

std::unique_ptr<QuillonFolderObserver> QuillonStore::makeFolderObserver() {
  return std::make_unique<QuillonFolderObserver>(
      env_, [this](const std::string& message, std::string_view type) { log(message, type); },
      [this] {
        std::weak_ptr<IncrementalStore> weak = weak_from_this();
        if (auto self = weak.lock()) static_cast<QuillonStore*>(self.get())->processChanges();
      });
}

void QuillonStore::observeDirectory() { observer_->observe(changesURL()); }

void QuillonStore::unobserveDirectory() { observer_->unobserve(); }

void QuillonStore::setClosed(bool closed) {
  closed_.store(closed);
  unobserveDirectory();
}

void QuillonStore::invalidatePaths(const std::vector<std::string>& paths) {
  observer_->invalidatePaths(paths);
}

bool QuillonStore::isObservingDirectory() const { return observer_->isObserving(); }

void QuillonStore::willWriteChangeFile(const std::string& path) {
  observer_->willWriteChangeFile(path);
}

}  // namespace quillon
