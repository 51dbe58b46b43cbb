#include <CLI/CLI.hpp>

#include "tool.h"

namespace quillon::tool {

void addEditCommands(CLI::App& app) {
  // PENDING
  for (const char* name : {"insert", "update", "delete"}) {
    CLI::App* command = app.add_subcommand(name, "not available yet");
    command->allow_extras();
    command->callback([] { throw ToolError("not available yet"); });
  }
}

}  // namespace quillon::tool
