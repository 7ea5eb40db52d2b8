// The coach driver's --gate-message form and `aimwise memory`, run as the person runs them.
#include "agents/coach/coach_command.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include "AimwiseCore/coach/gate_message_source.h"
#include "AimwiseCore/memory/memory_store.h"
#include "AimwiseCore/memory/memory_wipe.h"
#include "agents/aimwise/memory_verb.h"
#include "agents/tests/agent_test_support.h"
#include "tests/support/run_process.h"

namespace aimwise::testing {
namespace {

namespace fs = std::filesystem;

std::string coachPath() { return std::string(AIMWISE_BINARY_DIR) + "/bin/aimwise-coach"; }

// Every path under `root` with its size and modification time.
std::map<std::string, std::pair<uintmax_t, fs::file_time_type>> snapshot(const fs::path& root) {
    std::map<std::string, std::pair<uintmax_t, fs::file_time_type>> files;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        files[entry.path().string()] = {entry.is_regular_file() ? entry.file_size() : 0, entry.last_write_time()};
    return files;
}

class CoachCommandTest : public ::testing::Test {
protected:
    void SetUp() override { icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC")); }
    ProcessResult run(const std::string& program, const std::vector<std::string>& arguments) {
        auto env = sandbox.environment();
        env["TZ"] = "UTC";
        return runProcess(program, arguments, {.environment = env});
    }
    AgentSandbox sandbox;
};

TEST_F(CoachCommandTest, GateMessagePrintsWhatTheGateWouldSendAndTouchesNothing) {
    writeFile(sandbox.root / "io-layer/events.jsonl",
              R"({"ts_ms":1773136800000,"kind":"event","type":"task_declared","detail":{"task":"taxes"},"source":"aimwise"})"
              "\nnot json\n");
    writeFile(sandbox.root / "checker-log.jsonl",
              R"({"at":"2026-03-10T10:00:00","state":"ON_TASK","frontmost_app":"Code","reason":"\"forms\" open"})"
              "\n");
    const auto before = snapshot(sandbox.root);
    const ProcessResult result = run(coachPath(), {"--gate-message", "2026-03-10T10:05:00Z"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    const std::string expected = GateMessageSource(sandbox.root).build(1773137100000, sandbox.environment()).message;
    EXPECT_EQ(result.standardOutput, expected + "\n");
    EXPECT_NE(expected.find("Timeline:\nat 10:00 the classifier moved to ON_TASK, saying: \"ʺformsʺ open\"\nat 10:00 "
                            "they declared: \"taxes\", with no time limit\nthe classifier's latest observation is "
                            "from 10:00: ON_TASK, Code frontmost, saying: \"ʺformsʺ open\"\nit is now 10:05.\n\n"),
              std::string::npos);
    EXPECT_EQ(snapshot(sandbox.root), before);

    for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
             {"--gate-message", "yesterday"}, {"--gate-message", "2026-03-10", "x"}, {"--turn"}, {"--once", "x"}}) {
        const ProcessResult refused = run(coachPath(), wrong);
        EXPECT_EQ(refused.exitStatus, 2) << ::testing::PrintToString(wrong);
        EXPECT_NE(refused.standardError.find(CoachCommand::usageText), std::string::npos);
    }
    EXPECT_EQ(CoachCommand::parseTime("2026-03-10T10:05:00+01:00"), 1773133500000);
    EXPECT_EQ(CoachCommand::parseTime("2026-03-10T10:05:00"), 1773137100000);
}

TEST_F(CoachCommandTest, MemoryReadsAsAPersonWouldReadIt) {
    EXPECT_EQ(run(aimwisePath(), {"memory"}).standardOutput,
              "There is no standing memory yet. The nightly pass makes one from the days' logs.\n");
    const StandingMemory memory{1773136800000, 1, {{"taxes", MemoryThreadStatus::active, "forms due Friday"}},
                                {}, {{"They file on weekends.", MemoryFactProvenance::asserted, {1773050400000}},
                                     {"Mail pulls them away.", MemoryFactProvenance::inferred, {1772964000000, 1773050400000}}},
                                true, std::nullopt, "the reply did not parse"};
    MemoryStore::writeStandingMemory(memory, sandbox.root);
    const ProcessResult shown = run(aimwisePath(), {"memory"});
    EXPECT_EQ(shown.exitStatus, 0);
    EXPECT_EQ(shown.standardOutput,
              "Standing memory, made Mar 10, 10:00 from 1 period digest.\n"
              "The nightly pass could not organise it (the reply did not parse), so every candidate was kept as it "
              "came.\n\nThreads:\n  - taxes (active): forms due Friday\n"
              "\nFacts:\n  - They file on weekends. (they said so; from the log at Mar 9, 10:00)\n"
              "  - Mail pulls them away. (inferred from a pattern; from 2 log lines, Mar 8, 10:00 to Mar 9, 10:00)\n"
              "\nLessons:\n  none\n");
    MemoryWipeLog::request(1773136800001, MemoryWipeLog::defaultURL(sandbox.root));
    EXPECT_EQ(run(aimwisePath(), {"memory"}).standardOutput,
              "The standing memory was made on Mar 10, 10:00, before you asked to forget on Mar 10, 10:00, so the "
              "coach does not use it. The next nightly pass makes a new one from what came after.\n");
    writeFile(MemoryStore::standingMemoryPath(sandbox.root), "{");
    EXPECT_EQ(MemoryVerb::render(MemoryStore::inspectStandingMemory(sandbox.root), std::nullopt, "/m.json"),
              "The standing memory at /m.json could not be read, so the coach goes on without it until the next "
              "nightly pass replaces it. Nothing was changed.\n");
}

}  // namespace
}  // namespace aimwise::testing
