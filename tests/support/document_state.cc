#include "support/document_state.h"

#include <algorithm>
#include <set>

#include "quillon/base/internal/base64.h"
#include "quillon/base/json.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/store/object_uid.h"

namespace quillon::testing {
namespace {

Value sortedPaths(const std::set<std::string>& paths) {
  Value array = Value::mutableArray();
  for (const std::string& path : paths) array.append(Value::string(path));
  return array;
}

std::set<std::string> pathSet(const Value& array) {
  std::set<std::string> paths;
  for (const Value& v : array.elements()) {
    if (v.isString()) paths.insert(std::string(v.str()));
  }
  return paths;
}

}  // namespace

Value stateFromRecords(const PackageReader& reader) {
  struct Object {
    Value values = Value::mutableDictionary();
    std::set<std::string> notes;
  };
  std::map<std::string, Object> objects;
  for (const PackageReader::Record& record : reader.records()) {
    const std::string path = record.entity + "/" + record.uid;
    const Value& type = record.content.get("type");
    if (type == Value::string("delete")) {
      objects.erase(path);
      continue;
    }
    Object& object = objects[path];
    for (const auto& [key, entry] : record.content.get("payload").items()) {
      const std::string name(key.str());
      const Value* value = entry.find("value");
      if (record.entity == "Folder" && name == "notes") {
        for (const Value& added : entry.get("addedValues").elements())
          object.notes.insert(std::string(added.str()));
        for (const Value& removed : entry.get("removedValues").elements())
          object.notes.erase(std::string(removed.str()));
        continue;
      }
      const bool known = (record.entity == "Folder" && name == "name") ||
                         (record.entity == "Note" &&
                          (name == "title" || name == "folder" || name == "data"));
      if (!known) continue;
      if (!value || value->isNil() || (value->isArray() && value->empty())) {
        object.values.erase(Value::string(name));
      } else if (name == "folder") {
        object.values.set(Value::string(name), (*value)[0]);
      } else if (name == "data") {
        auto bytes = reader.readFile("Entities/" + reader.entityKey("Note") + "/" + record.uid +
                                     "/Data/" + std::string(value->str()));
        object.values.set(Value::string(name),
                          bytes ? Value::string(base64Encode(*bytes)) : Value::string("<missing>"));
      } else {
        object.values.set(Value::string(name), *value);
      }
    }
  }
  Value state = Value::mutableDictionary();
  for (auto& [path, object] : objects) {
    if (path.starts_with("Folder/")) {
      object.values.set(Value::string("notes"), sortedPaths(object.notes));
    }
    state.set(Value::string(path), object.values);
  }
  return state;
}

Value stateFromFetch(const Value& folders, const Value& notes) {
  Value state = Value::mutableDictionary();
  for (const Value& folder : folders.elements()) {
    Value values = Value::mutableDictionary();
    if (folder.get("name").isString()) values.set(Value::string("name"), folder.get("name"));
    values.set(Value::string("notes"), sortedPaths(pathSet(folder.get("notes"))));
    state.set(folder.get("$id"), values);
  }
  for (const Value& note : notes.elements()) {
    Value values = Value::mutableDictionary();
    if (note.get("title").isString()) values.set(Value::string("title"), note.get("title"));
    if (note.get("folder").isString()) values.set(Value::string("folder"), note.get("folder"));
    const Value& data = note.get("data").get("$base64");
    if (data.isString()) values.set(Value::string("data"), data);
    state.set(note.get("$id"), values);
  }
  return state;
}

Value stateFromContext(ManagedObjectContext& context) {
  auto pathOf = [](const Value& member) -> std::string {
    auto object = std::dynamic_pointer_cast<ManagedObject>(member.objectValue());
    return object && object->objectID() ? storeSavePath(*object->objectID()) : std::string();
  };
  Value state = Value::mutableDictionary();
  for (const ManagedObjectPtr& folder : context.fetchObjects(FetchRequest("Folder"))) {
    Value values = Value::mutableDictionary();
    Value name = folder->value("name");
    if (name.isString()) values.set(Value::string("name"), name);
    std::set<std::string> notes;
    Value members = folder->value("notes");
    if (members.isContainer()) {
      for (const Value& member : members.elements()) notes.insert(pathOf(member));
    }
    values.set(Value::string("notes"), sortedPaths(notes));
    state.set(Value::string(storeSavePath(*folder->objectID())), values);
  }
  for (const ManagedObjectPtr& note : context.fetchObjects(FetchRequest("Note"))) {
    Value values = Value::mutableDictionary();
    Value title = note->value("title");
    if (title.isString()) values.set(Value::string("title"), title);
    Value folder = note->value("folder");
    if (!folder.isNil()) values.set(Value::string("folder"), Value::string(pathOf(folder)));
    Value data = note->value("data");
    if (data.isData()) values.set(Value::string("data"), Value::string(base64Encode(data.bytes())));
    state.set(Value::string(storeSavePath(*note->objectID())), values);
  }
  return state;
}

std::vector<std::string> stateDifferences(const Value& expected, const Value& actual) {
  std::vector<std::string> lines;
  for (const auto& [path, values] : expected.items()) {
    const Value* other = actual.find(path);
    if (!other) {
      lines.push_back(std::string(path.str()) + ": missing");
    } else if (*other != values) {
      lines.push_back(std::string(path.str()) + ": " + writeJSON(values) + " but " +
                      writeJSON(*other));
    }
  }
  for (const auto& [path, values] : actual.items()) {
    if (!expected.find(path)) lines.push_back(std::string(path.str()) + ": unexpected");
  }
  return lines;
}

}  // namespace quillon::testing
