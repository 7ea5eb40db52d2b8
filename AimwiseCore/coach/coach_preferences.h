#pragma once
// coach-preferences.json in the data root: the person's own notes to the gate, the coach and the
// classifier, and a few switches. Every key may be absent and then has its default; a file that is
// missing or does not decode counts as absent, so a damaged file never stops the coach.
#include <filesystem>
#include <optional>
#include <string>

namespace aimwise {

struct CoachPreferences {
    std::string gateInstructions;
    std::string coachInstructions;
    std::string classifierInstructions;
    bool standingMemoryEnabled = true;
    bool medsRemindersEnabled = false;
    bool pauseMediaOnCheckinEnabled = true;
    bool developerModeEnabled = false;
    bool operator==(const CoachPreferences&) const = default;
};

namespace CoachPreferencesStore {
std::filesystem::path path(const std::filesystem::path& dataRoot);
// A key whose value has the wrong type keeps its default; the others still apply.
CoachPreferences decode(std::string_view text);
CoachPreferences read(const std::filesystem::path& dataRoot);
// Replaces the file as a whole, mode 0600. Throws std::filesystem::filesystem_error.
void write(const CoachPreferences& preferences, const std::filesystem::path& dataRoot);
// The value the file itself gives medsRemindersEnabled, as distinct from the default; nothing when
// the key is absent, null or not a boolean.
std::optional<bool> explicitMedsRemindersEnabled(const std::filesystem::path& dataRoot);
}  // namespace CoachPreferencesStore

// The person's note as a prompt carries it: the lead, ": ", and the trimmed text in double quotes;
// nothing for a note that trims to nothing.
namespace UserStandingInstructionsRendering {
std::optional<std::string> forGate(const std::string& text);
std::optional<std::string> forCoach(const std::string& text);
std::optional<std::string> forClassifier(const std::string& text);
}  // namespace UserStandingInstructionsRendering

}  // namespace aimwise
