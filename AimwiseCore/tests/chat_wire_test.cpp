#include "AimwiseCore/models/chat_wire.h"

#include <gtest/gtest.h>

#include <random>

#include "AimwiseCore/models/model_backend.h"
#include "AimwiseCore/models/model_backend_error.h"

namespace aimwise {
namespace {

using json = nlohmann::ordered_json;

ToolCall call(std::string name) { return ToolCall{std::move(name), JSONValue::Object{{"n", 1.0}}}; }

json encode(const std::vector<ChatMessage>& messages, ChatWire::Dialect dialect = ChatWire::Dialect::local) {
    return ChatWire::encodeMessages(messages, dialect);
}

// ---- messages on the wire ----

TEST(ChatWireEncoding, MessagesTakeTheirWireShapes) {
    json wire = encode({ChatMessage::system("s"), ChatMessage::user("u"),
                        ChatMessage::assistant("a", std::vector<ToolCall>{call("look")}, "why"),
                        ChatMessage::toolResult("r", "look")});
    EXPECT_EQ(wire.dump(),
              R"([{"role":"system","content":"s"},{"role":"user","content":"u"},)"
              R"({"role":"assistant","content":"a","reasoning_content":"why","tool_calls":[{"id":"call_2_0","type":"function","function":{"name":"look","arguments":"{\"n\":1}"}}]},)"
              R"({"role":"tool","content":"r","tool_call_id":"call_2_0","name":"look"}])");
}

TEST(ChatWireEncoding, OnlineDialectUsesReasoningKeyAndNoToolName) {
    json wire = encode({ChatMessage::user("u"), ChatMessage::assistant("a", std::vector<ToolCall>{call("x")}, "t"),
                        ChatMessage::toolResult("r", "x")},
                       ChatWire::Dialect::openRouter);
    EXPECT_EQ(wire[1]["reasoning"], "t");
    EXPECT_FALSE(wire[1].contains("reasoning_content"));
    EXPECT_FALSE(wire[2].contains("name"));
}

TEST(ChatWireEncoding, EmptyThinkingAndEmptyCallListsAreLeftOut) {
    json wire = encode({ChatMessage::assistant("a", std::vector<ToolCall>{}, "")});
    EXPECT_EQ(wire.dump(), R"([{"role":"assistant","content":"a"}])");
}

TEST(ChatWireEncoding, ToolResultsTakeTheIdsOfTheirOwnAssistantMessage) {
    json wire = encode({ChatMessage::user("u"), ChatMessage::assistant("", std::vector<ToolCall>{call("a"), call("b")}),
                        ChatMessage::toolResult("1", "a"), ChatMessage::toolResult("2", "b"),
                        ChatMessage::assistant("", std::vector<ToolCall>{call("c")}), ChatMessage::toolResult("3", "c")});
    EXPECT_EQ(wire[2]["tool_call_id"], "call_1_0");
    EXPECT_EQ(wire[3]["tool_call_id"], "call_1_1");
    EXPECT_EQ(wire[5]["tool_call_id"], "call_4_0");
}

TEST(ChatWireEncoding, UnmatchedToolResultsAreNamedByPosition) {
    json wire = encode({ChatMessage::system("s"), ChatMessage::user("u"), ChatMessage::assistant("plain"),
                        ChatMessage::toolResult("r", std::nullopt)});
    EXPECT_EQ(wire[3]["tool_call_id"], "call_unmatched_unknown_3");
    // More results than calls, and a result after a user message.
    json more = encode({ChatMessage::assistant("", std::vector<ToolCall>{call("a")}), ChatMessage::toolResult("1", "a"),
                        ChatMessage::toolResult("2", "a"), ChatMessage::user("u"), ChatMessage::toolResult("3", "z")});
    EXPECT_EQ(more[2]["tool_call_id"], "call_unmatched_a_2");
    EXPECT_EQ(more[4]["tool_call_id"], "call_unmatched_z_4");
}

TEST(ChatWireEncoding, OnlineDialectDropsBlankAssistantsButKeepsInputPositions) {
    std::vector<ChatMessage> messages{ChatMessage::user("u"), ChatMessage::assistant(" \n "),
                                      ChatMessage::assistant("", std::vector<ToolCall>{call("a")}),
                                      ChatMessage::toolResult("r", "a")};
    json online = encode(messages, ChatWire::Dialect::openRouter);
    ASSERT_EQ(online.size(), 3u);
    EXPECT_EQ(online[1]["tool_calls"][0]["id"], "call_2_0");
    EXPECT_EQ(online[2]["tool_call_id"], "call_2_0");
    EXPECT_EQ(encode(messages).size(), 4u);  // the local encoder drops nothing
}

TEST(ChatWireEncoding, UnserialisableArgumentsBecomeAnEmptyObject) {
    EXPECT_EQ(ChatWire::serializeArguments(JSONValue::Object{{"x", std::string("\xff\xfe")}}), "{}");
    EXPECT_EQ(ChatWire::serializeArguments(JSONValue::Object{{"x", 1.5}, {"y", 2.0}}), R"({"x":1.5,"y":2})");
}

TEST(ChatWireEncoding, ToolsGoOutAsFunctions) {
    json tools = ChatWire::encodeTools({ToolSpec{"t", "d", JSONValue::Object{{"type", "object"}}}});
    EXPECT_EQ(tools.dump(),
              R"([{"type":"function","function":{"name":"t","description":"d","parameters":{"type":"object"}}}])");
}

// ---- the common reply parser ----

ChatResponse parse(const std::string& body) { return ChatWire::parseResponse(body); }

ModelBackendError parseError(const std::string& body) {
    try {
        parse(body);
    } catch (const ModelBackendError& error) {
        return error;
    }
    ADD_FAILURE() << "parsed: " << body;
    return ModelBackendError::invalidResponse("");
}

TEST(ChatReplyParser, RefusesWhatIsNotAnAnswer) {
    EXPECT_EQ(parseError("[]"), ModelBackendError::invalidResponse("response was not a JSON object"));
    EXPECT_NE(parseError("{oops").description().find("parse error"), std::string::npos);
    EXPECT_NE(parseError(R"({"usage":{"cost":1e400}})").description().find("number overflow"), std::string::npos);
    EXPECT_EQ(parseError(R"({"choices":[]})"), ModelBackendError::invalidResponse("response had no choices"));
    EXPECT_EQ(parseError(R"({"choices":[1]})"), ModelBackendError::invalidResponse("response had no choices"));
    EXPECT_EQ(parseError(R"({"choices":[{"message":{"content":"hi"}}],"error":{"message":"quota"}})"),
              ModelBackendError::invalidResponse("OpenRouter error: quota"));
    EXPECT_EQ(parseError(R"({"error":{"code":7}})"), ModelBackendError::invalidResponse(R"(OpenRouter error: {"code":7})"));
}

TEST(ChatReplyParser, ErrorTextHasItsSecretsRemoved) {
    ModelBackendError error = parseError(R"({"error":{"message":"bad key sk-abcdefghijklmnop"}})");
    EXPECT_EQ(error.description().find("sk-abcdefghijklmnop"), std::string::npos);
}

TEST(ChatReplyParser, ReadsTextThinkingAndTruncation) {
    ChatResponse a = parse(R"({"choices":[{"finish_reason":"length","message":{"content":"x","reasoning":"r1","reasoning_content":"r2"}}]})");
    EXPECT_EQ(a.text, "x");
    EXPECT_EQ(a.thinking, "r1");
    EXPECT_TRUE(a.truncated);
    ChatResponse b = parse(R"({"choices":[{"finish_reason":"stop","message":{"content":null,"reasoning":5,"reasoning_content":"r2"}}]})");
    EXPECT_EQ(b.text, "");
    EXPECT_EQ(b.thinking, "r2");
    EXPECT_FALSE(b.truncated);
    ChatResponse c = parse(R"({"choices":[{"message":"not an object"}]})");
    EXPECT_EQ(c, ChatResponse{});
}

TEST(ChatReplyParser, KeepsOnlyUsableToolCallsInOrder) {
    ChatResponse response = parse(R"({"choices":[{"message":{"tool_calls":[
        {"function":{"name":"a","arguments":"{\"k\":[1,2]}"}},
        {"function":{"name":"  "}},
        {"nofunction":true},
        {"function":{"name":"b","arguments":"not json"}},
        {"function":{"name":"c","arguments":{"inline":true}}},
        {"function":{"name":"d","arguments":"[1]"}}]}}]})");
    ASSERT_EQ(response.toolCalls.size(), 4u);
    EXPECT_EQ(response.toolCalls[0].arguments,
              JSONValue(JSONValue::Object{{"k", JSONValue::Array{1.0, 2.0}}}));
    EXPECT_EQ(response.toolCalls[1], (ToolCall{"b", JSONValue::Object{}}));
    EXPECT_EQ(response.toolCalls[2].arguments, JSONValue(JSONValue::Object{{"inline", true}}));
    EXPECT_EQ(response.toolCalls[3], (ToolCall{"d", JSONValue::Object{}}));
}

TEST(ChatReplyParser, UsageNeedsBothIntegerCounts) {
    ChatResponse full = parse(R"({"choices":[{"message":{}}],"usage":{"prompt_tokens":100,"completion_tokens":20,
        "prompt_tokens_details":{"cached_tokens":80},"completion_tokens_details":{"reasoning_tokens":5},"cost":0.25}})");
    ASSERT_TRUE(full.usage);
    EXPECT_EQ(*full.usage, (ChatUsage{100, 20, 80, 5, 0.25, 1}));
    EXPECT_FALSE(parse(R"({"choices":[{"message":{}}],"usage":{"prompt_tokens":1,"cost":0.1}})").usage);
    EXPECT_FALSE(parse(R"({"choices":[{"message":{}}],"usage":{"prompt_tokens":1,"completion_tokens":"2"}})").usage);
}

TEST(ChatReplyParser, ProvenanceIsTrimmedAndNeverStoredEmpty) {
    ChatResponse response = parse(R"({"id":" gen-1 ","model":"m","provider":"","choices":[{"finish_reason":"stop","message":{}}]})");
    EXPECT_EQ(response.provenance, (ChatProvenance{std::nullopt, "gen-1", "m", "stop"}));
    EXPECT_FALSE(parse(R"({"id":"  ","choices":[{"message":{}}]})").provenance);
}

TEST(ChatReplyParser, LogprobsAndReasoningDetails) {
    ChatResponse response = parse(R"({"choices":[{"message":{"reasoning_details":[{"type":"x"}]},"logprobs":{"content":[
        {"token":"a","logprob":-0.5,"top_logprobs":[{"token":"b","logprob":-1},{"token":2,"logprob":-1}]},
        {"token":"c"}]}}]})");
    ASSERT_EQ(response.logprobs.size(), 1u);
    EXPECT_EQ(response.logprobs[0], (TokenLogprob{"a", -0.5, {{"b", -1.0}}}));
    EXPECT_EQ(response.reasoningDetailsJSON, R"([{"type":"x"}])");
    EXPECT_FALSE(parse(R"({"choices":[{"message":{"reasoning_details":null}}]})").reasoningDetailsJSON);
}

// ---- streaming ----

TEST(ChatStreamAccumulator, FoldsDeltasUsageAndFirstProvenance) {
    ChatStreamAccumulator accumulator;
    auto ingest = [&](const char* text) { return accumulator.ingest(json::parse(text)); };
    EXPECT_EQ(ingest(R"({"id":"g1","model":"m","choices":[{"delta":{"role":"assistant","content":null}}]})"),
              ModelStreamDelta{});
    EXPECT_EQ(ingest(R"({"id":"g2","choices":[{"delta":{"reasoning":"th","content":"He"}}]})"),
              (ModelStreamDelta{"He", "th", false, false}));
    ingest(R"({"choices":[{"delta":{"content":"llo"},"logprobs":{"content":[{"token":"llo","logprob":-0.1}]}}]})");
    ingest(R"({"choices":[{"finish_reason":"length","delta":{}}]})");
    ingest(R"({"choices":[],"usage":{"prompt_tokens":3,"completion_tokens":2}})");
    ChatResponse response = accumulator.finish();
    EXPECT_EQ(response.text, "Hello");
    EXPECT_EQ(response.thinking, "th");
    EXPECT_TRUE(response.truncated);
    EXPECT_EQ(response.usage, (ChatUsage{3, 2, std::nullopt, std::nullopt, std::nullopt, 1}));
    EXPECT_EQ(response.provenance, (ChatProvenance{std::nullopt, "g1", "m", "length"}));
    EXPECT_EQ(response.logprobs.size(), 1u);
}

TEST(ServerSentEventLines, HandsOnDataPayloadsAcrossArbitraryChunking) {
    std::string stream = "data: {\"a\":1}\r\n\nevent: x\n: comment\ndata:{\"b\":2}\n\ndata: [DONE]\n\ndata: tail";
    for (size_t split = 0; split <= stream.size(); ++split) {
        std::vector<std::string> payloads;
        ServerSentEventLines lines([&](std::string_view payload) { payloads.emplace_back(payload); });
        lines.feed(std::string_view(stream).substr(0, split));
        lines.feed(std::string_view(stream).substr(split));
        lines.finish();
        EXPECT_EQ(payloads, (std::vector<std::string>{R"({"a":1})", R"({"b":2})", "tail"})) << split;
    }
}

// Every prefix and many byte flips of recorded replies: the parsers answer or raise their error,
// and never crash or hang.
TEST(ChatWireRobustness, TruncatedAndCorruptedRepliesNeverCrashTheParsers) {
    const std::vector<std::string> recorded{
        R"({"id":"chatcmpl-1","object":"chat.completion","created":1,"model":"m","choices":[{"index":0,"finish_reason":"tool_calls","message":{"role":"assistant","content":null,"reasoning_content":"hm","tool_calls":[{"id":"c","type":"function","function":{"name":"note","arguments":"{\"t\":\"x\"}"}}]}}],"usage":{"prompt_tokens":5,"completion_tokens":2,"total_tokens":7}})",
        R"({"error":{"code":400,"message":"the request exceeds the available context size","type":"exceed_context_size_error","n_prompt_tokens":9000,"n_ctx":4096}})",
    };
    const std::string stream =
        "data: {\"choices\":[{\"delta\":{\"role\":\"assistant\",\"content\":null}}]}\n\n"
        "data: {\"choices\":[{\"delta\":{\"tool_calls\":[{\"index\":0,\"function\":{\"name\":\"n\",\"arguments\":\"{\\\"a\\\"\"}}]}}]}\n\n"
        "data: {\"choices\":[{\"delta\":{\"content\":\"h\\u00e9\"},\"finish_reason\":\"stop\"}]}\n\n"
        "data: [DONE]\n\n";
    auto feedStream = [](const std::string& bytes) {
        ChatStreamAccumulator accumulator;
        ServerSentEventLines lines([&](std::string_view payload) {
            json value = json::parse(payload, nullptr, false);
            if (value.is_object()) accumulator.ingest(value);
        });
        lines.feed(bytes);
        lines.finish();
        accumulator.finish();
    };
    auto parseAny = [](const std::string& bytes) {
        try {
            ChatWire::parseResponse(bytes);
        } catch (const ModelBackendError&) {
        }
    };
    std::mt19937 random(1234);
    size_t cases = 0;
    for (const std::string& original : recorded) {
        for (size_t length = 0; length <= original.size(); ++length, ++cases) parseAny(original.substr(0, length));
        for (int flip = 0; flip < 2000; ++flip, ++cases) {
            std::string corrupted = original;
            corrupted[random() % corrupted.size()] = static_cast<char>(random() % 256);
            parseAny(corrupted);
        }
    }
    for (size_t length = 0; length <= stream.size(); ++length, ++cases) feedStream(stream.substr(0, length));
    for (int flip = 0; flip < 2000; ++flip, ++cases) {
        std::string corrupted = stream;
        corrupted[random() % corrupted.size()] = static_cast<char>(random() % 256);
        feedStream(corrupted);
    }
    EXPECT_GT(cases, 6000u);
}

// ---- the vocabulary's own computations ----

TEST(ChatUsageCombining, SumsAndKeepsFiguresOnlyOneSideHas) {
    ChatUsage a{10, 2, 4, std::nullopt, 0.01, 1};
    ChatUsage b{5, 1, std::nullopt, 3, std::nullopt, 2};
    EXPECT_EQ(ChatUsage::combining(a, b), (ChatUsage{15, 3, 4, 3, 0.01, 3}));
    EXPECT_EQ(ChatUsage::combining(a, std::nullopt), a);
    EXPECT_EQ(ChatUsage::combining(std::nullopt, b), b);
    EXPECT_FALSE(ChatUsage::combining(std::nullopt, std::nullopt));
    EXPECT_EQ(ChatUsage::combining(a, a)->cachedPromptTokens, 8);
}

TEST(ChatUsageCombining, CacheHitRate) {
    EXPECT_DOUBLE_EQ((ChatUsage{200, 0, 50, {}, {}, 1}).cacheHitRate(), 0.25);
    EXPECT_EQ((ChatUsage{0, 0, 50, {}, {}, 1}).cacheHitRate(), 0);
    EXPECT_EQ((ChatUsage{10, 0, {}, {}, {}, 1}).cacheHitRate(), 0);
}

TEST(ChatVocabulary, LoggedToolCallsReadBack) {
    EXPECT_FALSE(ToolCall::decodeLogged(JSONValue::Object{{"name", " \n"}}));
    EXPECT_FALSE(ToolCall::decodeLogged(JSONValue::Object{{"name", 3.0}}));
    EXPECT_FALSE(ToolCall::decodeLogged(JSONValue("x")));
    EXPECT_EQ(ToolCall::decodeLogged(JSONValue::Object{{"name", "x"}}), (ToolCall{"x", JSONValue::Object{}}));
    EXPECT_EQ(ToolCall::decodeLogged(JSONValue::Object{{"name", " x "}, {"arguments", 4.0}}), (ToolCall{" x ", 4.0}));
    ToolCall original{"note", JSONValue::Object{{"text", "hi"}}};
    EXPECT_EQ(ToolCall::decodeLogged(original.asLoggedJSON()), original);
}

TEST(ChatVocabulary, RawValuesAndDisclosureLines) {
    EXPECT_EQ(rawValue(FallbackCause::licenseLapsed), "license_lapsed");
    EXPECT_EQ(fallbackCauseFromRaw("terms_update_required"), FallbackCause::termsUpdateRequired);
    EXPECT_EQ(disclosureLine(FallbackCause::unreachable, "the local model"),
              "answered by the local model — the usual model was unreachable");
    EXPECT_EQ(disclosureLine(FallbackCause::paced, "ignored"), "answered on this Mac — pacing your online coaching");
    EXPECT_EQ(chatRoleFromRaw("tool"), ChatRole::tool);
    EXPECT_FALSE(chatRoleFromRaw("Tool"));
}

TEST(ModelBackendErrorClassification, OnlyUnreachableServersCount) {
    EXPECT_TRUE(ModelBackendError::transportError("x").isReachabilityFailure());
    for (int status : {401, 403, 408, 429, 500, 503, 599})
        EXPECT_TRUE(ModelBackendError::httpError(status, "").isReachabilityFailure()) << status;
    for (int status : {400, 404, 422, 409, 302, 600})
        EXPECT_FALSE(ModelBackendError::httpError(status, "").isReachabilityFailure()) << status;
    EXPECT_FALSE(ModelBackendError::invalidResponse("x").isReachabilityFailure());
    EXPECT_EQ(utf8OrEmpty("\xff"), "");
}

class OneShotBackend : public ModelBackend {
public:
    ChatResponse chat(const std::vector<ChatMessage>&, const std::optional<std::vector<ToolSpec>>&,
                      const ChatOptions&) override {
        ChatResponse response;
        response.text = "all";
        response.thinking = "why";
        return response;
    }
};

TEST(ModelBackendDefaults, StreamingWithoutAStreamIsOneWholeDelta) {
    OneShotBackend backend;
    std::vector<ModelStreamDelta> deltas;
    ChatResponse response = backend.chatStream({}, std::nullopt, ChatOptions{},
                                               [&](const ModelStreamDelta& delta) { deltas.push_back(delta); });
    EXPECT_EQ(response.text, "all");
    EXPECT_EQ(deltas, (std::vector<ModelStreamDelta>{{"all", "why", false, false}}));
}

}  // namespace
}  // namespace aimwise
