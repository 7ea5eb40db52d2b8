// The coach end to end: the real aimwise-coach and aimwise programs against the scripted model
// server, on a private session bus with a stand-in notification service.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>

#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/local_time.h"
#include "agents/coach/driver_lock.h"
#include "agents/tests/agent_test_support.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/session_bus.h"

namespace aimwise::testing {
namespace {

using Reply = ScriptedModelServer::Reply;
const std::string coachPath = std::string(AIMWISE_BINARY_DIR) + "/bin/aimwise-coach";

// A gate call asks for the two-key object; every other call is a coach turn, answered as `turn` says.
ScriptedModelServer::Handler modelServer(std::function<Reply(bool streamed)> turn) {
    return [turn](const ScriptedModelServer::Request& request) {
        if (request.body.find("should_check_in") != std::string::npos && request.body.find("\"tools\"") == std::string::npos)
            return Reply::json(200, ScriptedModelServer::completionBody(
                                        R"({"summary_for_coach":"They are reading news.","should_check_in":true})"));
        return turn(request.json().value("stream", false));
    };
}

Reply openUI(bool streamed) {
    const std::string arguments = R"({\"message\":\"Back to the report?\"})";
    if (!streamed)
        return Reply::json(200, ScriptedModelServer::completionBody("", "tool_calls", std::nullopt,
                                                                    nlohmann::ordered_json::parse(
                                                                        R"([{"id":"c1","type":"function","function":{"name":"open_ui","arguments":")" +
                                                                        arguments + "\"}}]")));
    return Reply::events({R"({"choices":[{"index":0,"delta":{"role":"assistant"}}]})",
                          R"({"choices":[{"index":0,"delta":{"tool_calls":[{"index":0,"id":"c1","type":"function","function":{"name":"open_ui","arguments":")" +
                              arguments + R"("}}]}}]})",
                          R"({"choices":[{"index":0,"delta":{},"finish_reason":"tool_calls"}]})"});
}

Reply words(const std::string& text) { return Reply::events(ScriptedModelServer::streamPayloads({text.substr(0, 4), text.substr(4)})); }

struct CoachEndToEnd : ::testing::Test {
    AgentSandbox sandbox;
    ScriptedModelServer server{ScriptedModelServer::Transport::tcp};
    PrivateSessionBus bus;
    std::optional<StandInNotificationService> notifications;
    std::map<std::string, std::string> env = sandbox.environment();
    pid_t driver = -1;

    CoachEndToEnd() {
        if (bus.address().empty()) return;
        notifications.emplace(bus.address());
        env["AIMCAP_LOCAL_INFERENCE_ENDPOINT"] = server.baseURLString();
        env["AIMCAP_GATE_LOG"] = "1";
        env["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
        env["XDG_RUNTIME_DIR"] = (sandbox.temp / "run").string();
        env["TERMINAL"] = (sandbox.temp / "terminal").string();
        env["TZ"] = "UTC";
        writeFile(sandbox.temp / "terminal", "#!/bin/sh\necho \"$@\" > \"$0.ran\"\n");
        std::filesystem::permissions(sandbox.temp / "terminal", std::filesystem::perms::owner_all);
        std::filesystem::create_directories(sandbox.root / "io-layer");
    }
    ~CoachEndToEnd() override {
        if (driver > 0) {
            ::kill(driver, SIGTERM);
            ::waitpid(driver, nullptr, 0);
        }
    }
    void SetUp() override {
        if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed (scripts/setup installs it)";
    }
    void tick(const char* state) {
        const ClassifierTick line{.at = LocalTime::format(Clock::system().wallMs()), .state = state, .frontmostApp = "Firefox"};
        std::ofstream(sandbox.root / "checker-log.jsonl", std::ios::app) << line.encoded() << "\n";
    }
    std::string types() const {
        std::string out;
        for (const auto& event : EventLogReader::read(sandbox.root / "io-layer" / "events.jsonl")) out += event.type + " ";
        return out;
    }
    void startDriver() {
        driver = ::fork();
        if (driver == 0) {
            for (const auto& [key, value] : env) ::setenv(key.c_str(), value.c_str(), 1);
            ::execl(coachPath.c_str(), coachPath.c_str(), nullptr);
            ::_exit(127);
        }
        ASSERT_TRUE(eventually([&] { return std::filesystem::exists(sandbox.temp / "run" / "aimwise"); }));
    }
};

TEST_F(CoachEndToEnd, ADriftReachesThePersonAsANotificationOnTheDriverPath) {
    server.setHandler("/v1/chat/completions", modelServer(openUI));
    tick("NOT_ALIGNED");
    const auto run = runProcess(coachPath, {"--once"}, {.environment = env});
    ASSERT_EQ(run.exitStatus, 0) << run.standardError;
    ASSERT_TRUE(notifications->waitForShown(1, 5000)) << run.standardError;
    const auto shown = notifications->shown().front();
    EXPECT_EQ(shown.body, "Back to the report?");
    EXPECT_EQ(shown.actions, (std::vector<std::string>{"reply", "Reply", "not-now", "Not now"}));
    EXPECT_EQ(types(), "coach_checkin ui_opened app_chat_message turn_trigger coach_decision ");
    const auto lines = [&](const char* file) {
        return std::count(std::istreambuf_iterator<char>(std::ifstream(sandbox.root / file).rdbuf()), {}, '\n');
    };
    EXPECT_EQ(lines("gate-decisions.jsonl"), 1);
    EXPECT_EQ(lines("coach-turn-energy.jsonl"), 2) << "one row for the gate call, one for the turn";
    EXPECT_EQ(runProcess(coachPath, {"--once"}, {.environment = env}).exitStatus, 0);
    EXPECT_EQ(types(), "coach_checkin ui_opened app_chat_message turn_trigger coach_decision ") << "nothing repeated";

    const DriverLock held(sandbox.root);
    const auto refused = runProcess(coachPath, {"--once"}, {.environment = env});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.standardError.find("another coach driver (process " + std::to_string(::getpid()) + ")"),
              std::string::npos)
        << refused.standardError;
}

TEST_F(CoachEndToEnd, TheConversationPathAnswersTheChatAndOpensItFromTheNotification) {
    env["AIMCAP_LAYER3"] = "1";
    server.setHandler("/v1/chat/completions", modelServer([](bool) { return words("Open the outline first."); }));
    startDriver();
    const auto sent = runProcess(aimwisePath(), {"chat", "--send", "help me start", "--wait", "20"}, {.environment = env});
    EXPECT_EQ(sent.exitStatus, 0) << sent.standardError;
    EXPECT_EQ(sent.standardOutput, "Open the outline first.\n");
    // The chat shows the reply from the stream; the driver records the turn's decision just after.
    EXPECT_TRUE(eventually([&] { return types() == "app_chat_message app_chat_message coach_decision "; })) << types();

    // The classifier log's times are whole seconds, and this look must come after the turn just taken.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    tick("NOT_ALIGNED");
    ASSERT_TRUE(notifications->waitForShown(1, 8000));
    EXPECT_EQ(notifications->shown().front().body, "Open the outline first.");
    notifications->invokeAction(notifications->shown().front().id, "reply");
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(sandbox.temp / "terminal.ran"); }));
    EXPECT_EQ(readFile(sandbox.temp / "terminal.ran"), "-e " + std::string(AIMWISE_BINARY_DIR) + "/bin/aimwise chat\n");

    server.setHandler("/v1/chat/completions", [](const auto&) { return Reply::json(400, R"({"error":"bad request"})"); });
    const auto failed = runProcess(aimwisePath(), {"chat", "--send", "still there?", "--wait", "3"}, {.environment = env});
    EXPECT_EQ(failed.exitStatus, 1);
    EXPECT_NE(failed.standardError.find("The last turn failed: The coach's model gave an answer that could not be used."),
              std::string::npos)
        << failed.standardError;
    EXPECT_NE(types().find("turn_failed"), std::string::npos);
}

}  // namespace
}  // namespace aimwise::testing
