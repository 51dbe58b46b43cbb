#include <CLI/CLI.hpp>

#include "tool.h"

namespace quillon::tool {

// PENDING
void addChangesCommand(CLI::App& app) {
  app.add_subcommand("changes", "not available yet")->callback([] {
    throw ToolError("not available yet");
  });
}

}  // namespace quillon::tool
