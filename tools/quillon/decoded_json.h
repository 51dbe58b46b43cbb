#pragma once

#include <string>

#include "quillon/base/value.h"

namespace quillon::tool {

// The JSON text of a decoded DenseCoding graph: dictionaries as objects in
// stored order (a key that is not a string becomes the compact JSON text of
// its own form), arrays, sets and ordered sets as arrays, nil and null as
// null, numbers as numbers, and the other kinds as one-key objects: data
// {"$base64"}, dates {"$date"}, decimals {"$decimal"}, URLs {"$url", "$base"},
// geometry values {"$point"} … {"$transform3d"}, index sets {"$indexes"},
// objects {"$class", properties…}. A container met again inside itself is
// {"$cycle": true}. Raises ToolError when the graph expands beyond what can
// sensibly be printed (shared values are printed in full each time).
std::string decodedValueAsJSON(const Value& root);

}  // namespace quillon::tool
