#include "VerdictBench/replay_fm_judge_client.h"

#include <unistd.h>

#include <fmt/format.h>

#include "AimwiseCore/events/json_value.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/executable_path.h"
#include "platform/bounded_process.h"

namespace aimwise::FMJudgeClient {

namespace {

std::string excerpt(std::string_view text) {
    const std::string trimmed = trimWhitespaceAndNewlines(text.substr(0, 200));
    return trimmed.empty() ? "nothing" : "\"" + trimmed + "\"";
}

}  // namespace

std::filesystem::path helperPath(const Environment& environment) {
    if (auto configured = lookup(environment, binEnvVar); configured && !configured->empty()) return *configured;
    try {
        return ExecutablePath::siblingDirectory(ExecutablePath::resolveSelf()) / helperName;
    } catch (const ExecutablePathError&) {
        return helperName;
    }
}

ClassifierJudgment parseResponse(std::string_view output) {
    const auto parsed = JSONValue::tryParse(trimWhitespaceAndNewlines(output));
    if (!parsed || !parsed->isObject())
        throw Failure("unparseable", "fm_judge printed no JSON object, but " + excerpt(output));
    if (const JSONValue* error = parsed->member("error"); error && !error->isNull()) {
        std::string kind = "unknown";
        std::string message = "fm_judge reported an error";
        if (const auto* text = error->stringIfAny()) message = *text;
        if (const JSONValue* k = error->member("kind"); k && k->stringIfAny()) kind = *k->stringIfAny();
        if (const JSONValue* m = error->member("message"); m && m->stringIfAny()) message = *m->stringIfAny();
        throw Failure(kind, "fm_judge: " + message);
    }
    const JSONValue* state = parsed->member("state");
    if (!state || !state->stringIfAny()) throw Failure("unparseable", "fm_judge response missing 'state'");
    ClassifierJudgment judgment;
    judgment.state = *state->stringIfAny();
    if (const JSONValue* c = parsed->member("confidence"); c && c->numberIfAny()) judgment.confidence = *c->numberIfAny();
    if (const JSONValue* r = parsed->member("reason"); r && r->stringIfAny()) judgment.reason = *r->stringIfAny();
    return judgment;
}

ClassifierJudgment judge(const std::string& system, const std::string& user, const Environment& environment,
                         double timeoutSec) {
    const std::filesystem::path helper = helperPath(environment);
    if (::access(helper.c_str(), X_OK) != 0)
        throw Failure("no_binary", fmt::format("could not run fm_judge: no helper program at {} (set {} to its path)",
                                               helper.string(), binEnvVar));
    BoundedProcess::Options options;
    try {
        options.standardInput = JSONValue(JSONValue::Object{{"system", system}, {"user", user}}).serialized();
    } catch (const JSONValueError&) {
        throw Failure("encode", "could not encode the prompt for fm_judge: it is not valid UTF-8");
    }
    const BoundedProcess::Outcome outcome = BoundedProcess::run(helper.string(), {}, timeoutSec, options);
    if (const auto* launch = std::get_if<BoundedProcess::LaunchFailed>(&outcome))
        throw Failure("spawn", "could not run fm_judge: " + launch->reason);
    if (std::holds_alternative<BoundedProcess::TimedOut>(outcome))
        throw Failure("timeout", fmt::format("fm_judge gave no answer within {:g}s and was stopped", timeoutSec));
    const auto& finished = std::get<BoundedProcess::Finished>(outcome);
    if (finished.terminatingSignal)
        throw Failure("crashed", fmt::format("fm_judge ended with signal {} before answering", *finished.terminatingSignal));
    return parseResponse(finished.standardOutput);
}

}  // namespace aimwise::FMJudgeClient
