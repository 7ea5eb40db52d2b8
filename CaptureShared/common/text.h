#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace aimwise {

// Trims ASCII and Unicode white space and newlines from both ends.
std::string trimWhitespaceAndNewlines(std::string_view text);
std::string join(const std::vector<std::string>& parts, std::string_view separator);
// Shortest text that reads back as the same double ("12.5", "3", "0.1").
std::string shortestRoundTrip(double value);

enum class Newlines { escaped, kept };
// Text fit for a terminal: control characters (C0, DEL, C1), line and paragraph separators and the
// bidirectional overrides are shown as \xNN or \u{NNNN}, so that text from a window title or a
// model cannot move the cursor, recolour the screen, retitle the terminal or reorder what is shown.
// Ill-formed UTF-8 shows as U+FFFD. With Newlines::kept a newline passes as it is.
std::string escapedForTerminal(std::string_view text, Newlines newlines = Newlines::escaped);

}  // namespace aimwise
