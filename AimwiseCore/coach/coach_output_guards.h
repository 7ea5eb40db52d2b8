#pragma once
// What stands between a model's reply and the person. A reply can carry things that were never meant
// for them: a tool call written out as text, a chat template's role tags, one of the conversation's
// own blocks ("[user time=...]") or a line of the prompt echoed back. The leak stripper removes those;
// the sanity checks say when a reply still shows a tool call, says anything at all, or has
// degenerated into repetition. Replies recur on every turn's replay, so results are remembered
// process-wide in LeakStripMemo.
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

// One reply as the guards judged it.
struct ScreenedReply {
    std::string stripped;
    std::optional<std::string> degenerationReason;  // of the stripped text
    bool operator==(const ScreenedReply&) const = default;
};

class LeakStripMemo {
public:
    static constexpr size_t defaultCapacity = 65'535;

    explicit LeakStripMemo(size_t capacity = defaultCapacity) : capacity_(capacity) {}

    // Like the date memo: a memo holding more than `capacity` entries is emptied whole before a store.
    ScreenedReply value(std::string_view text);
    size_t count() const;
    void clear();

    static LeakStripMemo& shared();

private:
    struct Hash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };
    mutable std::mutex lock_;
    std::unordered_map<std::string, ScreenedReply, Hash, std::equal_to<>> entries_;
    size_t capacity_;
};

namespace CoachOutputGuards {
// Idempotent, and a text with nothing to remove comes back byte for byte. Where something was
// removed, the rest is trimmed and runs of blank lines close up.
std::string stripLeakedToolCallSyntaxUncached(std::string_view text);
std::string stripLeakedToolCallSyntax(std::string_view text);
// The stripped text and its degeneration reason, through the shared memo.
ScreenedReply screened(std::string_view text);
// The text without any silence character, trimmed.
std::string withoutSilenceSentinel(std::string_view text);
}  // namespace CoachOutputGuards

namespace CoachSanityChecks {
// The text calls a tool that changes something, as code or as a call object, instead of calling it.
bool showsLeakedStateChangingToolCall(std::string_view text);
// Words reach the person: text besides the silence character, or a call whose `message` they see.
bool hasAnySpokenContent(const ChatResponse& response);
// Why the text has degenerated (one character, pattern, phrase or sentence over and over), in
// counts rather than in the text's own words; nothing for a sound text.
std::optional<std::string> degenerationReason(std::string_view text);
}  // namespace CoachSanityChecks

}  // namespace aimwise
