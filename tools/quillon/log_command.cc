// `quillon log`: opens a package, applies what is new and prints the store's log.

#include <CLI/CLI.hpp>

#include "tool.h"

namespace quillon::tool {

// PENDING
void addLogCommand(CLI::App& app) {
  auto* command = app.add_subcommand("log", "open, apply what is new, print the store's log");
  command->allow_extras();
  command->callback([] { throw ToolError("not available yet"); });
}

}  // namespace quillon::tool
