#include "agents/coach/coach_command.h"

#include <cstdio>

#include "AimwiseCore/coach/gate_message_source.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise::CoachCommand {

const char* const usageText =
    "usage: aimwise-coach --gate-message [TIME]\n"
    "  Prints the exact message the gate would send to the model at TIME (now by default), for the\n"
    "  configured data root. TIME is ISO 8601, e.g. 2026-11-22T14:05:00Z, or local without a zone.\n"
    "  Nothing is written and no model is called.\n";

namespace {

int usage(const std::string& message) {
    std::fprintf(stderr, "aimwise-coach: %s\n%s", message.c_str(), usageText);
    return 2;
}

}  // namespace

std::optional<int64_t> parseTime(const std::string& text) {
    if (const auto withZone = ISODate::parse(text)) return withZone;
    return ProjectionDateParsing::parseLocalUncached(text);
}

int run(const std::vector<std::string>& arguments, const Environment& environment, int64_t nowMs) {
    if (arguments.size() == 1 && (arguments[0] == "--help" || arguments[0] == "-h")) {
        std::fputs(usageText, stdout);
        return 0;
    }
    if (arguments.empty() || arguments[0] != "--gate-message")
        return usage(arguments.empty() ? "no form given" : "unknown form \"" + arguments[0] + "\"");
    if (arguments.size() > 2) return usage("--gate-message takes at most one time");
    int64_t at = nowMs;
    if (arguments.size() == 2) {
        const auto parsed = parseTime(arguments[1]);
        if (!parsed) return usage("\"" + arguments[1] + "\" is not an ISO 8601 time");
        at = *parsed;
    }
    if (!DataPaths::isDataRootAvailable()) {
        std::fprintf(stderr, "FAIL: %s — nothing was read. Run `aimwise init PATH` first.\n",
                     DataPaths::dataRootUnavailableReason().value_or("the data root is not available").c_str());
        return 1;
    }
    GateMessageSource source(DataPaths::dataRoot(),
                             [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
    const auto built = source.build(at, environment);
    std::fwrite(built.message.data(), 1, built.message.size(), stdout);
    std::fputc('\n', stdout);
    return 0;
}

}  // namespace aimwise::CoachCommand
