#pragma once
// How the coach driver and `aimwise chat` meet besides the event log. The log stays the record: the
// chat appends the person's words there, and the driver appends the coach's. What the log cannot
// carry is the reply while it is being written, so the driver listens on a unix socket in the
// person's runtime directory and sends each connected chat one JSON line per event:
//   {"type":"delta","text":"...","thinking":"...","reset":false}   a piece of the reply
//                                                                  (reset: drop what was shown)
//   {"type":"end","text":"..."}                                    the turn's words ("text" absent:
//                                                                  the coach chose silence)
//   {"type":"failed","reason":"..."}                               the turn failed, in the person's words
// An open chat holds a shared lock on a lock file beside the socket, which is how the driver answers
// whether a chat is open. Both names carry a digest of the data root, so two data roots never meet.
#include <filesystem>
#include <optional>
#include <string>

#include "AimwiseCore/models/chat_types.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::ChatChannel {

// $XDG_RUNTIME_DIR/aimwise, else /tmp/aimwise-<uid>; created at 0700. Throws
// std::filesystem::filesystem_error when it cannot be made.
std::filesystem::path runtimeDirectory(const Environment& environment);
std::filesystem::path socketPath(const std::filesystem::path& dataRoot, const Environment& environment);
std::filesystem::path chatLockPath(const std::filesystem::path& dataRoot, const Environment& environment);

// Whether some chat holds the lock file now.
bool isChatOpen(const std::filesystem::path& lockPath);

struct Message {
    enum class Type { delta, end, failed };
    Type type = Type::delta;
    std::string text;
    std::string thinking;
    bool reset = false;
    bool silent = false;  // end: no words
    std::string reason;   // failed
    bool operator==(const Message&) const = default;
};
// One line, newline included.
std::string encode(const Message& message);
// Nothing for a line that is not a message.
std::optional<Message> decode(std::string_view line);

}  // namespace aimwise::ChatChannel
