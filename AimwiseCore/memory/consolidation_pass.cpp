#include "AimwiseCore/memory/consolidation_pass.h"

#include <algorithm>
#include <random>
#include <set>
#include <unordered_set>

#include "AimwiseCore/memory/consolidation_events.h"
#include "AimwiseCore/memory/consolidation_prompts.h"
#include "AimwiseCore/memory/consolidation_replies.h"
#include "AimwiseCore/memory/dream_lock.h"
#include "AimwiseCore/memory/memory_forget.h"
#include "AimwiseCore/memory/memory_store.h"
#include "AimwiseCore/memory/memory_wipe.h"
#include "AimwiseCore/models/cancellation.h"
#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise::MemoryConsolidation {

namespace fs = std::filesystem;

namespace {

// Any value below 2^31 fits every backend's seed field.
constexpr int seedBound = 0x7fffffff;

int drawSeed() {
    std::random_device device;
    return static_cast<int>(device() % static_cast<unsigned>(seedBound));
}

std::string when(int64_t ms) {
    return ISODate::format(ms);
}
std::string flag(bool value) {
    return value ? "true" : "false";
}

void emit(const Log& log, const std::string& line) {
    if (log) log(line);
}

// The numbers every failure line carries, so that a log tells a cut-off reply from a wrong one.
std::string replyFacts(const ChatResponse& response, const ChatOptions& options) {
    const auto finish = response.provenance ? response.provenance->finishReason : std::nullopt;
    return "truncated=" + flag(response.truncated) + ", finish_reason=" + finish.value_or("unknown") +
           ", servedBy=" + ConsolidationReplies::servedBy(response).value_or("the primary") +
           ", maxTokens=" + std::to_string(options.maxTokens);
}

void logReplyEnds(const Log& log, const ChatResponse& response) {
    emit(log, "  response head: " + ConsolidationReplies::head(response.text));
    emit(log, "  response tail: " + ConsolidationReplies::tail(response.text));
}

ChatResponse ask(ModelBackend& backend, const std::string& message, const ChatOptions& options) {
    return backend.chat({ChatMessage::user(message)}, std::nullopt, options);
}

void appendCorrections(std::string& message, const std::vector<CoachCorrection>& corrections) {
    if (corrections.empty()) return;
    message += "\nThe user's corrections:";
    for (const auto& correction : corrections) message += "\n- " + correction.text;
}

void appendCandidates(std::string& message, const Candidates& candidates) {
    message += "\nCandidate facts (index, text):";
    for (size_t i = 0; i < candidates.facts.size(); ++i)
        message += "\n" + std::to_string(i) + ": " + candidates.facts[i].text;
    message += "\nCandidate lessons:";
    for (const auto& lesson : candidates.lessons) message += "\n- " + lesson;
}

std::string instructions(const std::string& base, const std::vector<CoachCorrection>& corrections) {
    return corrections.empty() ? base + "\n\n"
                               : base + "\n" + ConsolidationPrompts::correctionsPreface() + "\n\n";
}

bool isPlaceholder(const PeriodDigest& digest) {
    return digest.salvaged || digest.summary.empty() || digest.summary == quietSummary;
}

// What a pass finds on disk. Digests are known by their file names as well, so that a damaged
// digest still marks its period as done rather than inviting a second, refused write.
struct Assessment {
    std::vector<PeriodDigest> digests;
    std::set<int64_t> startsOnDisk;
    std::vector<Period> pending;
    MemoryStore::StandingMemoryRead standing;
    std::optional<int64_t> wipeAtMs;
    std::vector<MemoryForgetRequest> forgetRequests;
    // Digests the memory may be made from: after the wipe, with what was asked to be forgotten left out.
    std::vector<PeriodDigest> usable;
    bool standingSalvaged = false;
    int64_t behind = 0;
    int64_t unfolded = 0;

    // A standing memory that does not decode is left for the person to look at, never replaced.
    bool needsRegeneration() const {
        return standing.state != MemoryStore::FileState::undecodable && (standingSalvaged || behind > 0);
    }
};

std::vector<PeriodDigest> usableDigests(std::vector<PeriodDigest> digests, std::optional<int64_t> wipeAtMs,
                                        const std::vector<MemoryForgetRequest>& forgetRequests) {
    return MemoryForgetFilter(forgetRequests)
        .digests(MemoryWipeFilter::digests(std::move(digests), wipeAtMs));
}

// The usable digests the sequential memory has not folded yet, oldest first.
std::vector<PeriodDigest> unfoldedDigests(std::vector<PeriodDigest> usable,
                                          const SequentialMemoryState& state) {
    const std::unordered_set<int64_t> folded(state.foldedPeriodStartsTsMs.begin(),
                                             state.foldedPeriodStartsTsMs.end());
    std::erase_if(usable, [&](const PeriodDigest& d) { return folded.contains(d.periodStartTsMs); });
    return usable;
}

// Sorted events that count: plausible times, at or after the latest wipe.
std::span<const EventLogEvent> countedEvents(std::span<const EventLogEvent> events,
                                             std::optional<int64_t> wipeAtMs) {
    const int64_t floor = std::max(earliestPlausibleEventMs, wipeAtMs.value_or(earliestPlausibleEventMs));
    const auto first =
        std::lower_bound(events.begin(), events.end(), floor,
                         [](const EventLogEvent& event, int64_t ms) { return event.tsMs < ms; });
    return events.subspan(static_cast<size_t>(first - events.begin()));
}

std::span<const EventLogEvent> eventsIn(std::span<const EventLogEvent> events, Period period) {
    const auto byTime = [](const EventLogEvent& event, int64_t ms) { return event.tsMs < ms; };
    const auto first = std::lower_bound(events.begin(), events.end(), period.startMs, byTime);
    const auto last = std::lower_bound(first, events.end(), period.endMs, byTime);
    return events.subspan(static_cast<size_t>(first - events.begin()), static_cast<size_t>(last - first));
}

Assessment assess(const PassContext& context, std::span<const EventLogEvent> events) {
    const fs::path& dataRoot = context.dataRoot;
    Assessment a;
    a.digests = MemoryStore::readAllDigests(dataRoot);
    a.startsOnDisk = MemoryStore::digestStartsOnDisk(dataRoot);
    a.standing = MemoryStore::inspectStandingMemory(dataRoot);
    a.wipeAtMs = MemoryWipeLog::latestAtMs(MemoryWipeLog::defaultURL(dataRoot));
    a.forgetRequests = MemoryForgetLog::read(MemoryForgetLog::defaultURL(dataRoot));
    a.usable = usableDigests(a.digests, a.wipeAtMs, a.forgetRequests);

    std::optional<int64_t> lastEnd;
    for (const auto& digest : a.digests)
        lastEnd = std::max(lastEnd.value_or(digest.periodEndTsMs), digest.periodEndTsMs);
    const auto counted = countedEvents(events, a.wipeAtMs);
    std::optional<int64_t> earliest =
        counted.empty() ? std::nullopt : std::optional<int64_t>(counted.front().tsMs);
    const int64_t floor = std::max(earliestPlausibleEventMs, a.wipeAtMs.value_or(0));
    if (context.earliestEventMs && *context.earliestEventMs >= floor)
        earliest = std::min(earliest.value_or(*context.earliestEventMs), *context.earliestEventMs);
    for (const Period& period : pendingPeriods(lastEnd, earliest, context.asOfMs, context.stepIntervalSec))
        if (!a.startsOnDisk.contains(period.startMs)) a.pending.push_back(period);

    const auto standing = MemoryWipeFilter::standingMemory(a.standing.memory, a.wipeAtMs);
    a.standingSalvaged = standing && standing->salvaged;
    const int64_t covered = standing ? standing->digestCount : 0;
    a.behind = std::max<int64_t>(static_cast<int64_t>(a.usable.size()) - covered, 0);
    const auto state = MemoryStore::readSequentialMemoryState(dataRoot);
    if (state || !fs::exists(MemoryStore::sequentialStatePath(dataRoot)))
        a.unfolded =
            static_cast<int64_t>(unfoldedDigests(a.usable, state.value_or(SequentialMemoryState{})).size());
    return a;
}

// One run of a pass: the context, the options as they stand (low power turns thinking off), and
// what has been done so far.
class Pass {
public:
    enum class Mode { standing, sequential, backfill };

    Pass(std::span<const EventLogEvent> events, const PassContext& context, Mode mode)
        : events_(events), context_(context), mode_(mode), options_(context.options) {
        if (!options_.sessionID)
            options_.sessionID =
                std::string(mode == Mode::standing ? "dream-pass:" : "dream-pass-sequential:") +
                std::to_string(context.asOfMs);
        options_.turn = ChatTurn::background;
    }

    PassOutcome run(std::optional<int64_t> backfillLimit);

private:
    void log(const std::string& line) const { emit(context_.log, line); }
    void record(const EventLogEvent& event) const {
        if (context_.record) context_.record(event);
    }
    int64_t now() const { return context_.clock->wallMs(); }
    std::optional<PassStop> checkpoint();
    std::optional<PassStop> digestPending(const Assessment& assessment);
    std::optional<PassStop> regenerate(Assessment assessment);
    std::optional<PassStop> fold(std::optional<int64_t> limit);
    PassOutcome outcome(std::optional<PassStop> stop) const {
        if (stop) return Stopped{*stop, written_, folded_};
        return Completed{written_, folded_};
    }

    std::span<const EventLogEvent> events_;
    const PassContext& context_;
    Mode mode_;
    ChatOptions options_;
    bool sheddingLoad_ = false;
    int64_t written_ = 0;
    int64_t folded_ = 0;
};

std::optional<PassStop> Pass::checkpoint() {
    if (context_.checkpoint) {
        const DreamGuardrails::Decision decision = context_.checkpoint();
        if (DreamGuardrails::severity(decision) >= DreamGuardrails::severity(DreamGuardrails::Pause{}))
            return PassStop{PassStop::Kind::guardrail, DreamGuardrails::reasonOf(decision)};
        if (std::holds_alternative<DreamGuardrails::LowPower>(decision) && !sheddingLoad_) {
            sheddingLoad_ = true;
            options_.think = false;
            log("shedding load: " + DreamGuardrails::reasonOf(decision) +
                " -- thinking is off for the rest of this pass");
        }
    }
    if (context_.shouldYield)
        if (auto reason = context_.shouldYield()) return PassStop{PassStop::Kind::yielded, *reason};
    return std::nullopt;
}

std::optional<PassStop> Pass::digestPending(const Assessment& assessment) {
    const auto counted = countedEvents(events_, assessment.wipeAtMs);
    for (const Period& period : assessment.pending) {
        const auto inPeriod = eventsIn(counted, period);
        const bool needsModel = std::any_of(inPeriod.begin(), inPeriod.end(), [](const EventLogEvent& e) {
            return PeriodRendering::text(e).has_value();
        });
        if (needsModel)
            if (auto stop = checkpoint()) return stop;
        log("digesting " + when(period.startMs) + " - " + when(period.endMs) + " (" +
            std::to_string(inPeriod.size()) + " events)...");
        const PeriodDigest digest =
            digestPeriod(inPeriod, period, now(), *context_.backend, options_, context_.log);
        MemoryStore::writeDigest(digest, context_.dataRoot);
        ++written_;
        log("  facts: " + std::to_string(digest.facts.size()) +
            ", lessons: " + std::to_string(digest.lessons.size()) +
            (digest.salvaged ? " [DEGRADED -- period lost, never retried]" : ""));
    }
    return std::nullopt;
}

std::optional<PassStop> Pass::regenerate(Assessment assessment) {
    if (assessment.standing.state == MemoryStore::FileState::undecodable) {
        log("standing memory at " + MemoryStore::standingMemoryPath(context_.dataRoot).string() +
            " does not decode -- it is left as it is, and the coach goes on without it. Move it aside and "
            "the next pass makes a new one from the digests.");
        return std::nullopt;
    }
    if (assessment.wipeAtMs &&
        std::any_of(assessment.digests.begin(), assessment.digests.end(),
                    [&](const PeriodDigest& d) { return d.periodStartTsMs < *assessment.wipeAtMs; }))
        log("honouring memory wipe requested at " + when(*assessment.wipeAtMs) +
            " -- excluding digests before it");
    if (assessment.usable.empty()) return std::nullopt;

    std::vector<CoachCorrection> corrections = MemoryWipeFilter::corrections(
        CoachCorrections::read(CoachCorrections::defaultURL(context_.dataRoot)), assessment.wipeAtMs);
    // A correction whose time is up no longer overrules what was observed.
    std::erase_if(corrections, [&](const CoachCorrection& c) { return !c.isInForce(context_.asOfMs); });

    if (auto stop = checkpoint()) return stop;
    log("regenerating standing memory from " + std::to_string(assessment.usable.size()) + " digest(s)" +
        (corrections.empty() ? "" : " and " + std::to_string(corrections.size()) + " correction(s)") + "...");
    const StandingMemory memory = regenerateStandingMemory(assessment.usable, corrections, now(),
                                                           *context_.backend, options_, context_.log);
    MemoryStore::writeStandingMemory(memory, context_.dataRoot);
    log("standing memory: " + std::to_string(memory.threads.size()) + " thread(s), " +
        std::to_string(memory.facts.size()) + " fact(s), " + std::to_string(memory.lessons.size()) +
        " lesson(s), seed " + (memory.seed ? std::to_string(*memory.seed) : "none") +
        (memory.salvaged ? " [SALVAGED]" : ""));
    if (memory.salvaged) {
        log("WARNING: regeneration response did not parse -- SALVAGED every candidate unorganized. Standing "
            "memory is degraded (no threads, nothing pruned) until a regeneration succeeds. Re-run "
            "consolidation; if it keeps failing, the model's JSON is the bug.");
        log(MemoryConsolidationEvents::degenerateReport(memory, ""));
    } else if (const auto reason = degenerateStandingMemoryReason(memory, assessment.usable)) {
        log("degenerate standing memory: " + *reason);
        record(MemoryConsolidationEvents::degenerate(*reason, now()));
    }
    return std::nullopt;
}

std::optional<PassStop> Pass::fold(std::optional<int64_t> limit) {
    const fs::path& root = context_.dataRoot;
    const auto state0 = MemoryStore::readSequentialMemoryState(root);
    if (!state0 && fs::exists(MemoryStore::sequentialStatePath(root))) {
        log("sequential standing memory at " + MemoryStore::sequentialStatePath(root).string() +
            " does not decode -- it is left as it is and nothing is folded. Move it aside and the next pass "
            "folds every digest again.");
        return std::nullopt;
    }
    SequentialMemoryState state = state0.value_or(SequentialMemoryState{});
    const auto wipeAtMs = MemoryWipeLog::latestAtMs(MemoryWipeLog::defaultURL(root));
    const auto forgetRequests = MemoryForgetLog::read(MemoryForgetLog::defaultURL(root));
    const std::vector<PeriodDigest> unfolded =
        unfoldedDigests(usableDigests(MemoryStore::readAllDigests(root), wipeAtMs, forgetRequests), state);
    if (unfolded.empty()) return std::nullopt;
    const size_t count = limit ? std::min(unfolded.size(), static_cast<size_t>(*limit)) : unfolded.size();
    log(std::to_string(unfolded.size()) + " unfolded digest(s) (one fold call each)" +
        (count < unfolded.size() ? ", folding the oldest " + std::to_string(count) + " this call" : "") +
        "...");

    std::vector<CoachCorrection> corrections =
        MemoryWipeFilter::corrections(CoachCorrections::read(CoachCorrections::defaultURL(root)), wipeAtMs);
    std::erase_if(corrections, [&](const CoachCorrection& c) { return !c.isInForce(context_.asOfMs); });
    const MemoryForgetFilter forget(forgetRequests);
    for (size_t i = 0; i < count; ++i) {
        if (auto stop = checkpoint()) return stop;
        // A memory from before the wipe is not carried forward, nor anything asked to be forgotten.
        const auto prior = forget.standingMemory(MemoryWipeFilter::standingMemory(
            state.foldedPeriodStartsTsMs.empty() ? std::nullopt : std::optional(state.standingMemory),
            wipeAtMs));
        state.standingMemory =
            foldDigest(prior, unfolded[i], corrections, now(), *context_.backend, options_, context_.log);
        state.foldedPeriodStartsTsMs.push_back(unfolded[i].periodStartTsMs);
        MemoryStore::writeSequentialMemoryState(state, root);
        ++folded_;
    }
    log("sequential standing memory: " + std::to_string(state.foldedPeriodStartsTsMs.size()) +
        " period(s) folded total");
    return std::nullopt;
}

PassOutcome Pass::run(std::optional<int64_t> backfillLimit) {
    Assessment assessment = assess(context_, events_);
    try {
        const size_t onDisk = assessment.startsOnDisk.size();
        if (const size_t damaged = onDisk - std::min(onDisk, assessment.digests.size()))
            log(std::to_string(damaged) + " digest file(s) in " +
                MemoryStore::digestsDirectory(context_.dataRoot).string() +
                " do not decode -- left as they are; their periods are not digested again");
        if (mode_ == Mode::standing) {
            std::string status = std::to_string(assessment.startsOnDisk.size()) + " digest(s) on disk, " +
                                 std::to_string(assessment.pending.size()) + " period(s) pending";
            if (assessment.standingSalvaged)
                status += " -- standing memory is SALVAGED, regenerating to repair it";
            else if (assessment.behind > 0)
                status += " -- " + std::to_string(assessment.behind) +
                          " digest(s) on disk not yet in standing memory, regenerating to catch up";
            log(status);
            if (assessment.pending.empty() && !assessment.needsRegeneration()) return NothingPending{};
        } else if (mode_ == Mode::sequential) {
            log(std::to_string(assessment.pending.size()) + " period(s) pending, " +
                std::to_string(assessment.unfolded) + " already-digested period(s) not yet folded");
            if (assessment.pending.empty() && assessment.unfolded == 0) return NothingPending{};
        } else {
            if (assessment.unfolded == 0) {
                log("nothing to backfill -- every digest on disk is already folded");
                return NothingPending{};
            }
            if (backfillLimit && *backfillLimit <= 0) {
                log("limit " + std::to_string(*backfillLimit) + " leaves nothing to backfill this call");
                return NothingPending{};
            }
        }

        const LockAcquisition lock = acquireDreamLock(context_.dataRoot);
        if (lock.kind == LockAcquisition::Kind::heldByAnotherProcess) {
            log(std::string("another process already holds the dream lock -- skipping this ") +
                (mode_ == Mode::backfill     ? "backfill"
                 : mode_ == Mode::sequential ? "sequential pass"
                                             : "pass"));
            return Stopped{PassStop{PassStop::Kind::lockHeld, "another process holds the dream lock"}, 0, 0};
        }
        if (lock.kind == LockAcquisition::Kind::unavailable)
            log("dream lock unavailable (" + lock.reason +
                ") -- proceeding without cross-process protection");

        if (mode_ == Mode::backfill) return outcome(fold(backfillLimit));
        // Another pass may have finished while this one was deciding: look again under the lock.
        assessment = assess(context_, events_);
        if (auto stop = digestPending(assessment)) return outcome(stop);
        if (mode_ == Mode::sequential) return outcome(fold(std::nullopt));
        if (written_ > 0 || assessment.needsRegeneration()) {
            assessment = assess(context_, events_);
            if (auto stop = regenerate(std::move(assessment))) return outcome(stop);
        }
        return outcome(std::nullopt);
    } catch (const CancellationError&) {
        const std::optional<std::string> reason =
            context_.shouldYield ? context_.shouldYield() : std::nullopt;
        return outcome(PassStop{PassStop::Kind::yielded, reason.value_or("the model call was cancelled")});
    } catch (const std::exception& error) {
        log("pass FAILED: " + std::string(error.what()));
        record(MemoryConsolidationEvents::failed(error.what(), context_.asOfMs,
                                                 static_cast<int64_t>(assessment.pending.size()), now()));
        throw;
    }
}

}  // namespace

std::vector<Period> pendingPeriods(std::optional<int64_t> lastDigestedPeriodEndMs,
                                   std::optional<int64_t> earliestEventMs, int64_t asOfMs,
                                   int64_t stepIntervalSec) {
    if (!earliestEventMs || stepIntervalSec <= 0) return {};
    const int64_t stepMs = stepIntervalSec * 1000;
    const auto floorToGrid = [&](int64_t ms) { return ms / stepMs * stepMs; };
    const int64_t endBound = floorToGrid(asOfMs);
    const int64_t start = lastDigestedPeriodEndMs ? *lastDigestedPeriodEndMs : floorToGrid(*earliestEventMs);
    std::vector<Period> periods;
    for (int64_t current = start; current < endBound; current += stepMs)
        periods.push_back({current, current + stepMs});
    return periods;
}

Candidates candidatesOf(const std::vector<PeriodDigest>& digests, const StandingMemory* prior) {
    Candidates candidates;
    std::unordered_set<std::string> facts, lessons;
    const auto addFact = [&](const MemoryFact& fact) {
        if (facts.insert(fact.text).second) candidates.facts.push_back(fact);
    };
    const auto addLesson = [&](const std::string& lesson) {
        if (lessons.insert(lesson).second) candidates.lessons.push_back(lesson);
    };
    if (prior) {
        std::for_each(prior->facts.begin(), prior->facts.end(), addFact);
        std::for_each(prior->lessons.begin(), prior->lessons.end(), addLesson);
    }
    for (const auto& digest : digests) {
        std::for_each(digest.facts.begin(), digest.facts.end(), addFact);
        std::for_each(digest.lessons.begin(), digest.lessons.end(), addLesson);
    }
    return candidates;
}

std::string digestMessage(const PeriodRendering::Rendered& rendered) {
    return ConsolidationPrompts::digestInstructions() + "\n\n" + join(rendered.lines, "\n");
}

std::string regenerationMessage(const std::vector<PeriodDigest>& digests, const Candidates& candidates,
                                const std::vector<CoachCorrection>& corrections) {
    std::string message = instructions(ConsolidationPrompts::regenerateInstructions(), corrections);
    message += "Period summaries, oldest first:";
    // A summary emptied by a request to forget says nothing.
    for (const auto& digest : digests)
        if (!digest.summary.empty()) message += "\n" + digest.summary;
    appendCandidates(message, candidates);
    appendCorrections(message, corrections);
    return message;
}

std::string foldMessage(const std::optional<StandingMemory>& prior, const PeriodDigest& digest,
                        const Candidates& candidates, const std::vector<CoachCorrection>& corrections) {
    std::string message = instructions(ConsolidationPrompts::foldInstructions(), corrections);
    message += "Prior threads:";
    if (!prior || prior->threads.empty()) message += "\n(none yet)";
    if (prior)
        for (const auto& thread : prior->threads)
            message += "\n- " + thread.name + " (" + std::string(rawValue(thread.status)) + ")" +
                       (thread.notes.empty() ? "" : ": " + thread.notes);
    message +=
        "\nNew period summary:\n" + (digest.summary.empty() ? std::string(quietSummary) : digest.summary);
    appendCandidates(message, candidates);
    appendCorrections(message, corrections);
    return message;
}

PeriodDigest digestPeriod(std::span<const EventLogEvent> events, Period period, int64_t generatedAtMs,
                          ModelBackend& backend, const ChatOptions& options, const Log& log) {
    PeriodDigest digest{
        .periodStartTsMs = period.startMs, .periodEndTsMs = period.endMs, .generatedAtTsMs = generatedAtMs};
    const PeriodRendering::Rendered rendered = PeriodRendering::renderIndexed(events);
    if (rendered.lines.empty()) {
        digest.summary = quietSummary;
        return digest;
    }
    const ChatResponse response = ask(backend, digestMessage(rendered), options);
    auto parsed = ConsolidationReplies::parseDigestJSON(response.text, rendered.tsMsByLine);
    if (!parsed) {
        digest.summary = failedSummary;
        digest.salvaged = true;
        emit(log, "digest FAILED for " + when(period.startMs) + " - " + when(period.endMs) + " -- " +
                      replyFacts(response, options) + ", parseFailed=true, responseChars=" +
                      std::to_string(utf8::scalarCount(response.text)) +
                      ". renderedChars=" + std::to_string(rendered.characterCount()) +
                      ". This period is now permanently empty in memory; digests are never retried.");
        logReplyEnds(log, response);
        return digest;
    }
    digest.summary = std::move(parsed->summary);
    digest.facts = std::move(parsed->facts);
    digest.lessons = std::move(parsed->lessons);
    return digest;
}

namespace {

// A regeneration or fold reply, or every candidate unorganised when it cannot be read.
StandingMemory organise(const std::string& message, const Candidates& candidates,
                        std::vector<MemoryThread> keptThreads, int64_t madeAtMs, int64_t digestCount,
                        ModelBackend& backend, ChatOptions options, const Log& log, const char* what) {
    StandingMemory memory{.regeneratedAtTsMs = madeAtMs, .digestCount = digestCount};
    options.seed = drawSeed();
    memory.seed = options.seed;
    const ChatResponse response = ask(backend, message, options);
    if (auto parsed = ConsolidationReplies::parseRegenerationJSON(response.text, candidates.facts)) {
        memory.threads = std::move(parsed->threads);
        memory.facts = std::move(parsed->facts);
        memory.lessons = std::move(parsed->lessons);
        return memory;
    }
    memory.threads = std::move(keptThreads);
    memory.facts = candidates.facts;
    memory.lessons = candidates.lessons;
    memory.salvaged = true;
    memory.salvageDetail = ConsolidationReplies::salvageDetail(response);
    emit(log, std::string(what) + " JSON did not parse -- " + replyFacts(response, options) + ", " +
                  std::to_string(candidates.facts.size()) + " fact(s)/" +
                  std::to_string(candidates.lessons.size()) +
                  " lesson(s) candidates kept unorganized: " + *memory.salvageDetail);
    logReplyEnds(log, response);
    return memory;
}

}  // namespace

StandingMemory regenerateStandingMemory(std::vector<PeriodDigest> digests,
                                        const std::vector<CoachCorrection>& corrections,
                                        int64_t regeneratedAtMs, ModelBackend& backend, ChatOptions options,
                                        const Log& log) {
    std::stable_sort(digests.begin(), digests.end(), [](const PeriodDigest& a, const PeriodDigest& b) {
        return a.periodStartTsMs < b.periodStartTsMs;
    });
    const Candidates candidates = candidatesOf(digests);
    const auto digestCount = static_cast<int64_t>(digests.size());
    // Nothing but quiet or lost periods: there is nothing for a model to organise.
    if (candidates.facts.empty() && candidates.lessons.empty() &&
        std::all_of(digests.begin(), digests.end(), isPlaceholder))
        return StandingMemory{.regeneratedAtTsMs = regeneratedAtMs, .digestCount = digestCount};
    return organise(regenerationMessage(digests, candidates, corrections), candidates, {}, regeneratedAtMs,
                    digestCount, backend, std::move(options), log, "regeneration");
}

StandingMemory foldDigest(const std::optional<StandingMemory>& prior, const PeriodDigest& digest,
                          const std::vector<CoachCorrection>& corrections, int64_t foldedAtMs,
                          ModelBackend& backend, ChatOptions options, const Log& log) {
    const Candidates candidates = candidatesOf({digest}, prior ? &*prior : nullptr);
    const int64_t digestCount = (prior ? prior->digestCount : 0) + 1;
    // A quiet period changes nothing that a model would have to decide.
    if (candidates.facts.size() == (prior ? prior->facts.size() : 0) &&
        candidates.lessons.size() == (prior ? prior->lessons.size() : 0) && isPlaceholder(digest)) {
        StandingMemory kept = prior.value_or(StandingMemory{});
        kept.regeneratedAtTsMs = foldedAtMs;
        kept.digestCount = digestCount;
        return kept;
    }
    return organise(foldMessage(prior, digest, candidates, corrections), candidates,
                    prior ? prior->threads : std::vector<MemoryThread>{}, foldedAtMs, digestCount, backend,
                    std::move(options), log, "fold");
}

std::optional<std::string> degenerateStandingMemoryReason(const StandingMemory& memory,
                                                          const std::vector<PeriodDigest>& digests) {
    if (memory.salvaged || !memory.threads.empty()) return std::nullopt;
    const Candidates candidates = candidatesOf(digests);
    if (candidates.facts.empty() && candidates.lessons.empty()) return std::nullopt;
    if (candidates.facts.size() < 5 && candidates.lessons.size() < 5) return std::nullopt;
    if (memory.facts.size() < candidates.facts.size()) return std::nullopt;
    return "0 threads, " + std::to_string(memory.facts.size()) + " fact(s)/" +
           std::to_string(memory.lessons.size()) + " lesson(s) kept out of " +
           std::to_string(candidates.facts.size()) + "/" + std::to_string(candidates.lessons.size()) +
           " candidates -- nothing was pruned or organized despite real digest content";
}

PassOutcome runPass(std::span<const EventLogEvent> events, const PassContext& context) {
    return Pass(events, context, Pass::Mode::standing).run(std::nullopt);
}

PassOutcome runSequentialPass(std::span<const EventLogEvent> events, const PassContext& context) {
    return Pass(events, context, Pass::Mode::sequential).run(std::nullopt);
}

PassOutcome backfillSequential(const PassContext& context, std::optional<int64_t> limit) {
    return Pass({}, context, Pass::Mode::backfill).run(limit);
}

}  // namespace aimwise::MemoryConsolidation
