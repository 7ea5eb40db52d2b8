#include "AimwiseCore/coach/coach_driver_core.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <fstream>

#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/events/event_log_writer.h"
#include "CaptureShared/common/local_time.h"
#include "tests/support/fake_clock.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using Core = CoachDriverCore;
using Object = JSONValue::Object;
constexpr int64_t minute = 60'000;

ToolCall call(const char* name, Object arguments = {}) { return {name, std::move(arguments)}; }

// Drives a core over a temporary data root as the driver's loop would, and tells its effects as text.
struct DriverCoreTest : ::testing::Test {
    testing::TempDir root;
    testing::FakeClock clock{1'773'150'000'000};
    Environment environment{{"AIMCAP_GATE_LOG", "1"}};
    std::unique_ptr<Core> core;
    std::optional<Core::RunTurn> turn;
    uint64_t gateJob = 0;

    DriverCoreTest() {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
        std::ofstream(root / "manifest.json") << "{}\n";  // a prepared data root, as `aimwise init` leaves it
    }
    void start() {
        core = std::make_unique<Core>(Core::Settings{.dataRoot = root.path(), .environment = environment,
                                                     .chatIsOpen = [] { return false; }});
    }
    void tick(const char* state, const char* app = "Firefox") {
        ClassifierTick line{.at = LocalTime::format(clock.wallMs()), .state = state, .frontmostApp = app};
        std::ofstream(root / "checker-log.jsonl", std::ios::app) << line.encoded() << "\n";
    }
    void write(const EventLogEvent& event) { EventLogWriter::append(event, root / "io-layer" / "events.jsonl"); }

    // Carries out what the driver's loop would, and answers what happened in one line per effect.
    std::string feed(const Core::Input& input) {
        std::string told;
        bool appended = false;
        for (auto& effect : core->handle(input, clock.wallMs())) {
            if (auto* log = std::get_if<Core::Log>(&effect)) told += "log: " + log->line + "\n";
            if (auto* append = std::get_if<Core::AppendEvents>(&effect)) {
                told += "append:";
                for (const auto& event : append->events) {
                    told += " " + event.type;
                    write(event);
                }
                told += "\n";
                appended = true;
            }
            if (auto* gate = std::get_if<Core::CallGate>(&effect)) {
                gateJob = gate->job;
                told += "gate\n";
            }
            if (auto* run = std::get_if<Core::RunTurn>(&effect)) {
                told += std::string("turn: ") + (run->layer3 ? "layer3 " : "driver ") +
                        (run->channel == CoachChannel::appChat ? "chat\n" : "checker\n");
                turn = *run;
            }
            if (auto* record = std::get_if<Core::RecordGateDecision>(&effect)) {
                GateDecisionLog::append(record->record, GateDecisionLog::defaultURL(root.path()));
                told += "gate-record\n";
            }
            if (std::holds_alternative<Core::RecordUsage>(effect)) told += "usage\n";
            if (auto* show = std::get_if<Core::ShowNotification>(&effect)) told += "show: " + show->text + "\n";
            if (std::holds_alternative<Core::CloseNotification>(effect)) told += "close\n";
            if (std::holds_alternative<Core::OpenChat>(effect)) told += "open-chat\n";
            if (auto* end = std::get_if<Core::ChatTurnEnded>(&effect))
                told += "chat: " + end->text.value_or("") + end->failure.value_or("") + "\n";
        }
        if (appended) told += feed(Core::LogsChanged{});
        return told;
    }
    std::string gateSays(bool yes, bool backendFailed = false) {
        Core::GateEnded ended{.job = gateJob, .backendFailed = backendFailed};
        ended.outcome = backendFailed ? GateOutcome::failed("backend: connection refused")
                                      : GateOutcome::decided({"They drifted to news.", yes});
        return feed(ended);
    }
    std::string turnEnds(std::optional<ChatResponse> response) {
        return feed(Core::TurnEnded{.job = turn->job, .response = std::move(response), .failureReason = "http 503",
                                    .failureUserReason = "The coach's model could not be reached."});
    }
};

TEST_F(DriverCoreTest, ADriftIsGatedThenCheckedInOnAndAnUnansweredCheckInIsReassessed) {
    start();
    tick("NOT_ALIGNED");
    EXPECT_EQ(feed(Core::LogsChanged{}), "log: asking the gate whether to speak (" +
                                             std::to_string(GateMessageSource(root.path()).build(clock.wallMs(), environment).message.size()) +
                                             " characters)\ngate\n");
    EXPECT_EQ(gateSays(true), "gate-record\nlog: the gate says check in\nappend: coach_checkin\nturn: driver checker\n");
    EXPECT_EQ(turn->turn.messages[1].content, CoachLoop::checkerNotice);
    EXPECT_EQ(turn->tools, CoachTools::all());
    clock.advance(2000);
    EXPECT_EQ(turnEnds(ChatResponse{.text = "", .toolCalls = {call("open_ui", {{"message", "Back to the report?"}})},
                                    .usage = ChatUsage{.promptTokens = 10, .completionTokens = 3}}),
              "append: ui_opened app_chat_message turn_trigger coach_decision\nusage\n"
              "log: the turn on the driver path ended: OPEN_UI, shown in a notification; " +
                  TurnUsageLog::line(ChatUsage{.promptTokens = 10, .completionTokens = 3}) +
                  "\nshow: Back to the report?\nchat: Back to the report?\n"
                  "log: waiting for a reply to what the coach said at 13:40, until 13:50\n");
    clock.advance(9 * minute);
    EXPECT_EQ(feed(Core::TimerFired{}), "") << "still waiting, and already said so";
    clock.advance(minute);
    EXPECT_EQ(feed(Core::TimerFired{}),
              "log: no reply since the coach spoke at 13:40; the check-in counts as unanswered\nappend: no_reply_timeout\n"
              "log: turn: something noticed at 13:50\nturn: driver checker\n");
    EXPECT_EQ(feed(Core::NotificationAction{"reply"}), "close\nlog: the person chose \"Reply\"; opening the chat\nopen-chat\n");
}

TEST_F(DriverCoreTest, TheGateWeighsEachLookOnceAcrossRestartsAndBacksOffAnUnreachableModel) {
    start();
    tick("NOT_ALIGNED");
    feed(Core::LogsChanged{});
    EXPECT_EQ(gateSays(false), "gate-record\nlog: the gate says not now\n");
    EXPECT_EQ(feed(Core::LogsChanged{}), "");
    start();  // a restart reads what the gate already weighed
    EXPECT_EQ(feed(Core::LogsChanged{}), "");
    clock.advance(minute);
    tick("NOT_ALIGNED");
    EXPECT_EQ(feed(Core::LogsChanged{}).substr(0, 5), "log: ");
    EXPECT_EQ(gateSays(false, true), "gate-record\nlog: the gate could not reach the model (backend: connection "
                                     "refused); the next gate call waits 30 s\n");
    clock.advance(minute / 6);
    tick("NOT_ALIGNED");
    EXPECT_EQ(feed(Core::LogsChanged{}), "log: waiting for the model server: the last gate call could not reach it; "
                                         "trying again in 20 s\n");
    EXPECT_EQ(core->nextDeadlineMs(clock.wallMs()), clock.wallMs() + 20'000);
}

TEST_F(DriverCoreTest, APersonsMessageIsAnsweredUngatedAndAFailedTurnWaitsItsBackOff) {
    start();
    write(AppChatEvents::userMessage("can you help me start?", clock.wallMs()));
    EXPECT_EQ(feed(Core::LogsChanged{}), "log: turn: a message from the person at 13:40\nturn: driver chat\n");
    EXPECT_EQ(turn->turn.messages[1].content, CoachLoop::appChatNotice);
    EXPECT_EQ(feed(Core::LogsChanged{}), "") << "one turn at a time";
    EXPECT_EQ(turnEnds(std::nullopt),
              "append: turn_failed\nlog: the turn on the driver path failed (http 503); 1 in a row, so the same trigger "
              "waits 60 s\nchat: The coach's model could not be reached.\n"
              "log: the last turn for a message from the person at 13:40 failed; trying again in 60 s\n");
    clock.advance(minute);
    EXPECT_EQ(feed(Core::TimerFired{}), "log: turn: a message from the person at 13:40\nturn: driver chat\n");
    EXPECT_EQ(turnEnds(ChatResponse{.text = "Open the outline and write one line."}),
              "append: app_chat_message coach_decision\nlog: the turn on the driver path ended: TALK; " +
                  TurnUsageLog::line(std::nullopt) + "\nchat: Open the outline and write one line.\n");
    EXPECT_EQ(feed(Core::LogsChanged{}), "") << "the answered message is not answered again";
}

TEST_F(DriverCoreTest, TheConversationPathShowsACheckInReplyItself) {
    environment["AIMCAP_LAYER3"] = "1";
    start();
    tick("NOT_ALIGNED");
    feed(Core::LogsChanged{});
    EXPECT_EQ(gateSays(true), "gate-record\nlog: the gate says check in\nappend: coach_checkin\nturn: layer3 checker\n");
    EXPECT_EQ(turn->turn.messages.back().content,
              "It's 13:40. The system's summary of what it observed: \"They drifted to news.\"");
    EXPECT_TRUE(std::filesystem::exists(root / "io-layer" / "layer3-floor.json"));
    const std::string told = turnEnds(ChatResponse{.text = "Hey, still on the report?"});
    EXPECT_NE(told.find("append: app_chat_message coach_decision ui_opened\n"), std::string::npos) << told;
    EXPECT_NE(told.find("show: Hey, still on the report?\n"), std::string::npos) << told;
    EXPECT_EQ(feed(Core::NotificationAction{"not-now"}),
              "close\nlog: the person chose \"Not now\"; the coach lets this check-in rest\nappend: ui_closed\n");
    clock.advance(20 * minute);
    EXPECT_EQ(feed(Core::TimerFired{}), "") << "\"Not now\" answered the check-in";
}

}  // namespace
}  // namespace aimwise
