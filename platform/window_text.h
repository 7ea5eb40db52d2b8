#pragma once
// The exact text of the active window, read through the accessibility bus (AT-SPI) where the
// application publishes it, before any OCR: it costs a fraction of the time and has no misreadings.
// The walk stays within a time budget; password fields are never read.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace aimwise::WindowText {

struct Read {
    std::string application;
    std::string title;
    std::optional<int64_t> pid;
    bool complete = true;  // false when the budget or a size limit cut the walk short
    std::string text;
    bool operator==(const Read&) const = default;
};
struct Nothing {
    std::string reason;
};
using Result = std::variant<Read, Nothing>;

inline constexpr int defaultBudgetMs = 100;

// Through the aimwise-desktop helper, which stops walking at the budget; it is killed if it has not
// answered a second later.
Result readActive(int budgetMs = defaultBudgetMs);

// The helper's output: "application", "title", "pid" and "complete" lines of "key<TAB>value", an
// empty line, then the text. Nothing for anything else.
std::string format(const Read& read);
std::optional<Read> parse(std::string_view output);

}  // namespace aimwise::WindowText
