#include <CLI/CLI.hpp>

#include "tool.h"

namespace quillon::tool {

// PENDING
void addInfoCommand(CLI::App& app) {
  CLI::App* command = app.add_subcommand("info", "not available yet");
  command->allow_extras();
  command->callback([] { throw ToolError("not available yet"); });
}

}  // namespace quillon::tool
