// `judge`: what the classifier would conclude now, or at a past instant, without logging anything.
#include <cstdio>
#include <optional>
#include <string>

#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/classifier/classifier_service.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "VerdictBench/classifier_verb_support.h"
#include "VerdictBench/print_state.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

int runJudge(const cli::Invocation& invocation) {
    const std::optional<std::string> asOfArgument =
        invocation.positional.empty() ? std::nullopt : std::optional(invocation.positional.front());

    const auto signalsPath = DataPaths::signalsDB();
    const SignalsReader signals = SignalsReader::open(signalsPath);
    const auto events = cli::readEventLogIfPresent(DataPaths::eventsLog());
    std::printf("io-layer events.jsonl: %s\n",
                events ? (std::to_string(events->size()) + " events").c_str() : "unavailable");
    const std::optional<int64_t> asOfMs = cli::parseAsOf(asOfArgument);

    LazyHTTPSession session;
    const ClassifierState state = cli::buildState(signals, events, signalsPath, asOfMs, asOfArgument, session);

    cli::printState(state);
    std::printf("\n");

    // The live screen says nothing about a past instant, so a timestamp captures nothing.
    std::optional<std::string> windowContent = invocation.windowContentFlag;
    RedactionReport upstream;
    std::optional<ContentWithheldReason> withheld;
    if (!windowContent && !invocation.noWindowContentFlag && !asOfMs) {
        const cli::LiveWindowContent live = cli::captureLiveWindowContent(signals, session.get());
        windowContent = live.content;
        upstream = live.redactions;
        withheld = live.withheld;
    }
    std::printf("window_content: %s\n\n", windowContent ? escapedForTerminal(*windowContent).c_str() : "nil");
    std::fflush(stdout);

    const ClassifierService::Outcome outcome =
        ClassifierService::judge(state, std::nullopt, windowContent, std::nullopt, upstream, withheld,
                                 ClassifierBackend::mainCallConfig(), session.get());
    cli::logPrivacy(outcome);
    std::printf("called_model: %s\n", outcome.calledModel ? "true" : "false");
    std::printf("state:        %s\n", escapedForTerminal(outcome.judgment.state).c_str());
    std::printf("confidence:   %s\n", shortestRoundTrip(outcome.judgment.confidence).c_str());
    std::printf("reason:       %s\n", escapedForTerminal(outcome.judgment.reason).c_str());
    return 0;
}

}  // namespace aimwise::verbs
