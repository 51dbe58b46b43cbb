#include <CLI/CLI.hpp>

#include "tool.h"

namespace quillon::tool {

// PENDING
void addCatCommand(CLI::App& app) {
  app.add_subcommand("cat", "not available yet")->callback([] {
    throw ToolError("not available yet");
  });
}

}  // namespace quillon::tool
