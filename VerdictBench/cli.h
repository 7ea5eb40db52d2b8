#pragma once
// The process-wide values of the command line and the helpers every verb shares.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace aimwise::cli {

struct Invocation {
    std::optional<std::string> mode;
    std::vector<std::string> allArguments;
    std::vector<std::string> argumentsAfterMode;
    bool fmPairedArmFlag = false;
    bool settledFlag = false;
    std::vector<std::string> positional;
    std::optional<std::string> windowContentFlag;
    bool noWindowContentFlag = false;
};

inline constexpr double tickWatchdogCeilingSec = 275.0;

struct WindowContentSplit {
    std::vector<std::string> positional;
    std::optional<std::string> windowContent;
    bool noWindowContent = false;
};

Invocation splitArguments(const std::vector<std::string>& allArguments);
WindowContentSplit extractWindowContentFlag(const std::vector<std::string>& args);

// Message and newline on standard error, exit status 1.
[[noreturn]] void fail(const std::string& message);

// ISO-8601 internet date-time, with or without fractional seconds, to milliseconds.
// Absent in, absent out; an unparseable text is a `fail`.
std::optional<int64_t> parseAsOf(const std::optional<std::string>& text);
// The parsing alone, for callers that report failure themselves.
std::optional<int64_t> parseInternetDateTime(const std::string& text);

// System clock seconds * 1000, truncated.
int64_t nowMs();

extern const char* const usageText;

}  // namespace aimwise::cli
