// quillon insert PKG --model M [--password P] ENTITY --values JSON
// quillon update PKG --model M [--password P] ENTITY/UID --values JSON
// quillon delete PKG --model M [--password P] ENTITY/UID...
// Each command is one save. Every value and path is checked before anything
// is saved, so a refused command leaves the package as it was.

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "package.h"
#include "quillon/base/json.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/managed_object.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct EditOptions {
  std::string package;
  std::string model;
  std::optional<std::string> password;
  std::string entity;                 // insert
  std::vector<std::string> paths;     // update (one), delete (one or more)
  std::string values;                 // insert, update
};

Value parseValues(const std::string& text) {
  Error error;
  Value values = readJSON(text, &error);
  if (values.isNil()) {
    throw ToolError("--values is not valid JSON: " + error.localizedDescription());
  }
  return values;
}

OpenPackage::Options openOptions(const EditOptions& options) {
  OpenPackage::Options open;
  open.path = options.package;
  open.modelPath = options.model;
  open.password = options.password;
  return open;
}

void runInsert(const EditOptions& options) {
  Value values = parseValues(options.values);
  if (!values.isDictionary() && !values.isArray()) {
    throw ToolError("--values must be a JSON object or an array of objects");
  }
  OpenPackage package(openOptions(options));
  const EntityDescription* entity = package.model().entity(options.entity);
  if (!entity) throw ToolError(fmt::format("unknown entity \"{}\"", options.entity));
  if (entity->isAbstract()) {
    throw ToolError(fmt::format("{} is abstract: insert one of its sub-entities", entity->name()));
  }
  package.waitUntilReady();

  std::vector<Value> list;
  if (values.isArray()) {
    list.assign(values.elements().begin(), values.elements().end());
  } else {
    list.push_back(values);
  }
  std::vector<ManagedObjectPtr> objects;
  for (const Value& objectValues : list) {
    if (!objectValues.isDictionary()) {
      throw ToolError("--values must be a JSON object or an array of objects");
    }
    Error error;
    ManagedObjectPtr object = package.context().insertNewObjectForEntityForName(entity->name(), &error);
    if (!object) throw ToolError(error.localizedDescription());
    setValuesFromJSON(package, *object, objectValues);
    objects.push_back(object);
  }
  if (!objects.empty()) package.save();

  Value paths = Value::array(true);
  for (const auto& object : objects) paths.append(Value::string(objectPath(*object)));
  std::string text = writeJSON(paths, JSONStyle::Compact, nullptr, JSONSlashes::Plain);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
}

void runUpdate(const EditOptions& options) {
  Value values = parseValues(options.values);
  if (!values.isDictionary()) throw ToolError("--values must be a JSON object");
  OpenPackage package(openOptions(options));
  package.waitUntilReady();
  ManagedObjectPtr object = savedObjectForPath(package, options.paths.front());
  setValuesFromJSON(package, *object, values);
  package.save();
}

void runDelete(const EditOptions& options) {
  OpenPackage package(openOptions(options));
  package.waitUntilReady();
  std::vector<ManagedObjectPtr> objects;
  for (const auto& path : options.paths) objects.push_back(savedObjectForPath(package, path));
  for (const auto& object : objects) {
    if (!object->isDeleted()) package.context().deleteObject(object);
  }
  package.save();
}

CLI::App* addEditCommand(CLI::App& app, const std::string& name, const std::string& description,
                         const std::shared_ptr<EditOptions>& options) {
  CLI::App* command = app.add_subcommand(name, description);
  command->add_option("PKG", options->package, "the document package")->required();
  command->add_option("--model", options->model, "the data model file (JSON)")->required();
  command->add_option("--password", options->password, "the document's password");
  return command;
}

}  // namespace

void addEditCommands(CLI::App& app) {
  auto insert = std::make_shared<EditOptions>();
  CLI::App* insertCommand =
      addEditCommand(app, "insert", "insert objects in one save; prints their paths", insert);
  insertCommand->add_option("ENTITY", insert->entity, "the entity of the new objects")->required();
  insertCommand->add_option("--values", insert->values, "a JSON object, or an array of them")
      ->required();
  insertCommand->callback([insert] { runInsert(*insert); });

  auto update = std::make_shared<EditOptions>();
  CLI::App* updateCommand =
      addEditCommand(app, "update", "set values of one object (null clears)", update);
  updateCommand->add_option("PATH", update->paths, "the object as Entity/UID")
      ->required()
      ->expected(1);
  updateCommand->add_option("--values", update->values, "a JSON object")->required();
  updateCommand->callback([update] { runUpdate(*update); });

  auto remove = std::make_shared<EditOptions>();
  CLI::App* deleteCommand = addEditCommand(app, "delete", "delete objects in one save", remove);
  deleteCommand->add_option("PATHS", remove->paths, "the objects as Entity/UID")->required();
  deleteCommand->callback([remove] { runDelete(*remove); });
}

}  // namespace quillon::tool
