#include <CLI/CLI.hpp>

#include "tool.h"

namespace quillon::tool {

// PENDING
void addNewCommand(CLI::App& app) {
  app.add_subcommand("new", "not available yet")->callback([] {
    throw ToolError("not available yet");
  });
}

}  // namespace quillon::tool
