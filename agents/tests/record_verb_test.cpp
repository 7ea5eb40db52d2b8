// `aimwise record` as the built program, in a home of its own.
#include <gtest/gtest.h>

#include <utime.h>

#include <regex>

#include "agents/tests/agent_test_support.h"
#include "tests/support/run_process.h"

namespace aimwise::testing {
namespace {

class RecordVerb : public ::testing::Test {
protected:
    AgentSandbox sandbox;

    ProcessResult record(const std::vector<std::string>& arguments) {
        auto environment = sandbox.environment();
        environment["AIMCAP_FFMPEG"] = "/usr/bin/ffmpeg";
        environment["TZ"] = "UTC";
        std::vector<std::string> all{"record"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return runProcess(aimwisePath(), all, {.environment = environment, .unset = {"WAYLAND_DISPLAY", "XDG_SESSION_TYPE"}});
    }
    // The output with the sandbox's paths and the disk's free space made fixed.
    std::string said(const std::vector<std::string>& arguments) {
        const auto result = record(arguments);
        EXPECT_EQ(result.exitStatus, 0) << result.standardError;
        const std::string text = std::regex_replace(result.standardOutput, std::regex(sandbox.root.string()), "ROOT");
        return std::regex_replace(text, std::regex("Disk: [0-9.]+ GB"), "Disk: N GB");
    }
    std::filesystem::path setting() const { return sandbox.home / ".local/share/AimCapture/recording.json"; }
};

TEST_F(RecordVerb, TurnsRecordingOnAndOffAndSaysWhatItIsDoing) {
    EXPECT_EQ(said({"status"}), "Recording: off (`aimwise record on` turns it on)\n"
                                "Archive: nothing recorded yet in ROOT/video/display-1\n"
                                "Disk: N GB free; recording stops below 2.0 GB\n");
    EXPECT_EQ(said({"on", "--fps", "0.5", "--keep-days", "3"}),
              "Recording is on: 0.5 frames a second of the whole screen, sealed into ROOT/video/display-1 and kept 3 days.\n"
              "Windows of password managers and the other denylisted apps are never recorded, and neither is a locked "
              "screen or a paused recording.\n"
              "Note: The data root has no video folder yet: `aimwise init` prepares it.\n"
              "Note: The capture agent is not running: `aimwise install-services` starts it.\n");
    EXPECT_EQ(readFile(setting()), "{\n  \"enabled\": true,\n  \"fps\": 0.5,\n  \"keep_days\": 3\n}\n");

    const auto sealed = sandbox.root / "video/display-1/rec-20261118T110640Z.ts.sealed";
    writeFile(sealed, "VESKAVE2....");
    const utimbuf times{1795000000, 1795000000};
    ::utime(sealed.c_str(), &times);
    said({"on"});
    EXPECT_EQ(said({"status"}),
              "Recording: on, 0.5 frames a second, files kept 3 days\n"
              "Now: not recording, because the capture agent is not running (`aimwise install-services` starts it)\n"
              "Archive: 1 file, 0.0 MB in ROOT/video/display-1; the oldest goes after 2026-11-21 11:06\n"
              "Disk: N GB free; recording stops below 2.0 GB\n");
    EXPECT_EQ(said({"off"}), "Recording is off. What was recorded stays in ROOT/video until it is 3 days old.\n");
    EXPECT_EQ(readFile(setting()), "{\n  \"enabled\": false,\n  \"fps\": 0.5,\n  \"keep_days\": 3\n}\n");
}

TEST_F(RecordVerb, RefusesWhatItCannotHonourAndChangesNothing) {
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {}, {"maybe"}, {"on", "--fps", "0"}, {"on", "--fps", "nan"}, {"on", "--fps"}, {"on", "--keep-days", "1.5"},
             {"on", "--keep-days", "1e300"}, {"on", "--loud"}, {"off", "now"}, {"status", "-v"}}) {
        const auto result = record(arguments);
        EXPECT_EQ(result.exitStatus, 2) << ::testing::PrintToString(arguments);
        EXPECT_NE(result.standardError.find("usage: aimwise record on"), std::string::npos) << result.standardError;
    }
    EXPECT_FALSE(std::filesystem::exists(setting()));
}

}  // namespace
}  // namespace aimwise::testing
