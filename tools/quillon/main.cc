// The `quillon` command-line tool: inspects, scripts and repairs packages.
// Every command prints one "error: …" line and exits non-zero on bad input.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "quillon/base/env.h"
#include "quillon/base/error.h"
#include "quillon/base/internal/system_log.h"
#include "tool.h"

namespace quillon::tool {

std::vector<uint8_t> readWholeFile(const std::string& path) {
  std::vector<uint8_t> contents;
  if (Error error = Env::Default()->readFile(path, &contents)) {
    throw ToolError("cannot read " + path + ": " + error.localizedDescription());
  }
  return contents;
}

}  // namespace quillon::tool

int main(int argc, char** argv) {
  CLI::App app{"quillon: inspect and edit Quillon document packages", "quillon"};
  app.require_subcommand(1);
  // The framework's developer messages (stores closing, caches released)
  // are not the tool's output; --verbose shows them on standard error.
  quillon::setSystemLogSink([](std::string_view) {});
  app.add_flag_callback(
         "-v,--verbose", [] { quillon::setSystemLogSink({}); },
         "Also print the framework's developer messages on standard error")
      ->trigger_on_parse();
  quillon::tool::addNewCommand(app);
  quillon::tool::addEditCommands(app);
  quillon::tool::addFetchCommand(app);
  quillon::tool::addChangesCommand(app);
  quillon::tool::addLogCommand(app);
  quillon::tool::addCatCommand(app);
  quillon::tool::addDecodeCacheCommand(app);
  quillon::tool::addInfoCommand(app);
  quillon::tool::addVerifyCommand(app);
  quillon::tool::addDemoCommand(app);
  quillon::tool::addDiscardCommand(app);
  quillon::tool::addHistoryCommand(app);
  quillon::tool::addExportCommand(app);
  quillon::tool::addPasswordCommand(app);
  quillon::tool::addStatusCommand(app);
  quillon::tool::addWatchCommand(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "error: %s\n", e.what());
    return e.get_exit_code() ? e.get_exit_code() : 2;
  } catch (const quillon::tool::ExitStatus& e) {
    return e.status();
  } catch (const quillon::tool::ToolError& e) {
    std::fprintf(stderr, "error: %s\n", e.what());
    return 1;
  } catch (const quillon::Exception& e) {
    std::fprintf(stderr, "error: %s\n", e.reason().c_str());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "error: %s\n", e.what());
    return 1;
  }
  return 0;
}
