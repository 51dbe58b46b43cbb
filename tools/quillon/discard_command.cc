// quillon discard PKG --model M [--password P] CHANGE
// Discards one change: the change file goes to InvalidChanges, a recovery
// file under its name makes every computer reload what it touched, and an
// empty recovery file a second earlier makes every computer re-apply the
// history from there without it. Prints the three files, one per line: the
// discarded file's new place, then the two recovery files.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "package.h"
#include "quillon/base/env.h"
#include "quillon/store/package_layout.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct DiscardOptions {
  std::string package;
  std::string model;
  std::optional<std::string> password;
  std::string change;
};

void runDiscard(DiscardOptions options) {
  while (options.package.size() > 1 && options.package.back() == '/') options.package.pop_back();
  std::string name = changeFileNameArgument(options.change);
  checkPackageAccess(options.package, options.password);
  const PackageLayout layout(Url::fileURL(options.package, true));
  const Url changeURL = layout.changes().appending(name);
  if (!QuillonStore::defaultEnv()->exists(changeURL.path())) {
    throw ToolError("no change " + options.change + " in " + options.package);
  }

  OpenPackage package({.path = options.package,
                       .modelPath = options.model,
                       .password = options.password});
  package.waitUntilReady();
  const int before = package.readyCount();
  std::optional<QuillonDiscardedChange> traces = package.store().discardChange(changeURL);
  if (!traces) throw ToolError("cannot discard " + options.change);
  package.waitUntilUpdated(before);
  std::printf("%s\n%s\n%s\n", traces->invalidChange.path().c_str(),
              traces->refreshChange.path().c_str(), traces->earlierChange.path().c_str());
}

}  // namespace

std::string changeFileNameArgument(const std::string& change) {
  std::string name = change.ends_with(".json") ? change : change + ".json";
  if (!isSafePathComponent(name) || !isChangeFileName(name)) {
    throw ToolError("not a change name: " + change);
  }
  return name;
}

void addDiscardCommand(CLI::App& app) {
  auto options = std::make_shared<DiscardOptions>();
  CLI::App* command = app.add_subcommand(
      "discard", "discard one change; every computer re-applies the rest without it");
  command->add_option("PKG", options->package, "the document package")->required();
  command->add_option("--model", options->model, "the data model file (JSON)")->required();
  command->add_option("--password", options->password, "the document's password");
  command->add_option("CHANGE", options->change, "the change file's name (.json may be left out)")
      ->required();
  command->callback([options] { runDiscard(*options); });
}

}  // namespace quillon::tool
