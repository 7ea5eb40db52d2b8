// The person's command: declaring and clearing a task, as the capture agent then records it;
// setting up a data root; the status lines.
#include "agents/aimwise/aimwise_command.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <fstream>
#include <regex>

#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "CaptureShared/signals/signals_reader.h"
#include "agents/tests/agent_test_support.h"
#include "tests/support/run_process.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/x_display.h"

namespace aimwise::testing {
namespace {

using AimwiseCommand::parseTask;
using AimwiseCommand::TaskClear;
using AimwiseCommand::TaskDeclaration;
using AimwiseCommand::UsageError;

TEST(AimwiseCommandTest, TaskArgumentsBecomeADeclarationOrAClearOrAUsageError) {
    EXPECT_EQ(parseTask({"write", "the", "report", "--minutes", "45", "--why", " due at noon "}),
              AimwiseCommand::TaskRequest(TaskDeclaration{"write the report", 45.0, "due at noon"}));
    EXPECT_EQ(parseTask({"--minutes", "7.5", "read paper"}),
              AimwiseCommand::TaskRequest(TaskDeclaration{"read paper", 7.5, std::nullopt}));
    EXPECT_EQ(parseTask({"--clear"}), AimwiseCommand::TaskRequest(TaskClear{}));
    for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
             {}, {"  "}, {"x", "--minutes"}, {"x", "--minutes", "0"}, {"x", "--minutes", "-3"},
             {"x", "--minutes", "soon"}, {"x", "--minutes", "nan"}, {"--clear", "x"}, {"x", "--later"}, {"x", "--why"}})
        EXPECT_TRUE(std::holds_alternative<UsageError>(parseTask(wrong))) << ::testing::PrintToString(wrong);
}

TEST(AimwiseCommandTest, TheEventCarriesWhatTheEventLogReadersLookFor) {
    const EventLogEvent declared =
        AimwiseCommand::taskEvent(TaskDeclaration{"write the report", 45.0, "due at noon"}, 1'700'000'000'000);
    EXPECT_EQ(declared.type, "task_declared");
    EXPECT_EQ(declared.tsMs, 1'700'000'000'000);
    EXPECT_EQ(declared.detail, JSONValue(JSONValue::Object{
                                   {"task", "write the report"}, {"horizon_minutes", 45.0}, {"why", "due at noon"}}));
    const EventLogEvent bare = AimwiseCommand::taskEvent(TaskDeclaration{"x", std::nullopt, std::nullopt}, 1);
    EXPECT_EQ(bare.detail, JSONValue(JSONValue::Object{{"task", "x"}}));
    EXPECT_EQ(AimwiseCommand::taskEvent(TaskClear{}, 2).type, "task_cleared");
}

class AimwiseWithAgentTest : public ::testing::Test {
protected:
    AgentSandbox sandbox;
    ProcessResult aimwise(const std::vector<std::string>& arguments,
                          std::map<std::string, std::string> extra = {}) {
        auto env = sandbox.environment();
        env["AIMCAP_LOCAL_INFERENCE_ENDPOINT"] = "http://127.0.0.1:9";
        for (const auto& [key, value] : extra) env[key] = value;
        return runProcess(aimwisePath(), arguments, {.environment = env});
    }
};

TEST_F(AimwiseWithAgentTest, ADeclaredTaskReachesTheTicksAndTheEventsTableAndSoDoesItsClearing) {
    XvfbDisplay xvfb;
    TestWindows windows(xvfb.name());
    windows.focus(windows.create("libreoffice", "libreoffice-writer", "report.odt", 0, 0, 800, 600));
    const auto capture = [&] {
        return runProcess(capturePath(), {"--once"}, {.environment = sandbox.environment(xvfb.name())});
    };
    ASSERT_EQ(capture().exitStatus, 0);  // before any declaration

    const ProcessResult declared = aimwise({"task", "write the report", "--minutes", "45", "--why", "due at noon"});
    ASSERT_EQ(declared.exitStatus, 0) << declared.standardError;
    EXPECT_NE(declared.standardOutput.find("Declared \"write the report\" (until "), std::string::npos)
        << declared.standardOutput;
    const auto events = EventLogReader::read(sandbox.root / "io-layer/events.jsonl");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].source, "aimwise");
    EXPECT_EQ(events[0].detail.member("horizon_minutes")->numberIfAny() ? *events[0].detail.member("horizon_minutes")->numberIfAny() : 0, 45.0);
    EXPECT_EQ(events[0].detail.member("_producer")->member("process")->stringValue(), "aimwise");

    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(capture().exitStatus, 0);
    const auto tick = SignalsReader::open(sandbox.signals()).latestTick();
    ASSERT_TRUE(tick && tick->declaredTask);
    EXPECT_TRUE(tick->declaredTask->starts_with("Task: write the report\nDeclared: ")) << *tick->declaredTask;
    EXPECT_NE(tick->declaredTask->find("\nWhy: due at noon\n"), std::string::npos);
    EXPECT_EQ(SignalsReader::open(sandbox.signals()).taskDeclaredTsMsFromSQLiteEvents(tick->tsMs), tick->tsMs);

    // The same declaration on the next sample is no news.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(capture().exitStatus, 0);
    ASSERT_EQ(aimwise({"task", "--clear"}).exitStatus, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(capture().exitStatus, 0);
    EXPECT_EQ(SignalsReader::open(sandbox.signals()).latestTick()->declaredTask, std::nullopt);
    const auto rows = query(sandbox.signals(), "SELECT type, detail FROM events ORDER BY ts_ms");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0][0], "task_declared");
    EXPECT_NE(rows[0][1]->find("write the report"), std::string::npos);
    EXPECT_EQ(rows[1], (Row{"task_cleared", "{}"}));
}

TEST_F(AimwiseWithAgentTest, NothingIsDeclaredWithoutADataRoot) {
    const ProcessResult run = aimwise({"task", "anything"}, {{"AIMCAP_DATA_ROOT", (sandbox.temp / "gone").string()}});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.standardError.find("is not there (an unmounted disk?)"), std::string::npos) << run.standardError;
    EXPECT_FALSE(std::filesystem::exists(sandbox.temp / "gone"));
    EXPECT_EQ(aimwise({"task"}).exitStatus, 2);
    EXPECT_EQ(aimwise({"frobnicate"}).exitStatus, 2);
}

TEST_F(AimwiseWithAgentTest, OnAFullDiskADeclarationThatDidNotLandSaysSoAndTheNextOneIsWhole) {
    // A small tmpfs over the data root, unmounted when the test ends.
    if (::mount("tmpfs", sandbox.root.c_str(), "tmpfs", 0, "size=64k,mode=0700") != 0)
        GTEST_SKIP() << "mounting a small tmpfs is not permitted here, so the full-disk case did not run";
    const std::unique_ptr<const char, void (*)(const char*)> mounted(sandbox.root.c_str(),
                                                                     [](const char* at) { ::umount2(at, MNT_DETACH); });
    writeFile(sandbox.root / "manifest.json", "{}\n");
    ASSERT_EQ(aimwise({"task", "first"}).exitStatus, 0);
    for (std::ofstream filler(sandbox.root / "filler"); filler.write(std::string(4096, '\0').data(), 4096);) {
    }
    const auto log = sandbox.root / "io-layer/events.jsonl";
    const ProcessResult cut = aimwise({"task", std::string(6000, 'x')});
    EXPECT_EQ(cut.exitStatus, 1);
    EXPECT_TRUE(std::regex_match(cut.standardError, std::regex("FAIL: the declaration did not land: it could not be "
        "written to " + log.string() + R"( \(only [1-9][0-9]* of 6[0-9]{3} bytes were written, so the disk is probably )"
        R"(full; free some space and try again\)\. Nothing changed\.\n)"))) << cut.standardError;
    EXPECT_NE(readFile(log).back(), '\n') << "the line was cut";
    EXPECT_NE(aimwise({"status"}).standardOutput.find("\nTask: \"first\"\n"), std::string::npos);
    std::filesystem::remove(sandbox.root / "filler");
    const ProcessResult next = aimwise({"task", "second"});
    EXPECT_EQ(next.exitStatus, 0) << next.standardError;
    EXPECT_EQ(next.standardOutput, "Declared \"second\".\n");
    const auto events = EventLogReader::read(log);
    ASSERT_EQ(events.size(), 2u) << "the cut line is left behind alone";
    EXPECT_EQ(events[1].detail.member("task")->stringValue(), "second");
}

// The mount point of an unmounted disk is an empty directory on the system disk.
TEST_F(AimwiseWithAgentTest, AnEmptyDirectoryWhereTheRootShouldBeGetsNothing) {
    std::filesystem::remove(sandbox.root / "manifest.json");
    const std::string root = sandbox.root.string();
    const ProcessResult task = aimwise({"task", "anything"});
    EXPECT_EQ(task.exitStatus, 1);
    EXPECT_EQ(task.standardError, "FAIL: nothing was written: the data root " + root +
                                      " holds none of this system's files, which is how the mount point of an "
                                      "unmounted disk looks. Mount the disk, or run `aimwise init " + root +
                                      "` to start a new data root there.\n");
    XvfbDisplay xvfb;
    const ProcessResult capture =
        runProcess(capturePath(), {"--once"}, {.environment = sandbox.environment(xvfb.name())});
    EXPECT_EQ(capture.exitStatus, 1);
    EXPECT_EQ(capture.standardError, "aimwise-capture: the data root " + root +
                                         " holds no signals.sqlite and was not prepared by `aimwise init`, which is "
                                         "how the mount point of an unmounted disk looks; recording nothing until "
                                         "the disk is mounted or `aimwise init " + root +
                                         "` prepares it; checking again every 60 s\n");
    EXPECT_TRUE(std::filesystem::is_empty(sandbox.root));
}

TEST_F(AimwiseWithAgentTest, InitConfiguresTheRootOnceAndKeepsWhatIsAlreadySet) {
    const auto root = sandbox.temp / "new-root";
    auto withoutRoot = sandbox.environment();
    withoutRoot.erase("AIMCAP_DATA_ROOT");
    const ProcessResult first = runProcess(aimwisePath(), {"init", root.string()},
                                           {.environment = withoutRoot, .unset = {"AIMCAP_DATA_ROOT"}});
    ASSERT_EQ(first.exitStatus, 0) << first.standardError;
    const auto config = sandbox.home / ".local/share/AimCapture/config.json";
    const auto json = JSONValue::parse(readFile(config));
    EXPECT_EQ(json.member("dataRoot")->stringValue(), root.string());
    EXPECT_EQ(json.member("env")->member("AIMCAP_OFFLINE_MODE")->stringValue(), "1");
    EXPECT_TRUE(std::filesystem::is_directory(root / "io-layer"));
    EXPECT_EQ(std::filesystem::status(root).permissions() & std::filesystem::perms::all, std::filesystem::perms::owner_all);

    writeFile(config, readFile(config).replace(readFile(config).find("\"low\""), 5, "\"high\""));
    const ProcessResult again = runProcess(aimwisePath(), {"init", root.string()},
                                           {.environment = withoutRoot, .unset = {"AIMCAP_DATA_ROOT"}});
    ASSERT_EQ(again.exitStatus, 0);
    EXPECT_NE(again.standardOutput.find("settings already there were kept"), std::string::npos) << again.standardOutput;
    EXPECT_EQ(JSONValue::parse(readFile(config)).member("env")->member("AIMCAP_REASONING_EFFORT")->stringValue(), "high");

    // Without AIMCAP_DATA_ROOT the settings file now names the root, so a task lands there.
    const ProcessResult task = runProcess(aimwisePath(), {"task", "plan"},
                                          {.environment = withoutRoot, .unset = {"AIMCAP_DATA_ROOT"}});
    EXPECT_EQ(task.exitStatus, 0) << task.standardError;
    EXPECT_EQ(EventLog::read(root / "io-layer/events.jsonl").value_or("").substr(0, 11), "Task: plan\n");
}

TEST_F(AimwiseWithAgentTest, StatusShowsTaskVerdictSignalsAndModelInAFewLines) {
    const ProcessResult empty = aimwise({"status"});
    ASSERT_EQ(empty.exitStatus, 0) << empty.standardError;
    EXPECT_EQ(empty.standardOutput.substr(0, empty.standardOutput.find('\n')), "Data root: " + sandbox.root.string());
    EXPECT_NE(empty.standardOutput.find("\nTask: none declared\nVerdict: none yet\nSignals: none yet"),
              std::string::npos)
        << empty.standardOutput;
    EXPECT_NE(empty.standardOutput.find("\nModel: "), std::string::npos);
    EXPECT_NE(empty.standardOutput.find("is not installed — run `aimwise model install"), std::string::npos)
        << empty.standardOutput;

    ASSERT_EQ(aimwise({"task", "write the report", "--minutes", "45"}).exitStatus, 0);
    ClassifierTick verdict;
    verdict.at = "2026-11-22 09:00:00";
    verdict.state = "ON_TASK";
    verdict.reason = "The report is open in the editor, card 4111 1111 1111 1111.";  // a row from before cleaning
    verdict.frontmostApp = "Code\x1b[2J";
    writeFile(sandbox.root / "checker-log.jsonl", verdict.encoded() + "\n");
    const int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::system_clock::now().time_since_epoch()).count();
    SignalsFixture(sandbox.signals()).tick({.tsMs = now - 2000, .frontmostApp = "Code"});

    const ProcessResult status = aimwise({"status"});
    EXPECT_NE(status.standardOutput.find("\nTask: \"write the report\" (until "), std::string::npos) << status.standardOutput;
    EXPECT_NE(status.standardOutput.find("\nVerdict: ON_TASK at 2026-11-22 09:00:00 in Code\\x1b[2J\n  reason: The "
                                         "report is open in the editor, card [redacted card number].\n"),
              std::string::npos)
        << status.standardOutput;
    EXPECT_NE(status.standardOutput.find("\nSignals: fresh — newest sample 2s ago, front: Code\n"), std::string::npos)
        << status.standardOutput;

    std::filesystem::remove(sandbox.signals());
    SignalsFixture(sandbox.signals()).tick({.tsMs = now - 3'600'000, .frontmostApp = "Code"});
    ASSERT_EQ(aimwise({"task", "--clear"}).exitStatus, 0);
    const ProcessResult later = aimwise({"status"});
    EXPECT_NE(later.standardOutput.find("\nTask: none (cleared)\n"), std::string::npos);
    EXPECT_NE(later.standardOutput.find("\nSignals: STALE — "), std::string::npos) << later.standardOutput;
}

}  // namespace
}  // namespace aimwise::testing
