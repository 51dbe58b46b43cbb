// quillon fetch PKG --model M [--password P] ENTITY [--where PRED]
//                   [--sort KEY[:desc]] [--limit N] [--count]
// Prints the matching objects as a pretty-printed JSON array, one object per
// result in result order, each {"$id": "Entity/UID", every property by
// name}; with --count only the number. Reads only; never saves.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>

#include "quillon/base/json.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/graph/predicate.h"
#include "quillon/graph/sort_descriptor.h"
#include "package.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct FetchOptions {
  std::string package;
  std::string model;
  std::optional<std::string> password;
  std::string entity;
  std::optional<std::string> where;
  std::optional<std::string> sort;
  size_t limit = 0;
  bool count = false;
};

// "KEY" or "KEY:asc" or "KEY:desc"; the first key of a path must be a
// property of the entity.
SortDescriptor sortDescriptorFor(const std::string& text, const EntityDescription& entity) {
  std::string key = text;
  bool ascending = true;
  if (size_t colon = text.rfind(':'); colon != std::string::npos) {
    std::string direction = text.substr(colon + 1);
    key = text.substr(0, colon);
    if (direction == "desc") {
      ascending = false;
    } else if (direction != "asc") {
      throw ToolError("unknown sort direction \"" + direction + "\" (use asc or desc)");
    }
  }
  std::string first = key.substr(0, key.find('.'));
  if (key.empty() || !entity.property(first)) {
    throw ToolError("unknown sort key \"" + key + "\" for entity " + entity.name());
  }
  return SortDescriptor(key, ascending);
}

// The request the options describe; bad options are refused before the
// package is opened.
FetchRequest requestFor(const FetchOptions& options) {
  std::vector<uint8_t> modelText = readWholeFile(options.model);
  Error error;
  auto model = ManagedObjectModel::fromJSON(
      std::string_view(reinterpret_cast<const char*>(modelText.data()), modelText.size()), &error);
  if (!model) throw ToolError("cannot load the model: " + error.localizedDescription());
  const EntityDescription* entity = model->entity(options.entity);
  if (!entity) throw ToolError("unknown entity \"" + options.entity + "\"");

  FetchRequest request(options.entity);
  if (options.where) {
    auto predicate = Predicate::parse(*options.where, {}, &error);
    if (!predicate) {
      throw ToolError("cannot parse --where: " + error.localizedDescription());
    }
    request.setPredicate(std::move(predicate));
  }
  if (options.sort) request.setSortDescriptors({sortDescriptorFor(*options.sort, *entity)});
  request.setFetchLimit(options.limit);
  return request;
}

void runFetch(const FetchOptions& options) {
  FetchRequest request = requestFor(options);
  OpenPackage package({.path = options.package,
                       .modelPath = options.model,
                       .password = options.password});
  package.waitUntilReady();

  if (options.count) {
    Error error;
    int64_t count = package.context().countForFetchRequest(request, &error);
    if (count < 0) throw ToolError("the fetch failed: " + error.localizedDescription());
    std::printf("%lld\n", static_cast<long long>(count));
    return;
  }
  Error error;
  std::vector<Value> results = package.context().executeFetchRequest(request, &error);
  if (error) throw ToolError("the fetch failed: " + error.localizedDescription());
  Value array = Value::array(true);
  for (const Value& result : results) {
    if (ManagedObjectPtr object = managedObjectFromValue(result)) {
      array.append(jsonForObject(*object));
    }
  }
  Error writeError;
  std::string text = writeJSON(array, JSONStyle::Pretty, &writeError, JSONSlashes::Plain);
  if (writeError) throw ToolError("cannot write the results: " + writeError.localizedDescription());
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
}

}  // namespace

void addFetchCommand(CLI::App& app) {
  auto options = std::make_shared<FetchOptions>();
  CLI::App* command = app.add_subcommand("fetch", "print the objects of an entity as JSON");
  command->add_option("PKG", options->package, "the document package")->required();
  command->add_option("ENTITY", options->entity, "the entity to fetch")->required();
  command->add_option("--model", options->model, "the model file (JSON)")->required();
  command->add_option("--password", options->password, "the document's password");
  command->add_option("--where", options->where, "a predicate, e.g. 'priority > 3'");
  command->add_option("--sort", options->sort, "a key to sort by, KEY or KEY:desc");
  command->add_option("--limit", options->limit, "at most this many results");
  command->add_flag("--count", options->count, "print only the number of matches");
  command->callback([options] { runFetch(*options); });
}

}  // namespace quillon::tool
