// quillon status PKG --model M [--password P]
// Sync health as a person needs it. Opens the package the way an
// application does, lets the store apply what has arrived, and prints either
//   up to date (N changes, last from <computer> at <date>)
// or what the package waits for:
//   waiting for change <name> from <computer> (saved <date>), here since <date>
//     <what the store found missing or incomplete, one line each>
// followed by the synchronisation service's conflict copies and the
// online-only placeholders (files whose content is not downloaded) found in
// the package. Exit status 0 when up to date, 1 while waiting. Reads only.

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "package.h"
#include "quillon/base/env.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/coding/internal/url_utils.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/package_files.h"
#include "quillon/store/package_layout.h"
#include "quillon/store/quillon.h"
#include "tool.h"

namespace quillon::tool {
namespace {

constexpr double kUnixToReferenceDate = 978307200.0;

struct StatusOptions {
  std::string package;
  std::string model;
  std::optional<std::string> password;
};

std::string text(const Value& value, std::string_view fallback = "unknown") {
  return value.isString() && !value.str().empty() ? std::string(value.str())
                                                  : std::string(fallback);
}

std::string computerOf(const Value& change) {
  const Value& session = change.isDictionary() ? change.get("session") : Value();
  return text(session.isDictionary() ? session.get("machineName") : Value());
}

std::string utcText(double referenceSeconds) {
  std::time_t unix = static_cast<std::time_t>(std::floor(referenceSeconds + kUnixToReferenceDate));
  std::tm tm{};
  gmtime_r(&unix, &tm);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buffer;
}

// A synchronisation service's copy of a file it could not reconcile.
bool isConflictCopyName(std::string_view name) {
  return conflictCopyOf(name).has_value() || name.find(".sync-conflict-") != std::string::npos ||
         name.find(" (conflicted copy") != std::string::npos ||
         name.find("'s conflicted copy") != std::string::npos;
}

// Walks the package for conflict copies and online-only placeholders.
void survey(Env* env, const std::string& root, const std::string& relative,
            std::vector<std::string>* conflicts, std::vector<std::string>* placeholders) {
  std::vector<std::string> names;
  const std::string folder = relative.empty() ? root : root + "/" + relative;
  if (env->listDirectory(folder, &names)) return;
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (name.starts_with('.')) continue;  // services' own bookkeeping, our temporary files
    const std::string path = folder + "/" + name;
    const std::string shown = relative.empty() ? name : relative + "/" + name;
    FileAttributes attributes;
    if (env->attributes(path, &attributes)) continue;
    if (attributes.type == FileAttributes::Type::Directory) {
      survey(env, root, shown, conflicts, placeholders);
      continue;
    }
    if (isConflictCopyName(name)) conflicts->push_back(shown);
    if (attributes.type == FileAttributes::Type::Regular && !QuillonIsOnDisk(attributes)) {
      placeholders->push_back(shown);
    }
  }
}

void runStatus(const StatusOptions& options) {
  OpenPackage package({.path = options.package,
                       .modelPath = options.model,
                       .password = options.password});
  package.waitUntilReady();
  MainQueue::drain();
  QuillonStore& store = package.store();
  Env* env = Env::Default();
  const PackageLayout layout(store.url());

  std::vector<std::string> names;
  if (Error error = listChangeFiles(env, layout.changes(), &names)) {
    throw ToolError("cannot list " + layout.changes().path() + ": " + error.localizedDescription());
  }
  const Value applied = store.cache().changes();
  size_t agreeing = 0;
  while (agreeing < names.size() && agreeing < applied.size() &&
         text(applied[agreeing].get("name"), "") == names[agreeing]) {
    ++agreeing;
  }

  std::string out;
  const bool upToDate = agreeing == names.size() && applied.size() == names.size();
  if (upToDate) {
    if (names.empty()) {
      out += "up to date (no changes yet)\n";
    } else {
      const Value& last = applied[applied.size() - 1];
      out += fmt::format("up to date ({} change{}, last from {} at {})\n", names.size(),
                         names.size() == 1 ? "" : "s", computerOf(last), text(last.get("date")));
    }
  } else if (agreeing < names.size()) {
    const std::string& name = names[agreeing];
    const Url url = layout.changes().appending(name);
    PackageFiles files(env, store.url(), package.password() ? Value(*package.password()) : Value());
    PackageFileReading read = files.readJSON(url.path(), kChangeFileLimits);
    FileAttributes attributes;
    std::string since = env->attributes(url.path(), &attributes)
                            ? std::string("unknown")
                            : utcText(attributes.modificationDate);
    if (read.ok() && read.value.isDictionary()) {
      out += fmt::format("waiting for change {} from {} (saved {}), here since {}\n", name,
                         computerOf(read.value), text(read.value.get("date")), since);
    } else {
      out += fmt::format("waiting for change {}, here since {}: the change file is {}\n", name,
                         since, read.onDisk ? read.describe() : "not downloaded");
    }
    out += fmt::format("  {} of {} changes applied\n", agreeing, names.size());
  } else {
    out += fmt::format("waiting: {} changes applied, {} change files found\n", applied.size(),
                       names.size());
  }

  // What this opening's update met on its way, in the store's words: the
  // files a change names that are not there, not downloaded or incomplete.
  if (!upToDate) {
    std::set<std::string> seen;
    const Value entries = store.logEntries();  // newest first
    for (size_t i = entries.size(); i-- > 0;) {
      const Value& type = entries[i].get(kQuillonLogType);
      if (!type.isString() || (type.str() != kQuillonLogTypeWarning &&
                               type.str() != kQuillonLogTypeError)) {
        continue;
      }
      std::string message = text(entries[i].get("message"), "");
      if (message.empty() || message.starts_with("Missing files: Abort") ||
          message.starts_with("Failed validation") || !seen.insert(message).second) {
        continue;
      }
      out += "  " + message + "\n";
    }
  }

  std::vector<std::string> conflicts, placeholders;
  survey(env, store.url().path(), "", &conflicts, &placeholders);
  for (const std::string& path : conflicts) out += "conflict copy " + path + "\n";
  for (const std::string& path : placeholders) out += "not downloaded " + path + "\n";

  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
  if (!upToDate) throw ExitStatus(1);
}

}  // namespace

void addStatusCommand(CLI::App& app) {
  auto options = std::make_shared<StatusOptions>();
  CLI::App* command = app.add_subcommand(
      "status", "sync health: up to date, or which change it waits for and since when");
  command->add_option("PKG", options->package, "the document package")->required();
  command->add_option("--model", options->model, "the model file (JSON)")->required();
  command->add_option("--password", options->password, "the document's password");
  command->callback([options] { runStatus(*options); });
}

}  // namespace quillon::tool
