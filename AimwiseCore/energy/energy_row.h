#pragma once
// One run of work and what it cost: a line of one of the energy files in the data root. Every kind
// of work writes the same keys, so one reader serves the report.
//
//   classifier-tick-energy.jsonl   "judged"   a tick that judged (rows without "kind" are judged too)
//   classifier-skip-energy.jsonl   "skipped"  a tick that chose not to judge
//   coach-turn-energy.jsonl        "gate"     a coach gate call
//                                  "turn"     a coach turn
//   dream-energy.jsonl             "pass"     a nightly consolidation pass
//
// Keys, all optional apart from "v", "kind" and "atMs"; a reading that was not taken is left out,
// never written as zero:
//   atMs              when the row was made
//   startMs, endMs    wall-clock bounds of the battery readings (the judgment itself, for a tick)
//   wallMs            the whole run, from the monotonic clock, so a clock change cannot stretch it
//   cpuMs             user and system CPU time of our process during the run
//   childCpuMs        the same for the helper processes it started and waited for
//   onAC              whether the machine ran on mains power throughout
//   before, after     the battery's counters (BatteryTelemetry::toJSON's keys)
//   model, promptTokens, completionTokens
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/events/json_value.h"
#include "platform/power_source.h"

namespace aimwise {

enum class EnergyKind { judged, skipped, gate, turn, pass };

namespace EnergyKinds {
inline constexpr EnergyKind all[] = {EnergyKind::judged, EnergyKind::skipped, EnergyKind::gate,
                                     EnergyKind::turn, EnergyKind::pass};
// "judged", "skipped", "gate", "turn", "pass".
const char* name(EnergyKind kind);
std::optional<EnergyKind> named(std::string_view name);
// The file in the data root that rows of this kind are appended to.
const char* fileName(EnergyKind kind);
}  // namespace EnergyKinds

inline constexpr const char* skipEnergyFileName = "classifier-skip-energy.jsonl";
inline constexpr const char* coachEnergyFileName = "coach-turn-energy.jsonl";
inline constexpr const char* dreamEnergyFileName = "dream-energy.jsonl";

struct EnergyRow {
    EnergyKind kind = EnergyKind::judged;
    int64_t atMs = 0;
    std::optional<int64_t> startMs;
    std::optional<int64_t> endMs;
    std::optional<int64_t> wallMs;
    std::optional<int64_t> cpuMs;
    std::optional<int64_t> childCpuMs;
    std::optional<bool> onAC;
    std::optional<PowerSource::BatteryReading> before;
    std::optional<PowerSource::BatteryReading> after;
    std::optional<std::string> model;
    std::optional<int64_t> promptTokens;
    std::optional<int64_t> completionTokens;

    bool operator==(const EnergyRow&) const = default;
};

namespace EnergyLog {

inline constexpr int version = 1;

JSONValue::Object encode(const EnergyRow& row);
// Nothing for a line that is not a row: torn, not JSON, without a known kind or a time. Keys this
// version does not know are ignored, so rows from a later version still count.
std::optional<EnergyRow> decode(std::string_view line, std::optional<EnergyKind> fileDefault = std::nullopt);
// Appends to the kind's file in `dataRoot`. Throws JSONLAppend::AppendError or
// std::filesystem::filesystem_error.
void append(const EnergyRow& row, const std::filesystem::path& dataRoot);

}  // namespace EnergyLog
}  // namespace aimwise
