#pragma once
// Recognising the system's own window in front, which says nothing about the intention.
#include <array>
#include <optional>
#include <string>

namespace aimwise::ClassifierSelfObservation {

inline constexpr const char* abstainedState = "ABSTAINED";
inline constexpr const char* abstainedReason =
    "Merl's own window was frontmost, which says nothing about your intention — not judged.";
inline constexpr const char* currentAppName = "Veska";
// Earlier names of the app, still found in old records.
inline constexpr std::array<const char*, 4> historicalAppNames = {"Aimwise", "AimwiseApp", "Merl", "Korvel"};

// A live judgment: the app under its present name only.
bool isOwnWindowNow(const std::optional<std::string>& frontmostApp);
// History: the present name or any earlier one.
bool isSelfObservation(const std::optional<std::string>& frontmostApp);
// A logged tick: an ABSTAINED state first (exact), then the name test.
bool isSelfObservation(const std::string& tickState, const std::optional<std::string>& frontmostApp);

}  // namespace aimwise::ClassifierSelfObservation
