#pragma once
// What a program started by a timer said when it last failed. A tick that runs every minute against
// an unmounted disk would otherwise write the same sentence to its log every minute; it is said
// once, and again only when the failure changes or after a run that did not fail this way.
#include <filesystem>
#include <string>

namespace aimwise::FailureMemory {

// Whether `description` differs from the failure last remembered in `file`; remembers it. Any
// trouble with the file counts as new, so a failure is never kept quiet by a fault of our own.
bool isNew(const std::filesystem::path& file, const std::string& description);
void forget(const std::filesystem::path& file);

}  // namespace aimwise::FailureMemory
