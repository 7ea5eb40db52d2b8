// `shadow`: judge the present moment as the tick would, and record the verdict only in a log of its
// own. Neither the classifier log, nor the cadence state, nor any note is touched.
#include <cstdio>

#include "AimwiseCore/classifier/classifier_service.h"
#include "AimwiseCore/events/jsonl_append.h"
#include "CaptureShared/common/local_time.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "VerdictBench/classifier_verb_support.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

int runShadow(const cli::Invocation& invocation) {
    const auto root = DataPaths::dataRoot();
    const auto signalsPath = root / "signals.sqlite";
    const SignalsReader signals = SignalsReader::open(signalsPath);
    const auto events = cli::readEventLogIfPresent(root / "io-layer" / "events.jsonl");

    LazyHTTPSession session;
    const std::optional<ClassifierState> state =
        ClassifierService::buildState(signals, events ? &*events : nullptr, signalsPath, std::nullopt, session);
    if (!state) throw cli::Failure("no tick data available — nothing to shadow-judge");

    const cli::LiveWindowContent live = cli::captureLiveWindowContent(signals, session.get());
    const ClassifierService::Outcome outcome =
        ClassifierService::judge(*state, std::nullopt, live.content, std::nullopt, live.redactions, live.withheld,
                                 ClassifierBackend::mainCallConfig(), session.get());
    cli::logPrivacy(outcome);

    const auto path = root / "classifier-shadow.jsonl";
    JSONValue::Object record{{"at", LocalTime::format(invocation.clock->wallMs())},
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
        throw Error("could not append to " + path.string() + ": " + error.description() +
                    " — the verdict was not recorded, and nothing else was written");
    } catch (const std::exception& error) {
        throw Error("could not append to " + path.string() + ": " + error.what() +
                    " — the verdict was not recorded, and nothing else was written");
    }
    std::printf("shadow verdict: %s (confidence %s, called_model %s) — appended to %s\n",
                outcome.judgment.state.c_str(), shortestRoundTrip(outcome.judgment.confidence).c_str(),
                outcome.calledModel ? "true" : "false", path.c_str());
    return 0;
}

}  // namespace aimwise::verbs
