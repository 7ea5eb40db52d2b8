#pragma once
// Which task is declared now, read cheaply from the end of the event log: the newest
// "task_declared" or "task_cleared" line wins. Capture-side processes ask this often, so the answer
// is cached process-wide against the file's identity and only new bytes are scanned.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/events/json_value.h"

namespace aimwise::EventLog {

inline constexpr int64_t windowBytes = 65536;

// io-layer/events.jsonl under AIMCAP_DATA_ROOT, else the configured root, else the unconfigured one.
std::filesystem::path path();

// The declared task's text; empty after "task_cleared"; nothing without a readable log or a task
// event. Serialised by one process-wide lock.
std::optional<std::string> read();
std::optional<std::string> read(const std::filesystem::path& at);

// One task event as text: "Task: ...\nDeclared: ...\n" and optional estimate and why lines.
std::optional<std::string> taskFileBody(std::string_view type, const JSONValue* detail, int64_t tsMs);

struct Statistics {
    int64_t windowReads = 0;  // 64 KiB windows read by backwards scans
    int64_t appendedScans = 0;
    int64_t bytesRead = 0;
};
Statistics statistics();
// Forgets the cache and zeroes the statistics.
void resetForTesting();

}  // namespace aimwise::EventLog
