#include "AimwiseCore/classifier/backoff_disclosure.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

constexpr int64_t now = 1'700'000'000'000;

EventLogEvent event(int64_t tsMs, const std::string& type, JSONValue::Object detail = {}) {
    EventLogEvent e;
    e.tsMs = tsMs;
    e.type = type;
    e.detail = std::move(detail);
    return e;
}

EventLogEvent backoff(int64_t tsMs, JSONValue until) {
    return event(tsMs, "backoff_set", {{"backoff_until_ts_ms", std::move(until)}});
}

TEST(BackoffDisclosure, OnlyTheNewestWindowCountsAndOnlyOnceItHasEnded) {
    using BackoffDisclosure::pending;
    EXPECT_FALSE(pending({}, now));
    EXPECT_EQ(pending({backoff(now - 100, static_cast<double>(now))}, now), (BackoffDisclosure::Disclosure{now - 100, now}));
    EXPECT_FALSE(pending({backoff(now - 100, static_cast<double>(now + 1))}, now));
    // A newer window that is still running hides an older one that ended.
    EXPECT_FALSE(pending({backoff(now - 900, static_cast<double>(now - 500)), backoff(now - 100, static_cast<double>(now + 60'000))}, now));
    EXPECT_FALSE(pending({backoff(now - 100, "soon"), event(now - 50, "task_declared")}, now));
    EXPECT_FALSE(pending({backoff(now - 100, JSONValue::Object{})}, now));
}

TEST(BackoffDisclosure, ADisclosureAfterTheWindowOrAnOldEndSaysNothing) {
    using BackoffDisclosure::pending;
    const auto set = backoff(now - 600'000, static_cast<double>(now - 60'000));
    EXPECT_TRUE(pending({set}, now));
    EXPECT_FALSE(pending({set, event(now - 30'000, "backoff_window_disclosed")}, now));
    EXPECT_TRUE(pending({event(now - 900'000, "backoff_window_disclosed"), set}, now));
    EXPECT_FALSE(pending({backoff(now - 9'000'000, static_cast<double>(now - 3'600'001))}, now));
    EXPECT_TRUE(pending({backoff(now - 9'000'000, static_cast<double>(now - 3'600'000))}, now));
}

TEST(BackoffDisclosure, TheEventIsWrittenBeforeTheNotificationSoAFailingNotifierCostsOneNotice) {
    std::vector<std::string> calls;
    std::vector<EventLogEvent> events = {backoff(now - 600'000, static_cast<double>(now - 60'000))};
    const auto notify = [&](const std::string& title, const std::string&) {
        calls.push_back("notify " + title);
        throw std::runtime_error("no notifier");
    };
    const auto log = [&](const EventLogEvent& e) {
        calls.push_back("log " + e.type);
        events.push_back(e);
    };
    EXPECT_THROW(BackoffDisclosure::disclose(events, now, notify, log), std::runtime_error);
    EXPECT_EQ(calls, (std::vector<std::string>{"log backoff_window_disclosed", "notify Veska"}));
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].tsMs, now);
    EXPECT_EQ(events[1].detail, JSONValue(JSONValue::Object{{"backoff_set_ts_ms", now - 600'000},
                                                            {"active_backoff_until", now - 60'000},
                                                            {"disclosed_at_ms", now}}));
    EXPECT_FALSE(BackoffDisclosure::disclose(events, now + 1'000, notify, log));
    EXPECT_EQ(calls.size(), 2u);
}

}  // namespace
}  // namespace aimwise
