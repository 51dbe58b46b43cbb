#include "quillon/store/request_item.h"

namespace quillon {
// PENDING
}  // namespace quillon
