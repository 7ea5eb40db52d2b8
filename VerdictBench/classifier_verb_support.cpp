#include "VerdictBench/classifier_verb_support.h"

#include <cstdio>
#include <system_error>

#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/classifier/window_content.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/privacy/safe_text.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"
#include "CaptureShared/common/utf8.h"
#include "VerdictBench/cli.h"

namespace aimwise::cli {

std::optional<std::vector<EventLogEvent>> readEventLogIfPresent(const std::filesystem::path& eventsPath) {
    std::error_code error;
    if (!std::filesystem::exists(eventsPath, error)) return std::nullopt;
    try {
        return EventLogReader::read(eventsPath);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

ClassifierState buildState(const SignalsReader& signals, const std::optional<std::vector<EventLogEvent>>& events,
                           const std::filesystem::path& signalsPath, std::optional<int64_t> asOfMs,
                           const std::optional<std::string>& asOfArgument, LazyHTTPSession& session) {
    auto state = ClassifierService::buildState(signals, events ? &*events : nullptr, signalsPath, asOfMs, session);
    if (!state) throw Failure("no tick data available at " + asOfArgument.value_or("now"));
    return withTitlesCleaned(std::move(*state));
}

ClassifierState withTitlesCleaned(ClassifierState state) {
    using Scope = SensitiveIdentifierRedaction::Scope;
    RedactionReport ignored;
    state.frontmostWindowTitle = SafeText::clean(state.frontmostWindowTitle, Scope::lifeLevel, ignored);
    state.browserTitle = SafeText::clean(state.browserTitle, Scope::lifeLevel, ignored);
    state.browserURL = SafeText::clean(state.browserURL, Scope::lifeLevel, ignored);
    return state;
}

LiveWindowContent captureLiveWindowContent(const SignalsReader& signals, HTTPSession& session) {
    LiveWindowContent live;
    try {
        live.withheld = contentMustBeWithheldForDenylist(signals);
    } catch (const SignalsReaderError& error) {
        // Without the denylist's answer nothing may be captured.
        std::fprintf(stderr, "could not check the capture denylist, judging without window content: %s\n",
                     error.description().c_str());
        return live;
    } catch (const WindowListUnavailable& error) {
        std::fprintf(stderr, "could not check the capture denylist, judging without window content: %s\n",
                     error.description().c_str());
        return live;
    }
    WindowContentReader::Config config;
    try {
        config = WindowContentReader::Config::tickDefault();
    } catch (const LocalInferenceEndpoint::ResolutionError& error) {
        std::fprintf(stderr, "window_content: no local model to describe the window (continuing without it): %s\n",
                     error.description().c_str());
        return live;
    }
    const auto parts = captureLiveWindowContentParts(signals, live.withheld, config, session);
    if (!parts) return live;
    auto redacted = ClassifierPrompt::redactedWindowContent(parts->ocrText, parts->description);
    live.content = std::move(redacted.content);
    live.redactions = std::move(redacted.redactions);
    // The describe log is a lasting record: the model's sentence is kept only in its redacted form.
    live.description = SafeText::clean(parts->description, SensitiveIdentifierRedaction::Scope::lifeLevel).text;
    live.ocrChars = static_cast<int64_t>(utf8::scalarCount(parts->ocrText));
    live.screenshotAtMs = parts->screenshotAtMs;
    live.textSource = WindowContentReader::logValue(parts->textSource);
    return live;
}

void logPrivacy(const ClassifierService::Outcome& outcome) {
    for (const auto& line : outcome.privacyLogLines()) std::fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace aimwise::cli
