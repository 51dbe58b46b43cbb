#include "quillon/changes/change.h"

#include "quillon/store/store.h"

namespace quillon {

QuillonChange::QuillonChange(QuillonStore* store, double date) : store_(store), date_(date) {}

void QuillonChange::addChange(const Value&, std::string_view, std::string_view,
                              std::string_view) {
  // PENDING
}

const std::string& QuillonChange::name() {
  // PENDING
  return name_;
}

std::string QuillonChange::fileName() {
  // PENDING
  return {};
}

Value QuillonChange::dictionary() {
  // PENDING
  return Value();
}

Value QuillonChange::insertedUIDs() {
  // PENDING
  return Value();
}

Value QuillonChange::updatedUIDs() {
  // PENDING
  return Value();
}

Value QuillonChange::deletedUIDs() {
  // PENDING
  return Value();
}

void QuillonChange::saveToStore(QuillonStore*) {
  // PENDING
}

void QuillonStore::insertChange(const Url&) {
  // PENDING
}

void QuillonStore::writeFakeChangeToURL(const Url&, const Value&) {
  // PENDING
}

std::vector<Url> QuillonStore::changesFilesFor(const EntityDescription&, const std::string&) {
  // PENDING
  return {};
}

}  // namespace quillon
