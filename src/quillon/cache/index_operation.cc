#include "quillon/cache/index_operation.h"

#include "quillon/cache/cache.h"

namespace quillon {

// PENDING
QuillonIndexOperation::QuillonIndexOperation(std::shared_ptr<QuillonCache> cache,
                                             const EntityDescription* entity,
                                             OperationQueue* queue)
    : cache_(std::move(cache)), entity_(entity), queue_(queue) {}

// PENDING
void QuillonIndexOperation::main() {}

// PENDING
QuillonIndexLoadOperation::QuillonIndexLoadOperation(std::shared_ptr<QuillonCache> cache,
                                                     const EntityDescription* entity,
                                                     std::string uid)
    : cache_(std::move(cache)), entity_(entity), uid_(std::move(uid)) {}

// PENDING
void QuillonIndexLoadOperation::main() {}

}  // namespace quillon
