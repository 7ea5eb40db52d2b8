// `prompt`: the exact user message a judgment would send, and nothing else.
#include <cstdio>
#include <optional>
#include <string>

#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/classifier/classifier_service.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "VerdictBench/classifier_verb_support.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

int runPrompt(const cli::Invocation& invocation) {
    const std::optional<std::string> asOfArgument =
        invocation.positional.empty() ? std::nullopt : std::optional(invocation.positional.front());

    const auto signalsPath = DataPaths::signalsDB();
    const SignalsReader signals = SignalsReader::open(signalsPath);
    const auto events = cli::readEventLogIfPresent(DataPaths::eventsLog());
    const std::optional<int64_t> asOfMs = cli::parseAsOf(asOfArgument);

    LazyHTTPSession session;
    const ClassifierState state = cli::buildState(signals, events, signalsPath, asOfMs, asOfArgument, session);

    const auto message =
        ClassifierPrompt::buildRedactedUserMessage(state, std::nullopt, invocation.windowContentFlag);
    std::printf("%s\n", message.message.c_str());
    return 0;
}

}  // namespace aimwise::verbs
