#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/error.h"
#include "quillon/base/url.h"

namespace quillon {

class Env;

// Where everything lives in a package, and which names are allowed there:
//
//   <package>/Info.plist
//   <package>/Entities/<entity key>/<uid>/<change file name>     object records
//   <package>/Entities/<entity key>/<uid>/Data/<data file name>  binary values
//   <package>/Changes/<yyyy-MM-dd-HH-mm-ss.SSS>.<UUID>.json      change files
//   <package>/InvalidChanges, Errors, Cache
//
// Names that come from files (entity keys, uids, change and data file
// names) are untrusted: every path built from them goes through a member
// here that answers nothing for a name that is not one safe path component.
// A value type; any thread.
class PackageLayout {
 public:
  PackageLayout() = default;
  explicit PackageLayout(Url package);

  const Url& package() const { return package_; }
  Url info() const;
  Url entities() const;
  Url changes() const;
  Url invalidChanges() const;
  Url errors() const;
  Url cache() const;

  std::optional<Url> entityFolder(std::string_view entityKey) const;
  std::optional<Url> objectFolder(std::string_view entityKey, std::string_view uid) const;
  // The record one change wrote for one object.
  std::optional<Url> record(std::string_view entityKey, std::string_view uid,
                            std::string_view changeFileName) const;
  std::optional<Url> dataFolder(std::string_view entityKey, std::string_view uid) const;
  std::optional<Url> dataFile(std::string_view entityKey, std::string_view uid,
                              std::string_view dataFileName) const;
  std::optional<Url> changeFile(std::string_view changeFileName) const;

  // The URL's text without the package's, for log messages.
  std::string shortText(const Url& url) const;

  // An entity's folder name: the name itself, or in an encrypted package a
  // digest that does not reveal it.
  static std::string entityKey(std::string_view entityName, bool encrypted);

 private:
  Url package_;
};

// A name read from a file is safe to use as one path component: non-empty,
// no "/", no NUL, not "." or "..".
bool isSafePathComponent(std::string_view name);

// The change-name grammar: "yyyy-MM-dd-HH-mm-ss.SSS.<UUID>" (the date in
// GMT, the UUID as 8-4-4-4-12 hexadecimal digits). Plain string order of
// these names is the order of history.
bool isChangeName(std::string_view name);
// A change name followed by ".json": only such files in "Changes" are part
// of the history. A sync service's temporary files and conflict copies, and
// our own temporary files, are not.
bool isChangeFileName(std::string_view fileName);
// For a sync service's conflict copy of a change file ("<name>.sync-conflict-
// 20261123-084814-DXILLWC.json", "<name> (conflicted copy …).json",
// "<name> (1).json"), the change file name it copies; nullopt otherwise.
std::optional<std::string> conflictCopyOf(std::string_view fileName);

// The change files of a "Changes" folder in the order of history; the
// conflict copies found there go to `conflictCopies` when given. A missing
// folder is no error and lists nothing.
[[nodiscard]] Error listChangeFiles(Env* env, const Url& changesFolder,
                                    std::vector<std::string>* names,
                                    std::vector<std::string>* conflictCopies = nullptr);

// A data file as a change names it, or the first file of its folder whose
// name begins with that name (a sync service may have added a suffix to the
// copy it made), or the URL itself.
Url correctedDataURL(Env* env, const Url& url);

}  // namespace quillon
