#include "AimwiseCore/coach/projection_date_parsing.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "CaptureShared/common/local_time.h"

namespace aimwise {
namespace {

class LocalDates : public ::testing::Test {
protected:
    void SetUp() override {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("America/New_York"));
        DateParseMemo::shared().clear();
    }
    void TearDown() override { icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC")); }
};

TEST_F(LocalDates, ReadsLocalWallClockTextInTheCurrentZone) {
    // 2026-07-01 is daylight time in New York (UTC-4), 2026-01-15 standard time (UTC-5).
    EXPECT_EQ(ProjectionDateParsing::parseLocal("2026-07-01T09:30:15"), 1'782'912'615'000);
    EXPECT_EQ(ProjectionDateParsing::parseLocal("2026-01-15T09:30:15"), 1'768'487'415'000);
    EXPECT_EQ(LocalTime::format(1'782'912'615'000), "2026-07-01T09:30:15");
    EXPECT_EQ(LocalTime::format(1'782'912'615'999), "2026-07-01T09:30:15");

    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
    EXPECT_EQ(ProjectionDateParsing::parseLocalUncached("2026-07-01T09:30:15"), 1'782'898'215'000)
        << "a change of zone reaches the cached formatter";
}

TEST_F(LocalDates, RefusesAnythingButTheWholeFormat) {
    for (const char* bad : {"", "2026-07-01", "2026-07-01 09:30:15", "2026-07-01T09:30:15Z", "2026-07-01T09:30:15.250",
                            "2026-13-01T09:30:15", "2026-02-30T09:30:15", "2026-07-01T25:00:00", "yesterday",
                            "2026-07-01T09:30:1\xff", "\xe2\x80\x8b" "2026-07-01T09:30:15"}) {
        EXPECT_FALSE(ProjectionDateParsing::parseLocalUncached(bad)) << bad;
    }
    EXPECT_FALSE(ProjectionDateParsing::parseLocal(std::string(10'000'000, '2'))) << "no megabyte keys in the memo";
    EXPECT_EQ(DateParseMemo::shared().count(), 0u);
}

TEST_F(LocalDates, ManyTextsAtOnceReadAsEachWouldAloneAcrossChangesOfDaylightSaving) {
    // Every quarter hour (and odd seconds) around the spring and autumn changes, in a zone that moves by an
    // hour and in one that moves by half an hour; with a few texts that are not dates at all.
    for (const char* zone : {"America/New_York", "Australia/Lord_Howe"}) {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(zone));
        DateParseMemo::shared().clear();
        std::vector<std::string> texts{"2026-02-30T10:00:00", "2026-03-08T24:00:00", "2026-03-08T10:60:00", "noon"};
        for (const char* day : {"2026-03-08", "2026-04-05", "2026-10-04", "2026-11-01"})
            for (int minutes = 0; minutes < 24 * 60; minutes += 15) {
                char text[32];
                std::snprintf(text, sizeof text, "%sT%02d:%02d:%02d", day, minutes / 60, minutes % 60, minutes % 59);
                texts.push_back(text);
            }
        std::vector<std::string_view> views(texts.begin(), texts.end());
        const auto many = ProjectionDateParsing::parseLocalMany(views);
        for (size_t i = 0; i < texts.size(); ++i)
            ASSERT_EQ(many[i], ProjectionDateParsing::parseLocalUncached(texts[i])) << zone << " " << texts[i];
    }
}

TEST(DateParseMemoRules, RemembersFailuresAndEmptiesWholeWhenOverfull) {
    DateParseMemo memo(3);
    int parses = 0;
    const auto parse = [&](std::string_view text) -> std::optional<int64_t> {
        ++parses;
        if (text == "bad") return std::nullopt;
        return static_cast<int64_t>(text.size());
    };
    EXPECT_FALSE(memo.value("bad", parse));
    EXPECT_FALSE(memo.value("bad", parse));
    EXPECT_EQ(parses, 1) << "a bad text is parsed once";
    memo.value("a", parse);
    memo.value("bb", parse);
    memo.value("ccc", parse);
    EXPECT_EQ(memo.count(), 4u) << "capacity 3 is exceeded only by the next store";
    EXPECT_EQ(memo.value("dddd", parse), 4);
    EXPECT_EQ(memo.count(), 1u) << "emptied as a whole, then stored";
    EXPECT_EQ(memo.value("a", parse), 1);
    EXPECT_EQ(parses, 6);
    EXPECT_EQ(DateParseMemo::defaultCapacity, 1'048'575u);
}

TEST(DateParseMemoRules, SharedUseFromManyThreadsAgrees) {
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
    DateParseMemo::shared().clear();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                const std::string text = "2026-01-01T00:" + std::to_string(10 + i % 50) + ":00";
                if (ProjectionDateParsing::parseLocal(text) != 1'767'225'600'000 + (10 + i % 50) * 60'000) ++wrong;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(DateParseMemo::shared().count(), 50u);
}

}  // namespace
}  // namespace aimwise
