#include "AimwiseCore/classifier/classifier_backend.h"

#include "AimwiseCore/classifier/classifier_model.h"
#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise {

HTTPSession& LazyHTTPSession::get() {
    if (!session_) session_ = std::make_unique<HTTPSession>();
    return *session_;
}

namespace ClassifierBackend {

namespace {

// The assistant text parsed as a JSON object. Throws ModelBackendError::invalidResponse.
ChatJSON contentObject(std::string_view data) {
    const std::string text = LocalInferenceWire::content(data);
    ChatJSON object = ChatJSON::parse(text, nullptr, false);
    if (object.is_discarded() || !object.is_object())
        throw ModelBackendError::invalidResponse("message.content was not valid JSON: " + utf8::prefix(text, 200));
    return object;
}

}  // namespace

Config mainCallConfig() {
    return Config{LocalInferenceWire::chatCompletionsURL(), ClassifierModel::defaultModel(), mainCallNumPredict,
                  mainCallTimeoutSec};
}

std::string buildRequestBody(const std::string& system, const std::string& user, const std::string& model,
                             int numPredict) {
    ChatJSON body = ChatJSON::object();
    body["model"] = model;
    body["messages"] = ChatJSON::array({ChatJSON{{"role", "system"}, {"content", system}},
                                        ChatJSON{{"role", "user"}, {"content", user}}});
    body["stream"] = false;
    body["max_tokens"] = numPredict;
    body["chat_template_kwargs"] = ChatJSON{{"enable_thinking", false}};
    body["response_format"] = ChatJSON{{"type", "json_object"}};
    try {
        return body.dump();
    } catch (const ChatJSON::exception& error) {
        throw ModelBackendError::invalidResponse(std::string("failed to encode request body: ") + error.what());
    }
}

std::string buildRequestBody(const std::string& system, const std::string& user, const Config& config) {
    return buildRequestBody(system, user, config.model, config.numPredict);
}

std::string post(const std::string& system, const std::string& user, const Config& config, HTTPSession& session) {
    HTTPRequest request;
    request.method = "POST";
    request.url = config.endpoint;
    request.headers = {{"Content-Type", "application/json"}};
    request.body = buildRequestBody(system, user, config);
    request.timeoutSec = config.timeout;
    return LocalInferenceWire::send(request, session).body;
}

ClassifierJudgment parseJudgment(std::string_view data) {
    const ChatJSON object = contentObject(data);
    ClassifierJudgment judgment;
    if (auto it = object.find("state"); it != object.end() && it->is_string()) judgment.state = it->get<std::string>();
    if (auto it = object.find("confidence"); it != object.end() && it->is_number())
        judgment.confidence = it->get<double>();
    if (auto it = object.find("reason"); it != object.end() && it->is_string()) judgment.reason = it->get<std::string>();
    return judgment;
}

ClassifierJudgment judge(const std::string& system, const std::string& user, const Config& config,
                         HTTPSession& session) {
    return parseJudgment(post(system, user, config, session));
}

}  // namespace ClassifierBackend
}  // namespace aimwise
