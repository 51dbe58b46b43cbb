#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "quillon/base/env.h"

namespace quillon {

// An Env for tests that models what the page cache does to a power cut. It
// forwards to a real Env and remembers, per file and per folder made, what
// has reached stable storage: a file's contents once the file is flushed
// (writeFileAtomically flushes before its rename, syncFiles flushes items),
// a name (a new file, a rename, a removal, a new folder) once its folder is
// flushed. After cutAfter(n) steps the power goes: that step and every
// later write, flush, folder creation, removal or move fails with EIO and
// changes nothing; reads go on (the running process still sees its page
// cache). restart() then makes the real files what the disk would hold:
// every name not flushed is back to what it was (an unflushed new file or
// folder is gone, with everything in it; an unflushed removal is undone),
// or with Loss::NamesKept every name is as it was at the cut; a file whose
// name survived but whose contents were not flushed is empty, or cut to
// half with Loss::Torn.
//
// Paths the Env has not touched count as stable. Owned by the test;
// thread-safe.
class PowerCutEnv : public EnvWrapper {
 public:
  enum class Loss {
    Unflushed,  // names and contents not flushed are lost
    Torn,       // the same, but a surviving name's unflushed contents are cut to half
    NamesKept,  // every name made before the cut survives (the file system's
                // journal committed them), contents not flushed do not
  };

  explicit PowerCutEnv(Env* target = Env::Default());

  // The power goes off at the step after `steps` more steps (0: the next one).
  void cutAfter(size_t steps);
  // Steps taken so far (failed ones after the cut excluded).
  size_t steps() const;
  bool isCut() const;
  // Applies the cut to the real files and forgets everything; the Env then
  // works again, with everything on disk counted as stable.
  void restart(Loss loss);

  Error writeFileAtomically(const std::string& path, std::span<const uint8_t> contents) override;
  Error writeFileAtomicallyUnflushed(const std::string& path,
                                     std::span<const uint8_t> contents) override;
  Error syncFiles(const std::vector<std::string>& paths) override;
  Error createDirectories(const std::string& path) override;
  Error removeItem(const std::string& path) override;
  Error moveItem(const std::string& from, const std::string& to) override;
  Error copyItem(const std::string& from, const std::string& to) override;
  using Env::writeFileAtomically;

 private:
  struct File {
    std::optional<std::vector<uint8_t>> stable;  // what survives; nullopt: no file
    bool contentsFlushed = true;
    bool nameFlushed = true;
  };
  // Takes a step, or answers EIO when the power is off. Requires mutex_.
  Error step(const std::string& path);
  // Starts tracking a file, remembering what is stable now. Requires mutex_.
  File& track(const std::string& path);
  Error write(const std::string& path, std::span<const uint8_t> contents, bool flushed);

  mutable std::mutex mutex_;
  std::map<std::string, File> files_;
  std::map<std::string, bool> newFolders_;  // path → name flushed
  size_t steps_ = 0;
  std::optional<size_t> cutAt_;
  bool cut_ = false;
};

}  // namespace quillon
