#include "AimwiseCore/memory/consolidation_pass.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unicode/timezone.h>
#include <unistd.h>

#include <deque>

#include "AimwiseCore/memory/consolidation_replies.h"
#include "AimwiseCore/memory/dream_lock.h"
#include "AimwiseCore/memory/memory_forget.h"
#include "AimwiseCore/memory/memory_store.h"
#include "AimwiseCore/memory/memory_wipe.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "tests/support/fake_clock.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace MemoryConsolidation;
using ConsolidationReplies::parseDigestJSON;
using ConsolidationReplies::parseRegenerationJSON;

constexpr int64_t day = 86'400'000;
constexpr int64_t day0 = 20'500 * day;  // 2026-02-16, midnight UTC

// Answers each call with the next scripted reply (or throws it), and keeps every message it was sent.
class ScriptedBackend : public ModelBackend {
public:
    using Reply = std::function<ChatResponse()>;
    std::deque<Reply> replies;
    std::vector<std::string> messages;
    std::vector<ChatOptions> options;

    void text(const std::string& text) {
        replies.push_back([text] { return ChatResponse{.text = text}; });
    }
    ChatResponse chat(const std::vector<ChatMessage>& sent, const std::optional<std::vector<ToolSpec>>&,
                      const ChatOptions& chatOptions) override {
        messages.push_back(sent.at(0).content);
        options.push_back(chatOptions);
        if (replies.empty()) throw ModelBackendError::transportError("no reply scripted");
        auto reply = std::move(replies.front());
        replies.pop_front();
        return reply();
    }
};

EventLogEvent said(int64_t ts, const std::string& words) {
    return {.tsMs = ts,
            .type = "app_chat_message",
            .detail = JSONValue::Object{{"role", "user"}, {"text", words}}};
}

const std::string digestReply =
    R"(Here you go: {"summary": "Worked on the thesis.", "facts": [{"text": "Writes a thesis on soil", "provenance": "asserted", "source_lines": [1, 2.0, 9, "1"]}, {"text": "Likes mornings", "provenance": "maybe"}], "lessons": ["Short blocks helped", 4]} hope it helps)";
const std::string regenerationReply =
    R"({"threads": [{"name": "thesis", "status": "active", "notes": "chapter 2"}, {"name": "x", "status": "paused"}], "keep_fact_indices": [0, 7, -1], "lessons": ["Short blocks helped"]})";

class ConsolidationPassTest : public ::testing::Test {
protected:
    void SetUp() override { icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC")); }

    PassContext context(int64_t asOf) {
        return {.dataRoot = root.path(),
                .asOfMs = asOf,
                .backend = &backend,
                .options = {.maxTokens = 512, .think = true},
                .log = [this](const std::string& line) { logged += line + "\n"; },
                .clock = &clock,
                .record = [this](const EventLogEvent& event) { recorded.push_back(event.type); }};
    }
    bool loggedLine(const std::string& text) const { return logged.find(text) != std::string::npos; }

    testing::TempDir root;
    testing::FakeClock clock{day0 + 10 * day};
    ScriptedBackend backend;
    std::string logged;
    std::vector<std::string> recorded;
};

TEST(PendingPeriods, OnlyWholeFinishedPeriodsOnTheGridFromTheLastDigest) {
    const int64_t step = 86'400;
    EXPECT_TRUE(pendingPeriods(std::nullopt, std::nullopt, day0 + 5 * day, step).empty());
    EXPECT_EQ(pendingPeriods(std::nullopt, day0 + 3 * day + 5, day0 + 5 * day + 1, step),
              (std::vector<Period>{{day0 + 3 * day, day0 + 4 * day}, {day0 + 4 * day, day0 + 5 * day}}));
    EXPECT_EQ(pendingPeriods(day0 + 4 * day, day0, day0 + 5 * day, step),
              (std::vector<Period>{{day0 + 4 * day, day0 + 5 * day}}));
    EXPECT_TRUE(pendingPeriods(day0 + 5 * day, day0, day0 + 5 * day + day - 1, step).empty())
        << "the running period";
    EXPECT_TRUE(pendingPeriods(std::nullopt, day0, day0, 0).empty());
}

TEST(ConsolidationReplies, DigestsDropWhatCannotBeReadItemByItem) {
    const auto digest = parseDigestJSON(digestReply, {day0 + 10, day0 + 20});
    ASSERT_TRUE(digest);
    EXPECT_EQ(*digest,
              (ConsolidationReplies::ParsedDigest{
                  "Worked on the thesis.",
                  {{"Writes a thesis on soil", MemoryFactProvenance::asserted, {day0 + 10, day0 + 20}}},
                  {"Short blocks helped"}}));
    for (const char* unusable : {R"({"facts": []})", R"({"summary": "cut off", "facts": [{"text": )", "} {",
                                 "no JSON", R"({"summary": 3})"})
        EXPECT_FALSE(parseDigestJSON(unusable, {})) << unusable;

    const std::vector<MemoryFact> candidates{{"a", MemoryFactProvenance::inferred, {}}};
    const auto regenerated = parseRegenerationJSON(regenerationReply, candidates);
    ASSERT_TRUE(regenerated);
    EXPECT_EQ(
        *regenerated,
        (ConsolidationReplies::ParsedRegeneration{
            {{"thesis", MemoryThreadStatus::active, "chapter 2"}}, candidates, {"Short blocks helped"}}));
    EXPECT_FALSE(parseRegenerationJSON(R"({"threads": [], "lessons": []})", candidates))
        << "an empty object would wipe";

    // Every cut of a reply, and every byte of it corrupted, reads as something or as nothing, never worse.
    for (const std::string& reply : {digestReply, regenerationReply}) {
        for (size_t cut = 0; cut < reply.size(); ++cut) {
            std::string broken = reply;
            broken[cut] = static_cast<char>(0xC3 ^ cut);
            for (const std::string& text : {reply.substr(0, cut), broken}) {
                if (const auto parsed = parseDigestJSON(text, {day0})) {
                    for (const auto& fact : parsed->facts) EXPECT_LE(fact.sourceEventTsMs.size(), 1u);
                }
                parseRegenerationJSON(text, candidates);
                ConsolidationReplies::salvageDetail({.text = text, .truncated = true});
                EXPECT_LE(ConsolidationReplies::tail(text, 10).size(), 40u);
            }
        }
    }
}

TEST(ConsolidationReplies, SalvageDetailSaysHowTheReplyFailed) {
    ChatResponse response{
        .text = "", .thinking = std::string(300, 't'), .truncated = true, .servedBy = "openrouter"};
    EXPECT_EQ(ConsolidationReplies::salvageDetail(response),
              "the reply from openrouter was cut off before any answer was written (300 chars of thinking "
              "filled the model's limit)");
    response = {.text = "{\"thr", .truncated = true};
    EXPECT_EQ(ConsolidationReplies::salvageDetail(response),
              "the reply was cut off after 5 chars, before the JSON closed");
    response = {.text = "Sure!"};
    EXPECT_EQ(ConsolidationReplies::salvageDetail(response),
              "the reply was complete (5 chars) but was not the JSON asked for");
}

TEST(ConsolidationReplies, DegenerateOnlyWithFiveCandidatesAllKeptAndNoThreads) {
    const auto digestWith = [](int facts, int lessons) {
        PeriodDigest digest;
        for (int i = 0; i < facts; ++i) digest.facts.push_back({"fact " + std::to_string(i)});
        for (int i = 0; i < lessons; ++i) digest.lessons.push_back("lesson " + std::to_string(i));
        return digest;
    };
    const auto keptAll = [](const PeriodDigest& d) {
        return StandingMemory{.lessons = d.lessons, .facts = d.facts};
    };
    const PeriodDigest four = digestWith(4, 4), five = digestWith(5, 1);
    EXPECT_EQ(degenerateStandingMemoryReason(keptAll(four), {four}), std::nullopt);
    EXPECT_EQ(degenerateStandingMemoryReason(keptAll(five), {five}),
              "0 threads, 5 fact(s)/1 lesson(s) kept out of 5/1 candidates -- nothing was pruned or "
              "organized despite real digest content");
    StandingMemory pruned = keptAll(five);
    pruned.facts.pop_back();
    EXPECT_EQ(degenerateStandingMemoryReason(pruned, {five}), std::nullopt);
}

TEST_F(ConsolidationPassTest, DigestsEachPeriodThenRegeneratesAndAFailedPeriodIsNeverDigestedAgain) {
    const std::vector<EventLogEvent> events{
        {.tsMs = day0 + 9 * 3'600'000,
         .type = "task_declared",
         .detail = JSONValue::Object{{"task", "thesis"}}},
        said(day0 + 10 * 3'600'000, "I write best\nbefore noon"),
        said(day0 + day + 1, "second day"),
        {.tsMs = day0 + 2 * day + 5, .type = "coach_checkin"},  // renders nothing: a quiet period, no call
        said(day0 + 3 * day + 5, "fourth day")};
    backend.text(digestReply);
    backend.text("Sorry, I can't.");  // day 2 is lost, once and for all
    backend.text(R"({"summary": "Short.", "facts": [], "lessons": []})");
    backend.text(regenerationReply);
    EXPECT_EQ(runPass(events, context(day0 + 4 * day + 7)), PassOutcome(Completed{4, 0}));

    ASSERT_EQ(backend.messages.size(), 4u);
    EXPECT_TRUE(backend.messages[0].ends_with(
        "\n\n[1] Feb 16, 9:00 declared: thesis\n[2] Feb 16, 10:00 I write best before noon"));
    EXPECT_EQ(backend.options[0].sessionID, "dream-pass:" + std::to_string(day0 + 4 * day + 7));
    const auto digests = MemoryStore::readAllDigests(root.path());
    ASSERT_EQ(digests.size(), 4u);
    EXPECT_EQ(digests[1].summary, failedSummary);
    EXPECT_TRUE(digests[1].salvaged);
    EXPECT_EQ(digests[2].summary, quietSummary);
    EXPECT_TRUE(
        loggedLine("digest FAILED for 2026-02-17T00:00:00Z - 2026-02-18T00:00:00Z -- truncated=false, "
                   "finish_reason=unknown, servedBy=the primary, maxTokens=512, parseFailed=true, "
                   "responseChars=15. renderedChars=27. This period is now permanently empty in memory; "
                   "digests are never retried."));
    EXPECT_TRUE(loggedLine("  facts: 0, lessons: 0 [DEGRADED -- period lost, never retried]"));

    const auto memory = MemoryStore::readStandingMemory(root.path());
    ASSERT_TRUE(memory);
    EXPECT_EQ(memory->digestCount, 4);
    EXPECT_EQ(memory->threads.size(), 1u);
    EXPECT_EQ(memory->facts, digests[0].facts);
    ASSERT_TRUE(memory->seed);
    EXPECT_EQ(backend.options[3].seed, memory->seed);

    EXPECT_EQ(runPass(events, context(day0 + 4 * day + 9)), PassOutcome{NothingPending{}});
    EXPECT_EQ(backend.messages.size(), 4u);
}

TEST_F(ConsolidationPassTest, AGuardrailStopsBetweenCallsAndTheNextRunResumesWhereItStopped) {
    const std::vector<EventLogEvent> events{said(day0 + 1, "one"), said(day0 + day + 1, "two"),
                                            said(day0 + 2 * day + 1, "three")};
    int checks = 0;
    PassContext paused = context(day0 + 3 * day);
    paused.checkpoint = [&]() -> DreamGuardrails::Decision {
        if (++checks == 1) return DreamGuardrails::LowPower{"battery 45.0% draining ≤ 50% — shedding load"};
        return DreamGuardrails::Pause{"battery 29.0% draining ≤ floor 30% — holding to protect the reserve"};
    };
    backend.text(R"({"summary": "one", "facts": [], "lessons": []})");
    EXPECT_EQ(runPass(events, paused),
              PassOutcome{(Stopped{{PassStop::Kind::guardrail,
                                    "battery 29.0% draining ≤ floor 30% — holding to protect the reserve"},
                                   1,
                                   0})});
    EXPECT_FALSE(backend.options[0].think) << "low power turns thinking off";
    EXPECT_FALSE(MemoryStore::readStandingMemory(root.path()));

    for (const char* summary : {"two", "three"})
        backend.text(R"({"summary": ")" + std::string(summary) + R"(", "facts": [], "lessons": ["l"]})");
    backend.text(regenerationReply);
    EXPECT_EQ(runPass(events, context(day0 + 3 * day)), PassOutcome(Completed{2, 0}));
    ASSERT_EQ(backend.messages.size(), 4u);
    EXPECT_TRUE(backend.messages[1].ends_with("] Feb 17, 0:00 two"));
    EXPECT_EQ(MemoryStore::readStandingMemory(root.path())->digestCount, 3);
}

TEST_F(ConsolidationPassTest,
       ASalvagedMemoryIsRegeneratedWithNothingPendingAndWipesAndForgettingFilterTheCandidates) {
    const auto digest = [](int64_t start, std::string fact) {
        return PeriodDigest{.periodStartTsMs = start,
                            .periodEndTsMs = start + day,
                            .summary = "s" + std::to_string(start),
                            .facts = {{std::move(fact), MemoryFactProvenance::asserted, {}}}};
    };
    MemoryStore::writeDigest(digest(day0, "before the wipe"), root.path());
    MemoryStore::writeDigest(digest(day0 + day, "works at Acme Corp"), root.path());
    MemoryStore::writeDigest(digest(day0 + 2 * day, "runs at dawn"), root.path());
    MemoryStore::writeStandingMemory(
        {.regeneratedAtTsMs = day0 + 3 * day, .digestCount = 2, .salvaged = true}, root.path());
    MemoryWipeLog::request(day0 + day, MemoryWipeLog::defaultURL(root.path()));
    MemoryForgetLog::request({day0 + 3 * day, "ACME  corp"}, MemoryForgetLog::defaultURL(root.path()));
    backend.text("not JSON");

    EXPECT_EQ(runPass({}, context(day0 + 3 * day + 1)), PassOutcome(Completed{0, 0}));
    EXPECT_TRUE(
        loggedLine("3 digest(s) on disk, 0 period(s) pending -- standing memory is SALVAGED, regenerating to "
                   "repair it"));
    EXPECT_TRUE(
        loggedLine("honouring memory wipe requested at 2026-02-17T00:00:00Z -- excluding digests before it"));
    ASSERT_EQ(backend.messages.size(), 1u);
    EXPECT_TRUE(backend.messages[0].ends_with(
        "Period summaries, oldest first:\ns" + std::to_string(day0 + day) + "\ns" +
        std::to_string(day0 + 2 * day) +
        "\nCandidate facts (index, text):\n0: runs at dawn\nCandidate lessons:"));
    const auto memory = MemoryStore::readStandingMemory(root.path());
    EXPECT_TRUE(memory->salvaged);
    EXPECT_EQ(memory->salvageDetail, "the reply was complete (8 chars) but was not the JSON asked for");
    EXPECT_EQ(memory->digestCount, 2);
}

TEST_F(ConsolidationPassTest, FailuresWriteNothingForThePeriodAndADamagedMemoryIsLeftInPlace) {
    const std::vector<EventLogEvent> events{said(day0 + 1, "one")};
    testing::writeFile(MemoryStore::standingMemoryPath(root.path()), "{damaged");
    EXPECT_THROW(runPass(events, context(day0 + day)), ModelBackendError);
    EXPECT_EQ(recorded, std::vector<std::string>{"memory_consolidation_failed"});
    EXPECT_TRUE(MemoryStore::readAllDigests(root.path()).empty());

    PassContext yielding = context(day0 + day);
    yielding.shouldYield = [n = 0]() mutable -> std::optional<std::string> {
        return ++n > 1 ? std::optional<std::string>("someone is at the machine again") : std::nullopt;
    };
    backend.replies.push_back([]() -> ChatResponse { throw CancellationError(); });
    EXPECT_EQ(runPass(events, yielding),
              PassOutcome{(Stopped{{PassStop::Kind::yielded, "someone is at the machine again"}, 0, 0})});
    EXPECT_TRUE(MemoryStore::readAllDigests(root.path()).empty());

    backend.text(R"({"summary": "one", "facts": [], "lessons": ["l"]})");
    EXPECT_EQ(runPass(events, context(day0 + day)), PassOutcome(Completed{1, 0}));
    EXPECT_EQ(testing::readFile(MemoryStore::standingMemoryPath(root.path())), "{damaged");
    EXPECT_TRUE(loggedLine("does not decode -- it is left as it is"));
}

TEST_F(ConsolidationPassTest, FoldsEachDigestIntoTheSequentialMemoryOnceOldestFirst) {
    const std::vector<EventLogEvent> events{said(day0 + 1, "one"), said(day0 + day + 1, "two")};
    backend.text(R"({"summary": "one", "facts": [{"text": "f1", "provenance": "inferred"}], "lessons": []})");
    backend.text(R"({"summary": "two", "facts": [{"text": "f2", "provenance": "asserted"}], "lessons": []})");
    backend.text(
        R"({"threads": [{"name": "t", "status": "active", "notes": ""}], "keep_fact_indices": [0], "lessons": []})");
    backend.text("cut off {");
    EXPECT_EQ(runSequentialPass(events, context(day0 + 2 * day)), PassOutcome(Completed{2, 2}));
    EXPECT_TRUE(backend.messages[3].find("Prior threads:\n- t (active)\nNew period summary:\ntwo\n"
                                         "Candidate facts (index, text):\n0: f1\n1: f2") !=
                std::string::npos);
    const auto state = MemoryStore::readSequentialMemoryState(root.path());
    ASSERT_TRUE(state);
    EXPECT_EQ(state->foldedPeriodStartsTsMs, (std::vector<int64_t>{day0, day0 + day}));
    EXPECT_TRUE(state->standingMemory.salvaged)
        << "a fold that cannot be read keeps every candidate and the threads";
    EXPECT_EQ(state->standingMemory.threads.size(), 1u);
    EXPECT_EQ(state->standingMemory.facts.size(), 2u);
    EXPECT_EQ(backfillSequential(context(day0 + 2 * day), std::nullopt), PassOutcome{NothingPending{}});
    EXPECT_TRUE(loggedLine("nothing to backfill -- every digest on disk is already folded"));
}

TEST_F(ConsolidationPassTest, TheLockRefusesASecondProcessAndIsReleasedWhenItsHolderEnds) {
    int ready[2], finish[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(finish), 0);
    const pid_t child = fork();
    if (child == 0) {
        const auto held = acquireDreamLock(root.path());
        const char ok = held.acquired() ? 'y' : 'n';
        (void)!write(ready[1], &ok, 1);
        char done;
        (void)!read(finish[0], &done, 1);
        _exit(0);  // the lock goes with the process
    }
    char ok = 0;
    ASSERT_EQ(read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, 'y');
    EXPECT_EQ(acquireDreamLock(root.path()).kind, LockAcquisition::Kind::heldByAnotherProcess);
    backend.text("unused");
    const std::vector<EventLogEvent> events{said(day0 + 1, "one")};
    EXPECT_EQ(
        runPass(events, context(day0 + day)),
        PassOutcome{(Stopped{{PassStop::Kind::lockHeld, "another process holds the dream lock"}, 0, 0})});
    EXPECT_TRUE(loggedLine("another process already holds the dream lock -- skipping this pass"));
    (void)!write(finish[1], "x", 1);
    waitpid(child, nullptr, 0);
    const auto mine = acquireDreamLock(root.path());
    EXPECT_TRUE(mine.acquired());
    EXPECT_TRUE(acquireDreamLock(root.path()).acquired())
        << "a second acquisition in the holding process shares it";
}

}  // namespace
}  // namespace aimwise
