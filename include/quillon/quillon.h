#pragma once

// Quillon: an application's object graph kept in a document package of
// append-only files that several computers share through any file
// synchronisation service. This is the one header an application includes.
//
// Start with QuillonPackage (opening a document, saving, hearing other
// computers' changes); examples/hello is a whole program on this header.

#include "quillon/base/env.h"
#include "quillon/base/error.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/url.h"
#include "quillon/base/value.h"
#include "quillon/base/version.h"
#include "quillon/graph/entity_description.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_context.h"
#include "quillon/graph/managed_object_id.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/graph/predicate.h"
#include "quillon/graph/sort_descriptor.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/managed_object_context.h"
#include "quillon/store/persistent_store_coordinator.h"
#include "quillon/store/quillon.h"
#include "quillon/store/quillon_package.h"
#include "quillon/store/store.h"
