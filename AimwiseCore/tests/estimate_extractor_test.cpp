#include "AimwiseCore/classifier/estimate_extractor.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>

#include "CaptureShared/signals/signals_reader.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;
using Reply = ScriptedModelServer::Reply;

constexpr const char* chatPath = "/v1/chat/completions";

struct CacheRow {
    std::string declaredTask;
    std::optional<double> minutes;
    std::string reason;
    int64_t parsedAtMs = 0;
};

std::vector<CacheRow> cacheRows(const std::filesystem::path& path) {
    std::vector<CacheRow> rows;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return rows;
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT declared_task, estimated_minutes, reason, parsed_at_ms FROM estimate_cache",
                           -1, &statement, nullptr) == SQLITE_OK) {
        while (sqlite3_step(statement) == SQLITE_ROW) {
            CacheRow row;
            row.declaredTask = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
            if (sqlite3_column_type(statement, 1) != SQLITE_NULL) row.minutes = sqlite3_column_double(statement, 1);
            row.reason = reinterpret_cast<const char*>(sqlite3_column_text(statement, 2));
            row.parsedAtMs = sqlite3_column_int64(statement, 3);
            rows.push_back(row);
        }
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
}

class EstimateExtractorTest : public ::testing::Test {
protected:
    EstimateExtractorTest() : server(ScriptedModelServer::Transport::tcp), signals(dir / "signals.sqlite") {}

    EstimateExtractor::Estimate extract(const std::string& text) {
        return EstimateExtractor::extract(text, signals.path(), {server.chatURL(), "estimate-model", 200, 5.0},
                                          session);
    }
    void reply(const std::string& content) {
        server.enqueue(chatPath, Reply::json(200, ScriptedModelServer::completionBody(content)));
    }

    testing::TempDir dir;
    ScriptedModelServer server;
    testing::SignalsFixture signals;
    HTTPSession session;
};

TEST_F(EstimateExtractorTest, EveryAnswerIsStoredAsTheModelGaveIt) {
    struct Case {
        std::string reply;
        std::optional<double> minutes;
        std::string reason;
    };
    const std::vector<Case> cases = {
        {R"({"has_estimate": false, "estimated_minutes": null, "reason": "open-ended"})", std::nullopt, "open-ended"},
        {R"({"has_estimate": true, "estimated_minutes": -30, "reason": "x"})", std::nullopt,
         "discarded negative/same-day-mismatched estimate: x"},
        {R"({"has_estimate": true, "estimated_minutes": 0, "reason": "x"})", 0.0, "x"},
        {R"({"has_estimate": true, "estimated_minutes": 42.5})", 42.5, ""},
        {R"({"has_estimate": true, "estimated_minutes": "60", "reason": "text"})", std::nullopt, "text"},
        {R"({"estimated_minutes": 60, "reason": "no flag"})", std::nullopt, "no flag"},
        {R"({"has_estimate": "true", "estimated_minutes": 60, "reason": "string flag"})", std::nullopt, "string flag"},
        {"[1]", std::nullopt,
         "estimate parse failed (treating as no estimate): model reply was not a JSON object: [1]"},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const std::string text = "task " + std::to_string(i);
        reply(cases[i].reply);
        const auto estimate = extract(text);
        EXPECT_EQ(estimate, (EstimateExtractor::Estimate{cases[i].minutes, cases[i].reason})) << cases[i].reply;
        const auto cached = SignalsReader::open(signals.path()).cachedEstimateMinutes(text);
        EXPECT_TRUE(cached.found) << cases[i].reply;
        EXPECT_EQ(cached.minutes, cases[i].minutes) << cases[i].reply;
    }
    EXPECT_EQ(cacheRows(signals.path()).size(), cases.size());
}

TEST_F(EstimateExtractorTest, TwoCallsForOneTextLeaveOneRowWithTheLaterAnswer) {
    reply(R"({"has_estimate": true, "estimated_minutes": 30, "reason": "half an hour"})");
    reply(R"({"has_estimate": true, "estimated_minutes": 45, "reason": "later"})");
    const auto before = std::chrono::system_clock::now();
    extract("write for a bit");
    extract("write for a bit");
    const auto rows = cacheRows(signals.path());
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].minutes, 45.0);
    EXPECT_EQ(rows[0].reason, "later");
    const auto beforeMs = std::chrono::duration_cast<std::chrono::milliseconds>(before.time_since_epoch()).count();
    EXPECT_GE(rows[0].parsedAtMs, beforeMs);
    EXPECT_LT(rows[0].parsedAtMs, beforeMs + 60'000);
}

TEST_F(EstimateExtractorTest, TheRequestIsTheClassifierShapeWithTheExtractorPrompt) {
    reply(R"({"has_estimate": false, "reason": "none"})");
    extract("Task: tidy up\nDeclared: 2026-11-22 9:00AM ET\n");
    const auto requests = server.requests(chatPath);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(*requests[0].header("Content-Type"), "application/json");
    const auto body = requests[0].json();
    EXPECT_EQ(body["model"], "estimate-model");
    EXPECT_EQ(body["max_tokens"], 200);
    EXPECT_EQ(body["stream"], false);
    EXPECT_EQ(body["response_format"]["type"], "json_object");
    EXPECT_EQ(body["chat_template_kwargs"]["enable_thinking"], false);
    EXPECT_EQ(body["messages"][0]["content"], EstimateExtractor::systemPrompt);
    EXPECT_EQ(body["messages"][1]["content"], "Task: tidy up\nDeclared: 2026-11-22 9:00AM ET\n");
}

TEST_F(EstimateExtractorTest, AFailedCallIsStoredAsNoEstimateSoTheDeclarationIsNeverBlocked) {
    server.enqueue(chatPath, Reply::json(500, R"({"error":{"code":500,"message":"boom"}})"));
    const auto estimate = extract("a task");
    EXPECT_FALSE(estimate.minutes);
    EXPECT_EQ(estimate.reason.rfind("estimate parse failed (treating as no estimate): http error 500: ", 0), 0u)
        << estimate.reason;
    const auto rows = cacheRows(signals.path());
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_FALSE(rows[0].minutes);
}

TEST_F(EstimateExtractorTest, AnUnreachableServerIsAParseFailureToo) {
    const EndpointURL closed = *EndpointURL::parse("http://127.0.0.1:9/v1/chat/completions");
    const auto estimate = EstimateExtractor::extract("a task", signals.path(), {closed, "m", 200, 2.0}, session);
    EXPECT_FALSE(estimate.minutes);
    EXPECT_EQ(estimate.reason.rfind("estimate parse failed (treating as no estimate): ", 0), 0u);
}

TEST_F(EstimateExtractorTest, AnEmptyTextAsksNothingAndStoresNothing) {
    EXPECT_EQ(extract(""), EstimateExtractor::Estimate{});
    EXPECT_TRUE(server.requests().empty());
    EXPECT_FALSE(SignalsReader::open(signals.path()).cachedEstimateMinutes("").found);
}

TEST_F(EstimateExtractorTest, AnUnwritableCacheStillAnswers) {
    reply(R"({"has_estimate": true, "estimated_minutes": 15, "reason": "quick"})");
    const auto estimate = EstimateExtractor::extract("quick one", dir / "missing" / "signals.sqlite",
                                                     {server.chatURL(), "m", 200, 5.0}, session);
    EXPECT_EQ(estimate, (EstimateExtractor::Estimate{15.0, "quick"}));
    EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

}  // namespace
}  // namespace aimwise
