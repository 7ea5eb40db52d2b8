#include "VerdictBench/cli.h"

#include <cstdio>
#include <cstdlib>

#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/dataroot/failure_memory.h"

namespace aimwise::cli {

const char* const usageText =
    "usage: bench run VerdictBench judge [ISO-8601 timestamp] [--window-content <text>|--no-window-content]\n"
    "       bench run VerdictBench replay <n> [offset]\n"
    "       bench run VerdictBench prompt [ISO-8601 timestamp] [--window-content <text>]\n"
    "       bench run VerdictBench shadow\n"
    "       bench run VerdictBench shadow-compare [tolerance-minutes]\n"
    "       bench run VerdictBench tick\n"
    "       bench run VerdictBench integrity\n"
    "       bench run VerdictBench staleness\n"
    "       AIMCAP_DATA_ROOT=<scratch copy> bench run VerdictBench energy-report [--now-ms N]";

WindowContentSplit extractWindowContentFlag(const std::vector<std::string>& args) {
    WindowContentSplit split;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--window-content" && i + 1 < args.size()) {
            split.windowContent = args[i + 1];
            ++i;
        } else if (args[i] == "--no-window-content") {
            split.noWindowContent = true;
        } else {
            split.positional.push_back(args[i]);
        }
    }
    return split;
}

Invocation splitArguments(const std::vector<std::string>& allArguments) {
    Invocation invocation;
    invocation.allArguments = allArguments;
    if (allArguments.empty()) return invocation;
    invocation.mode = allArguments.front();
    invocation.argumentsAfterMode.assign(allArguments.begin() + 1, allArguments.end());

    std::vector<std::string> remaining;
    for (const auto& argument : invocation.argumentsAfterMode) {
        // Only replay reads these, but every verb drops them so they never pass for a timestamp.
        if (argument == "--paired-fm") {
            invocation.fmPairedArmFlag = true;
        } else if (argument == "--settled") {
            invocation.settledFlag = true;
        } else {
            remaining.push_back(argument);
        }
    }
    WindowContentSplit split = extractWindowContentFlag(remaining);
    invocation.positional = std::move(split.positional);
    invocation.windowContentFlag = std::move(split.windowContent);
    invocation.noWindowContentFlag = split.noWindowContent;
    return invocation;
}

namespace {

void sayLast(const std::string& message) {
    std::fwrite(message.data(), 1, message.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stdout);
    std::fflush(stderr);
}

}  // namespace

int guarded(const std::function<int()>& verb, const std::optional<std::filesystem::path>& failureMemory) {
    std::string said;
    try {
        const int status = verb();
        if (failureMemory) FailureMemory::forget(*failureMemory);
        return status;
    } catch (const Failure& failure) {
        said = failure.description();
    } catch (const Error& error) {
        said = "FAIL: " + error.description();
    } catch (const std::exception& error) {
        said = std::string("FAIL: ") + error.what();
    }
    if (!failureMemory || FailureMemory::isNew(*failureMemory, said)) sayLast(said);
    return 1;
}

void fail(const std::string& message) {
    sayLast(message);
    std::exit(1);
}

std::optional<int64_t> parseInternetDateTime(const std::string& text) { return ISODate::parse(text); }

std::optional<int64_t> parseAsOf(const std::optional<std::string>& text) {
    if (!text) return std::nullopt;
    if (auto ms = parseInternetDateTime(*text)) return ms;
    throw Failure("could not parse timestamp: " + *text);
}

}  // namespace aimwise::cli
