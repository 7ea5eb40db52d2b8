#include "AimwiseCore/classifier/reason_privacy_check.h"

#include <gtest/gtest.h>

#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "tests/support/scripted_model_server.h"

namespace aimwise {
namespace {

namespace Check = ClassifierReasonPrivacyCheck;
using testing::ScriptedModelServer;
using Category = SensitiveSites::Category;

const Check::Trigger financial = Check::Site{Category::financial};
const Check::Trigger medical = Check::Site{Category::medical};
const Check::Trigger identifiers = Check::IdentifiersOnScreen{};

TEST(ReasonPrivacyCheckReply, OnlyAJSONBooleanUnderPrivateIsAnAnswer) {
    EXPECT_EQ(Check::strictBool(R"({"private": false})"), false);
    EXPECT_EQ(Check::strictBool(R"({"private": true, "why": "amount"})"), true);
    for (const char* noAnswer : {R"({"private": "false"})", R"({"private": 0})", R"({"private": null})", "{}",
                                 "[true]", "true", R"("private")"})
        EXPECT_FALSE(Check::strictBool(noAnswer)) << noAnswer;
    for (const char* notJSON : {"not json", "", R"({"private": false)"}) {
        try {
            Check::strictBool(notJSON);
            ADD_FAILURE() << "no error for " << notJSON;
        } catch (const ModelBackendError& error) {
            EXPECT_TRUE(error.asInvalidResponse()) << notJSON;
        }
    }
}

TEST(ReasonPrivacyCheckReply, ErrorKindsNameTheFailureWithoutItsText) {
    EXPECT_EQ(Check::errorKind(ModelBackendError::invalidResponse("secret 4111")), "unparseable reply");
    EXPECT_EQ(Check::errorKind(ModelBackendError::httpError(404, "body")), "http 404");
    EXPECT_EQ(Check::errorKind(ModelBackendError::transportError("refused")), "transport error");
    EXPECT_EQ(Check::errorKind(std::runtime_error("other")), "error");
}

ClassifierState titled(std::optional<std::string> frontTitle, std::optional<std::string> browserTitle,
                       bool browserInFront) {
    ClassifierState state;
    state.frontmostApp = browserInFront ? "Firefox" : "Preview";
    state.browserApp = "Firefox";
    state.frontmostWindowTitle = std::move(frontTitle);
    state.browserTitle = std::move(browserTitle);
    return state;
}

TEST(ReasonPrivacyCheckTitles, TheBrowserTitleCountsOnlyWhileTheBrowserIsInFront) {
    EXPECT_FALSE(Check::titleOutcomeTrigger(titled("notes.txt", "Wells Fargo - Accounts", false)));
    EXPECT_EQ(Check::titleOutcomeTrigger(titled("notes.txt", "Wells Fargo - Accounts", true)), financial);
    EXPECT_FALSE(Check::titleOutcomeTrigger(titled(std::nullopt, std::nullopt, true)));
    EXPECT_FALSE(Check::titleOutcomeTrigger(titled("Quarterly plan", "Recipes", true)));
}

TEST(ReasonPrivacyCheckTitles, AnIdentifierInAnyTitleWinsOverASite) {
    EXPECT_EQ(Check::titleOutcomeTrigger(titled("Wells Fargo - Accounts", "SSN 123-45-6789", true)), identifiers);
    EXPECT_EQ(Check::titleOutcomeTrigger(titled("Card 4111 1111 1111 1111", std::nullopt, false)), identifiers);
}

TEST(ReasonPrivacyCheckResult, RecordValuesAndLogLinesNameTriggerAndCause) {
    struct Case {
        Check::Result result;
        std::optional<std::string> record;
        std::optional<std::string> line;
    };
    const std::vector<Case> cases = {
        {Check::NotRun{}, std::nullopt, std::nullopt},
        {Check::Kept{medical}, "kept", "reason privacy check (medical): kept"},
        {Check::Replaced{financial, Check::Flagged{}}, "replaced_flagged",
         "reason privacy check (financial): replaced reason (check flagged private details)"},
        {Check::Replaced{identifiers, Check::NoVerdict{}}, "replaced_no_verdict",
         "reason privacy check (identifiers_on_screen): replaced reason (check gave no verdict)"},
        {Check::Replaced{medical, Check::Failed{"http 503"}}, "replaced_failed:http 503",
         "reason privacy check (medical): replaced reason (check failed: http 503)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Check::recordValue(c.result), c.record);
        EXPECT_EQ(Check::logLine(c.result), c.line);
    }
}

TEST(ReasonPrivacyCheckCall, AFailedCallGivesTheGenericReasonAndCancellationPassesThrough) {
    ScriptedModelServer server(ScriptedModelServer::Transport::unixSocket);
    server.enqueue("/v1/chat/completions", ScriptedModelServer::Reply::json(
                                               200, ScriptedModelServer::completionBody(R"({"private": false})")));
    HTTPSession session;
    const ClassifierBackend::Config config{server.chatURL(), "m", 40, 5.0};
    EXPECT_EQ(Check::check("Kept sentence.", "task", medical, config, session),
              std::make_pair(Check::Result(Check::Kept{medical}), std::string("Kept sentence.")));

    const ClassifierBackend::Config closed{*EndpointURL::parse("http://127.0.0.1:9/v1/chat/completions"), "m", 40, 2.0};
    EXPECT_EQ(Check::check("Sentence.", "task", medical, closed, session),
              std::make_pair(Check::Result(Check::Replaced{medical, Check::Failed{"transport error"}}),
                             Check::genericReason(medical)));

    auto token = std::make_shared<CancellationToken>();
    token->cancel();
    CancellationScope scope(token);
    EXPECT_THROW(Check::check("Sentence.", "task", medical, config, session), CancellationError);
}

}  // namespace
}  // namespace aimwise
