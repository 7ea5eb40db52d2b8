#pragma once
// What decides whether a tool call takes effect: the argument parsers and the guard that keeps the
// coach from recording a link only it proposed. None of these throws; a call that cannot be used is a
// value saying why, and the model is told in these words.
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/events/json_value.h"

namespace aimwise {

namespace CoachToolArguments {
// The arguments as an object: an object as it stands, or a text that holds one (some servers send
// arguments as a JSON string). Anything else gives nothing.
std::optional<JSONValue> object(const JSONValue& arguments);
// A string member, trimmed; nothing when absent, not a string or blank.
std::optional<std::string> nonBlankString(const JSONValue& object, const char* key);
}  // namespace CoachToolArguments

struct WriteCurrentIntentionArguments {
    struct Usable {
        std::string notes;
        std::optional<int64_t> horizonMinutes;
        bool operator==(const Usable&) const = default;
    };
    struct Malformed {
        std::string reason;
        bool operator==(const Malformed&) const = default;
    };
    std::variant<Usable, Malformed> value;
    bool operator==(const WriteCurrentIntentionArguments&) const = default;
};

WriteCurrentIntentionArguments parseWriteCurrentIntentionArguments(const JSONValue& value);

namespace GoQuietArguments {
inline constexpr double minMinutes = 5;
inline constexpr double maxMinutes = 1440;

struct Minutes {
    double requested = 0;
    double applied = 0;
    bool operator==(const Minutes&) const = default;
};
struct RestOfDay {
    bool operator==(const RestOfDay&) const = default;
};
struct Malformed {
    bool operator==(const Malformed&) const = default;
};
using Parsed = std::variant<Minutes, RestOfDay, Malformed>;

Parsed parse(const JSONValue& value);
// What the model is told its call did.
std::string resultText(const JSONValue& value);
// "30", "2.5": minutes as a person would write them.
std::string minutesText(double minutes);
}  // namespace GoQuietArguments

namespace CorrectJudgmentGuard {
enum class Verdict { allowed, bareAnswerToOwnQuestion };
std::string_view rawValue(Verdict verdict);

inline constexpr const char* detailKey = "correct_judgment_refused";
inline constexpr const char* refusalResult =
    "Not recorded — their reply was only a yes or no to your own question, so the link would be your guess "
    "rather than a fact they stated. If it matters, ask them to say it in their own words.";
inline constexpr const char* refusalDisplayDetail =
    "Not recorded: the reply was only a yes or no to the coach's own question, so the link would have been the "
    "coach's guess.";

// Walking back from the newest event (events in time order) to the last "coach_checkin": a newest
// reply of theirs made only of yes/no words, given to a message of the coach's, is refused. A turn
// that opens a check-in answers no reply of theirs at all, so a link it recorded could only be the
// coach's own guess: it is always refused.
Verdict verdict(const std::vector<EventLogEvent>& events, bool opensCheckin);
// "yeees" -> "yes": every run of one letter becomes one letter.
std::string collapseRepeats(std::string_view word);
const std::set<std::string, std::less<>>& yesNoWords();
// Every word of the text, lowercased and collapsed, is a yes/no word.
bool isBareYesNo(std::string_view text);
}  // namespace CorrectJudgmentGuard

}  // namespace aimwise
