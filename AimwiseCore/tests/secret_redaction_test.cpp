#include "AimwiseCore/privacy/secret_redaction.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

using SecretRedaction::redact;

TEST(SecretScrub, KeysTokensAndLabelledSecrets) {
    EXPECT_EQ(redact("key sk-abc12345 end"), "key [redacted] end");
    EXPECT_EQ(redact("Authorization: Bearer abcdefgh123"), "Authorization: [redacted]");
    EXPECT_EQ(redact("bearer ABCDEFGH"), "[redacted]");
    EXPECT_EQ(redact("api_key=\"abcd1234efgh\" next"), "[redacted] next");
    EXPECT_EQ(redact("{\"api-key\": \"abcdefgh\"}"), "{\"[redacted]}");
    EXPECT_EQ(redact("authorization=Basic123456"), "[redacted]");
}

TEST(SecretScrub, ShortOrUnlabelledValuesStay) {
    for (const char* text : {"sk-abc", "Bearer abc", "api_key=short", "task-abcdefghij", "the bearer of news",
                             "key: abcdefghijkl"})
        EXPECT_EQ(redact(text), text) << text;
}

TEST(SecretScrub, PatternsRunInOrderOverEarlierReplacements) {
    // The key goes first; the bearer pattern then finds no value left.
    EXPECT_EQ(redact("Bearer sk-abcdefgh12"), "Bearer [redacted]");
    EXPECT_EQ(redact("sk-aaaaaaaa and sk-bbbbbbbb"), "[redacted] and [redacted]");
}

}  // namespace
}  // namespace aimwise
