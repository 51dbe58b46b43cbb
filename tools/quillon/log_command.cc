// `quillon log PKG --model M [--password P] [--recover]`: opens the package the
// way an application does, lets the store apply what is new, and prints the
// store's log oldest first, one entry a line:
//   <success|warning|error>\t<message>[ [Title, Title]]

#include <CLI/CLI.hpp>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "package.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "tool.h"

namespace quillon::tool {
namespace {

std::string typeWord(const Value& type) {
  if (type.isString()) {
    if (type.str() == kQuillonLogTypeError) return "error";
    if (type.str() == kQuillonLogTypeWarning) return "warning";
  }
  return "success";
}

// One line per entry; a message that spans lines is kept on one.
std::string lineForEntry(const Value& entry) {
  std::string line = typeWord(entry.get(kQuillonLogType));
  line += '\t';
  const Value& message = entry.get("message");
  for (char c : message.isString() ? message.str() : std::string_view()) {
    line += (c == '\n' || c == '\r') ? ' ' : c;
  }
  const Value& menu = entry.get("menu");
  if (menu.isArray() && !menu.empty()) {
    line += " [";
    bool first = true;
    for (const Value& item : menu.elements()) {
      const Value& title = item.isDictionary() ? item.get("title") : Value();
      if (!title.isString()) continue;
      if (!first) line += ", ";
      line += title.str();
      first = false;
    }
    line += ']';
  }
  return line;
}

struct LogOptions {
  std::string path;
  std::string model;
  std::optional<std::string> password;
  bool recover = false;
};

void runLog(const LogOptions& options) {
  Quillon::setRecoveryRequested(options.recover);
  OpenPackage::Options open;
  open.path = options.path;
  open.modelPath = options.model;
  open.password = options.password;
  open.recover = options.recover;
  OpenPackage package(open);
  package.waitUntilReady();
  // Entries are added on the main queue; let the ones of the update land.
  MainQueue::drain();
  Value entries = package.store().logEntries();  // newest first
  std::vector<std::string> lines;
  if (entries.isArray()) {
    for (size_t i = entries.size(); i-- > 0;) lines.push_back(lineForEntry(entries[i]));
  }
  for (const std::string& line : lines) std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

}  // namespace

void addLogCommand(CLI::App& app) {
  auto options = std::make_shared<LogOptions>();
  auto* command = app.add_subcommand("log", "open, apply what is new, print the store's log");
  command->add_option("PKG", options->path, "the package")->required();
  command->add_option("--model", options->model, "the data model file (JSON)")->required();
  command->add_option("--password", options->password, "the document's password");
  command->add_flag("--recover", options->recover, "open in recovery mode");
  command->callback([options] { runLog(*options); });
}

}  // namespace quillon::tool
