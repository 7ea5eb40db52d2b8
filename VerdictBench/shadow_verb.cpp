// `shadow`: judge the present moment as the tick would, and record the verdict only in a log of its
// own. Neither the classifier log, nor the cadence state, nor any note is touched.
#include <cstdio>

#include "AimwiseCore/classifier/classifier_service.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/events/jsonl_append.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "VerdictBench/classifier_verb_support.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

int runShadow(const cli::Invocation&) {
    const auto root = DataPaths::dataRoot();
    const auto signalsPath = root / "signals.sqlite";
    const SignalsReader signals = cli::openSignalsOrFail(signalsPath);
    const auto events = cli::readEventLogIfPresent(root / "io-layer" / "events.jsonl");

    LazyHTTPSession session;
    std::optional<ClassifierState> state;
    try {
        state = ClassifierService::buildState(signals, events ? &*events : nullptr, signalsPath, std::nullopt, session);
    } catch (...) {
        cli::fail("FAIL: " + cli::describe(std::current_exception()));
    }
    if (!state) cli::fail("no tick data available — nothing to shadow-judge");

    const cli::LiveWindowContent live = cli::captureLiveWindowContent(signals, session.get());
    ClassifierService::Outcome outcome;
    try {
        outcome = ClassifierService::judge(*state, std::nullopt, live.content, std::nullopt, live.redactions,
                                           live.withheld, ClassifierBackend::mainCallConfig(), session.get());
    } catch (...) {
        cli::fail("FAIL: " + cli::describe(std::current_exception()));
    }
    cli::logPrivacy(outcome);

    const auto path = root / "classifier-shadow.jsonl";
    JSONValue::Object record{{"at", ProjectionDateParsing::formatLocal(cli::nowMs())},
                             {"tsMs", state->tsMs},
                             {"state", outcome.judgment.state},
                             {"confidence", outcome.judgment.confidence},
                             {"reason", outcome.judgment.reason},
                             {"calledModel", outcome.calledModel}};
    if (state->declaredTask) record["declaredTask"] = *state->declaredTask;
    if (state->frontmostApp) record["frontmostApp"] = *state->frontmostApp;
    try {
        JSONLAppend::append(record, path);
    } catch (const JSONLAppend::AppendError& error) {
        if (error.kind == JSONLAppend::AppendError::Kind::encodingFailed) {
            std::fputs("shadow: failed to encode record\n", stderr);
            return 1;
        }
        cli::fail("FAIL: could not append to " + path.string() + ": " + error.description() +
                  " — the verdict was not recorded, and nothing else was written");
    } catch (const std::exception& error) {
        cli::fail("FAIL: could not append to " + path.string() + ": " + error.what() +
                  " — the verdict was not recorded, and nothing else was written");
    }
    std::printf("shadow verdict: %s (confidence %s, called_model %s) — appended to %s\n",
                outcome.judgment.state.c_str(), shortestRoundTrip(outcome.judgment.confidence).c_str(),
                outcome.calledModel ? "true" : "false", path.c_str());
    return 0;
}

}  // namespace aimwise::verbs
