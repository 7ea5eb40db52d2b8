#include "platform/call_activity.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/scoped_environment.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using Direction = CallActivity::AudioStream::Direction;
using testing::readFile;
using testing::writeFile;

TEST(CallActivity, ReadsNameBinaryProcessAndCorkedFromPactlJSON) {
    const auto streams = CallActivity::parsePactlStreams(R"([
        {"index": 7, "corked": false, "properties": {"application.name": "Firefox",
            "application.process.binary": "firefox-esr", "application.process.id": "4242"}},
        {"index": 8, "corked": true, "properties": {"application.name": "speech"}},
        {"index": 9},
        3
    ])", Direction::capture);
    ASSERT_TRUE(streams);
    ASSERT_EQ(streams->size(), 3u);
    EXPECT_EQ((*streams)[0], (CallActivity::AudioStream{Direction::capture, "Firefox", "firefox-esr", 4242, false}));
    EXPECT_EQ((*streams)[1], (CallActivity::AudioStream{Direction::capture, "speech", std::nullopt, std::nullopt, true}));
    EXPECT_EQ((*streams)[2].applicationName, "");
}

TEST(CallActivity, TextThatIsNotAJSONArrayIsNoReading) {
    for (const char* text : {"", "Connection failure: Connection refused", "{}", "[1, 2"})
        EXPECT_FALSE(CallActivity::parsePactlStreams(text, Direction::playback)) << text;
    EXPECT_EQ(CallActivity::parsePactlStreams("[]", Direction::playback), std::vector<CallActivity::AudioStream>{});
}

// A pactl on PATH that records each run and answers one recording and one playing stream.
class LiveStreams : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(dir_ / "bin" / "pactl", "#!/bin/sh\necho \"$4\" >> '" + (dir_ / "runs").string() +
                                              "'\n"
                                              "echo '[{\"corked\": false, \"properties\": "
                                              "{\"application.name\": \"'$4'\"}}]'\n");
        ::chmod((dir_ / "bin" / "pactl").c_str(), 0700);
        environment_.set("PATH", (dir_ / "bin").string());
        environment_.unset("PULSE_SERVER");
        environment_.set("XDG_RUNTIME_DIR", (dir_ / "runtime").string());
    }
    std::string runs() const {
        std::error_code ignored;
        return std::filesystem::exists(dir_ / "runs", ignored) ? readFile(dir_ / "runs") : "";
    }

    testing::TempDir dir_;
    testing::ScopedEnvironment environment_;
};

TEST_F(LiveStreams, WithoutASoundServerSocketPactlIsNeverStarted) {
    EXPECT_FALSE(CallActivity::liveStreams());
    EXPECT_EQ(runs(), "");
}

TEST_F(LiveStreams, ARunningCaptureStreamAlsoAsksForPlaybackStreams) {
    writeFile(dir_ / "runtime" / "pulse" / "native", "");
    const auto streams = CallActivity::liveStreams();
    ASSERT_TRUE(streams);
    ASSERT_EQ(streams->size(), 2u);
    EXPECT_EQ((*streams)[0].direction, Direction::capture);
    EXPECT_EQ((*streams)[1].applicationName, "sink-inputs");
    EXPECT_EQ(runs(), "source-outputs\nsink-inputs\n");
}

}  // namespace
}  // namespace aimwise
