// Watching the package's "Changes" folder for other computers' saves.

#include <string>
#include <vector>

#include "quillon/store/store.h"

namespace quillon {

// PENDING
void QuillonStore::observeDirectory() {}

// PENDING
void QuillonStore::unobserveDirectory() {}

// PENDING
void QuillonStore::setClosed(bool closed) { (void)closed; }

// PENDING
void QuillonStore::invalidatePaths(const std::vector<std::string>& paths) { (void)paths; }

// PENDING
bool QuillonStore::isObservingDirectory() const { return false; }

// PENDING
void QuillonStore::willWriteChangeFile(const std::string& path) { (void)path; }

// PENDING
void QuillonStore::setObservationLatency(double seconds) { (void)seconds; }

}  // namespace quillon
