#pragma once
// The classifier's one-shot chat client for the local model: one request, one JSON verdict back.
#include <memory>
#include <string>
#include <string_view>

#include "AimwiseCore/classifier/classifier_state.h"
#include "AimwiseCore/models/endpoint_url.h"
#include "AimwiseCore/models/http_session.h"

namespace aimwise {

// The process's one HTTP session, made on first use: starting the HTTP library costs more than a
// tick that decides to skip spends in all.
class LazyHTTPSession {
public:
    HTTPSession& get();
    bool created() const { return session_ != nullptr; }

private:
    std::unique_ptr<HTTPSession> session_;
};

namespace ClassifierBackend {

struct Config {
    EndpointURL endpoint;
    std::string model;
    int numPredict = 450;
    double timeout = 120.0;  // seconds
};

inline constexpr int mainCallNumPredict = 450;
inline constexpr double mainCallTimeoutSec = 120.0;

// The local chat endpoint of the process environment and the default model. Throws
// LocalInferenceEndpoint::ResolutionError for an endpoint that is not allowed.
Config mainCallConfig();

// JSON text: model, the system and user messages, no streaming, the token limit, thinking off and a
// JSON-object reply. No sampling keys: the server's defaults apply.
std::string buildRequestBody(const std::string& system, const std::string& user, const std::string& model,
                             int numPredict);
std::string buildRequestBody(const std::string& system, const std::string& user, const Config& config);

// The response body. Throws ModelBackendError.
std::string post(const std::string& system, const std::string& user, const Config& config, HTTPSession& session);

// Missing or mistyped keys give empty text or 0.0: `{}` is a valid reply.
ClassifierJudgment parseJudgment(std::string_view data);

ClassifierJudgment judge(const std::string& system, const std::string& user, const Config& config,
                         HTTPSession& session);

}  // namespace ClassifierBackend
}  // namespace aimwise
