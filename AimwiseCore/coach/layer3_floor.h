#pragma once
// The floor pins what the conversation path may ever show: nothing before it. It is written once and
// then only read, and a file that does not decode is never written over, so a damaged floor cannot
// make a conversation the person left behind reappear.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "AimwiseCore/events/event_log_event.h"

namespace aimwise::Layer3Floor {

using Log = std::function<void(const std::string&)>;

inline constexpr const char* fileName = "layer3-floor.json";
// <dataRoot>/io-layer/layer3-floor.json
std::filesystem::path path(const std::filesystem::path& dataRoot);

// {"floorTsMs": N}; nothing unless that key holds a whole number.
std::optional<int64_t> decode(std::string_view text);
std::string encode(int64_t floorMs);

// The start of the newest onboarding after the newest onboarding reset, or nothing.
std::optional<int64_t> onboardingStartFloor(std::span<const EventLogEvent> events);

// The stored floor; else, with no file, the onboarding start or `asOfMs`, saved for next time. A file
// that cannot be read or decoded is left alone and `asOfMs` stands in for this run.
int64_t resolve(const std::filesystem::path& dataRoot, int64_t asOfMs, std::span<const EventLogEvent> events,
                const Log& log);

}  // namespace aimwise::Layer3Floor
