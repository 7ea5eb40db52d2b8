#pragma once
// aimwise-fm-judge: the second arm of replay. It reads {"system", "user"} on standard input, asks a
// second model on a local model server, and prints {"state", "confidence", "reason"}, or
// {"error": {"kind", "message"}} when it cannot. Local only: the endpoint follows the classifier's
// rules (127.0.0.1 or a unix socket), since the prompt holds what was on the screen.
#include <string>
#include <string_view>

#include "AimwiseCore/models/endpoint_url.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

class HTTPSession;

namespace FMJudgeHelper {

inline constexpr const char* endpointEnvVar = "AIMCAP_FM_JUDGE_ENDPOINT";
inline constexpr const char* modelEnvVar = "AIMCAP_FM_JUDGE_MODEL";
inline constexpr size_t maxRequestBytes = 8u << 20;
inline constexpr int numPredict = 450;
inline constexpr double timeoutSec = 120.0;

class SetupError : public Error {
public:
    using Error::Error;
};

// The server's base URL. Throws SetupError naming the variable and what is wrong with it.
EndpointURL endpoint(const Environment& environment);

struct Answer {
    int exitStatus = 0;
    std::string output;  // one JSON object and a newline
};
Answer answer(std::string_view request, const Environment& environment, HTTPSession& session);

}  // namespace FMJudgeHelper
}  // namespace aimwise
