// `replay` run as the built binary over a fixture labels.sqlite and signals.sqlite against the
// scripted model server, alone and with the second arm; and the second arm's helper when it fails.
#include <gtest/gtest.h>

#include <regex>

#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/classifier/labels_writer.h"
#include "VerdictBench/replay_fm_judge_client.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using testing::ScriptedModelServer;
using Reply = ScriptedModelServer::Reply;

constexpr int64_t T = 1'782'898'215'000;
constexpr int64_t minute = 60'000;
const std::string chatPath = "/v1/chat/completions";

std::string verdict(const std::string& state) {
    return ScriptedModelServer::completionBody(R"({"state": ")" + state + R"(", "confidence": 0.8, "reason": "r"})");
}

fs::path writeScript(const fs::path& path, const std::string& body) {
    testing::writeFile(path, "#!/bin/sh\n" + body + "\n");
    fs::permissions(path, fs::perms::owner_all);
    return path;
}

class ReplayVerb : public ::testing::Test {
protected:
    ReplayVerb() : local(ScriptedModelServer::Transport::tcp), second(ScriptedModelServer::Transport::tcp) {
        testing::SignalsFixture signals(root() / "signals.sqlite");
        signals.tick({.tsMs = T - minute, .frontmostApp = "Editor"})
            .window({.tsMs = T - minute, .ownerName = "Editor", .title = "report.md"})
            .tick({.tsMs = T + 10 * minute, .frontmostApp = "Firefox"})
            .tick({.tsMs = T + 13 * minute, .frontmostApp = "loginwindow", .idleAnySec = 900})
            .tick({.tsMs = T + 15 * minute, .frontmostApp = "Veska"})
            .tick({.tsMs = T + 16 * minute, .frontmostApp = "Terminal"});
        LabelsWriter labels(root() / "labels.sqlite");
        const auto label = [&](int64_t t0, int64_t t1, const char* word, bool blind = true) {
            labels.insert({.t0Ms = t0, .t1Ms = t1, .label = word, .sourceHour = "h",
                           .createdAt = blind ? "2026-07-02" : "2026-07-03", .source = "in_app_ramp",
                           .answeredBlind = blind});
        };
        label(T - 2 * minute, T, "on_task");             // 1: the midpoint of the span is judged
        label(T + 10 * minute, T + 10 * minute, "rabbit_hole");  // 2
        label(T + 12 * minute, T + 12 * minute, "ambiguous");    // 3
        label(T - 600 * minute, T - 600 * minute, "on_task");    // 4: before any signals
        label(T + 13 * minute, T + 13 * minute, "break");        // 5: the lock screen, no model
        label(T + 15 * minute, T + 15 * minute, "off_task");     // 6: the app's own window
        label(T + 16 * minute, T + 16 * minute, "no_task");      // 7: a reply that is not JSON
        label(T + 10 * minute, T + 10 * minute, "on_task", false);  // 8: a revision of 2, not scored
        local.enqueue(chatPath, Reply::json(200, verdict("ON_TASK")));
        local.enqueue(chatPath, Reply::json(200, verdict("ON_TASK")));
        local.enqueue(chatPath, Reply::json(200, ScriptedModelServer::completionBody("not json")));
    }

    fs::path root() const { return dir / "root"; }
    testing::ProcessResult run(const std::vector<std::string>& arguments,
                               const std::map<std::string, std::string>& extra = {}) {
        testing::ProcessOptions options;
        options.environment = testing::verdictBenchEnvironment(dir.path(), local.baseURLString());
        options.environment["AIMCAP_FM_JUDGE_ENDPOINT"] = second.baseURLString();
        options.environment["AIMCAP_FM_JUDGE_MODEL"] = "second-model";
        for (const auto& [key, value] : extra) options.environment[key] = value;
        options.unset = {"AIMCAP_FM_JUDGE_BIN", "DISPLAY"};
        std::vector<std::string> all{"replay"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return testing::runProcess(testing::verdictBenchPath(), all, options);
    }
    std::string opening() const {
        return "loaded 7 labeled points from " + (root() / "labels.sqlite").string() +
               "\n  0 of them had corrected timestamps overlaid from labels_remapped (raw table unmodified)\n"
               "  scoring BLIND answers (pre-reveal) — 1 moment(s) had a later post-reveal revision excluded from "
               "scoring. Pass --settled to score the settled/revised answer instead (reintroduces reveal-anchoring; "
               "not the default for a reason).\n\n";
    }

    testing::TempDir dir;
    ScriptedModelServer local, second;
};

const std::string pointLines =
    "[1/7] id=4 — no tick data at 1782862215000, skipping\n"
    "[2/7] id=1 label=on_task gt=ON_TASK pred=ON_TASK called_model=true window_content=no OK{1}\n"
    "[3/7] id=2 label=rabbit_hole gt=NOT_ALIGNED pred=ON_TASK called_model=true window_content=no MISS{2}\n"
    "[5/7] id=5 label=break gt=IDLE pred=IDLE called_model=false window_content=no OK\n"
    "[6/7] id=6 label=off_task gt=NOT_ALIGNED pred=ABSTAINED — no verdict to score, excluded\n"
    "[7/7] id=7 — ERROR: message.content was not valid JSON: not json\n"
    "\n=== VerdictBench replay summary ===\n"
    "points loaded:        7\n"
    "skipped (ambiguous):  1\n"
    "skipped (no tick):    1\n"
    "skipped (abstained):  1   (Merl's own window frontmost — no verdict)\n"
    "errors:               1\n"
    "scored:               3\n"
    "correct:              2 / 3  (66.7%, 95% CI [20.8%, 93.9%])\n"
    "confusion (gt->pred):\n"
    "  IDLE->IDLE: 1\n"
    "  NOT_ALIGNED->ON_TASK: 1\n"
    "  ON_TASK->ON_TASK: 1\n"
    "per-class recall (local):\n"
    "  IDLE: 1/1  (100.0%)\n"
    "  NOT_ALIGNED: 0/1  (0.0%)\n"
    "  ON_TASK: 1/1  (100.0%)\n"
    "  balanced accuracy (mean per-class recall): 66.7%  <- compare this across arms, NOT raw accuracy\n";

const std::string visibilityBlock =
    "\nwindow_content visibility (of 3 scored):\n"
    "  sighted:             0\n"
    "  blind (total):       3\n"
    "    not attempted (locked/idle):    1\n"
    "    no recorded window bounds:      1\n"
    "    no sidecar frame nearby:        1\n"
    "    unsupported era (pre-07-07):    0\n"
    "    extraction/OCR failed:          0\n";

std::string withTails(std::string text, const std::string& first, const std::string& second) {
    text.replace(text.find("{1}"), 3, first);
    text.replace(text.find("{2}"), 3, second);
    return text;
}

TEST_F(ReplayVerb, ScoresTheBlindAnswersAndReportsWhatTheModelCouldSee) {
    const auto result = run({"7"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, opening() + withTails(pointLines, "", "") + visibilityBlock);
    EXPECT_TRUE(second.requests().empty());
}

TEST_F(ReplayVerb, ThePairedArmAsksTheSecondModelTheSamePromptOnModelJudgedPointsOnly) {
    second.enqueue(chatPath, Reply::json(200, verdict("NOT_ALIGNED")));
    second.enqueue(chatPath, Reply::json(200, verdict("NOT_ALIGNED")));
    const auto result = run({"7", "--paired-fm"});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    // The latencies are real measurements; only their form is fixed.
    const std::string output =
        std::regex_replace(result.standardOutput, std::regex("ollama \\d+\\.\\ds, apple on-device \\d+\\.\\ds"), "…");
    EXPECT_EQ(output, opening() +
                          withTails(pointLines, " | fm=NOT_ALIGNED conf=0.80 MISS reason=\"r\"",
                                    " | fm=NOT_ALIGNED conf=0.80 OK reason=\"r\"") +
                          "\n--- Apple on-device Foundation Model, paired arm ---\n"
                          "paired points (both arms answered): 2\n"
                          "ollama (gemma) on these same points: 1 / 2  (50.0%, 95% CI [9.5%, 90.5%])\n"
                          "apple on-device:                     1 / 2  (50.0%, 95% CI [9.5%, 90.5%])\n"
                          "discordant pairs: ollama-only-correct=1 fm-only-correct=1 (concordant pairs carry no "
                          "information about the difference)\n"
                          "McNemar exact (two-sided): p = 1.0000\n"
                          "mean latency per judged point: …\n"
                          "FM confusion (gt->pred):\n"
                          "  NOT_ALIGNED->NOT_ALIGNED: 1\n"
                          "  ON_TASK->NOT_ALIGNED: 1\n"
                          "per-class recall (apple on-device):\n"
                          "  NOT_ALIGNED: 1/1  (100.0%)\n"
                          "  ON_TASK: 0/1  (0.0%)\n"
                          "  balanced accuracy (mean per-class recall): 50.0%  <- compare this across arms, NOT raw "
                          "accuracy\n"
                          "  (note: the ollama figure above is over all scored points; this one is over paired "
                          "points only — read each arm's balanced accuracy on its own terms, not as an exact delta)\n" +
                          visibilityBlock);
    const auto asked = second.requests(chatPath);
    const auto answered = local.requests(chatPath);
    ASSERT_EQ(asked.size(), 2u);
    for (size_t i = 0; i < asked.size(); ++i) {
        EXPECT_EQ(asked[i].json()["model"], "second-model");
        EXPECT_EQ(asked[i].json()["messages"], answered[i].json()["messages"]);
    }
}

TEST_F(ReplayVerb, AHelperWithoutAnAnswerDropsThePointFromThePairedDenominator) {
    const auto result = run({"7", "--paired-fm"}, {{"AIMCAP_FM_JUDGE_BIN", writeScript(dir / "fm", "echo oops").string()}});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    const std::string& out = result.standardOutput;
    EXPECT_NE(out.find("MISS | fm=FAILED(unparseable)\n"), std::string::npos) << out;
    EXPECT_NE(out.find("paired points (both arms answered): 0\n"
                       "FM produced NO verdict on 2 point(s) — excluded from the paired denominator:\n"
                       "  unparseable: 2\n"
                       "discordant pairs: ollama-only-correct=0 fm-only-correct=0"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("McNemar exact: no discordant pairs — the two arms agreed on every paired point.\n"
                       "FM confusion (gt->pred):\n  (note:"),
              std::string::npos)
        << out;
    // The shipped helper with no second model named.
    local.enqueue(chatPath, Reply::json(200, verdict("ON_TASK")));
    const auto unnamed = run({"2", "--paired-fm"}, {{"AIMCAP_FM_JUDGE_MODEL", " "}});
    EXPECT_NE(unnamed.standardOutput.find("OK | fm=FAILED(not_configured)\n"), std::string::npos) << unnamed.standardOutput;
}

TEST_F(ReplayVerb, SettledScoresTheRevisionAndBadArgumentsFailPlainly) {
    auto result = run({"1", "2", "--settled"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_NE(result.standardOutput.find("scoring SETTLED answers (newest row, blindness ignored)"), std::string::npos);
    EXPECT_NE(result.standardOutput.find("[1/1] id=8 label=on_task gt=ON_TASK pred=ON_TASK"), std::string::npos) << result.standardOutput;

    for (const char* bad : {"0", "-2", "x", "3.5"}) {
        result = run({bad});
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.standardError, "usage: VerdictBench replay <n> [offset] [--paired-fm] [--settled]\n");
    }
    fs::remove(root() / "labels.sqlite");
    result = run({"5"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardError, "could not open labels.sqlite at " + (root() / "labels.sqlite").string() + "\n");
}

TEST(FMJudgeClient, EveryWayTheHelperFailsHasAKind) {
    testing::TempDir dir;
    const auto failure = [&](const std::string& script, const std::string& prompt = "u") {
        const Environment environment{{FMJudgeClient::binEnvVar, writeScript(dir / "fm", script).string()}};
        try {
            FMJudgeClient::judge("s", prompt, environment, 0.5);
        } catch (const FMJudgeClient::Failure& failure) {
            return failure.kind() + ": " + failure.description();
        }
        return std::string("answered");
    };
    EXPECT_EQ(failure("sleep 30"), "timeout: fm_judge gave no answer within 0.5s and was stopped");
    EXPECT_EQ(failure("kill -SEGV $$"), "crashed: fm_judge ended with signal 11 before answering");
    EXPECT_EQ(failure("echo '{\"confidence\": 1}'"), "unparseable: fm_judge response missing 'state'");
    EXPECT_EQ(failure("printf '{\"state\":'"), "unparseable: fm_judge printed no JSON object, but \"{\"state\":\"");
    EXPECT_EQ(failure("echo '{\"error\": {\"kind\": \"transport\", \"message\": \"refused\"}}'; exit 4"),
              "transport: fm_judge: refused");
    EXPECT_EQ(failure("cat >/dev/null; echo ok", "\xff"), "encode: could not encode the prompt for fm_judge: it is not valid UTF-8");
    EXPECT_EQ(failure("cat"), "unparseable: fm_judge response missing 'state'");  // it echoed the request
    const Environment missing{{FMJudgeClient::binEnvVar, (dir / "absent").string()}};
    EXPECT_THROW(FMJudgeClient::judge("s", "u", missing), FMJudgeClient::Failure);

    const auto judged = FMJudgeClient::judge(
        "s", "u", {{FMJudgeClient::binEnvVar, writeScript(dir / "ok", R"(echo '{"state":"IDLE","reason":"away"}')").string()}});
    EXPECT_EQ(judged, (ClassifierJudgment{"IDLE", 0.0, "away"}));
}

}  // namespace
}  // namespace aimwise
