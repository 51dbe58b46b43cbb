#include "quillon/store/object_record.h"

#include "quillon/graph/managed_object.h"
#include "quillon/store/store.h"

namespace quillon {

void saveFromStore(ManagedObject&, QuillonStore*, QuillonStore*, QuillonChange*, const Value&,
                   std::string_view) {
  // PENDING
}

void saveToStore(ManagedObject&, QuillonStore*, std::string_view) {
  // PENDING
}

void saveToStoreWithChange(ManagedObject&, QuillonStore*, QuillonChange*, std::string_view) {
  // PENDING
}

void saveFromStore(ManagedObject&, QuillonStore*, QuillonStore*, std::string_view) {
  // PENDING
}

void saveFromStore(ManagedObject&, QuillonStore*, QuillonStore*, QuillonChange*,
                   std::string_view) {
  // PENDING
}

Value applyOptions(const ManagedObject&, const Value&, const Value&, std::string_view) {
  // PENDING
  return Value();
}

Url URLForStore(ManagedObject&, QuillonStore*, QuillonStore*) {
  // PENDING
  return Url();
}

Value quillonCacheValueForKey(const ManagedObject&, const std::string&) {
  // PENDING
  return Value();
}

void setQuillonCacheValue(const ManagedObject&, const Value&, const std::string&) {
  // PENDING
}

void quillonResetCacheValues(const ManagedObject&) {
  // PENDING
}

std::string QuillonURL(const ManagedObject&) {
  // PENDING
  return {};
}

void setQuillonResourceDirectory(std::string) {
  // PENDING
}

}  // namespace quillon
