// `ramp`: the plan of a review clip for a judged instant, and with --bridge the clip itself, written
// where only this user can read it.
#include <charconv>
#include <cstdio>
#include <string>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/ramp/ramp_verify.h"
#include "CaptureShared/video/video_container_bridge.h"
#include "VerdictBench/verbs.h"
#include "platform/key_store.h"

namespace aimwise::verbs {

namespace {

const char* const rampUsage =
    "usage: bench run VerdictBench ramp <ISO-8601 timestamp> [fps] [--display <n>] [--bridge]";

}  // namespace

int runRamp(const cli::Invocation& invocation) {
    std::optional<int64_t> atMs;
    RampVerify::Options options;
    bool bridge = false;
    const auto& arguments = invocation.positional;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        double fps = 0;
        int display = 0;
        const auto number = [&](auto& value, const std::string& text) {
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
            return error == std::errc() && end == text.data() + text.size() && value > 0;
        };
        if (argument == "--bridge") {
            bridge = true;
        } else if (argument == "--display" && i + 1 < arguments.size() && number(display, arguments[i + 1])) {
            options.display = display;
            ++i;
        } else if (!atMs) {
            atMs = cli::parseInternetDateTime(argument);
            if (!atMs) throw cli::Failure("could not parse timestamp: " + argument);
        } else if (!options.fps && number(fps, argument) && fps <= 120) {
            options.fps = fps;
        } else {
            throw cli::Failure(rampUsage);
        }
    }
    if (!atMs) throw cli::Failure(rampUsage);
    if (!bridge) {
        RampVerify::runPlan(*atMs, options);
    } else {
        const auto store = defaultVideoArchiveKeyStore();
        RampVerify::runBridge(*atMs, store->lookup(), processEnvironment(), options);
    }
    std::fflush(stdout);
    return 0;
}

}  // namespace aimwise::verbs
