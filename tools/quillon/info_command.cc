// quillon info PKG --model M [--password P]
// Prints "key: value" lines: the document identifier, the checksum of the
// applied history and the object count of every concrete entity, then one
// "writer: …" line per computer, user and version that wrote changes, most
// recent first. Reads only; never saves.

#include <CLI/CLI.hpp>

#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <string>

#include "package.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct InfoOptions {
  std::string package;
  std::string model;
  std::optional<std::string> password;
};

std::string plainText(const Value& value) {
  if (value.isString()) return std::string(value.str());
  if (value.isBool()) return value.boolValue() ? "true" : "false";
  if (value.isInteger()) return std::to_string(value.intValue());
  if (value.isNumber()) return fmt::format("{}", value.doubleValue());
  if (value.isNil() || value.isNull()) return "";
  return value.description();
}

void runInfo(const InfoOptions& options) {
  OpenPackage package({.path = options.package,
                       .modelPath = options.model,
                       .password = options.password});
  package.waitUntilReady();
  QuillonStore& store = package.store();
  std::string out;
  Value rows = store.infoArrayForContext(&package.context());
  for (const Value& row : rows.elements()) {
    out += fmt::format("{}: {}\n", plainText(row.get("key")), plainText(row.get("value")));
  }
  Value writers = store.sessionInfo();
  for (const Value& writer : writers.elements()) {
    out += fmt::format("writer: {} ({}) on {}, version {}, {}\n",
                       plainText(writer.get("fullUserName")), plainText(writer.get("userName")),
                       plainText(writer.get("machineName")), plainText(writer.get("version")),
                       plainText(writer.get("osVersion")));
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
}

}  // namespace

void addInfoCommand(CLI::App& app) {
  auto options = std::make_shared<InfoOptions>();
  CLI::App* command =
      app.add_subcommand("info", "print the document identifier, checksum, counts and writers");
  command->add_option("PKG", options->package, "the document package")->required();
  command->add_option("--model", options->model, "the model file (JSON)")->required();
  command->add_option("--password", options->password, "the document's password");
  command->callback([options] { runInfo(*options); });
}

}  // namespace quillon::tool
