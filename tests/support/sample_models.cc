#include "support/sample_models.h"

#include <cstdio>
#include <cstdlib>

namespace quillon {

std::shared_ptr<const ManagedObjectModel> notesModel() {
  static const std::shared_ptr<const ManagedObjectModel> model = [] {
    Error error;
    auto m = ManagedObjectModel::fromJSON(kNotesModelJSON, &error);
    if (!m) {
      std::fprintf(stderr, "sample model: %s\n", error.localizedDescription().c_str());
      std::abort();
    }
    return m;
  }();
  return model;
}

}  // namespace quillon
