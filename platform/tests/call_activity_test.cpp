#include "platform/call_activity.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

using Direction = CallActivity::AudioStream::Direction;

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

}  // namespace
}  // namespace aimwise
