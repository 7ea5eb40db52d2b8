#include "AimwiseCore/classifier/cadence.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <limits>

#include "AimwiseCore/classifier/power_policy.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace ClassifierCadence;
using testing::TempDir;

constexpr int64_t t0 = 1'800'000'000'000;

struct Wake {
    int64_t atSec;
    std::optional<std::string> app = "Editor";
    std::optional<std::string> title = "main.cpp";
    bool away = false;
    std::string verdict = "NOT_ALIGNED";
    Episode episode = {};
};

struct Judged {
    int64_t atSec;
    Reason reason;
};

// Runs wakes the way the tick does: judge and advance, or heartbeat on a skip.
class Script {
public:
    explicit Script(Config config = {}) : config_(config) {}

    std::optional<Decision> wake(const Wake& w) {
        const int64_t now = t0 + w.atSec * 1000;
        const Decision decision = decide(now, state_, w.app, w.title, w.away, w.episode, config_);
        if (const auto* judge = std::get_if<Judge>(&decision)) {
            judged.push_back({w.atSec, judge->reason});
            state_ = advanced(state_, now, w.verdict, w.app, w.title, w.away, w.episode, config_);
        } else {
            EXPECT_GT(std::get<Skip>(decision).dueInSec, 0) << "at " << w.atSec;
            state_ = heartbeat(now, *state_);
        }
        return decision;
    }

    // Wakes every `stepSec` over [fromSec, toSec) with the same screen.
    void steady(int64_t fromSec, int64_t toSec, int64_t stepSec, Wake base = {}) {
        for (int64_t at = fromSec; at < toSec; at += stepSec) {
            base.atSec = at;
            wake(base);
        }
    }

    std::vector<int64_t> gaps() const {
        std::vector<int64_t> out;
        for (size_t i = 1; i < judged.size(); ++i) out.push_back(judged[i].atSec - judged[i - 1].atSec);
        return out;
    }

    std::optional<State>& state() { return state_; }
    std::vector<Judged> judged;

private:
    Config config_;
    std::optional<State> state_;
};

Environment env(std::initializer_list<std::pair<const std::string, std::string>> values) { return Environment(values); }

TEST(CadenceConfig, EnvironmentOverridesFollowTheFloorAndCeilingRules) {
    EXPECT_EQ(Config::fromEnvironment({}), Config{});

    const auto raised = Config::fromEnvironment(env({{"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "500"}}));
    EXPECT_EQ(raised.floorSec, 500);
    EXPECT_EQ(raised.ceilingSec, 500);
    EXPECT_EQ(raised.onTaskCeilingSec, 500);

    const auto modest = Config::fromEnvironment(env({{"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", " 90\n"}}));
    EXPECT_EQ(modest.floorSec, 90);
    EXPECT_EQ(modest.ceilingSec, 300);
    EXPECT_EQ(modest.onTaskCeilingSec, 120);

    const auto between = Config::fromEnvironment(env({{"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "200"}}));
    EXPECT_EQ(between.onTaskCeilingSec, 200);

    EXPECT_EQ(Config::fromEnvironment(env({{"AIMCAP_CLASSIFY_MAX_INTERVAL_SEC", "30"}})), Config{});
    EXPECT_EQ(Config::fromEnvironment(env({{"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "0"}})), Config{});
    EXPECT_EQ(Config::fromEnvironment(env({{"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "sixty"}})), Config{});
    EXPECT_EQ(Config::fromEnvironment(env({{"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "6 0"}})), Config{});

    const auto shortCeiling = Config::fromEnvironment(env({{"AIMCAP_CLASSIFY_MAX_INTERVAL_SEC", "100"}}));
    EXPECT_EQ(shortCeiling.ceilingSec, 100);
    EXPECT_EQ(shortCeiling.onTaskCeilingSec, 100);

    const auto both = Config::fromEnvironment(
        env({{"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "150"}, {"AIMCAP_CLASSIFY_MAX_INTERVAL_SEC", "100"}}));
    EXPECT_EQ(both.floorSec, 150);
    EXPECT_EQ(both.ceilingSec, 300) << "a maximum below the raised floor is ignored";
    EXPECT_EQ(both.regimeGapSec, 240);
}

TEST(CadenceInterval, GrowsWithTheRunAndStopsAtTheVerdictsCeiling) {
    State state;
    state.runStartedAtMs = t0;
    state.lastJudgedAtMs = t0 + 600'000;
    state.lastVerdict = "NOT_ALIGNED";
    EXPECT_EQ(state.interval({}), 222);

    state.lastJudgedAtMs = t0 + 20 * 60'000;
    EXPECT_EQ(state.interval({}), 300);
    state.lastVerdict = "ON_TASK";
    EXPECT_EQ(state.interval({}), 120);

    state.lastJudgedAtMs = t0 - 5000;  // a run that seems to end before it began
    EXPECT_EQ(state.interval({}), 60);

    Config wild;
    wild.growthExponent = 1e308;
    state.lastJudgedAtMs = t0 + 600'000;
    state.lastVerdict = "NOT_ALIGNED";
    EXPECT_EQ(state.interval(wild), 300) << "a non-finite growth gives the ceiling";

    state.volatility = 1;
    EXPECT_EQ(state.effectiveInterval({}, {}), 60);
    state.volatility = 0;
    EXPECT_EQ(state.effectiveInterval({}, Episode{9.9}), 60);
    EXPECT_EQ(state.effectiveInterval({}, Episode{10.0}), 222);
}

TEST(CadenceScript, AHeldVerdictStretchesToItsCeilingAndStaysThere) {
    for (const std::string verdict : {"NOT_ALIGNED", "ON_TASK"}) {
        Script script;
        Wake base;
        base.verdict = verdict;
        script.steady(0, 3600, 15, base);
        ASSERT_GE(script.judged.size(), 10u);
        EXPECT_EQ(script.judged.front().reason, Reason::noPriorState);
        const auto gaps = script.gaps();
        for (size_t i = 1; i < gaps.size(); ++i) EXPECT_GE(gaps[i], gaps[i - 1]) << verdict << " gap " << i;
        const int64_t ceiling = verdict == "ON_TASK" ? 120 : 300;
        EXPECT_EQ(gaps.front(), 60);
        EXPECT_EQ(gaps.back(), ceiling);
        EXPECT_EQ(script.judged.back().reason, verdict == "ON_TASK" ? Reason::intervalElapsed : Reason::ceilingReached);
        EXPECT_EQ(script.state()->runStartedAtMs, t0) << "a held run keeps its start";
    }
}

TEST(CadenceScript, AnAppChangeJudgesAtOnceAndAShortDetourKeepsTheGrownInterval) {
    Script script;
    script.steady(0, 1200, 15);
    const auto grown = script.state()->interval({});
    EXPECT_GT(grown, 200);

    Wake detour{1201};
    detour.app = "Browser";
    ASSERT_EQ(script.wake(detour), Decision(Judge{Reason::appChanged}));
    EXPECT_EQ(script.state()->interval({}), 60) << "a new app starts a new run";
    EXPECT_EQ(script.state()->excursionFromApp, "Editor");
    EXPECT_EQ(script.state()->volatility, 0) << "the verdict did not move";

    ASSERT_EQ(script.wake(Wake{1210}), Decision(Judge{Reason::appChanged}));
    EXPECT_EQ(script.state()->runStartedAtMs, t0) << "back in the editor under the same verdict";
    EXPECT_FALSE(script.state()->excursionFromApp);
    EXPECT_GE(script.state()->interval({}), grown);

    Wake away{1220};
    away.app = "Mail";
    away.verdict = "ON_TASK";
    script.wake(away);
    EXPECT_FALSE(script.state()->excursionFromApp) << "a moved verdict is a new run, not a detour";
    EXPECT_EQ(script.state()->volatility, 3);

    Wake absent{1230};
    absent.app = std::nullopt;
    absent.verdict = "ON_TASK";
    EXPECT_EQ(script.wake(absent), Decision(Judge{Reason::appChanged})) << "absent against present is a change";
}

TEST(CadenceScript, ATitleOrAwayChangeJudgesAtAnyInterval) {
    Script script;
    script.wake(Wake{0});
    Wake retitled{1};
    retitled.title = "other.cpp";
    EXPECT_EQ(script.wake(retitled), Decision(Judge{Reason::titleChanged}));
    Wake untitled{2};
    untitled.title = std::nullopt;
    EXPECT_EQ(script.wake(untitled), Decision(Judge{Reason::titleChanged}));
    Wake gone{3};
    gone.title = std::nullopt;
    gone.away = true;
    EXPECT_EQ(script.wake(gone), Decision(Judge{Reason::awayChanged}));
    gone.atSec = 4;
    EXPECT_EQ(script.wake(gone), Decision(Skip{59}));
}

TEST(CadenceScript, AClockMovedBackwardsNeverGivesANegativeWait) {
    Script script;
    script.steady(0, 600, 15);
    const auto state = *script.state();
    const int due = state.effectiveInterval({}, {});
    const auto backwards = decide(state.lastJudgedAtMs - 3'600'000, state, "Editor", "main.cpp", false, {}, {});
    EXPECT_EQ(backwards, Decision(Skip{due}));
    const auto slightlyBack = decide(state.lastJudgedAtMs - 1, state, "Editor", "main.cpp", false, {}, {});
    EXPECT_EQ(slightlyBack, Decision(Skip{due}));
    // And the state after a judgment at the earlier clock holds no negative run.
    const auto after = advanced(state, state.lastJudgedAtMs - 3'600'000, "NOT_ALIGNED", "Editor", "main.cpp", false, {}, {});
    EXPECT_GE(after.interval({}), 60);
}

// Far-end times from a damaged file saturate (the sanitizer build halts on signed overflow).
TEST(CadenceScript, FarEndTimesFromADamagedFileSaturate) {
    constexpr int64_t low = std::numeric_limits<int64_t>::min(), high = std::numeric_limits<int64_t>::max();
    State damaged;
    damaged.lastRanAtMs = damaged.runStartedAtMs = low;
    damaged.lastJudgedAtMs = high;
    const Config config;
    EXPECT_EQ(damaged.interval(config), config.ceilingSec);
    damaged.lastJudgedAtMs = low;
    EXPECT_EQ(decide(high, damaged, "Editor", "main.cpp", false, Episode{std::nullopt, std::nullopt, high}, config),
              Decision(Judge{Reason::ceilingReached}));
    EXPECT_EQ(advanced(damaged, t0, "ON_TASK", "Editor", "main.cpp", false, {}, config).runStartedAtMs, t0)
        << "so long a silence starts a new run";
}

TEST(CadenceScript, AMovedVerdictKeepsThreeJudgmentsAtTheFloor) {
    Script script;
    script.steady(0, 1200, 15);
    Wake moved{1200};
    moved.title = "bug report";
    moved.verdict = "ON_TASK";
    script.wake(moved);
    EXPECT_EQ(script.state()->volatility, 3);
    moved.verdict = "ON_TASK";
    script.steady(1201, 1500, 5, moved);
    ASSERT_GE(script.judged.size(), 5u);
    const auto n = script.judged.size();
    std::vector<Reason> tail;
    for (size_t i = n - 5; i < n; ++i) tail.push_back(script.judged[i].reason);
    // titleChanged, then three at the floor while volatile, then the grown interval.
    EXPECT_EQ(tail[0], Reason::titleChanged);
    EXPECT_EQ(tail[1], Reason::volatileVerdict);
    EXPECT_EQ(tail[2], Reason::volatileVerdict);
    EXPECT_EQ(tail[3], Reason::volatileVerdict);
    EXPECT_EQ(tail[4], Reason::intervalElapsed);
    EXPECT_EQ(script.judged[n - 3].atSec - script.judged[n - 4].atSec, 60);
    EXPECT_EQ(script.state()->volatility, 0);
}

int64_t lastJudgedSec(Script& script) { return (script.state()->lastJudgedAtMs - t0) / 1000; }

TEST(CadenceScript, AFreshDeclarationIsJudgedAtTheFloorThroughItsWarmup) {
    Script script;
    script.steady(0, 1200, 15);
    const int64_t last = lastJudgedSec(script);
    Wake declared{last + 61};
    declared.episode = Episode{1.0, "write the report"};
    EXPECT_EQ(script.wake(declared), Decision(Judge{Reason::episodeOpening}));
    EXPECT_EQ(script.state()->runStartedAtMs, t0) << "a first declaration does not break the run";
    declared.atSec = last + 91;
    EXPECT_EQ(script.wake(declared), Decision(Skip{30}));
    declared.atSec = last + 122;
    declared.episode.minutesSinceDeclared = 11.0;
    EXPECT_TRUE(std::holds_alternative<Skip>(*script.wake(declared))) << "past the warm-up the grown interval rules";

    Wake redeclared{last + 200};
    redeclared.episode = Episode{0.1, "answer mail"};
    script.wake(redeclared);
    EXPECT_EQ(script.state()->runStartedAtMs, t0 + (last + 200) * 1000);
    EXPECT_EQ(classifyRun(script.state(), t0 + (last + 210) * 1000, "NOT_ALIGNED", "Editor", "main.cpp", false,
                          Episode{0.2, "plan the week"}, {}),
              RunOutcome::newDeclaration);
}

TEST(CadenceScript, TheEstimateRunningOutIsJudgedOnce) {
    Script script;
    script.steady(0, 1200, 15);
    const int64_t last = lastJudgedSec(script);
    Wake wake{last + 5};
    wake.episode.estimateBoundaryMs = t0 + (last + 10) * 1000;
    EXPECT_TRUE(std::holds_alternative<Skip>(*script.wake(wake))) << "not yet due";
    wake.atSec = last + 15;
    EXPECT_EQ(script.wake(wake), Decision(Judge{Reason::estimateBoundary}));
    wake.atSec = last + 30;
    EXPECT_TRUE(std::holds_alternative<Skip>(*script.wake(wake)));
}

TEST(CadenceScript, BatteryFloorsAndCeilingsOnlyLengthenTheSchedule) {
    const Environment battery = env({{"AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC", "180"},
                                     {"AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC", "900"}});
    const Config onBattery = ClassifierPowerPolicy::effectiveConfig({}, true, battery);
    EXPECT_EQ(onBattery.floorSec, 180);
    EXPECT_EQ(onBattery.ceilingSec, 900);
    EXPECT_EQ(onBattery.onTaskCeilingSec, 180);
    EXPECT_EQ(ClassifierPowerPolicy::effectiveConfig({}, false, battery), Config{});

    Script script(onBattery);
    script.steady(0, 7200, 30);
    const auto gaps = script.gaps();
    for (const auto gap : gaps) EXPECT_GE(gap, 180);
    EXPECT_EQ(gaps.back(), 900);

    const Config shorter = ClassifierPowerPolicy::effectiveConfig(
        {}, true, env({{"AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC", "30"}, {"AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC", "200"}}));
    EXPECT_EQ(shorter, Config{}) << "battery limits never shorten";
}

TEST(CadenceScript, AfterACallHoldTheFirstWakeJudgesAndStartsANewRun) {
    Script script;
    script.steady(0, 1200, 15);
    State held = heartbeatPausedForCall(t0 + 1210'000, t0 + 1205'000, *script.state());
    EXPECT_TRUE(held.pausedForCall);
    EXPECT_EQ(held.callHoldSinceMs, t0 + 1205'000);
    held = heartbeatPausedForCall(t0 + 1225'000, std::nullopt, held);
    EXPECT_EQ(held.callHoldSinceMs, t0 + 1205'000) << "the earlier start is kept";
    held = heartbeat(t0 + 1240'000, held);
    EXPECT_TRUE(held.pausedForCall) << "a plain heartbeat keeps the call flag for the next judgment";
    EXPECT_FALSE(held.callHoldSinceMs);

    script.state() = held;
    EXPECT_EQ(script.wake(Wake{1241}), Decision(Judge{Reason::resumedAfterCall}));
    EXPECT_FALSE(script.state()->pausedForCall);
    EXPECT_EQ(script.state()->runStartedAtMs, t0 + 1241'000);

    EXPECT_EQ(heartbeatPausedForCall(t0 + 5, std::nullopt, State{}).callHoldSinceMs, t0 + 5);
}

TEST(CadenceScript, ALongSilenceStartsANewRun) {
    Script script;
    script.steady(0, 1200, 15);
    EXPECT_EQ(classifyRun(script.state(), script.state()->lastRanAtMs + 240'000, "NOT_ALIGNED", "Editor", "main.cpp",
                          false, {}, {}),
              RunOutcome::held);
    EXPECT_EQ(classifyRun(script.state(), script.state()->lastRanAtMs + 240'001, "NOT_ALIGNED", "Editor", "main.cpp",
                          false, {}, {}),
              RunOutcome::regimeGap);
    EXPECT_EQ(classifyRun(std::nullopt, t0, "ON_TASK", "Editor", "main.cpp", false, {}, {}), RunOutcome::regimeGap);
    const auto first = advanced(std::nullopt, t0, "ON_TASK", "Editor", "x", false, {}, {});
    EXPECT_EQ(first.volatility, 0);
    EXPECT_EQ(first.v, stateVersion);
}

TEST(CadenceStateFile, RoundTripsPrivatelyAndRefusesGarbage) {
    TempDir dir;
    const auto path = dir / "classifier-cadence.json";
    EXPECT_FALSE(read(path));

    State state = advanced(std::nullopt, t0, "ON_TASK", "Editor", std::nullopt, false, Episode{1.0, "task"}, {});
    state.callHoldSinceMs = t0 - 5;
    write(state, path);
    EXPECT_EQ(read(path), state);
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    const std::string text = testing::readFile(path);
    EXPECT_EQ(text.find("lastWindowTitle"), std::string::npos) << "absent optionals are omitted";
    EXPECT_LT(text.find("\"callHoldSinceMs\""), text.find("\"lastAway\"")) << "keys are sorted";
    EXPECT_NE(text.find("\n  \""), std::string::npos) << "pretty-printed";

    for (size_t n = 0; n < text.size(); ++n) {
        const auto prefix = decode(text.substr(0, n));
        if (prefix) {
            EXPECT_EQ(*prefix, state);
        }  // only the whole object, give or take blanks, decodes
    }
    EXPECT_FALSE(decode("[1,2]"));
    EXPECT_FALSE(decode(R"({"v":1,"lastRanAtMs":"soon","lastJudgedAtMs":1,"runStartedAtMs":1,"lastVerdict":"X"})"));
    EXPECT_FALSE(decode(R"({"v":1,"lastJudgedAtMs":1,"runStartedAtMs":1,"lastVerdict":"X"})"));
    EXPECT_FALSE(decode("{\"lastVerdict\":\"\xff\"}"));
    const auto minimal = decode(R"({"v":1,"lastRanAtMs":2,"lastJudgedAtMs":1,"runStartedAtMs":1,"lastVerdict":"X"})");
    ASSERT_TRUE(minimal);
    EXPECT_FALSE(minimal->pausedForCall);
}

}  // namespace
}  // namespace aimwise
