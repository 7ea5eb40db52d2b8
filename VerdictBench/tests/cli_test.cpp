#include "VerdictBench/cli.h"

#include <gtest/gtest.h>

#include "tests/support/run_process.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ProcessOptions;
using testing::runProcess;
using testing::verdictBenchPath;

TEST(ArgumentSplitTest, PairedAndSettledFlagsVanishWhereverTheyStand) {
    const auto invocation = cli::splitArguments({"judge", "--settled", "2026-11-22T06:12:24Z", "--paired-fm"});
    EXPECT_EQ(invocation.mode, "judge");
    EXPECT_TRUE(invocation.settledFlag);
    EXPECT_TRUE(invocation.fmPairedArmFlag);
    EXPECT_EQ(invocation.positional, std::vector<std::string>{"2026-11-22T06:12:24Z"});
    EXPECT_EQ(invocation.argumentsAfterMode.size(), 3u);
}

TEST(ArgumentSplitTest, WindowContentTakesTheNextWordAndTheLastOneWins) {
    const auto split = cli::extractWindowContentFlag(
        {"--window-content", "first", "5", "--no-window-content", "--window-content", "second"});
    EXPECT_EQ(split.windowContent, "second");
    EXPECT_TRUE(split.noWindowContent);
    EXPECT_EQ(split.positional, std::vector<std::string>{"5"});

    // A trailing flag has no value and stays an ordinary word.
    const auto trailing = cli::extractWindowContentFlag({"--window-content"});
    EXPECT_EQ(trailing.windowContent, std::nullopt);
    EXPECT_EQ(trailing.positional, std::vector<std::string>{"--window-content"});
}

TEST(ArgumentSplitTest, TheVerbItselfIsNeverTakenForAFlag) {
    const auto invocation = cli::splitArguments({"--settled", "x"});
    EXPECT_EQ(invocation.mode, "--settled");
    EXPECT_FALSE(invocation.settledFlag);
    EXPECT_EQ(invocation.positional, std::vector<std::string>{"x"});
    EXPECT_FALSE(cli::splitArguments({}).mode.has_value());
}

TEST(VerdictBenchProcessTest, NoVerbOrAnUnknownVerbPrintsUsageAndFails) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"Judge"}, {"frobnicate", "x"}}) {
        const auto result = runProcess(verdictBenchPath(), arguments);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.standardOutput, "");
        EXPECT_EQ(result.standardError, std::string(cli::usageText) + "\n");
    }
    EXPECT_TRUE(std::string(cli::usageText).starts_with("usage: bench run VerdictBench judge [ISO-8601 timestamp]"));
}

TEST(VerdictBenchProcessTest, PyReprSelftestMatchesPythonRepr) {
    const auto result = runProcess(verdictBenchPath(), {"pyrepr-selftest", "--settled"});
    EXPECT_EQ(result.exitStatus, 0);
    // What Python 3's repr() prints for the twelve texts.
    EXPECT_EQ(result.standardOutput,
              "'plain text'\n"
              "'Hello \"world\" quote'\n"
              "\"it's a test\"\n"
              "'both \\' and \" here'\n"
              "'back\\\\\\\\slash'\n"
              "'line1\\nline2\\ttab\\rcarriage'\n"
              "'em—dash and café'\n"
              "'日本語テキスト'\n"
              "'emoji 😀🎉 test'\n"
              "''\n"
              "'control\\x01char\\x07bell'\n"
              "'nbsp\\xa0space'\n");
}

TEST(VerdictBenchProcessTest, ServiceStartedRunWritesToItsPrivateLogAndAHandRunKeepsTheTerminal) {
    testing::TempDir dir;
    const std::filesystem::path log = dir / "AimwiseCoach" / "classifier.log";
    const auto byHand = runProcess(verdictBenchPath(), {"pyrepr-selftest"},
                                   {.environment = {{"XDG_STATE_HOME", dir.path().string()}}, .unset = {"INVOCATION_ID"}});
    EXPECT_NE(byHand.standardOutput, "");
    EXPECT_FALSE(std::filesystem::exists(log));

    const auto byService = runProcess(
        verdictBenchPath(), {"pyrepr-selftest"},
        {.environment = {{"XDG_STATE_HOME", dir.path().string()}, {"INVOCATION_ID", "0123abcd"}}});
    EXPECT_EQ(byService.exitStatus, 0);
    EXPECT_EQ(byService.standardOutput, "");
    EXPECT_EQ(testing::readFile(log), byHand.standardOutput);
    EXPECT_EQ(std::filesystem::status(log).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

// A timer's tick against a data root on an unmounted disk logs its failure once, not every minute,
// and again when the failure changes or a run by hand asks.
TEST(VerdictBenchProcessTest, AServiceStartedRunDoesNotLogTheFailureTheLastRunLogged) {
    testing::TempDir dir;
    const std::filesystem::path root = dir / "root", log = dir / "AimwiseCoach" / "classifier.log";
    std::filesystem::create_directories(root);
    auto tick = [&](bool byService) {
        ProcessOptions options{.environment = {{"XDG_STATE_HOME", dir.path().string()}, {"AIMCAP_DATA_ROOT", root.string()}}};
        if (byService) options.environment["INVOCATION_ID"] = "0123abcd";
        else options.unset = {"INVOCATION_ID"};
        const auto result = runProcess(verdictBenchPath(), {"tick"}, options);
        EXPECT_EQ(result.exitStatus, 1);
        return result.standardError;
    };
    const std::string missing = "FAIL: could not open " + (root / "signals.sqlite").string() +
                                " (unable to open database file): nothing has been recorded there yet — check that "
                                "the disk holding the data root is mounted and that aimwise-capture is running\n";
    tick(true);
    tick(true);
    EXPECT_EQ(tick(false), missing);
    std::filesystem::create_directory(root / "signals.sqlite");
    tick(true);
    std::filesystem::remove(root / "signals.sqlite");
    tick(true);
    const std::string logged = testing::readFile(log);
    EXPECT_EQ(logged.substr(0, missing.size()), missing);
    EXPECT_EQ(logged.substr(logged.size() - missing.size()), missing);
    size_t lines = 0;
    for (char c : logged) lines += c == '\n';
    EXPECT_EQ(lines, 3u) << logged;
}

}  // namespace
}  // namespace aimwise
