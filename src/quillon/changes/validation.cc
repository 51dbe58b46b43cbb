// The store's side of validation: QuillonChangeValidator checks change files
// and their records.

#include "quillon/changes/change_validator.h"
#include "quillon/store/store.h"

namespace quillon {

Value QuillonStore::combineChangeDictionary(const Value& first, const Value& second) {
  return QuillonChangeValidator::combineChangeDictionary(first, second);
}

std::string QuillonStore::shortURL(const Url& url) const { return layout().shortText(url); }

Value QuillonStore::validatedChanges(const Value& change, bool lightWeight, Value* loadedItems) {
  return validator_->validate(change, lightWeight, loadedItems, recover());
}

}  // namespace quillon
