// quillon history PKG --model M [--password P] ENTITY/UID
// The history of one object as a pretty JSON array: the root entry ("name":
// "Object", "value": the object's URI path, "paths": its record files), then
// one entry per change that wrote it, newest first ("name": the date for
// people, "value": who and where, "date", "URL" of the change file,
// "children": the values that change wrote). Reads only; never saves.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "package.h"
#include "quillon/base/internal/date_format.h"
#include "quillon/base/json.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/graph/managed_object.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct HistoryOptions {
  std::string package;
  std::string model;
  std::optional<std::string> password;
  std::string path;
};

// Dates as "yyyy-MM-dd'T'HH:mm:ss.SSSZ" text and URLs as their text; the
// rest of the history is JSON already.
Value printable(const Value& value) {
  if (value.isDate()) return Value::string(formatISODate(value.dateValue(), /*gmt=*/true));
  if (value.isUrl()) return Value::string(value.urlValue().absoluteString());
  if (value.isDictionary()) {
    Value out = Value::dictionary(true);
    for (const auto& [key, member] : value.items()) out.set(key, printable(member));
    return out;
  }
  if (value.isSequence()) {
    Value out = Value::array(true);
    for (const Value& member : value.elements()) out.append(printable(member));
    return out;
  }
  return value;
}

void runHistory(const HistoryOptions& options) {
  OpenPackage package({.path = options.package,
                       .modelPath = options.model,
                       .password = options.password});
  package.waitUntilReady();
  ManagedObjectPtr object = savedObjectForPath(package, options.path);
  Value history = package.store().cache().changesHistoryForObjectID(object->objectID());
  std::string text =
      writeJSON(printable(history), JSONStyle::Pretty, nullptr, JSONSlashes::Plain);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
}

}  // namespace

void addHistoryCommand(CLI::App& app) {
  auto options = std::make_shared<HistoryOptions>();
  CLI::App* command = app.add_subcommand(
      "history", "the history of one object as JSON (root entry, then newest first)");
  command->add_option("PKG", options->package, "the document package")->required();
  command->add_option("--model", options->model, "the data model file (JSON)")->required();
  command->add_option("--password", options->password, "the document's password");
  command->add_option("PATH", options->path, "the object as Entity/UID")->required();
  command->callback([options] { runHistory(*options); });
}

}  // namespace quillon::tool
