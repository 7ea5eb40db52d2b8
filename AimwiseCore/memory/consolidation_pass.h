#pragma once
// The nightly "dream": the event log becomes memory in three model-backed steps. A digest distils one
// finished period into a PeriodDigest; a regeneration organises every digest into the standing
// memory; a fold carries one digest at a time into the sequential standing memory.
//
// The design is shaped by failure. A reply that cannot be used degrades in the open: a digest that
// cannot be read is written empty and marked salvaged, so that the pass moves on and the period is
// never retried; a regeneration that cannot be read keeps every candidate unorganised and is redone
// by the next pass. A pass stopped between calls keeps every digest written so far, and the next pass
// carries on from the next period. A failed model call writes nothing for its period.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "AimwiseCore/coach/coach_correction.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/memory/dream_guardrails.h"
#include "AimwiseCore/memory/memory_records.h"
#include "AimwiseCore/memory/period_rendering.h"
#include "AimwiseCore/models/model_backend.h"
#include "CaptureShared/common/clock.h"

namespace aimwise::MemoryConsolidation {

using Log = std::function<void(const std::string& line)>;

inline constexpr int64_t defaultStepIntervalSec = 86'400;
inline constexpr const char* quietSummary = "(quiet period, nothing logged)";
inline constexpr const char* failedSummary = "(digest failed: model response was truncated or unparseable)";
// Events stamped before this (2000-01-01) are a writer's mistake, not history: a stray 0 would
// otherwise open decades of empty periods.
inline constexpr int64_t earliestPlausibleEventMs = 946'684'800'000;

struct Period {
    int64_t startMs = 0;
    int64_t endMs = 0;
    bool operator==(const Period&) const = default;
};

// Whole, finished periods on a grid of `stepIntervalSec` counted from the epoch, from the end of the
// last digest (or the earliest event's period) up to the one running at `asOfMs`, which is left alone.
std::vector<Period> pendingPeriods(std::optional<int64_t> lastDigestedPeriodEndMs,
                                   std::optional<int64_t> earliestEventMs, int64_t asOfMs,
                                   int64_t stepIntervalSec);

// The facts and lessons a regeneration or fold chooses from: in digest order, each text once.
struct Candidates {
    std::vector<MemoryFact> facts;
    std::vector<std::string> lessons;
};
Candidates candidatesOf(const std::vector<PeriodDigest>& digests, const StandingMemory* prior = nullptr);

// The single user message of each call.
std::string digestMessage(const PeriodRendering::Rendered& rendered);
std::string regenerationMessage(const std::vector<PeriodDigest>& digests, const Candidates& candidates,
                                const std::vector<CoachCorrection>& corrections);
std::string foldMessage(const std::optional<StandingMemory>& prior, const PeriodDigest& digest,
                        const Candidates& candidates, const std::vector<CoachCorrection>& corrections);

// `events` are the period's. No model call for a period with nothing to render. Throws what the
// backend throws.
PeriodDigest digestPeriod(std::span<const EventLogEvent> events, Period period, int64_t generatedAtMs,
                          ModelBackend& backend, const ChatOptions& options, const Log& log);
// Draws a fresh sampling seed for the call and keeps it in `seed`.
StandingMemory regenerateStandingMemory(std::vector<PeriodDigest> digests,
                                        const std::vector<CoachCorrection>& corrections,
                                        int64_t regeneratedAtMs, ModelBackend& backend, ChatOptions options,
                                        const Log& log);
StandingMemory foldDigest(const std::optional<StandingMemory>& prior, const PeriodDigest& digest,
                          const std::vector<CoachCorrection>& corrections, int64_t foldedAtMs,
                          ModelBackend& backend, ChatOptions options, const Log& log);
// A reply that parsed and yet did nothing: no threads, every candidate fact kept, and at least five
// candidate facts or lessons to organise.
std::optional<std::string> degenerateStandingMemoryReason(const StandingMemory& memory,
                                                          const std::vector<PeriodDigest>& digests);

struct PassStop {
    enum class Kind { guardrail, yielded, lockHeld };
    Kind kind = Kind::yielded;
    std::string reason;
    bool operator==(const PassStop&) const = default;
};
struct Completed {
    int64_t digestsWritten = 0;
    int64_t digestsFolded = 0;
    bool operator==(const Completed&) const = default;
};
struct Stopped {
    PassStop stop;
    int64_t digestsWritten = 0;
    int64_t digestsFolded = 0;
    bool operator==(const Stopped&) const = default;
};
struct NothingPending {
    bool operator==(const NothingPending&) const = default;
};
using PassOutcome = std::variant<Completed, Stopped, NothingPending>;

struct PassContext {
    std::filesystem::path dataRoot;
    int64_t asOfMs = 0;
    ModelBackend* backend = nullptr;
    int64_t stepIntervalSec = defaultStepIntervalSec;
    ChatOptions options;
    // Asked before every model call. A pause or an abort stops the pass; low power turns thinking off.
    std::function<DreamGuardrails::Decision()> checkpoint;
    // Asked before every model call too: a reason to stand down (the person came back), or nothing.
    std::function<std::optional<std::string>()> shouldYield;
    Log log;
    // Stamps the digests and memories with when they were made.
    const Clock* clock = &Clock::system();
    // Events for io-layer/events.jsonl (a failed pass, a degenerate memory).
    std::function<void(const EventLogEvent&)> record;
    // When `events` hold only the kinds a digest renders: the first event of any kind, where the
    // periods start (PeriodRendering::readForDigests gives both).
    std::optional<int64_t> earliestEventMs;
};

// `events` sorted by time, as EventLogReader gives them. Every pass honours the wipe and forget logs,
// and holds the dream lock (memory/.dream.lock) while it writes. Throws what a model call or a write
// throws, after recording memory_consolidation_failed; a cancelled model call stops the pass instead.
PassOutcome runPass(std::span<const EventLogEvent> events, const PassContext& context);
// Digests as runPass does, then folds every digest not yet in the sequential memory, oldest first.
PassOutcome runSequentialPass(std::span<const EventLogEvent> events, const PassContext& context);
// Folds digests already on disk, at most `limit` of them when given.
PassOutcome backfillSequential(const PassContext& context, std::optional<int64_t> limit);

}  // namespace aimwise::MemoryConsolidation
