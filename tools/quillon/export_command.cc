// quillon export PKG DEST --model M [--password P] [--new-password P2] [--up-to CHANGE]
// Saves a copy of the document as a new package at DEST: every object as a
// full record in one change. With --up-to the copy holds the document as it
// stood when that change was applied. The copy keeps the document's password
// unless --new-password gives another. DEST must not exist and must lie
// outside PKG. A progress bar goes to standard error when it is a terminal.

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "package.h"
#include "quillon/base/env.h"
#include "quillon/base/internal/uuid.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/standard_paths.h"
#include "quillon/store/package_layout.h"
#include "quillon/store/progress_sink.h"
#include "quillon/store/quillon.h"
#include "tool.h"

namespace quillon::tool {
namespace {

constexpr double kExportTimeoutSeconds = 600;

struct ExportOptions {
  std::string package;
  std::string destination;
  std::string model;
  std::optional<std::string> password;
  std::optional<std::string> newPassword;
  std::optional<std::string> upTo;
};

// The fraction of entities written, as a bar on a terminal.
class ProgressBar : public QuillonProgressSink {
 public:
  ProgressBar() : shown_(isatty(STDERR_FILENO)) {}
  ~ProgressBar() override {
    if (shown_) std::fprintf(stderr, "\r\033[K");
  }
  void setProgress(double fraction) override {
    if (!shown_) return;
    constexpr int kWidth = 30;
    int filled = static_cast<int>(fraction * kWidth);
    std::fprintf(stderr, "\rexporting [%s%s] %3d%%", std::string(filled, '#').c_str(),
                 std::string(kWidth - filled, ' ').c_str(), static_cast<int>(fraction * 100));
    std::fflush(stderr);
  }

 private:
  bool shown_;
};

// Points the local cache at a folder of its own while it lives: a store
// opened up to a change builds its cache from the start, which must not
// replace the cache that the document's own openings use.
class PrivateCacheHome {
 public:
  PrivateCacheHome() {
    Env* env = QuillonStore::defaultEnv();
    path_ = StandardPaths::temporaryDirectory() + "/quillon-export-" + makeUUIDString();
    if (Error error = env->createDirectories(path_)) {
      throw ToolError("cannot create " + path_ + ": " + error.localizedDescription());
    }
    previous_ = StandardPaths::userCacheDirectory();
    StandardPaths::setUserCacheDirectory(path_);
  }
  // The stores are bound by then; later ones use the usual folder.
  void restore() { StandardPaths::setUserCacheDirectory(previous_); }
  ~PrivateCacheHome() {
    restore();
    (void)QuillonStore::defaultEnv()->removeItem(path_);  // a leftover in the temporary folder
  }

 private:
  std::string path_;
  std::string previous_;
};

std::string absolute(const std::string& path) {
  std::error_code error;
  std::filesystem::path resolved = std::filesystem::weakly_canonical(path, error);
  if (error) resolved = std::filesystem::absolute(path);
  return resolved.lexically_normal().string();
}

void checkDestination(const ExportOptions& options) {
  Env* env = QuillonStore::defaultEnv();
  if (env->exists(options.destination)) throw ToolError(options.destination + " already exists");
  std::string package = absolute(options.package);
  std::string destination = absolute(options.destination);
  if (destination == package || destination.starts_with(package + "/")) {
    throw ToolError("the copy cannot go inside the package: " + options.destination);
  }
}

void runExport(ExportOptions options) {
  while (options.package.size() > 1 && options.package.back() == '/') options.package.pop_back();
  while (options.destination.size() > 1 && options.destination.back() == '/') {
    options.destination.pop_back();
  }
  if (options.newPassword && options.newPassword->empty()) {
    throw ToolError("the new password must not be empty");
  }
  std::optional<std::string> upTo;
  if (options.upTo) upTo = changeFileNameArgument(*options.upTo);
  checkPackageAccess(options.package, options.password);
  checkDestination(options);
  if (upTo) {
    const PackageLayout layout(Url::fileURL(options.package, true));
    if (!QuillonStore::defaultEnv()->exists(layout.changes().appending(*upTo).path())) {
      throw ToolError("no change " + *options.upTo + " in " + options.package);
    }
  }

  std::optional<PrivateCacheHome> cacheHome;
  if (upTo) cacheHome.emplace();
  OpenPackage source({.path = options.package,
                      .modelPath = options.model,
                      .password = options.password,
                      .upToChange = upTo ? Value::dictionary({{"name", *upTo}}) : Value()});
  if (cacheHome) cacheHome->restore();
  source.waitUntilReady();

  Env* env = QuillonStore::defaultEnv();
  try {
    OpenPackage target({.path = options.destination,
                        .modelPath = options.model,
                        .password = options.newPassword ? options.newPassword : source.password(),
                        .create = true});
    target.waitUntilReady();
    auto progress = std::make_shared<ProgressBar>();
    Value writeOptions = Value::dictionary(
        {{std::string(kQuillonBusyWindowControllerOptionsKey), Value::object(progress)}});
    bool done = false;
    target.store().writeAllObjectsInContext(source.contextPointer(), &source.store(), writeOptions,
                                            [&done](ManagedObjectContext*) { done = true; });
    if (!MainQueue::runUntil([&done] { return done; }, kExportTimeoutSeconds)) {
      throw ToolError("timed out writing " + options.destination);
    }
    if (Error error = target.store().waitForSaves()) {
      throw ToolError("could not write " + options.destination + ": " +
                      error.localizedDescription());
    }
  } catch (const ToolError&) {
    // Only what this command made is removed: DEST did not exist before.
    (void)env->removeItem(options.destination);
    throw;
  }
}

}  // namespace

void addExportCommand(CLI::App& app) {
  auto options = std::make_shared<ExportOptions>();
  CLI::App* command = app.add_subcommand(
      "export", "save a copy of the document, or of its state up to a change, at DEST");
  command->add_option("PKG", options->package, "the document package")->required();
  command->add_option("DEST", options->destination, "where the copy goes (nothing may be there)")
      ->required();
  command->add_option("--model", options->model, "the data model file (JSON)")->required();
  command->add_option("--password", options->password, "the document's password");
  command->add_option("--new-password", options->newPassword,
                      "encrypt the copy with this password instead");
  command->add_option("--up-to", options->upTo,
                      "copy the document as it stood up to this change (its file name)");
  command->callback([options] { runExport(*options); });
}

}  // namespace quillon::tool
