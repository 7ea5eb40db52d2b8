#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <cmath>
#include <functional>
#include <random>

#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/events/json_value.h"

namespace aimwise {
namespace {

class UTCZone : public ::testing::Test {
protected:
    void SetUp() override { icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC")); }
};

TEST(JSONValueDecoding, EachCaseComesBackAsItsOwnKind) {
    const auto value = JSONValue::parse(R"({"o":{"k":[1,"two",true,null,2.5]},"big":18014398509481985,"neg":-3})");
    const auto* object = value.objectIfAny();
    ASSERT_TRUE(object);
    const auto* k = object->at("o").member("k");
    ASSERT_TRUE(k);
    const auto& array = std::get<JSONValue::Array>(k->value);
    ASSERT_EQ(array.size(), 5u);
    EXPECT_EQ(array[0], JSONValue(1.0));
    EXPECT_EQ(array[1], JSONValue("two"));
    EXPECT_EQ(array[2], JSONValue(true));
    EXPECT_TRUE(array[3].isNull());
    EXPECT_EQ(array[4], JSONValue(2.5));
    EXPECT_NE(JSONValue(true), JSONValue(1.0)) << "a bool is not a number";
    EXPECT_EQ(*object->at("big").numberIfAny(), 18014398509481984.0) << "integers above 2^53 lose precision";
    EXPECT_EQ(*object->at("neg").numberIfAny(), -3.0);

    EXPECT_EQ(JSONValue("x").stringValue(), "x");
    EXPECT_FALSE(JSONValue(1.0).stringValue());
    EXPECT_FALSE(JSONValue("x").objectValue());
    EXPECT_EQ(JSONValue::parse("{}").objectValue(), JSONValue::Object{});
}

TEST(JSONValueDecoding, RefusesWhatIsNotOneJSONValue) {
    for (const std::string bad : {"", "{", "[1,]", "{\"a\":1}x", "nul", "\"\xff\"", "'single'", "NaN"}) {
        EXPECT_FALSE(JSONValue::tryParse(bad)) << bad;
    }
    try {
        JSONValue::parse("{");
        FAIL();
    } catch (const JSONValueError& error) {
        EXPECT_STREQ(error.what(), "Unsupported JSON value");
    }
    const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
    EXPECT_FALSE(JSONValue::tryParse(deep)) << "hostile nesting is refused, not recursed into";
    const std::string fine = std::string(500, '[') + std::string(500, ']');
    EXPECT_TRUE(JSONValue::tryParse(fine));
    const std::string deepInString = "{\"a\":\"" + std::string(100'000, '[') + "\"}";
    EXPECT_TRUE(JSONValue::tryParse(deepInString)) << "brackets inside strings do not nest";
}

TEST(JSONValueDecoding, FollowsTheGrammarForStringsAndNumbers) {
    EXPECT_EQ(JSONValue::parse(R"("a\"b\\c\/d\b\f\n\r\t\u00e9\ud83d\ude00")"),
              JSONValue("a\"b\\c/d\b\f\n\r\t\xc3\xa9\xf0\x9f\x98\x80"));
    EXPECT_EQ(JSONValue::parse("\"\xe2\x82\xac \xf0\x9f\x98\x80\""), JSONValue("\xe2\x82\xac \xf0\x9f\x98\x80"));
    EXPECT_EQ(JSONValue::parse(" \r\n\t{ \"a\" : [ ] , \"a\" : 2 }\n"), JSONValue(JSONValue::Object{{"a", 2}}))
        << "blanks anywhere between tokens; the last duplicate key wins";
    EXPECT_EQ(JSONValue::parse("-0.5e+2"), JSONValue(-50.0));
    EXPECT_EQ(JSONValue::parse("1E2"), JSONValue(100.0));
    for (const std::string bad : {
             R"("\ud83d")", R"("\ude00")", R"("\ud83d\u0041")", R"("\x")", R"("\u12g4")", "\"tab\there\"",
             "\"\xc0\xaf\"", "\"\xed\xa0\x80\"", "\"\xf4\x90\x80\x80\"", "\"\xe2\x82\"", "\"unterminated",
             "01", "1.", ".5", "-", "1e", "+1", "1e400", "0x10", "tru", "nulls", "[1 2]", "{\"a\" 1}", "{a:1}", "{\"a\":1,}",
         }) {
        EXPECT_FALSE(JSONValue::tryParse(bad)) << bad;
    }
}

TEST(JSONValueEncoding, WholeNumbersPrintPlainAndNonFiniteOnesFail) {
    const JSONValue value = JSONValue::Object{{"b", 3.0}, {"a", JSONValue::Array{0.5, -2.0, 9007199254740993.0}}};
    EXPECT_EQ(value.serialized(), R"({"a":[0.5,-2,9007199254740992],"b":3})");
    EXPECT_EQ(JSONValue::parse(value.serialized()), value);
    EXPECT_THROW(JSONValue(JSONValue::Object{{"x", std::nan("")}}).serialized(), JSONValueError);
    EXPECT_THROW(JSONValue(INFINITY).serialized(), JSONValueError);
    EXPECT_THROW(JSONValue(std::string("\xc3")).serialized(), JSONValueError);
    EXPECT_EQ(JSONValue(std::string("q\"\\\x01\x1f\n\xc3\xa9", 8)).serialized(), R"("q\"\\\u0001\u001f\n)" "\xc3\xa9\"");
    EXPECT_EQ(JSONValue(0.1).serialized(), "0.1") << "the shortest text that reads back the same";
    EXPECT_EQ(JSONValue(1e300).serialized(), "1e+300");
}

// Whatever a value holds, writing it and reading it back gives the same value.
TEST(JSONValueEncoding, RandomValuesRoundTrip) {
    std::mt19937 random(11);
    const std::vector<std::string> pieces = {"", "a", "\"", "\\", "\n", "\x7f", "\xc3\xa9", "\xf0\x9f\x98\x80", "\x01", " ", "a longer plain run"};
    std::function<JSONValue(int)> make = [&](int depth) -> JSONValue {
        switch (random() % (depth > 4 ? 4 : 6)) {
            case 0: {
                std::string text;
                for (unsigned n = random() % 12; n > 0; --n) text += pieces[random() % pieces.size()];
                return JSONValue(text);
            }
            case 1: return JSONValue(static_cast<double>(static_cast<int32_t>(random())) / ((random() % 3) ? 1.0 : 7.0));
            case 2: return JSONValue(random() % 2 == 0);
            case 3: return JSONValue(nullptr);
            case 4: {
                JSONValue::Array items;
                for (unsigned n = random() % 4; n > 0; --n) items.push_back(make(depth + 1));
                return JSONValue(items);
            }
            default: {
                JSONValue::Object members;
                for (unsigned n = random() % 4; n > 0; --n) members[pieces[random() % pieces.size()] + "k"] = make(depth + 1);
                return JSONValue(members);
            }
        }
    };
    for (int i = 0; i < 2000; ++i) {
        const JSONValue value = make(0);
        const std::string text = value.serialized();
        EXPECT_EQ(JSONValue::tryParse(text), value) << text;
        for (size_t n = 0; n < text.size(); ++n) JSONValue::tryParse(std::string_view(text.data(), n));
    }
}

TEST(EventLogEventDecoding, AllFiveKeysAreRequiredAndTheTimeMustBeWhole) {
    const auto event = EventLogEvent::decode(
        R"({"ts_ms":1700000000123,"kind":"event","type":"task_declared","detail":{"task":"write"},"source":"coach-core"})");
    ASSERT_TRUE(event);
    EXPECT_EQ(event->tsMs, 1700000000123);
    EXPECT_EQ(event->detail.member("task")->stringValue(), "write");
    EXPECT_EQ(EventLogEvent::decode(event->encoded()), event);

    const auto nullDetail = EventLogEvent::decode(R"({"ts_ms":1,"kind":"k","type":"t","detail":null,"source":"s"})");
    ASSERT_TRUE(nullDetail);
    EXPECT_TRUE(nullDetail->detail.isNull());
    EXPECT_TRUE(EventLogEvent::decode(R"({"ts_ms":1e3,"kind":"k","type":"t","detail":[],"source":"s"})"));

    for (const char* bad : {
             R"({"kind":"k","type":"t","detail":{},"source":"s"})",
             R"({"ts_ms":1,"type":"t","detail":{},"source":"s"})",
             R"({"ts_ms":1,"kind":"k","detail":{},"source":"s"})",
             R"({"ts_ms":1,"kind":"k","type":"t","source":"s"})",
             R"({"ts_ms":1,"kind":"k","type":"t","detail":{}})",
             R"({"ts_ms":1.5,"kind":"k","type":"t","detail":{},"source":"s"})",
             R"({"ts_ms":"1","kind":"k","type":"t","detail":{},"source":"s"})",
             R"({"ts_ms":1e300,"kind":"k","type":"t","detail":{},"source":"s"})",
             R"({"ts_ms":1,"kind":7,"type":"t","detail":{},"source":"s"})",
             R"([{"ts_ms":1,"kind":"k","type":"t","detail":{},"source":"s"}])",
         }) {
        EXPECT_FALSE(EventLogEvent::decode(bad)) << bad;
    }
}

TEST_F(UTCZone, ClassifierTickRoundTripsAndOmitsAbsentFields) {
    ClassifierTick tick;
    tick.at = "2026-11-22T06:12:24";
    tick.state = "ON_TASK";
    tick.confidence = 0.75;
    tick.screenshotAtMs = 1'795'327'940'000;
    const std::string line = tick.encoded();
    EXPECT_EQ(line, R"({"at":"2026-11-22T06:12:24","state":"ON_TASK","confidence":0.75,"screenshot_at_ms":1795327940000})");
    EXPECT_EQ(ClassifierTick::decode(line), tick);
    EXPECT_EQ(tick.atMs(), 1'795'327'944'000);

    const auto withNulls = ClassifierTick::decode(R"({"at":"x","state":null,"reason":"r"})");
    ASSERT_TRUE(withNulls);
    EXPECT_FALSE(withNulls->state);
    EXPECT_EQ(withNulls->reason, "r");
    EXPECT_FALSE(ClassifierTick::decode(R"({"state":"ON_TASK"})"));
    EXPECT_FALSE(ClassifierTick::decode(R"({"at":5})"));
    EXPECT_FALSE(ClassifierTick::decode(R"({"at":"x","confidence":"high"})"));
    EXPECT_FALSE(ClassifierTick::decode(R"({"at":"x","screenshot_at_ms":1.5})"));
    EXPECT_FALSE(ClassifierTick::decode(R"({"at":"x","frontmost_app":["a"]})"));
    tick.confidence = NAN;
    EXPECT_THROW(tick.encoded(), JSONValueError);
}

TEST_F(UTCZone, FrameInstantPrefersTheScreenshotTimeAndSaysHowFarToTrustIt) {
    ClassifierTick tick;
    tick.at = "2026-11-22T06:12:24";
    const auto fallback = tick.frameInstant();
    ASSERT_TRUE(fallback);
    EXPECT_EQ(*fallback, (ClassifierFrameInstant{1'795'327'944'000, ClassifierFrameInstant::Source::loggedAtFallback}));
    EXPECT_EQ(fallback->disclosure(std::nullopt),
              "No screenshot time recorded for this tick: this frame is from when the verdict was logged, which can "
              "be ~5–11s after what the classifier actually saw.");

    tick.screenshotAtMs = 1'795'327'936'000;
    const auto shot = *tick.frameInstant();
    EXPECT_EQ(shot.source, ClassifierFrameInstant::Source::screenshot);
    EXPECT_EQ(shot.disclosure(1'795'327'944'000), "Frame from when the classifier took its screenshot (verdict logged 8s later).");
    EXPECT_EQ(shot.disclosure(shot.ms + 500), "Frame from when the classifier took its screenshot (verdict logged 0s later).");
    EXPECT_EQ(shot.disclosure(shot.ms + 499), "Frame from when the classifier took its screenshot.");
    EXPECT_EQ(shot.disclosure(std::nullopt), "Frame from when the classifier took its screenshot.");
    EXPECT_EQ((ClassifierFrameInstant{INT64_MIN}.disclosure(1'795'327'944'000)),
              "Frame from when the classifier took its screenshot (verdict logged 9223373832182720s later).");
    EXPECT_EQ(ClassifierFrameInstant::rawValue(shot.source), "screenshot");

    tick.screenshotAtMs.reset();
    tick.at = "yesterday";
    EXPECT_FALSE(tick.frameInstant());
}

}  // namespace
}  // namespace aimwise
