#pragma once
// The process-wide values of the command line and the helpers every verb shares.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/error.h"

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
    // Where the verbs read the time; tests hand in a fake one.
    const Clock* clock = &Clock::system();
};

inline constexpr double tickWatchdogCeilingSec = 275.0;

struct WindowContentSplit {
    std::vector<std::string> positional;
    std::optional<std::string> windowContent;
    bool noWindowContent = false;
};

Invocation splitArguments(const std::vector<std::string>& allArguments);
WindowContentSplit extractWindowContentFlag(const std::vector<std::string>& args);

// A verb's own last words, printed as they are: usage, "no tick data available at ...", a refusal.
struct Failure : Error {
    using Error::Error;
};

// The one catch boundary of the verbs: runs `verb` and returns its status, or, when it throws,
// prints a Failure's words or "FAIL: " and any other error's description on standard error and
// returns 1. Standard output is flushed first, so what a verb printed before failing comes first.
// With `failureMemory` (for runs the service manager starts), a failure said word for word by the
// last run is not said again (CaptureShared/dataroot/failure_memory.h).
int guarded(const std::function<int()>& verb,
            const std::optional<std::filesystem::path>& failureMemory = std::nullopt);

// Message and newline on standard error, exit status 1. Only the dispatcher calls it.
[[noreturn]] void fail(const std::string& message);

// ISO-8601 internet date-time, with or without fractional seconds, to milliseconds.
// Absent in, absent out; an unparseable text throws a Failure.
std::optional<int64_t> parseAsOf(const std::optional<std::string>& text);
// The parsing alone, for callers that report failure themselves.
std::optional<int64_t> parseInternetDateTime(const std::string& text);

extern const char* const usageText;

}  // namespace aimwise::cli
