// quillon verify PKG [--password P]
// Checks a package's files against what its change files say: every change
// file readable and well formed, each naming a previous change that exists,
// every record and data file a change names present, data files of the
// recorded length and hash, and nothing left in Entities that no change
// names. Reads only.

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "package.h"
#include "quillon/base/env.h"
#include "quillon/changes/internal/change_file_check.h"
#include "quillon/coding/internal/data_utils.h"
#include "quillon/store/package_files.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/package_layout.h"
#include "tool.h"

namespace quillon::tool {
namespace {

constexpr const char* kFormatHelp =
    "One line per finding, then a summary line. These stop another computer from applying\n"
    "the package's history (exit status 1):\n"
    "  unreadable / cannot decrypt / incomplete / invalid change file   a file in Changes\n"
    "  broken chain        a change names a previous change that is not in Changes\n"
    "  missing / empty / cannot decrypt / incomplete record   the record a change names\n"
    "  missing / unreadable data file, data file length mismatch, data file hash mismatch\n"
    "These are warnings only (exit status 0 when nothing else is found):\n"
    "  orphan record, orphan data file, orphan file   in Entities, named by no change\n"
    "  missing deletion record, cannot decrypt data file, date inconsistency\n"
    "  conflict copy       a synchronisation service's copy of a change file\n"
    "  not a change file name   anything else in Changes, which no computer applies\n"
    "A progress bar goes to standard error when it is a terminal and the package is large.";

// Packages with at least this many change files show a progress bar.
constexpr size_t kProgressThreshold = 200;

struct VerifyOptions {
  std::string path;
  std::optional<std::string> password;
};

// Control characters in names that came from another computer would break
// the one-line-per-finding layout.
std::string printable(std::string_view text) {
  std::string shown(text);
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return shown;
}

class Progress {
 public:
  explicit Progress(size_t total)
      : total_(total), shown_(total >= kProgressThreshold && isatty(STDERR_FILENO)) {}
  ~Progress() {
    if (shown_) std::fprintf(stderr, "\r\033[K");
  }
  // Before a line on standard output, which shares the terminal.
  void clear() {
    if (!shown_) return;
    std::fprintf(stderr, "\r\033[K");
    lastPercent_ = 101;  // drawn again at the next step
  }
  void step() {
    ++done_;
    if (!shown_) return;
    size_t percent = done_ * 100 / total_;
    if (percent == lastPercent_) return;
    lastPercent_ = percent;
    constexpr size_t kWidth = 30;
    size_t filled = done_ * kWidth / total_;
    std::fprintf(stderr, "\rverifying [%s%s] %zu/%zu change files", std::string(filled, '#').c_str(),
                 std::string(kWidth - filled, ' ').c_str(), done_, total_);
    std::fflush(stderr);
  }

 private:
  size_t total_;
  size_t done_ = 0;
  size_t lastPercent_ = 101;
  bool shown_;
};

class Verifier {
 public:
  Verifier(Env* env, const Url& package, const std::optional<std::string>& password)
      : env_(env),
        layout_(package),
        files_(env, package, password ? Value(*password) : Value()),
        encrypted_(password.has_value()) {}

  void run() {
    if (!files_.cipherReady()) {
      throw ToolError("the \"Encryption\" entry of " + layout_.info().path() + " is unusable");
    }
    std::vector<std::string> names, conflictCopies;
    if (Error error = listChangeFiles(env_, layout_.changes(), &names, &conflictCopies)) {
      throw ToolError("cannot list " + layout_.changes().path() + ": " +
                      error.localizedDescription());
    }
    changeNames_.insert(names.begin(), names.end());
    for (const std::string& copy : conflictCopies) {
      warn(fmt::format("conflict copy {}", shown(layout_.changes().appending(copy))));
    }
    // Other computers pass over anything else in Changes, which is worth
    // knowing about (a change written under a wrong name is never applied).
    const std::set<std::string> copies(conflictCopies.begin(), conflictCopies.end());
    for (const std::string& file : list(layout_.changes())) {
      if (!file.starts_with('.') && !changeNames_.contains(file) && !copies.contains(file)) {
        warn(fmt::format("not a change file name {}", shown(layout_.changes().appending(file))));
      }
    }
    {
      Progress progress(names.size());
      progress_ = &progress;
      for (const std::string& name : names) {
        verifyChange(name);
        progress.step();
      }
      progress_ = nullptr;
    }
    findOrphans();
    std::fflush(stdout);
  }

  void printSummary() const {
    std::string counts =
        fmt::format("{} change file{}, {} record{}, {} data file{}", changeNames_.size(),
                    plural(changeNames_.size()), records_, plural(records_), dataFiles_,
                    plural(dataFiles_));
    if (problems_ == 0 && warnings_ == 0) {
      std::printf("verify: no problems (%s)\n", counts.c_str());
    } else {
      std::printf("verify: %zu problem%s, %zu warning%s (%s)\n", problems_, plural(problems_),
                  warnings_, plural(warnings_), counts.c_str());
    }
  }

  bool clean() const { return problems_ == 0; }

 private:
  static const char* plural(size_t n) { return n == 1 ? "" : "s"; }

  std::string shown(const Url& url) const { return printable(layout_.shortText(url)); }

  void problem(const std::string& line) {
    ++problems_;
    print(line);
  }
  void warn(const std::string& line) {
    ++warnings_;
    print(line);
  }
  void print(const std::string& line) {
    if (progress_) progress_->clear();
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }

  void verifyChange(const std::string& name) {
    const Url url = layout_.changes().appending(name);
    Value change;
    ChangeFileReading reading = readChangeFile(files_, url.path(), name, &change);
    switch (reading.outcome) {
      case ChangeFileReading::kRead:
        break;
      case ChangeFileReading::kMissing:
        return problem(fmt::format("unreadable change file {}", shown(url)));
      case ChangeFileReading::kUndecryptable:
        return problem(fmt::format("cannot decrypt change file {}", shown(url)));
      case ChangeFileReading::kIncomplete:
        return problem(fmt::format("incomplete change file {}: not JSON", shown(url)));
      case ChangeFileReading::kInvalid:
        return problem(
            fmt::format("invalid change file {}: {}", shown(url), printable(reading.problem)));
    }

    const Value& previous = change.get(kChangePreviousNameKey);
    if (previous.isString()) {
      const std::string previousName(previous.str());
      if (!changeNames_.contains(previousName)) {
        problem(fmt::format("broken chain {}: its previous change {} is not in {}", shown(url),
                            printable(previousName), kPackageChangesFolder));
      } else if (name < previousName) {
        warn(fmt::format("date inconsistency {}: it sorts before its previous change {}",
                         shown(url), printable(previousName)));
      }
    }

    // Recovery changes list what to read again under "refreshes"; only
    // "changes" names records of this change.
    const Value& sections = change.get(kChangeChangesKey);
    if (!sections.isDictionary()) return;
    for (std::string_view type : {kChangeInsertKey, kChangeUpdateKey, kChangeDeleteKey}) {
      const Value& objects = sections.get(type);
      if (!objects.isDictionary()) continue;
      for (const auto& [entity, uids] : objects.items()) {
        const std::string key = PackageLayout::entityKey(entity.str(), encrypted_);
        for (const auto& [uid, entry] : uids.items()) {
          verifyObject(name, type, entity.str(), key, uid.str(), entry);
        }
      }
    }
  }

  void verifyObject(const std::string& changeName, std::string_view type,
                    std::string_view entity, const std::string& key, std::string_view uid,
                    const Value& entry) {
    // The reader of change files has checked that these names are safe.
    std::optional<Url> record = layout_.record(key, uid, changeName);
    if (!record) return;
    ++records_;
    namedRecords_.insert(record->path());
    const std::string what =
        fmt::format("{} ({} {}/{})", shown(*record), type, printable(entity), printable(uid));
    PackageFileReading read = files_.readJSON(record->path(), kRecordFileLimits);
    switch (read.status) {
      case PackageFileReading::kRead:
        break;
      case PackageFileReading::kMissing:
        // Nothing reads the record of a deletion when applying it.
        if (type == kChangeDeleteKey) {
          warn("missing deletion record " + what);
        } else {
          problem("missing record " + what);
        }
        break;
      case PackageFileReading::kEmpty:
        problem("empty record " + what);
        break;
      case PackageFileReading::kUndecryptable:
        problem("cannot decrypt record " + what);
        break;
      case PackageFileReading::kTooLarge:
      case PackageFileReading::kUnparsable:
        problem("incomplete record " + what + ": " + printable(read.describe()));
        break;
    }

    for (const auto& [property, dataRecords] : entry.items()) {
      for (const Value& dataRecord : dataRecords.elements()) {
        verifyDataFile(key, uid, dataRecord);
      }
    }
  }

  void verifyDataFile(const std::string& key, std::string_view uid, const Value& dataRecord) {
    const Value& dataName = dataRecord.get(kDataRecordNameKey);
    std::optional<Url> named = layout_.dataFile(key, uid, dataName.str());
    if (!named) return;
    ++dataFiles_;
    // A synchronisation service may have added a suffix to the copy it made.
    const Url url = correctedDataURL(env_, *named);
    namedDataFiles_.insert(url.path());
    const std::string where = shown(url);
    FileAttributes attributes;
    if (env_->attributes(url.path(), &attributes) || !attributes.isRegular()) {
      return problem("missing data file " + where);
    }
    const Value& length = dataRecord.get(kDataRecordLengthKey);
    if (length.isNumber() && Value(attributes.size) != length) {
      return problem(fmt::format("data file length mismatch {}: {} bytes, the change says {}",
                                 where, attributes.size, printable(length.description())));
    }
    std::vector<uint8_t> stored;
    if (Error error = env_->readFile(url.path(), &stored)) {
      return problem(fmt::format("unreadable data file {}: {}", where,
                                 printable(error.localizedDescription())));
    }
    const Value& hash = dataRecord.get(kDataRecordHashKey);
    if (hash.isString() && quillonSHA256HexDigest(stored) != hash.str()) {
      return problem("data file hash mismatch " + where);
    }
    std::vector<uint8_t> plain;
    if (encrypted_ && !stored.empty() && !files_.open(stored, &plain)) {
      warn("cannot decrypt data file " + where);
    }
  }

  std::vector<std::string> list(const Url& folder) {
    std::vector<std::string> names;
    if (Error error = env_->listDirectory(folder.path(), &names)) names.clear();
    std::sort(names.begin(), names.end());
    return names;
  }

  // Entities/<key>/<uid>/<record>, Entities/<key>/<uid>/Data/<data file>.
  void findOrphans() {
    if (!env_->isDirectory(layout_.entities().path())) return;
    for (const std::string& key : list(layout_.entities())) {
      const Url entityFolder = layout_.entities().appending(key, true);
      if (!env_->isDirectory(entityFolder.path())) {
        warn("orphan file " + shown(layout_.entities().appending(key)));
        continue;
      }
      for (const std::string& uid : list(entityFolder)) {
        const Url objectFolder = entityFolder.appending(uid, true);
        if (!env_->isDirectory(objectFolder.path())) {
          warn("orphan file " + shown(entityFolder.appending(uid)));
          continue;
        }
        for (const std::string& file : list(objectFolder)) {
          const Url url = objectFolder.appending(file);
          if (file == kPackageDataFolder && env_->isDirectory(url.path())) {
            const Url dataFolder = objectFolder.appending(file, true);
            for (const std::string& data : list(dataFolder)) {
              const Url dataURL = dataFolder.appending(data);
              if (!namedDataFiles_.contains(dataURL.path())) {
                warn("orphan data file " + shown(dataURL));
              }
            }
          } else if (!namedRecords_.contains(url.path())) {
            warn((isChangeFileName(file) ? "orphan record " : "orphan file ") + shown(url));
          }
        }
      }
    }
  }

  Env* env_;
  PackageLayout layout_;
  PackageFiles files_;
  bool encrypted_;
  std::set<std::string> changeNames_;
  std::set<std::string> namedRecords_;
  std::set<std::string> namedDataFiles_;
  size_t records_ = 0;
  size_t dataFiles_ = 0;
  size_t problems_ = 0;
  size_t warnings_ = 0;
  Progress* progress_ = nullptr;
};

void runVerify(VerifyOptions options) {
  while (options.path.size() > 1 && options.path.back() == '/') options.path.pop_back();
  checkPackageAccess(options.path, options.password);
  Verifier verifier(QuillonStore::defaultEnv(), Url::fileURL(options.path, true),
                    options.password);
  verifier.run();
  verifier.printSummary();
  if (!verifier.clean()) throw ExitStatus(1);
}

}  // namespace

void addVerifyCommand(CLI::App& app) {
  auto options = std::make_shared<VerifyOptions>();
  CLI::App* command =
      app.add_subcommand("verify", "check change files, records and data files; list orphans");
  command->footer(kFormatHelp);
  command->add_option("PKG", options->path, "the package")->required();
  command->add_option("--password", options->password, "the document's password");
  command->callback([options] { runVerify(*options); });
}

}  // namespace quillon::tool
