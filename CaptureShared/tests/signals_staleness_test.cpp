#include "CaptureShared/staleness/signals_staleness.h"

#include <gtest/gtest.h>

#include <limits>

#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/staleness/capture_removal_intent.h"
#include "CaptureShared/staleness/signals_stale_note.h"

namespace aimwise {
namespace {

using namespace SignalsStaleness;

constexpr int64_t now = 1'763'800'000'000;
constexpr int64_t threshold = 180'000;
constexpr int64_t regimeGapSec = 240;

Decision decideAt(const Pause& pause, std::optional<int64_t> latestTickMs, std::optional<int64_t> lastRanAtMs) {
    return decide(pause, latestTickMs, now, lastRanAtMs, threshold, regimeGapSec);
}

TEST(SignalsStalenessDecide, NoRowIsNotChecked) {
    EXPECT_EQ(decideAt(PauseNone{}, std::nullopt, now), Decision{NotChecked{}});
    EXPECT_EQ(decideAt(PauseActive{now - 1}, std::nullopt, now), Decision{NotChecked{}});
}

TEST(SignalsStalenessDecide, TheThresholdItselfIsStillFresh) {
    EXPECT_EQ(decideAt(PauseNone{}, now - 180'000, now), Decision{Fresh{}});
    EXPECT_EQ(decideAt(PauseNone{}, now - 180'001, now), Decision{(StaleConfirmed{180'001, now - 180'001})});
    // A row from the future is fresh, not stale.
    EXPECT_EQ(decideAt(PauseNone{}, now + 5'000, std::nullopt), Decision{Fresh{}});
}

TEST(SignalsStalenessDecide, AStaleRowIsTrustedOnlyWhenTheClassifierRanWithinTheRegimeGap) {
    const int64_t row = now - 600'000;
    EXPECT_EQ(decideAt(PauseNone{}, row, now - 240'000), Decision{(StaleConfirmed{600'000, row})});
    EXPECT_EQ(decideAt(PauseNone{}, row, now - 241'000), Decision{StaleButUntrustworthy{600'000}});
    EXPECT_EQ(decideAt(PauseNone{}, row, std::nullopt), Decision{StaleButUntrustworthy{600'000}});
}

TEST(SignalsStalenessDecide, APauseWithoutAKnownStartIsNoPause) {
    const int64_t row = now - 600'000;
    EXPECT_EQ(decideAt(PauseActive{std::nullopt}, row, now), Decision{(StaleConfirmed{600'000, row})});
    EXPECT_EQ(decideAt(PauseActive{std::nullopt}, row, std::nullopt), Decision{StaleButUntrustworthy{600'000}});
    EXPECT_EQ(decideAt(PauseActive{std::nullopt}, now - 1000, std::nullopt), Decision{Fresh{}});
}

TEST(SignalsStalenessDecide, APauseThatBeganAtOrBeforeTheNewestRowExcusesNothing) {
    const int64_t row = now - 600'000;
    EXPECT_EQ(decideAt(PauseActive{row}, row, now), Decision{(StaleConfirmed{600'000, row})});
    EXPECT_EQ(decideAt(PauseActive{row - 1}, row, std::nullopt), Decision{StaleButUntrustworthy{600'000}});
}

TEST(SignalsStalenessDecide, APauseAfterTheNewestRowExcusesTheSilenceForTheThresholdOnly) {
    const int64_t row = now - 3'600'000;
    // 179 seconds into the pause the row predates it, whether or not the classifier ran.
    EXPECT_EQ(decideAt(PauseActive{now - 179'000}, row, now), Decision{(PredatesPause{row, now - 179'000})});
    EXPECT_EQ(decideAt(PauseActive{now - 179'000}, row, std::nullopt), Decision{(PredatesPause{row, now - 179'000})});
    // From 180 seconds on, an awake classifier confirms the database is stale.
    EXPECT_EQ(decideAt(PauseActive{now - 180'000}, row, now - 1), Decision{(StaleConfirmed{3'600'000, row})});
    EXPECT_EQ(decideAt(PauseActive{now - 180'000}, row, now - 241'000),
              Decision{(PredatesPause{row, now - 180'000})});
    // Even a row younger than the threshold predates a pause that started after it.
    EXPECT_EQ(decideAt(PauseActive{now - 500}, now - 1000, now), Decision{(PredatesPause{now - 1000, now - 500})});
}

TEST(SignalsStalenessText, HumanDurationUsesWholeUnitsWithoutSpacesAndNeverGoesNegative) {
    const std::pair<int64_t, const char*> cases[] = {
        {0, "0s"},       {59'999, "59s"},      {60'000, "1m"},  {3'599'999, "59m"},           {3'600'000, "1h0m"},
        {-500, "0s"},    {-999, "0s"},         {-1000, "0s"},   {3'600'000 * 26 + 61'000, "26h1m"}};
    for (const auto& [ms, text] : cases) EXPECT_EQ(humanDuration(ms), text) << ms;
}

TEST(SignalsStalenessText, ReasonsNameTheRowThePauseAndTheAge) {
    const int64_t row = ISODate::parse("2026-11-22T05:00:00Z").value();
    EXPECT_EQ(reason(5'430'000, row + 999),
              "signals stale since 2026-11-22T05:00:00Z (~1h30m with no new signals.sqlite row) — not judged; "
              "capture may have stopped");
    EXPECT_EQ(reasonPredatesPause(row, row + 630'000, row + 754'000),
              "recording is paused (since 2026-11-22T05:10:30Z) and the newest signals.sqlite row is from "
              "2026-11-22T05:00:00Z, before the pause began (~12m ago) — not judged; waiting for Signals to write a "
              "current row");
}

TEST(ISODate, FormatsUTCAtWholeSecondsAndParsesOnlyInternetDateTimes) {
    EXPECT_EQ(ISODate::format(951'782'400'999), "2000-02-29T00:00:00Z");
    EXPECT_EQ(ISODate::format(-1), "1969-12-31T23:59:59Z");
    EXPECT_EQ(ISODate::parse("2000-02-29T00:00:00.25Z"), 951'782'400'250);
    EXPECT_EQ(ISODate::parse("2000-02-29T02:30:00+02:30"), 951'782'400'000);
    for (const char* bad : {"", "2000-02-30T00:00:00Z", "2001-02-29T00:00:00Z", "2000-02-29 00:00:00Z",
                            "2000-02-29T24:00:00Z", "2000-02-29T00:00:00", "2000-02-29T00:00:00Zjunk",
                            "2000-02-29T00:00:00.Z", "2000-02-29T00:00:00+0200", "2000-02-29T00:00:00+02:3"})
        EXPECT_EQ(ISODate::parse(bad), std::nullopt) << bad;
    for (int64_t ms : {int64_t{0}, int64_t{-86'400'000}, int64_t{253'402'300'799'000}})
        EXPECT_EQ(ISODate::parse(ISODate::format(ms)), ms);
}

// Far-end times from damaged files saturate (the sanitizer build halts on signed overflow).
TEST(SignalsStalenessExtremes, FarEndTimesSaturateInsteadOfOverflowing) {
    constexpr int64_t low = std::numeric_limits<int64_t>::min(), high = std::numeric_limits<int64_t>::max();
    EXPECT_EQ(decide(PauseNone{}, low, high, high, threshold, regimeGapSec), Decision{(StaleConfirmed{high, low})});
    EXPECT_EQ(decide(PauseNone{}, low, high, low, threshold, regimeGapSec), Decision{StaleButUntrustworthy{high}});
    EXPECT_EQ(decide(PauseNone{}, high, low, low, threshold, regimeGapSec), Decision{Fresh{}});
    EXPECT_EQ(decide(PauseActive{low + 1}, low, high, high, threshold, regimeGapSec),
              Decision{(StaleConfirmed{high, low})});
    EXPECT_EQ(reasonPredatesPause(low, high, high),
              "recording is paused (since 9999-12-31T23:59:59Z) and the newest signals.sqlite row is from "
              "0001-01-01T00:00:00Z, before the pause began (~2562047788015h12m ago) — not judged; waiting for "
              "Signals to write a current row");
    EXPECT_FALSE(CaptureRemovalIntentStore::isSuperseded({high}, high, 60'000));
    EXPECT_FALSE(SignalsStaleNoteStore::isCurrent({0, low}, high));
    EXPECT_FALSE(SignalsStaleNoteStore::isCurrent({0, high}, low));
}

}  // namespace
}  // namespace aimwise
