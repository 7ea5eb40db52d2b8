// The small text formats the classifier prompt depends on, and the words people see.
#include <gtest/gtest.h>

#include "AimwiseCore/classifier/classifier_model.h"
#include "AimwiseCore/classifier/label_vocabulary.h"
#include "AimwiseCore/classifier/py_repr.h"
#include "AimwiseCore/classifier/self_observation.h"
#include "CaptureShared/common/iso_date.h"
#include "AimwiseCore/events/ordered_json.h"

namespace aimwise {
namespace {

TEST(PyReprTest, ChoosesTheQuoteThatNeedsNoEscapes) {
    EXPECT_EQ(PyRepr::string("it's"), "\"it's\"");
    EXPECT_EQ(PyRepr::string("say \"hi\""), "'say \"hi\"'");
    EXPECT_EQ(PyRepr::string("both ' and \""), "'both \\' and \"'");
}

TEST(PyReprTest, EscapesInvisibleAndSeparatorScalarsBySize) {
    EXPECT_EQ(PyRepr::string("a\x7f" "b"), "'a\\x7fb'");
    EXPECT_EQ(PyRepr::string("zero\u200bwidth"), "'zero\\u200bwidth'");      // format
    EXPECT_EQ(PyRepr::string("line\u2028sep"), "'line\\u2028sep'");          // line separator
    EXPECT_EQ(PyRepr::string("ideo\u3000space"), "'ideo\\u3000space'");      // space separator
    EXPECT_EQ(PyRepr::string("private\U000F0001"), "'private\\U000f0001'");  // private use
    EXPECT_EQ(PyRepr::string("tag\U000E0041"), "'tag\\U000e0041'");          // format, outside the BMP
    EXPECT_EQ(PyRepr::string("emoji 😀 café"), "'emoji 😀 café'");
}

TEST(PyReprTest, WindowContentDictQuotesBothParts) {
    EXPECT_EQ(PyRepr::windowContentDict("Total: 4\n", "it's a form"),
              "{'ocr_text': 'Total: 4\\n', 'description': \"it's a form\"}");
}

TEST(OrderedJSONTest, RendersNestedValuesAtTheirIndent) {
    OrderedJSON value = OrderedJSON::object({
        {"b", OrderedJSON::array({1.0, OrderedJSON::object({}), OrderedJSON::array({})})},
        {"a", nullptr},
        {"c", -0.25},
    });
    EXPECT_EQ(value.render(), "{\n  \"b\": [\n    1.0,\n    {},\n    []\n  ],\n  \"a\": null,\n  \"c\": -0.2\n}");
    EXPECT_EQ(value.render(1), "{\n    \"b\": [\n      1.0,\n      {},\n      []\n    ],\n    \"a\": null,\n    \"c\": -0.2\n  }");
}

TEST(OrderedJSONTest, StringsComeOutAsPureASCII) {
    EXPECT_EQ(OrderedJSON("q\"b\\s/\b\f\n\r\t\x01\x7f").render(), "\"q\\\"b\\\\s/\\b\\f\\n\\r\\t\\u0001\\u007f\"");
    EXPECT_EQ(OrderedJSON("é😀").render(), "\"\\u00e9\\ud83d\\ude00\"");
    EXPECT_EQ(OrderedJSON("bad\xff").render(), "\"bad\\ufffd\"");
}

TEST(SelfObservationTest, LiveUsesThePresentNameHistoryAlsoTheOldOnes) {
    EXPECT_TRUE(ClassifierSelfObservation::isOwnWindowNow(std::string("veska")));
    EXPECT_FALSE(ClassifierSelfObservation::isOwnWindowNow(std::string("Merl")));
    EXPECT_FALSE(ClassifierSelfObservation::isOwnWindowNow(std::nullopt));
    EXPECT_TRUE(ClassifierSelfObservation::isSelfObservation(std::string("Merl")));
    EXPECT_TRUE(ClassifierSelfObservation::isSelfObservation(std::string("AIMWISEAPP")));
    EXPECT_FALSE(ClassifierSelfObservation::isSelfObservation(std::string("Aimwise Notes")));
    EXPECT_TRUE(ClassifierSelfObservation::isSelfObservation("ABSTAINED", std::string("Code")));
    EXPECT_FALSE(ClassifierSelfObservation::isSelfObservation("abstained", std::string("Code")));
}

TEST(ClassifierModelTest, KeyPresentEvenEmptyWinsOverTheFallback) {
    EXPECT_EQ(ClassifierModel::resolved({}, "fb"), "fb");
    EXPECT_EQ(ClassifierModel::resolved({{"AIMCHECK_MODEL", ""}}, "fb"), "");
    EXPECT_EQ(ClassifierModel::resolved({{"AIMCHECK_MODEL", "m"}}), "m");
    EXPECT_EQ(ClassifierModel::resolved({}), "gemma4:12b-it-qat");
}

TEST(LabelVocabularyTest, StatesAndLabelsReadAsPeopleSayThem) {
    EXPECT_EQ(LabelVocabulary::displayNameForClassifierState("not_aligned"), "off intention");
    EXPECT_EQ(LabelVocabulary::displayNameForClassifierState("ABSTAINED"), "ABSTAINED");
    EXPECT_EQ(LabelVocabulary::displayNameForStoredLabel("on_task_overtime"), "Still on it, past my estimate");
    EXPECT_EQ(LabelVocabulary::displayNameForStoredLabel("ON_TASK"), "ON_TASK");
    EXPECT_EQ(LabelVocabulary::toneForStoredLabel("rabbit_hole"), LabelVocabulary::Tone::diverged);
    EXPECT_EQ(LabelVocabulary::toneForStoredLabel("not_using_computer"), LabelVocabulary::Tone::away);
    EXPECT_EQ(LabelVocabulary::toneForStoredLabel("made_up"), LabelVocabulary::Tone::unknown);
}

TEST(ISODateTest, TimestampArgumentsWithAndWithoutFraction) {
    EXPECT_EQ(ISODate::parse("2026-11-22T06:12:24Z"), 1795327944000);
    EXPECT_EQ(ISODate::parse("2026-11-22T07:12:24.250+01:00"), 1795327944250);
    EXPECT_EQ(ISODate::parse("2026-11-22T06:12:24.5-00:30"), 1795329744500);
    for (const char* bad : {"2026-11-22", "2026-11-22T06:12:24", "2026-02-30T00:00:00Z", "2026-11-22T06:12:24.Z",
                            "2026-11-22T06:12:24Zjunk", "--window-content", ""})
        EXPECT_EQ(ISODate::parse(bad), std::nullopt) << bad;
}

}  // namespace
}  // namespace aimwise
