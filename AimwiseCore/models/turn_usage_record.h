#pragma once
// What one coach turn cost: a line of turn-usage.jsonl in the data root, and the usage line the
// driver writes to its own log.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/events/json_value.h"
#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

struct TurnUsageRecord {
    static constexpr int64_t currentVersion = 1;
    static constexpr const char* fileName = "turn-usage.jsonl";

    int64_t v = currentVersion;
    int64_t atMs = 0;
    std::string layer;
    std::optional<std::string> provider;
    std::optional<std::string> servedModel;
    std::optional<std::string> generationID;
    int64_t promptTokens = 0;
    int64_t completionTokens = 0;
    std::optional<int64_t> cachedPromptTokens;
    std::optional<int64_t> reasoningTokens;
    std::optional<double> costUSD;
    int64_t callCount = 0;
    bool servedByFallback = false;
    std::optional<std::string> buildVersion;

    // Nothing when the reply reported no usage: there is no cost to record.
    static std::optional<TurnUsageRecord> from(const ChatResponse& response, std::string layer, int64_t atMs,
                                               std::optional<std::string> buildVersion = std::nullopt);

    // Absent fields are left out.
    JSONValue::Object encoded() const;
    // Nothing unless the required keys are there with the right types.
    static std::optional<TurnUsageRecord> decode(const JSONValue& value);

    // One write per line to <dataRoot>/turn-usage.jsonl. Throws JSONLAppend::AppendError or
    // std::filesystem::filesystem_error.
    void append(const std::filesystem::path& dataRoot) const;

    bool operator==(const TurnUsageRecord&) const = default;
};

namespace TurnUsageLog {

// "usage: prompt=…" for the driver's log, or the line that says none was reported.
std::string line(const std::optional<ChatUsage>& usage);

}  // namespace TurnUsageLog
}  // namespace aimwise
