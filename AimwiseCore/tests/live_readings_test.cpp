#include "AimwiseCore/classifier/live_readings.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

using Stream = CallActivity::AudioStream;
using Direction = Stream::Direction;

TEST(CallActivityProbe, AProcessWithBothRunningStreamsIsATwoWayCall) {
    const auto reading = CallActivityProbe::reading({
        {Direction::playback, "Firefox", "firefox-esr", 10, false},
        {Direction::capture, "Firefox WebRTC", "firefox-esr", 10, false},
        {Direction::playback, "Music", "player", 20, false},
    });
    ASSERT_EQ(reading.processes.size(), 2u);
    EXPECT_TRUE(reading.processes[0].runningInput && reading.processes[0].runningOutput);
    EXPECT_EQ(reading.processes[0].name, "Firefox");
    EXPECT_EQ(reading.processes[0].appID, "firefox-esr");
    EXPECT_TRUE(reading.inTwoWayCall());
}

TEST(CallActivityProbe, PausedStreamsAndTwoProcessesAreNoCall) {
    EXPECT_FALSE(CallActivityProbe::reading({{Direction::playback, "A", std::nullopt, 1, false},
                                              {Direction::capture, "A", std::nullopt, 1, true}})
                     .inTwoWayCall());
    EXPECT_FALSE(CallActivityProbe::reading({{Direction::playback, "A", std::nullopt, 1, false},
                                              {Direction::capture, "B", std::nullopt, 2, false}})
                     .inTwoWayCall());
    // Without a process id the binary, then the name, tells streams apart.
    EXPECT_TRUE(CallActivityProbe::reading({{Direction::playback, "Call", std::nullopt, std::nullopt, false},
                                             {Direction::capture, "Call", std::nullopt, std::nullopt, false}})
                    .inTwoWayCall());
}

}  // namespace
}  // namespace aimwise
