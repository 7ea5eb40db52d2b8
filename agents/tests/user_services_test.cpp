// `aimwise install-services` and `uninstall-services` against a stand-in systemctl.
#include "agents/services/user_services.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "agents/tests/agent_test_support.h"
#include "tests/support/run_process.h"

namespace aimwise::testing {
namespace {

TEST(UserServicesTest, TheCaptureUnitStartsTheBuiltAgentAndKeepsItRunning) {
    const auto& units = UserServices::embeddedUnits();
    const auto capture = std::find_if(units.begin(), units.end(), [](const auto& u) { return u.name == "aimwise-capture.service"; });
    ASSERT_NE(capture, units.end());
    EXPECT_NE(capture->text.find("ExecStart=" + capturePath() + "\n"), std::string::npos) << capture->text;
    EXPECT_NE(capture->text.find("Restart=always"), std::string::npos);
    EXPECT_EQ(capture->text.find('@'), std::string::npos) << "a placeholder was left unfilled";
    // Every unit that starts a program starts the one this build made.
    for (const auto& unit : units) {
        for (size_t at = unit.text.find("\nExecStart="); at != std::string::npos;
             at = unit.text.find("\nExecStart=", at + 1)) {
            const std::string program = unit.text.substr(at + 11, unit.text.find_first_of(" \n", at + 11) - at - 11);
            EXPECT_EQ(program.rfind(std::string(AIMWISE_BINARY_DIR) + "/bin/", 0), 0u) << unit.name << ": " << program;
            const auto name = std::filesystem::path(program).filename();
            EXPECT_TRUE(name == "aimwise-capture" || name == "VerdictBench" || name == "aimwise-dream" || name == "aimwise-coach")
                << program;
        }
    }
}

TEST(UserServicesTest, TimersAreEnabledInsteadOfTheServicesTheyStart) {
    const std::vector<UserServices::UnitFile> units{
        {"aimwise-capture.service", ""}, {"aimwise-tick.service", ""}, {"aimwise-tick.timer", ""}};
    EXPECT_EQ(UserServices::unitsToEnable(units), (std::vector<std::string>{"aimwise-capture.service", "aimwise-tick.timer"}));
}

struct FakeSystemctl {
    AgentSandbox sandbox;
    std::filesystem::path script = sandbox.temp / "systemctl";
    std::filesystem::path calls = sandbox.temp / "calls";
    explicit FakeSystemctl(int exitStatus = 0) {
        writeFile(script, "#!/bin/sh\necho \"$*\" >> '" + calls.string() + "'\nexit " + std::to_string(exitStatus) + "\n");
        chmod(script.c_str(), 0700);
    }
    ProcessResult aimwise(const std::vector<std::string>& arguments) {
        auto env = sandbox.environment();
        env["AIMWISE_SYSTEMCTL"] = script.string();
        return runProcess(aimwisePath(), arguments, {.environment = env});
    }
    std::filesystem::path unitDir() const { return sandbox.home / ".config/systemd/user"; }
    std::string logged() const { return std::filesystem::exists(calls) ? readFile(calls) : ""; }
};

TEST(UserServicesTest, InstallWritesEveryUnitThenReloadsAndEnablesThem) {
    FakeSystemctl systemctl;
    const ProcessResult run = systemctl.aimwise({"install-services"});
    ASSERT_EQ(run.exitStatus, 0) << run.standardError;
    std::string enabled;
    for (const auto& name : UserServices::unitsToEnable(UserServices::embeddedUnits())) enabled += " " + name;
    EXPECT_EQ(systemctl.logged(), "--user daemon-reload\n--user enable --now" + enabled + "\n");
    for (const auto& unit : UserServices::embeddedUnits())
        EXPECT_EQ(readFile(systemctl.unitDir() / unit.name), unit.text) << unit.name;

    const ProcessResult removed = systemctl.aimwise({"uninstall-services"});
    ASSERT_EQ(removed.exitStatus, 0) << removed.standardError;
    for (const auto& unit : UserServices::embeddedUnits())
        EXPECT_FALSE(std::filesystem::exists(systemctl.unitDir() / unit.name)) << unit.name;
    EXPECT_NE(systemctl.logged().find("--user disable --now aimwise-capture.service"), std::string::npos);
}

TEST(UserServicesTest, AManagerThatRefusesLeavesTheFilesAndSaysWhatToRun) {
    FakeSystemctl systemctl(1);
    const ProcessResult run = systemctl.aimwise({"install-services", "--no-start"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.standardError.find("systemctl --user daemon-reload && systemctl --user enable --now"),
              std::string::npos)
        << run.standardError;
    EXPECT_TRUE(std::filesystem::exists(systemctl.unitDir() / "aimwise-capture.service"));
    EXPECT_EQ(systemctl.aimwise({"install-services", "--bogus"}).exitStatus, 2);
}

}  // namespace
}  // namespace aimwise::testing
