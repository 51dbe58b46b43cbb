#pragma once

#include <string>

#include "quillon/base/value.h"

namespace quillon {

// Where a long write reports how far it got: a busy sheet, a progress bar,
// a test. Handed to QuillonStore::writeAllObjectsInContext inside the
// options as a Value::object; owned by whoever made it; setProgress is
// called on the main thread only.
class QuillonProgressSink : public Object {
 public:
  // A fraction from 0 to 1.
  virtual void setProgress(double fraction) = 0;
  std::string className() const override { return "QuillonProgressSink"; }
};

}  // namespace quillon
