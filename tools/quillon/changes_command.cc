// quillon changes PKG [--password P]
// Lists the change files of a package, newest first. Reads only.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>

#include "package.h"
#include "quillon/base/env.h"
#include "quillon/changes/internal/change_file_check.h"
#include "quillon/store/package_files.h"
#include "quillon/store/package_layout.h"
#include "tool.h"

namespace quillon::tool {
namespace {

constexpr const char* kFormatHelp =
    "One line per change file of PKG/Changes, newest first, four fields separated by tabs:\n"
    "  NAME  DATE  MACHINE/USER  +INSERTED ~UPDATED -DELETED\n"
    "NAME is the file name, DATE the save's date as recorded in the file, MACHINE/USER the\n"
    "computer and login name of the writer, and the counts the objects the save touched.\n"
    "A recovery change shows \"recovery\" as writer and counts the objects it refreshes;\n"
    "a file that cannot be read shows \"-\" as date and the reason as writer.";

struct ChangesOptions {
  std::string path;
  std::optional<std::string> password;
};

size_t countObjects(const Value& byEntity) {
  size_t count = 0;
  if (!byEntity.isDictionary()) return 0;
  for (const auto& entry : byEntity.items()) {
    if (entry.second.isDictionary()) count += entry.second.size();
  }
  return count;
}

std::string textOr(const Value& value, const char* fallback) {
  return value.isString() ? std::string(value.str()) : std::string(fallback);
}

// Control characters in names written by another computer would break the
// one-line-per-change layout.
std::string printable(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return text;
}

std::string describe(const std::string& name, const Value& change) {
  bool recovery = change.get("type").isString() && change.get("type").str() == "recovery";
  const Value& objects = recovery ? change.get("refreshes") : change.get("changes");
  std::string writer = "recovery";
  if (!recovery) {
    const Value& session = change.get("session");
    writer = textOr(session.get("machineName"), "-") + "/" + textOr(session.get("userName"), "-");
  }
  return fmt::format("{}\t{}\t{}\t+{} ~{} -{}", printable(name),
                     printable(textOr(change.get("date"), "-")), printable(writer),
                     countObjects(objects.get("insert")), countObjects(objects.get("update")),
                     countObjects(objects.get("delete")));
}

void runChanges(ChangesOptions options) {
  while (options.path.size() > 1 && options.path.back() == '/') options.path.pop_back();
  checkPackageAccess(options.path, options.password);
  Env* env = QuillonStore::defaultEnv();
  const Url package = Url::fileURL(options.path, true);
  const PackageLayout layout(package);
  std::vector<std::string> names;
  if (Error error = listChangeFiles(env, layout.changes(), &names)) {
    throw ToolError("cannot list " + layout.changes().path() + ": " + error.localizedDescription());
  }
  // Names begin with the save's date, so their byte order is the order of history.
  std::reverse(names.begin(), names.end());
  // One key derivation for all files: it is deliberately slow.
  PackageFiles files(env, package, options.password ? Value(*options.password) : Value());
  if (!files.cipherReady()) {
    throw ToolError("the \"Encryption\" entry of " + layout.info().path() + " is unusable");
  }
  for (const std::string& name : names) {
    Value change;
    ChangeFileReading reading =
        readChangeFile(files, layout.changes().appending(name).path(), name, &change);
    std::string line;
    switch (reading.outcome) {
      case ChangeFileReading::kRead:
        line = describe(name, change);
        break;
      case ChangeFileReading::kMissing:
        line = printable(name) + "\t-\tunreadable\t-";
        break;
      case ChangeFileReading::kUndecryptable:
        line = printable(name) + "\t-\tcannot decrypt\t-";
        break;
      case ChangeFileReading::kIncomplete:
      case ChangeFileReading::kInvalid:
        line = printable(name) + "\t-\tnot a change file\t-";
        break;
    }
    std::printf("%s\n", line.c_str());
  }
}

}  // namespace

void addChangesCommand(CLI::App& app) {
  auto options = std::make_shared<ChangesOptions>();
  CLI::App* command = app.add_subcommand("changes", "list the change files, newest first");
  command->footer(kFormatHelp);
  command->add_option("PKG", options->path, "the package")->required();
  command->add_option("--password", options->password, "the document's password");
  command->callback([options] { runChanges(*options); });
}

}  // namespace quillon::tool
