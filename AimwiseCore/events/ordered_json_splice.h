#pragma once
// Puts an already-rendered value into a serialised JSON object without re-serialising it, so that
// every other byte (and so a provider's prompt cache) stays as it was.
#include <optional>
#include <string>
#include <string_view>

namespace aimwise::OrderedJSONSplice {

// `data` with `"key":rawJSON` placed directly after the object's opening brace, followed by a comma
// unless the object was empty. Nothing when `data` does not start (after blanks) with '{'.
std::optional<std::string> insert(std::string_view rawJSON, std::string_view forKey, std::string_view into);

}  // namespace aimwise::OrderedJSONSplice
