// `quillon demo`: two computers share one package.

#include <CLI/CLI.hpp>

#include "tool.h"

namespace quillon::tool {

// PENDING
void addDemoCommand(CLI::App& app) {
  auto* command = app.add_subcommand("demo", "the built-in sample: two computers share one package");
  command->allow_extras();
  command->callback([] { throw ToolError("not available yet"); });
}

}  // namespace quillon::tool
