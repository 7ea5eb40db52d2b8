#pragma once
// The JSON value carried by tool specs and tool calls. Insertion order is kept, because a tool's
// parameter schema reaches the model as written and the prompt cache depends on its bytes.
// The event log's own value type is a separate concern; converting to it is the caller's business.
#include <nlohmann/json.hpp>

namespace aimwise {

using ChatJSON = nlohmann::ordered_json;

}  // namespace aimwise
