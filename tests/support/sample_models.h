#pragma once

#include <memory>
#include <string_view>

#include "quillon/graph/managed_object_model.h"

namespace quillon {

// A small model that exercises every kind of property and delete rule:
// Folder ⇄ Note (cascade / nullify), Note ⇄ Tag (ordered to-many), Person's
// one-to-one spouse and Person ⇄ Pet (deny), and an abstract Item with the
// sub-entities Book and Album.
inline constexpr std::string_view kNotesModelJSON = R"json({"entities": [
  {"name": "Folder",
   "attributes": [{"name": "name", "type": "string", "optional": false}],
   "relationships": [{"name": "notes", "destination": "Note", "toMany": true,
                      "inverse": "folder", "deleteRule": "cascade"}]},
  {"name": "Note",
   "attributes": [
     {"name": "title", "type": "string", "optional": false},
     {"name": "body", "type": "string", "maxValue": 20},
     {"name": "code", "type": "string", "regularExpression": "[A-Z]{3}"},
     {"name": "priority", "type": "integer16", "default": 1, "minValue": 0, "maxValue": 10},
     {"name": "score", "type": "double"},
     {"name": "created", "type": "date", "minValue": 0},
     {"name": "data", "type": "binary"},
     {"name": "link", "type": "uri"}],
   "relationships": [
     {"name": "folder", "destination": "Folder", "inverse": "notes", "deleteRule": "nullify"},
     {"name": "tags", "destination": "Tag", "toMany": true, "ordered": true,
      "inverse": "notes", "deleteRule": "nullify", "maxCount": 3}]},
  {"name": "Tag",
   "attributes": [{"name": "name", "type": "string"}],
   "relationships": [{"name": "notes", "destination": "Note", "toMany": true,
                      "inverse": "tags", "deleteRule": "nullify"}]},
  {"name": "Person",
   "attributes": [{"name": "name", "type": "string"}, {"name": "age", "type": "integer32"}],
   "relationships": [
     {"name": "spouse", "destination": "Person", "inverse": "spouse"},
     {"name": "pets", "destination": "Pet", "toMany": true, "inverse": "owner",
      "deleteRule": "deny", "minCount": 2}]},
  {"name": "Pet",
   "attributes": [{"name": "name", "type": "string"}],
   "relationships": [{"name": "owner", "destination": "Person", "inverse": "pets",
                      "optional": false}]},
  {"name": "Item", "abstract": true,
   "attributes": [{"name": "label", "type": "string"}]},
  {"name": "Book", "parent": "Item",
   "attributes": [{"name": "pages", "type": "integer32"}]},
  {"name": "Album", "parent": "Item",
   "attributes": [{"name": "tracks", "type": "integer16"}]}
]})json";

// The model above, parsed; aborts the test run if it does not parse.
std::shared_ptr<const ManagedObjectModel> notesModel();

}  // namespace quillon
