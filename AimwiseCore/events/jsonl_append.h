#pragma once
// Appends one row to any of the system's other JSON-lines logs, with the same one-write-per-line
// guarantee as the event log.
#include <filesystem>

#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/events/json_value.h"

namespace aimwise::JSONLAppend {

// The same three cases, in the same words.
using AppendError = EventLogWriterError;

// Keys are written sorted. Throws AppendError, or std::filesystem::filesystem_error when the parent
// directory cannot be created.
void append(const JSONValue::Object& row, const std::filesystem::path& to);

}  // namespace aimwise::JSONLAppend
