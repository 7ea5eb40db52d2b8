#include "CaptureShared/common/text.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

// A window title or a model's words shown in a terminal cannot move the cursor, recolour the
// screen, retitle the window or reverse the order of what follows.
TEST(TerminalText, ControlsAndReorderingAreShownNotObeyed) {
    const struct {
        std::string raw, shown;
    } cases[] = {
        {"plain – tïtle ✓", "plain – tïtle ✓"},
        {"\x1b[2J\x1b]0;owned\x07red", "\\x1b[2J\\x1b]0;owned\\x07red"},
        {"a\rb\tc\x7f", "a\\x0db\\x09c\\x7f"},
        {"\u009b31m C1", "\\u{9b}31m C1"},
        {"abc\u202Egpj.exe", "abc\\u{202e}gpj.exe"},
        {"bad \xff byte", "bad \uFFFD byte"},
    };
    for (const auto& c : cases) EXPECT_EQ(escapedForTerminal(c.raw), c.shown) << c.raw;
    EXPECT_EQ(escapedForTerminal("one\ntwo\x1b"), "one\\x0atwo\\x1b");
    EXPECT_EQ(escapedForTerminal("one\ntwo\x1b", Newlines::kept), "one\ntwo\\x1b");
}

}  // namespace
}  // namespace aimwise
