#include "AimwiseCore/events/ordered_json_splice.h"

#include <gtest/gtest.h>

#include "AimwiseCore/events/json_value.h"

namespace aimwise {
namespace {

TEST(OrderedJSONSplice, PutsTheValueFirstAndLeavesEveryOtherByteAlone) {
    const std::string body = "{\n  \"model\": \"m\",\n  \"temperature\": 0.0\n}";
    const auto spliced = OrderedJSONSplice::insert(R"({"effort":"low"})", "reasoning", body);
    ASSERT_TRUE(spliced);
    EXPECT_EQ(*spliced, "{\"reasoning\":{\"effort\":\"low\"},\n  \"model\": \"m\",\n  \"temperature\": 0.0\n}");
    EXPECT_EQ(spliced->substr(spliced->size() - (body.size() - 1)), body.substr(1));
    EXPECT_TRUE(JSONValue::tryParse(*spliced));

    EXPECT_EQ(OrderedJSONSplice::insert("1", "a", "{}"), "{\"a\":1}");
    EXPECT_EQ(OrderedJSONSplice::insert("1", "a", "  { \n}"), "  {\"a\":1 \n}");
    EXPECT_EQ(OrderedJSONSplice::insert("true", "say \"hi\"\n", "{\"b\":2}"), "{\"say \\\"hi\\\"\\n\":true,\"b\":2}");
}

TEST(OrderedJSONSplice, RefusesWhatIsNotAnObject) {
    EXPECT_FALSE(OrderedJSONSplice::insert("1", "a", ""));
    EXPECT_FALSE(OrderedJSONSplice::insert("1", "a", "[{}]"));
    EXPECT_FALSE(OrderedJSONSplice::insert("1", "a", "  "));
    EXPECT_FALSE(OrderedJSONSplice::insert("1", "\xff", "{}"));
}

}  // namespace
}  // namespace aimwise
