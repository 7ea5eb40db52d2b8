// `aimwise label` driven through its standard input: a blind answer, the reveal, a revision, a
// judgement on the reason, leaving midway, and the totals.
#include <gtest/gtest.h>

#include <fmt/format.h>

#include "AimwiseCore/classifier/labels_writer.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "CaptureShared/common/local_time.h"
#include "agents/tests/agent_test_support.h"
#include "tests/support/run_process.h"

namespace aimwise {
namespace {

constexpr int64_t T = 1'782'898'215'000;  // Wed 1 Jul 2026, 09:30:15 UTC

class LabelVerbTest : public ::testing::Test {
protected:
    LabelVerbTest() {
        std::string log;
        for (const auto& [ms, state, app, reason] : std::vector<std::tuple<int64_t, const char*, const char*, const char*>>{
                 {T, "ON_TASK", "Editor", "You are drafting the report."},
                 {T + 4 * 3'600'000, "NOT_ALIGNED", "Firefox", "You are watching videos."},
                 {T + 5 * 3'600'000, "ABSTAINED", "Veska", ""},
                 {T + 6 * 3'600'000, "ON_TASK", "Editor", "Already labelled."}})
            log += fmt::format(
                R"({{"at":"{}","state":"{}","frontmost_app":"{}","frontmost_window_title":"card 4111 1111 1111 1111","reason":"{}","confidence":0.9,"declared_task":"write the report"}})"
                "\n",
                LocalTime::format(ms), state, app, reason);
        testing::writeFile(sandbox.root / "checker-log.jsonl", log);
        testing::writeFile(sandbox.root / "classifier-describe.jsonl",
                           fmt::format(R"({{"v":1,"atMs":{},"describe":"A video site in a browser."}})" "\n",
                                       T + 4 * 3'600'000 + 3000));
        LabelsWriter(labels()).insert({.t0Ms = T + 6 * 3'600'000, .t1Ms = T + 6 * 3'600'000, .label = "on_task",
                                       .sourceHour = "h", .createdAt = "c", .source = "in_app"});
    }
    testing::ProcessResult run(const std::vector<std::string>& arguments, const std::string& input = "") {
        auto environment = sandbox.environment();
        environment["TZ"] = "UTC";
        std::vector<std::string> all{"label"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return testing::runProcess(testing::aimwisePath(), all, {.environment = environment, .standardInput = input});
    }
    std::filesystem::path labels() const { return sandbox.root / "labels.sqlite"; }

    testing::AgentSandbox sandbox;
};

TEST_F(LabelVerbTest, AsksBlindThenRevealsAndKeepsARevisionApart) {
    const auto result = run({"--count", "5"}, "focused\n4 got lost in a wiki\n5\na\nq\n");
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    const std::string& out = result.standardOutput;
    for (const std::string& part : {
             std::string("2 moments to label."),
             std::string("── Moment 1 of 2 ──────────────────────────────────────\n"
                         "  When:       Wed 1 Jul 2026, 13:30\n"
                         "  Declared:   \"write the report\"\n"
                         "  In front:   Firefox — \"[title withheld: contained an identifier]\"\n"
                         "  On screen:  A video site in a browser.\n\n"
                         "What were you really doing?\n"
                         "   1  Doing the intention             what you meant to do, or a break you really took\n"),
             std::string("  Please answer with a number from 1 to 10 or one of the words (for example rabbit_hole).\n"),
             std::string("  Saved: Down a rabbit hole (your blind answer).\n\n"
                         "  The classifier said: off intention (NOT_ALIGNED), 90% sure\n"
                         "    \"You are watching videos.\"\n"
                         "  That agrees with your answer.\n"),
             std::string("  Saved the revision: Off intention (kept apart from your blind answer, since it was given "
                         "after seeing the verdict).\n"),
             std::string("── Moment 2 of 2 ──"),
             std::string("\nSaved 2 answers (1 revised after the reveal, 1 reason rated). `aimwise label --stats` shows "
                         "the totals.\n")})
        EXPECT_NE(out.find(part), std::string::npos) << part << "\nin:\n" << out;
    EXPECT_EQ(out.find("4111"), std::string::npos);
    // The verdict is never shown before the blind answer.
    EXPECT_GT(out.find("You are watching videos."), out.find("Saved: Down a rabbit hole"));

    const auto rows = testing::query(labels(), "SELECT t0_ms, label, notes, source, answered_blind, user_note FROM labels "
                                               "WHERE source = 'in_app_ramp' ORDER BY id");
    ASSERT_EQ(rows.size(), 2u);
    const std::string moment = std::to_string(T + 4 * 3'600'000);
    EXPECT_EQ(rows[0], (testing::Row{moment, "rabbit_hole", std::nullopt, "in_app_ramp", "1", "got lost in a wiki"}));
    EXPECT_EQ(rows[1], (testing::Row{moment, "off_task", "revised AFTER reveal — anchored on the classifier's verdict",
                                     "in_app_ramp", "0", "got lost in a wiki"}));
    const std::string reasons = testing::readFile(sandbox.root / "reason-human-labels.jsonl");
    EXPECT_NE(reasons.find(R"("judgement":"reason_was_wrong","moment_ms":)" + moment), std::string::npos) << reasons;

    // Leaving at once loses nothing and offers only the moment still unlabelled.
    const auto left = run({}, "");
    EXPECT_EQ(left.exitStatus, 0);
    EXPECT_NE(left.standardOutput.find("1 moment to label."), std::string::npos) << left.standardOutput;
    EXPECT_NE(left.standardOutput.find("\nSaved 0 answers. "), std::string::npos);
    EXPECT_EQ(testing::count(labels(), "labels"), 3);

    const auto stats = run({"--stats"});
    EXPECT_EQ(stats.standardOutput,
              "Hand labels in " + labels().string() +
                  "\n"
                  "  Doing the intention             on_task                 1\n"
                  "  Still on it, past my estimate   on_task_overtime        0\n"
                  "  Switching between things        switching_tasks         0\n"
                  "  Down a rabbit hole              rabbit_hole             1\n"
                  "  Off intention                   off_task                1\n"
                  "  Off intention                   not_aligned             0\n"
                  "  Away from my computer           break                   0\n"
                  "  Away from my computer           not_using_computer      0\n"
                  "  No intention declared           no_task                 0\n"
                  "  Can't tell from this            ambiguous               0\n"
                  "3 answers for 2 moments: 2 with a blind answer, 0 only with an answer given after the reveal; 1 "
                  "blind answer was later revised.\n");
}

TEST_F(LabelVerbTest, WrongOptionsAreRefusedWithTheUsage) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{{"--count", "0"}, {"--count"}, {"--stats", "--count", "3"}, {"x"}}) {
        const auto result = run(arguments);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_NE(result.standardError.find("usage: aimwise label [--count N] | aimwise label --stats\n"),
                  std::string::npos);
    }
    EXPECT_FALSE(std::filesystem::exists(sandbox.root / "reason-human-labels.jsonl"));
}

}  // namespace
}  // namespace aimwise
