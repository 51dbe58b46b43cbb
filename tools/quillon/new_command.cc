// quillon new PKG --model M [--password P] [--document-id ID]
// Creates an empty package and prints its document identifier.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "package.h"
#include "quillon/base/env.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct NewOptions {
  std::string path;
  std::string model;
  std::optional<std::string> password;
  std::optional<std::string> documentIdentifier;
};

void runNew(const NewOptions& options) {
  if (QuillonStore::defaultEnv()->exists(options.path)) {
    throw ToolError(options.path + " already exists");
  }
  if (options.password && options.password->empty()) {
    throw ToolError("the password must not be empty");
  }
  if (options.documentIdentifier && options.documentIdentifier->empty()) {
    throw ToolError("the document identifier must not be empty");
  }
  OpenPackage::Options open;
  open.path = options.path;
  open.modelPath = options.model;
  open.password = options.password;
  open.documentIdentifier = options.documentIdentifier;
  open.create = true;
  OpenPackage package(open);
  std::printf("%s\n", package.store().documentIdentifier().c_str());
}

}  // namespace

void addNewCommand(CLI::App& app) {
  auto options = std::make_shared<NewOptions>();
  CLI::App* command = app.add_subcommand(
      "new", "create an empty package and print its document identifier");
  command->add_option("PKG", options->path, "where the package goes (nothing may be there)")
      ->required();
  command->add_option("--model", options->model, "the data model (JSON)")->required();
  command->add_option("--password", options->password, "encrypt every file with this password");
  command->add_option("--document-id", options->documentIdentifier,
                      "the document identifier (default: a new UUID)");
  command->callback([options] { runNew(*options); });
}

}  // namespace quillon::tool
