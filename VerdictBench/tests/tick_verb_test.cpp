// The tick's failure table row by row: its status, its words, the cadence file and the log rows
// after each. Rows run in this process behind the dispatcher's catch boundary with a fake clock;
// rows that need the machine (a call, the battery, a screen capture) also replace those readings,
// and the failing rows run the built binary, so its exit status and last words are seen as a
// timer would see them.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <regex>

#include "AimwiseCore/classifier/backoff_disclosure.h"
#include "AimwiseCore/classifier/cadence.h"
#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/models/local_model_store.h"
#include "VerdictBench/tests/verb_in_process.h"
#include "VerdictBench/tick_run.h"
#include "tests/support/fake_clock.h"
#include "tests/support/run_process.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
namespace Cadence = ClassifierCadence;
using testing::ScriptedModelServer;
using Reply = ScriptedModelServer::Reply;
using json = nlohmann::json;

constexpr const char* chatPath = "/v1/chat/completions";

std::vector<std::string> lines(const fs::path& path) {
    std::vector<std::string> found;
    if (!fs::exists(path)) return found;
    forEachLine(testing::readFile(path), [&](std::string_view line) { found.emplace_back(line); });
    return found;
}

class TickTest : public ::testing::Test {
protected:
    TickTest() : server(ScriptedModelServer::Transport::tcp) {}

    std::map<std::string, std::string> environment() const {
        auto env = testing::verdictBenchEnvironment(dir.path(), server.baseURLString());
        env["PATH"] = (dir / "bin").string() + ":/usr/bin:/bin";
        return env;
    }

    testing::ProcessOptions options() const {
        testing::ProcessOptions options;
        options.environment = environment();
        options.unset = {"DISPLAY", "WAYLAND_DISPLAY", "AIMCAP_CLASSIFY_MIN_INTERVAL_SEC",
                         "AIMCAP_CLASSIFY_MAX_INTERVAL_SEC", "AIMCAP_CLASSIFY_REQUIRE_AC", "AIMCAP_CALL_PAUSE"};
        return options;
    }
    testing::ProcessResult run() {
        startMs = clock.wallMs();
        auto result = testing::runVerbInProcess([&] { return tick::runTick(tick::Platform::live(), clock); }, options());
        endMs = clock.wallMs();
        return result;
    }
    testing::ProcessResult runBinary() { return testing::runProcess(testing::verdictBenchPath(), {"tick"}, options()); }

    // Rows are dated against the fake clock, which starts at the real time so that a run of the
    // binary agrees with it to within the test's own duration.
    int64_t now() const { return clock.wallMs(); }
    fs::path root() const { return dir / "root"; }
    fs::path supportDir() const { return dir / "xdg" / "AimCapture"; }
    fs::path cadencePath() const { return root() / "classifier-cadence.json"; }
    fs::path checkerLog() const { return root() / "checker-log.jsonl"; }
    fs::path energyLog() const { return root() / "classifier-tick-energy.jsonl"; }
    fs::path describeLog() const { return root() / "classifier-describe.jsonl"; }
    fs::path staleNote() const { return supportDir() / "signals-stale-note.json"; }
    fs::path refusalNote() const { return supportDir() / "model-integrity-refusal.json"; }

    testing::SignalsFixture& signals() {
        if (!fixture) fixture.emplace(root() / "signals.sqlite");
        return *fixture;
    }
    // A row of a few seconds ago with its front window.
    void freshRow(const std::string& app = "Editor", const std::string& title = "notes.md") {
        const int64_t ts = now() - 5'000;
        signals().tick({.tsMs = ts, .frontmostApp = app, .idleAnySec = 1.0});
        signals().window({.tsMs = ts, .ownerName = app, .title = title});
    }
    Cadence::State cadenceJudgedAgo(int64_t agoMs, const std::string& app = "Editor",
                                    const std::string& title = "notes.md") {
        Cadence::State state;
        state.lastRanAtMs = state.lastJudgedAtMs = state.runStartedAtMs = now() - agoMs;
        state.lastVerdict = "ON_TASK";
        state.lastFrontmostApp = app;
        state.lastWindowTitle = title;
        Cadence::write(state, cadencePath());
        return state;
    }
    void reply(const std::string& content) {
        server.enqueue(chatPath, Reply::json(200, ScriptedModelServer::completionBody(content)));
    }
    void expectNoLogRows() {
        EXPECT_FALSE(fs::exists(checkerLog()));
        EXPECT_FALSE(fs::exists(energyLog()));
        EXPECT_FALSE(fs::exists(describeLog()));
    }
    // Only lastRanAtMs moved, to this run's now.
    void expectHeartbeat(const Cadence::State& before) {
        const auto after = Cadence::read(cadencePath());
        ASSERT_TRUE(after);
        EXPECT_GE(after->lastRanAtMs, startMs);
        EXPECT_LE(after->lastRanAtMs, endMs);
        Cadence::State expected = before;
        expected.lastRanAtMs = after->lastRanAtMs;
        EXPECT_EQ(*after, expected);
    }

    testing::FakeClock clock{Clock::system().wallMs()};
    testing::TempDir dir;
    ScriptedModelServer server;
    std::optional<testing::SignalsFixture> fixture;
    int64_t startMs = 0, endMs = 0;
};

// --- rows that run the binary ----------------------------------------------------------------

TEST_F(TickTest, AFirstEverTickJudgesAndWritesTheVerdictTheCadenceAndTheEnergyRow) {
    freshRow();
    reply(R"({"state": "ON_TASK", "confidence": 0.8, "reason": "You are writing notes."})");
    const auto result = run();
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;

    const auto logged = lines(checkerLog());
    ASSERT_EQ(logged.size(), 1u);
    const auto tick = ClassifierTick::decode(logged[0]);
    ASSERT_TRUE(tick);
    EXPECT_EQ(tick->state, "ON_TASK");
    EXPECT_EQ(tick->reason, "You are writing notes.");
    EXPECT_EQ(tick->frontmostApp, "Editor");
    EXPECT_EQ(tick->frontmostWindowTitle, "notes.md");
    EXPECT_EQ(tick->model, "judge-model");
    EXPECT_FALSE(tick->screenshotAtMs);
    ASSERT_TRUE(tick->atMs());
    EXPECT_GE(*tick->atMs(), startMs / 1000 * 1000);
    EXPECT_LE(*tick->atMs(), endMs);

    // Printed pretty with sorted keys: the same record.
    const json printed = json::parse(result.standardOutput);
    EXPECT_EQ(printed, json::parse(logged[0]));
    EXPECT_EQ(result.standardOutput.rfind("{\n  \"at\": ", 0), 0u) << result.standardOutput;

    const auto cadence = Cadence::read(cadencePath());
    ASSERT_TRUE(cadence);
    EXPECT_EQ(cadence->lastVerdict, "ON_TASK");
    EXPECT_EQ(cadence->lastFrontmostApp, "Editor");
    EXPECT_EQ(cadence->lastWindowTitle, "notes.md");
    EXPECT_GE(cadence->lastJudgedAtMs, startMs);
    EXPECT_LE(cadence->lastJudgedAtMs, endMs);

    const auto energy = lines(energyLog());
    ASSERT_EQ(energy.size(), 1u);
    const json row = json::parse(energy[0]);
    EXPECT_EQ(row["v"], 1);
    EXPECT_EQ(row["model"], "judge-model");
    EXPECT_EQ(row["atMs"], *tick->atMs());
    EXPECT_LE(row["startMs"].get<int64_t>(), row["endMs"].get<int64_t>());
    EXPECT_FALSE(fs::exists(describeLog()));

    // An unverifiable model is judged with, after a warning; the server saw the check, then the judgment.
    EXPECT_NE(result.standardError.find("model integrity (#986): judge-model has no Veska download"),
              std::string::npos)
        << result.standardError;
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].path, "/props");
    EXPECT_EQ(requests[1].path, chatPath);
}

TEST_F(TickTest, NothingChangedSkipsWithAHeartbeatAndNeverTouchesTheServer) {
    freshRow();
    const auto before = cadenceJudgedAgo(10'000);
    const auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    std::smatch match;
    ASSERT_TRUE(std::regex_match(result.standardOutput, match,
                                 std::regex("skipped: nothing cheap changed since the last judgment \\(next in ~"
                                            "([0-9]+)s, interval 60s\\)\n")))
        << result.standardOutput;
    EXPECT_LE(std::stoi(match[1]), 50);
    EXPECT_GE(std::stoi(match[1]), 40);
    expectHeartbeat(before);
    EXPECT_TRUE(server.requests().empty());
    expectNoLogRows();
}

TEST_F(TickTest, ANewWindowTitleIsJudgedAndAdvancesTheCadence) {
    freshRow("Editor", "report.md");
    cadenceJudgedAgo(10'000, "Editor", "notes.md");
    reply(R"({"state": "NOT_ALIGNED", "confidence": 0.6, "reason": "A different file."})");
    const auto result = run();
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    const auto cadence = Cadence::read(cadencePath());
    EXPECT_EQ(cadence->lastWindowTitle, "report.md");
    EXPECT_EQ(cadence->lastVerdict, "NOT_ALIGNED");
    EXPECT_EQ(cadence->volatility, 3);  // the verdict moved
    EXPECT_EQ(lines(checkerLog()).size(), 1u);
}

// A row kept before the capture agent cleaned titles: the model, the records of the verdict and
// the printout see the title cleaned, without its control characters.
TEST_F(TickTest, ACardNumberInAnOlderRowIsKeptAndShownOnlyCleaned) {
    freshRow("Editor", "pay 4111 1111 1111 1111.txt\x1b]0;owned\x07");
    reply(R"({"state": "ON_TASK", "confidence": 0.8, "reason": "Paying with 4111 1111 1111 1111."})");
    const auto result = run();
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(Cadence::read(cadencePath())->lastWindowTitle, "pay [redacted card number].txt]0;owned");
    EXPECT_EQ(result.standardOutput.find('\x1b'), std::string::npos) << "the terminal is not retitled";
    std::vector<std::string> seen{result.standardOutput, result.standardError, server.requests(chatPath)[0].body};
    for (const auto& entry : fs::recursive_directory_iterator(root()))
        if (entry.is_regular_file() && !entry.path().filename().string().starts_with("signals.sqlite"))
            seen.push_back(entry.path().string() + ": " + testing::readFile(entry.path()));
    for (const auto& text : seen) EXPECT_EQ(text.find("1111 1111 1111"), std::string::npos) << text;
}

TEST_F(TickTest, AVerdictThatCouldNotBeWrittenIsSaidAndTheCadenceMovesOn) {
    freshRow();
    fs::create_directories(checkerLog());
    reply(R"({"state": "ON_TASK", "confidence": 0.8, "reason": "Notes."})");
    const auto result = run();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_TRUE(result.standardError.ends_with("this verdict could not be written to " + checkerLog().string() +
                                               ": Is a directory. It was made and the cadence moves on, but the "
                                               "coach will not see it.\n")) << result.standardError;
    EXPECT_EQ(Cadence::read(cadencePath())->lastVerdict, "ON_TASK");
}

// Before its watchdog is armed the tick reads its settings; nothing in their place may hold it.
TEST_F(TickTest, PipesAndDevicesInPlaceOfItsFilesEndTheTickPromptly) {
    freshRow();
    reply(R"({"state": "ON_TASK", "confidence": 0.8, "reason": "Notes."})");
    for (const fs::path& at : {supportDir() / "config.json", root() / "io-layer/events.jsonl"}) {
        fs::create_directories(at.parent_path());
        ASSERT_EQ(::mkfifo(at.c_str(), 0600), 0);
    }
    fs::create_symlink("/dev/zero", cadencePath());
    const auto started = std::chrono::steady_clock::now();
    const auto result = runBinary();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    for (const std::string& said : {(supportDir() / "config.json").string() + " is a named pipe",
                                   (root() / "io-layer/events.jsonl").string() + " is a named pipe",
                                   cadencePath().string() + " is a device"})
        EXPECT_NE(result.standardError.find(said + ", not a regular file; it was not read and counts as unreadable\n"),
                  std::string::npos)
            << result.standardError;
}

TEST_F(TickTest, AConfirmedStaleReadingWritesTheNoteAndSkipsWithAHeartbeat) {
    const int64_t row = now() - 600'000;
    signals().tick({.tsMs = row, .frontmostApp = "Editor"});
    const auto before = cadenceJudgedAgo(30'000);
    const auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput.rfind("skipped: signals stale since ", 0), 0u) << result.standardOutput;
    EXPECT_NE(result.standardOutput.find("— not judged; capture may have stopped\n"), std::string::npos);
    EXPECT_EQ(result.standardError.rfind("signals stale: signals stale since ", 0), 0u) << result.standardError;
    const auto note = json::parse(testing::readFile(staleNote()));
    EXPECT_EQ(note["lastGoodTickAtMs"], row);
    expectHeartbeat(before);
    EXPECT_TRUE(server.requests().empty());
    expectNoLogRows();
}

TEST_F(TickTest, ARowOlderThanAFreshRecordingPauseSkipsWithoutANote) {
    const int64_t row = now() - 3'600'000;
    const int64_t pauseStart = now() - 60'000;
    signals().tick({.tsMs = row, .frontmostApp = "Editor"});
    testing::writeFile(supportDir() / "recording-pause.json",
                       "{\"requestedMs\": " + std::to_string(pauseStart) +
                           ", \"untilMs\": " + std::to_string(pauseStart + 7'200'000) + "}");
    const auto before = cadenceJudgedAgo(20'000);
    const auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput.rfind("skipped: recording is paused (since ", 0), 0u) << result.standardOutput;
    EXPECT_EQ(result.standardError.rfind("signals not current: recording is paused", 0), 0u);
    EXPECT_FALSE(fs::exists(staleNote()));
    expectHeartbeat(before);
    expectNoLogRows();
}

TEST_F(TickTest, AFreshReadingClearsAnEarlierNoteAndAnUntrustworthyOneLeavesIt) {
    testing::writeFile(staleNote(), R"({"lastGoodTickAtMs": 1, "updatedAt": "2026-01-01T00:00:00Z"})");
    // Stale, with no record of a recent wake: judged once, note kept.
    signals().tick({.tsMs = now() - 600'000, .frontmostApp = "Editor"});
    reply(R"({"state": "ON_TASK", "confidence": 0.5, "reason": "ok"})");
    auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_TRUE(fs::exists(staleNote()));
    EXPECT_EQ(lines(checkerLog()).size(), 1u);

    freshRow();
    reply(R"({"state": "ON_TASK", "confidence": 0.5, "reason": "ok"})");
    result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_FALSE(fs::exists(staleNote()));
}

// Rows that fail: status 1, the reason on standard error, the cadence file as it was and no log row.
TEST_F(TickTest, FailuresLeaveTheCadenceAloneAndLogNothing) {
    const std::string boom = R"({"error":{"code":500,"message":"boom","type":"server_error"}})";
    struct Row {
        std::string name;
        std::function<void()> arrange;
        std::function<void(const std::string&)> expectError;
    };
    const auto is = [](std::string expected) {
        return [expected](const std::string& error) { EXPECT_EQ(error, expected); };
    };
    const std::vector<Row> rows{
        {"unreadable signals", [&] { fs::create_directories(root()); },
         [&](const std::string& error) { EXPECT_EQ(error, "FAIL: " + testing::missingSignals(root() / "signals.sqlite") + "\n"); }},
        {"no rows", [&] { signals(); }, is("no signal data available (volume unmounted or DB empty) — skipping\n")},
        {"model not downloaded",
         [&] {
             freshRow();
             testing::writeFile(refusalNote(), "{}");
             LocalModelStore(supportDir() / "models")
                 .saveManifest({"judge-model", "judge.gguf", {{"judge.gguf", 4, std::string(64, '0')}}});
         },
         [&](const std::string& error) {
             EXPECT_EQ(error, "REFUSING TO JUDGE (#986): judge-model isn't downloaded, so there is nothing verified to "
                              "judge with. Not sending a screenshot.\n");
             EXPECT_FALSE(fs::exists(refusalNote())) << "an old note is cleared";
         }},
        // After the integrity warning for an unverifiable model, the failure is the last word.
        {"failed model call",
         [&] {
             freshRow();
             server.enqueue(chatPath, Reply::json(500, boom));
         },
         [&](const std::string& error) { EXPECT_TRUE(error.ends_with("\nFAIL: HTTP 500: " + boom + "\n")) << error; }},
        {"failed integrity fetch",
         [&] {
             freshRow();
             server.enqueue("/props", Reply::json(404, R"({"error":{"code":404,"message":"not found"}})"));
         },
         [&](const std::string& error) { EXPECT_EQ(error.rfind("FAIL: ", 0), 0u) << error; }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        fixture.reset();
        fs::remove_all(root());
        fs::remove_all(supportDir());
        const size_t chatRequests = server.requests(chatPath).size();
        row.arrange();
        cadenceJudgedAgo(10'000, "Mail");
        const std::string before = testing::readFile(cadencePath());
        const auto result = runBinary();
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.standardOutput, "");
        row.expectError(result.standardError);
        EXPECT_EQ(testing::readFile(cadencePath()), before);
        if (row.name != "failed model call") {
            EXPECT_EQ(server.requests(chatPath).size(), chatRequests);
        }
        expectNoLogRows();
    }
}

TEST_F(TickTest, AServerServingAnotherFileIsRefusedWithANoteForTheApp) {
    freshRow();
    const fs::path modelFile = supportDir() / "models" / "judge.gguf";
    testing::writeFile(modelFile, "GGUF");
    const LocalModelStore store(supportDir() / "models");
    const LocalModelManifest manifest{"judge-model", "judge.gguf",
                                      {{"judge.gguf", 4, *LocalModelStore::sha256OfFile(modelFile)}}};
    store.saveManifest(manifest);
    ASSERT_TRUE(store.verify(manifest, now()).ok());
    server.setModelPath("/elsewhere/other.gguf");
    const auto result = run();
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardError.rfind("REFUSING TO JUDGE (#986): the local server is serving /elsewhere/other.gguf",
                                         0),
              0u)
        << result.standardError;
    const auto note = json::parse(testing::readFile(refusalNote()));
    EXPECT_EQ(note["kind"], "modelReplaced");
    EXPECT_EQ(note["model"], "judge-model");
    EXPECT_FALSE(fs::exists(cadencePath()));
    EXPECT_TRUE(server.requests(chatPath).empty());
    expectNoLogRows();

    // Serving the verified file again: judged, and the note is gone.
    server.setModelPath(modelFile.string());
    reply(R"({"state": "ON_TASK", "confidence": 0.5, "reason": "ok"})");
    EXPECT_EQ(run().exitStatus, 0);
    EXPECT_FALSE(fs::exists(refusalNote()));
}

TEST_F(TickTest, AnEndedQuietWindowIsDisclosedOnceThroughTheNotifier) {
    const fs::path record = dir / "notified.txt";
    testing::writeFile(dir / "bin" / "notify-send",
                       "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done >> '" + record.string() + "'\n");
    fs::permissions(dir / "bin" / "notify-send", fs::perms::owner_all);
    const int64_t until = now() - 300'000;
    testing::writeFile(root() / "io-layer" / "events.jsonl",
                       "{\"ts_ms\":" + std::to_string(until - 1'800'000) +
                           ",\"kind\":\"event\",\"type\":\"backoff_set\",\"detail\":{\"backoff_until_ts_ms\":" +
                           std::to_string(until) + "},\"source\":\"coach-core\"}\n");
    freshRow();
    cadenceJudgedAgo(10'000);

    auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardError,
              "disclosed ended no-disrupt window (active_backoff_until=" + std::to_string(until) + ")\n");
    EXPECT_EQ(testing::readFile(record), std::string("--\n") + BackoffDisclosure::notificationTitle + "\n" +
                                             BackoffDisclosure::notificationMessage + "\n");
    const auto events = EventLogReader::read(root() / "io-layer" / "events.jsonl");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].type, "backoff_window_disclosed");
    EXPECT_EQ(*events[1].detail.member("active_backoff_until")->numberIfAny(), static_cast<double>(until));

    result = run();
    EXPECT_EQ(result.standardError, "");
    EXPECT_EQ(EventLogReader::read(root() / "io-layer" / "events.jsonl").size(), 2u);
}

// --- rows that need the machine, run in this process ----------------------------------------------

class TickInProcess : public TickTest {
protected:
    TickInProcess() {
        for (const auto& [key, value] : environment()) scoped.set(key, value);
        for (const char* key : {"DISPLAY", "AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "AIMCAP_CLASSIFY_MAX_INTERVAL_SEC",
                                "AIMCAP_CLASSIFY_REQUIRE_AC", "AIMCAP_CALL_PAUSE",
                                "AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC", "AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC"})
            scoped.unset(key);
        platform.callActivity = [] { return std::nullopt; };
        platform.powerSnapshot = [] { return ClassifierPowerPolicy::PowerSnapshot{}; };
        platform.captureWindowContent = [](const SignalsReader&, HTTPSession&) { return cli::LiveWindowContent{}; };
        platform.batteryTelemetry = [] { return std::nullopt; };
        platform.notify = [](const std::string&, const std::string&) {};
    }

    // The tick's status and what it printed.
    std::pair<int, std::string> runHere() {
        ::testing::internal::CaptureStdout();
        startMs = clock.wallMs();
        const int status = tick::runTick(platform, clock);
        endMs = clock.wallMs();
        return {status, ::testing::internal::GetCapturedStdout()};
    }

    void withCapture() {
        platform.captureWindowContent = [](const SignalsReader&, HTTPSession&) {
            cli::LiveWindowContent live;
            live.content = "{'ocr': 'Quarterly report', 'description': 'A text editor.'}";
            live.description = "A text editor.";
            live.ocrChars = 16;
            live.screenshotAtMs = 1'700'000'000'123;
            live.textSource = "ocr";
            return live;
        };
    }

    testing::ScopedEnvironment scoped;
    tick::Platform platform;
};

TEST_F(TickInProcess, ATwoWayCallHoldsTheTickAndMarksTheCadence) {
    freshRow();
    cadenceJudgedAgo(10'000, "Mail");
    platform.callActivity = [] {
        return CallActivityReading{{AudioProcessActivity{"Meet", "chromium", true, true}}};
    };
    const auto [status, output] = runHere();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output, "skipped: in a call -- classifier paused until it ends\n");
    const auto cadence = Cadence::read(cadencePath());
    EXPECT_TRUE(cadence->pausedForCall);
    EXPECT_FALSE(cadence->pausedForPower);
    ASSERT_TRUE(cadence->callHoldSinceMs);
    EXPECT_GE(*cadence->callHoldSinceMs, startMs);
    EXPECT_GE(cadence->lastRanAtMs, startMs);
    EXPECT_TRUE(server.requests().empty());
    expectNoLogRows();

    // Switched off, the same call is no reason to wait: the first wake after a hold judges.
    scoped.set("AIMCAP_CALL_PAUSE", "off");
    reply(R"({"state": "ON_TASK", "confidence": 0.5, "reason": "ok"})");
    EXPECT_EQ(runHere().first, 0);
    EXPECT_FALSE(Cadence::read(cadencePath())->pausedForCall);
    EXPECT_EQ(lines(checkerLog()).size(), 1u);
}

TEST_F(TickInProcess, OnBatteryWithACRequiredPausesAndMarksTheCadence) {
    freshRow();
    cadenceJudgedAgo(10'000, "Mail");
    scoped.set("AIMCAP_CLASSIFY_REQUIRE_AC", "1");
    platform.powerSnapshot = [] {
        return ClassifierPowerPolicy::PowerSnapshot{ClassifierPowerPolicy::PowerSource::battery, false};
    };
    const auto [status, output] = runHere();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output, "skipped: on battery -- classifier paused (AIMCAP_CLASSIFY_REQUIRE_AC)\n");
    const auto cadence = Cadence::read(cadencePath());
    EXPECT_TRUE(cadence->pausedForPower);
    EXPECT_GE(cadence->lastRanAtMs, startMs);
    EXPECT_EQ(cadence->lastFrontmostApp, "Mail");
    EXPECT_TRUE(server.requests().empty());
    expectNoLogRows();
}

TEST_F(TickInProcess, ACaptureIsLoggedWithTheVerdictAndTheBatteryReadingsKeepOnlyWhatTheBatteryOffers) {
    freshRow();
    withCapture();
    platform.batteryTelemetry = [] {
        PowerSource::BatteryReading reading;
        reading.status = "Discharging";
        reading.voltageMv = 11'800;
        reading.energyMwh = 40'000;
        return std::optional(reading);
    };
    reply(R"({"state": "ON_TASK", "confidence": 0.9, "reason": "Editing the quarterly report."})");
    ::testing::internal::CaptureStderr();
    const auto [status, output] = runHere();
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(status, 0);

    const auto tick = ClassifierTick::decode(lines(checkerLog()).at(0));
    EXPECT_EQ(tick->screenshotAtMs, 1'700'000'000'123);
    const json describe = json::parse(lines(describeLog()).at(0));
    EXPECT_EQ(describe, json({{"v", 1},
                              {"atMs", *tick->atMs()},
                              {"describe", "A text editor."},
                              {"ocrChars", 16},
                              {"model", "judge-model"},
                              {"screenshotAtMs", 1'700'000'000'123},
                              {"textSource", "ocr"}}));
    const json energy = json::parse(lines(energyLog()).at(0));
    EXPECT_EQ(energy["before"], json({{"status", "Discharging"}, {"voltage_mv", 11'800}, {"energy_mwh", 40'000}}));
    EXPECT_EQ(energy["after"], energy["before"]);
    EXPECT_NE(server.requests(chatPath).at(0).json()["messages"][1]["content"].get<std::string>().find(
                  "Quarterly report"),
              std::string::npos);
}

TEST_F(TickInProcess, AFailingDescribeAppendStillLeavesTheVerdictAndTheAdvancedCadence) {
    freshRow();
    withCapture();
    fs::create_directories(describeLog());  // a directory cannot be appended to
    reply(R"({"state": "ON_TASK", "confidence": 0.9, "reason": "ok"})");
    ::testing::internal::CaptureStderr();
    const auto [status, output] = runHere();
    const std::string errors = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, 0);
    EXPECT_NE(errors.find("describe log append failed (tick was still written): "), std::string::npos) << errors;
    EXPECT_EQ(lines(checkerLog()).size(), 1u);
    EXPECT_EQ(lines(energyLog()).size(), 1u);
    const auto cadence = Cadence::read(cadencePath());
    ASSERT_TRUE(cadence);
    EXPECT_GE(cadence->lastJudgedAtMs, startMs);
}

TEST_F(TickInProcess, AFailedModelCallAfterACaptureLeavesNoRowInAnyLog) {
    freshRow();
    withCapture();
    cadenceJudgedAgo(10'000, "Mail");
    const std::string before = testing::readFile(cadencePath());
    server.enqueue(chatPath, Reply::json(500, R"({"error":{"code":500,"message":"boom","type":"server_error"}})"));
    const auto result = testing::runVerbInProcess([&] { return tick::runTick(platform, clock); }, {});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.standardError.find("FAIL: "), std::string::npos) << result.standardError;
    EXPECT_EQ(testing::readFile(cadencePath()), before);
    expectNoLogRows();
}

TEST(TickWatchdog, EndsTheProcessWithStatusOnePastTheCeiling) {
    EXPECT_EXIT(
        {
            tick::armTickWatchdog(0.2);
            std::this_thread::sleep_for(std::chrono::seconds(10));
        },
        ::testing::ExitedWithCode(1), "tick watchdog: exceeded 0.2s, exiting nonzero");
}

}  // namespace
}  // namespace aimwise
