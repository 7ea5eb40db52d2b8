#include "agents/fm_judge/fm_judge.h"

#include "AimwiseCore/classifier/classifier_backend.h"
#include "AimwiseCore/events/json_value.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise::FMJudgeHelper {

namespace {

// What the client shows for a point without a verdict, and the status this helper ends with.
Answer failure(const std::string& kind, const std::string& message, int exitStatus) {
    // A server's message may hold bytes that are not UTF-8; they become U+FFFD rather than no answer.
    const std::string text = utf8::encode(utf8::decode(message));
    return {exitStatus,
            JSONValue(JSONValue::Object{{"error", JSONValue::Object{{"kind", kind}, {"message", text}}}}).serialized() +
                "\n"};
}

std::string kindOf(const ModelBackendError& error) {
    if (error.asHTTPError()) return "http";
    if (error.asTransportError()) return "transport";
    return "invalid_response";
}

}  // namespace

EndpointURL endpoint(const Environment& environment) {
    const std::string value = trimWhitespaceAndNewlines(lookup(environment, endpointEnvVar).value_or(""));
    if (value.empty())
        throw SetupError(std::string(endpointEnvVar) +
                         " is not set: name the local server of the second model, e.g. http://127.0.0.1:11478");
    try {
        return LocalInferenceEndpoint::resolveOrThrow({{LocalInferenceEndpoint::envVar, value}});
    } catch (const LocalInferenceEndpoint::ResolutionError& error) {
        // The rules are the classifier's; the words name the variable that was read.
        const std::string& words = error.description();
        const std::string original = std::string(LocalInferenceEndpoint::envVar) + "=";
        throw SetupError(words.starts_with(original) ? std::string(endpointEnvVar) + "=" + words.substr(original.size())
                                                     : words);
    }
}

Answer answer(std::string_view request, const Environment& environment, HTTPSession& session) {
    if (request.size() > maxRequestBytes) return failure("bad_request", "the request is larger than 8 MB", 2);
    const auto parsed = JSONValue::tryParse(request);
    const JSONValue* system = parsed ? parsed->member("system") : nullptr;
    const JSONValue* user = parsed ? parsed->member("user") : nullptr;
    if (!system || !system->stringIfAny() || !user || !user->stringIfAny())
        return failure("bad_request", "expected a JSON object with the texts \"system\" and \"user\"", 2);

    ClassifierBackend::Config config;
    try {
        config.endpoint = endpoint(environment).appendingPath("v1/chat/completions");
    } catch (const SetupError& error) {
        return failure("not_configured", error.description(), 3);
    }
    const std::string model = trimWhitespaceAndNewlines(lookup(environment, modelEnvVar).value_or(""));
    if (model.empty())
        return failure("not_configured",
                       std::string(modelEnvVar) + " is not set: name the second model, as its server knows it", 3);
    config.model = model;
    config.numPredict = numPredict;
    config.timeout = timeoutSec;

    ClassifierJudgment judgment;
    try {
        judgment = ClassifierBackend::judge(*system->stringIfAny(), *user->stringIfAny(), config, session);
    } catch (const ModelBackendError& error) {
        return failure(kindOf(error), error.description(), 4);
    }
    // The reason is cleaned as the classifier's own is before anyone reads it.
    const std::string reason = ScreenText::sanitize(
        SensitiveIdentifierRedaction::redact(judgment.reason, SensitiveIdentifierRedaction::Scope::lifeLevel).text, 300);
    try {
        return {0, JSONValue(JSONValue::Object{{"state", judgment.state},
                                               {"confidence", judgment.confidence},
                                               {"reason", reason}})
                           .serialized() +
                       "\n"};
    } catch (const JSONValueError&) {
        return failure("invalid_response", "the model's answer could not be encoded (not UTF-8 or not finite)", 4);
    }
}

}  // namespace aimwise::FMJudgeHelper
