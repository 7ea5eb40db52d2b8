#include "AimwiseCore/classifier/call_hold.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace ClassifierCallHold;

constexpr int64_t now = 1'800'000'000'000;

CallActivityReading inCall() { return {{{"Browser", std::nullopt, false, true}, {"Meet", "com.example.meet", true, true}}}; }
CallActivityReading playbackOnly() { return {{{"Music", "com.example.music", false, true}, {"Recorder", std::nullopt, true, false}}}; }

EventLogEvent event(int64_t tsMs, const char* type) { return EventLogEvent{tsMs, "event", type}; }

TEST(CallAudio, OnlyProcessesHoldingInputAndOutputMakeACall) {
    EXPECT_TRUE(inCall().inTwoWayCall());
    EXPECT_FALSE(playbackOnly().inTwoWayCall());
    EXPECT_EQ(CallAudioRule::twoWayHolders(inCall().processes).size(), 1u);
    EXPECT_EQ(CallAudioRule::twoWayHolders(inCall().processes).front().name, "Meet");
}

TEST(CallHold, HoldsFromTheEpisodesStartUntilItEndsOrGrowsImplausiblyOld) {
    const CallHoldControl enabled{true, std::nullopt};
    EXPECT_EQ(decide({}, inCall(), now, std::nullopt, CallHoldControl{false, std::nullopt}),
              CallHold::Status(CallHold::Disabled{}));
    EXPECT_EQ(decide({}, playbackOnly(), now, std::nullopt, enabled), CallHold::Status(CallHold::NotInCall{}));
    EXPECT_EQ(decide({}, inCall(), now, std::nullopt, enabled), CallHold::Status(CallHold::Held{now}))
        << "a call the log never saw starts now";

    const std::vector<EventLogEvent> events = {event(now - 600'000, "call_started"), event(now - 500'000, "call_ended"),
                                               event(now - 60'000, "call_started"), event(now + 5'000, "call_ended")};
    EXPECT_EQ(decide(events, inCall(), now, std::nullopt, enabled), CallHold::Status(CallHold::Held{now - 60'000}))
        << "events after now are not seen";
    EXPECT_EQ(decide(events, playbackOnly(), now, std::nullopt, enabled), CallHold::Status(CallHold::NotInCall{}))
        << "the live reading wins over the log";

    const std::vector<EventLogEvent> old = {event(now - 14'400'000, "call_started")};
    EXPECT_EQ(decide(old, inCall(), now, std::nullopt, enabled), CallHold::Status(CallHold::NotInCall{}));
    const std::vector<EventLogEvent> nearlyOld = {event(now - 14'399'999, "call_started")};
    EXPECT_EQ(decide(nearlyOld, inCall(), now, std::nullopt, enabled), CallHold::Status(CallHold::Held{now - 14'399'999}));
}

TEST(CallHold, KeepsTheStartAcrossTicksSoAnOverrideStillMatches) {
    ClassifierCadence::State last;
    last.pausedForCall = true;
    last.callHoldSinceMs = now - 90'000;
    const CallHoldControl overridden{true, CallHoldOverride{now - 90'000, now - 30'000}};
    EXPECT_EQ(decide({}, inCall(), now, last, overridden), CallHold::Status(CallHold::Overridden{now - 90'000, now - 30'000}));
    EXPECT_EQ(decide({}, inCall(), now, last, CallHoldControl{true, std::nullopt}),
              CallHold::Status(CallHold::Held{now - 90'000}));

    const CallHoldControl stale{true, CallHoldOverride{now - 999'000, now - 900'000}};
    EXPECT_EQ(decide({}, inCall(), now, std::nullopt, stale), CallHold::Status(CallHold::Held{now}))
        << "an override of an earlier call does not cover a new one";
    last.pausedForCall = false;
    EXPECT_EQ(decide({}, inCall(), now, last, CallHoldControl{true, std::nullopt}), CallHold::Status(CallHold::Held{now}));
}

TEST(CallHoldOverrideStore, RoundTripsAndToleratesGarbage) {
    testing::TempDir dir;
    const auto path = dir / "support" / "call-hold-override.json";
    EXPECT_FALSE(CallHoldOverrideStore::read(path));
    CallHoldOverrideStore::write({now - 5, now}, path);
    EXPECT_EQ(CallHoldOverrideStore::read(path), (CallHoldOverride{now - 5, now}));
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat(path.parent_path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    const std::string text = testing::readFile(path);
    EXPECT_NE(text.find("\"episodeStartMs\""), std::string::npos);
    for (size_t n = 0; n + 1 < text.size(); ++n) {
        testing::writeFile(path, text.substr(0, n));
        EXPECT_FALSE(CallHoldOverrideStore::read(path)) << n;
    }
    testing::writeFile(path, R"({"episodeStartMs":"x","overriddenAtMs":1})");
    EXPECT_FALSE(CallHoldOverrideStore::read(path));
    CallHoldOverrideStore::clear(path);
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace aimwise
