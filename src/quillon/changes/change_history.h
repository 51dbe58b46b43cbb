#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/store/package_layout.h"

namespace quillon {

class PackageFiles;

// What the history operations need from the store.
class QuillonHistoryHost {
 public:
  virtual ~QuillonHistoryHost() = default;
  virtual PackageLayout layout() const = 0;
  // The entity's folder name; nullopt for an entity the model lacks.
  virtual std::optional<std::string> fileNameForEntityName(std::string_view name) const = 0;
  // A recovery change file at `url` naming the objects every computer must
  // refresh (`refreshes`, a "changes"-shaped dictionary, or nil), written at once.
  virtual void writeFakeChangeToURL(const Url& url, const Value& refreshes) = 0;
  // Starts an update pass over "Changes" (main thread).
  virtual void updateChanges() = 0;
  virtual void log(const std::string& message, std::string_view type, const Value& menu) = 0;
};

// The three files a discarded change leaves in the package.
struct QuillonDiscardedChange {
  Url invalidChange;   // the discarded file, moved into "InvalidChanges"
  Url refreshChange;   // the recovery file under the discarded name, naming what it touched
  Url earlierChange;   // the empty recovery file one second earlier
};

// Operations on a package's history: discarding a change that cannot be
// applied (every computer then re-applies the rest without it), closing a
// gap with an empty recovery change, removing the records one change wrote,
// and revealing a file of the package. None of them reports failures to the
// caller: the update that follows finds and logs what went wrong.
//
// Owned by the store; main thread (the writes are synchronous, the update
// they start is not).
class QuillonChangeHistory {
 public:
  QuillonChangeHistory(QuillonHistoryHost& host, std::shared_ptr<PackageFiles> files);

  // Moves the change file at `changeURL` into "InvalidChanges", writes in its
  // place a recovery change that refreshes what it touched and an empty one
  // dated a second earlier, then starts an update. Nullopt (and a log entry)
  // when the URL is not a change file directly inside this package's "Changes".
  std::optional<QuillonDiscardedChange> discardChange(const Url& changeURL);
  // An empty recovery change at `changeURL` (which must name a change file
  // in "Changes"), then an update.
  bool insertChange(const Url& changeURL);
  // Removes the records `change` (a change dictionary) wrote for `objects`
  // (entity name → collection of uids); with `wasInsert` the objects' whole
  // folders, since the objects did not exist before that change.
  void removeChange(const Value& change, const Value& objects, bool wasInsert);
  // Reveals the URL in the file manager, or its nearest existing ancestor
  // when nothing is there.
  void showInFinder(const Url& url);

 private:
  // The change file name of a URL directly inside "Changes", else nullopt.
  std::optional<std::string> changeFileNameIn(const Url& url) const;

  QuillonHistoryHost& host_;
  std::shared_ptr<PackageFiles> files_;
};

}  // namespace quillon
