#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/env.h"

namespace quillon {

// An Env for tests that forwards to a real one (normally Env::Default() over
// a TempDir), counts every operation, and fails chosen operations on chosen
// paths the way a real disk does: full (ENOSPC), broken (EIO), or a file that
// reads back short. Owned by the test; thread-safe, so it can sit under code
// that uses worker threads.
//
//   FaultInjectingEnv env;                       // over Env::Default()
//   env.failAfter(FaultInjectingEnv::Op::Move, "/Changes/", 2,
//                 FaultInjectingEnv::Fault::IoError);
//   ... the first two moves touching "/Changes/" succeed, every later one
//   ... answers EIO without reaching the disk.
//   EXPECT_EQ(env.count(FaultInjectingEnv::Op::Write, ".json"), 3u);
class FaultInjectingEnv : public EnvWrapper {
 public:
  // The operations of Env, one kind each. Conveniences (isDirectory,
  // listRecursively, the string overload of writeFileAtomically) are built on
  // these and so are counted and failed through them.
  enum class Op {
    Read,               // readFile
    Write,              // writeFileAtomically
    List,               // listDirectory
    CreateDirectories,  // createDirectories
    Remove,             // removeItem
    Move,               // moveItem (matches on the source or the destination path)
    Copy,               // copyItem (matches on the source or the destination path)
    Attributes,         // attributes
    Exists,             // exists (counted only; it cannot fail)
    Sync,               // syncFiles: one operation per path handed in
  };
  // One operation as it reached the Env, in the order they did.
  struct Operation {
    Op op;
    std::string path;
  };

  enum class Fault {
    NoSpace,    // the operation answers a POSIX ENOSPC error and does nothing
    IoError,    // the operation answers a POSIX EIO error and does nothing
    ShortRead,  // Read: succeeds with the first half of the contents (as a file
                // still being synchronised would); other kinds: as IoError
  };

  explicit FaultInjectingEnv(Env* target = Env::Default());

  // Every later `op` whose path contains `pathSubstring` (every path when it
  // is empty) fails with `fault` once `successes` matching operations have
  // gone through. At most `failures` operations fail (a negative count: all
  // of them); after that the rule is spent and operations succeed again.
  // Several rules may be active; the first one added that matches decides.
  void failAfter(Op op, std::string_view pathSubstring, int successes, Fault fault,
                 int failures = -1);
  // Removes every rule; counts are kept.
  void clearFaults();

  // Operations of a kind so far (failed ones included).
  size_t count(Op op) const;
  // Operations of a kind whose path (either path, for moves and copies)
  // contains `pathSubstring`.
  size_t count(Op op, std::string_view pathSubstring) const;
  // Every operation so far (moves and copies under their source path), in
  // the order they reached this Env: what a test reads to prove ordering.
  // writeFileAtomically and writeFileAtomicallyUnflushed are both Write.
  std::vector<Operation> operations() const;
  // Operations that a rule made fail.
  size_t injectedFailures() const;
  void resetCounts();

  Error readFile(const std::string& path, std::vector<uint8_t>* contents) override;
  Error writeFileAtomically(const std::string& path, std::span<const uint8_t> contents) override;
  Error writeFileAtomicallyUnflushed(const std::string& path,
                                     std::span<const uint8_t> contents) override;
  // Fails as a whole when a rule matches any of the paths (nothing is flushed).
  Error syncFiles(const std::vector<std::string>& paths) override;
  Error listDirectory(const std::string& path, std::vector<std::string>* names) override;
  Error createDirectories(const std::string& path) override;
  Error removeItem(const std::string& path) override;
  Error moveItem(const std::string& from, const std::string& to) override;
  Error copyItem(const std::string& from, const std::string& to) override;
  Error attributes(const std::string& path, FileAttributes* attributes) override;
  bool exists(const std::string& path) override;
  using Env::writeFileAtomically;

 private:
  struct Rule {
    Op op;
    std::string pathSubstring;
    int successesLeft;
    Fault fault;
    int failuresLeft;  // negative: unlimited
  };
  struct Record {
    Op op;
    std::string path;
    std::string otherPath;
  };

  // Records the operation and answers the fault to inject, if any.
  bool record(Op op, const std::string& path, const std::string& otherPath, Fault* fault);
  static Error errorFor(Fault fault, const std::string& path);

  mutable std::mutex mutex_;
  std::vector<Rule> rules_;
  std::vector<Record> records_;
  size_t injected_ = 0;
};

}  // namespace quillon
