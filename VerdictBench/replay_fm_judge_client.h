#pragma once
// The second arm of replay: the same prompt through a helper program that answers with another
// model, one helper run per point. The exchange is one JSON object each way, over standard input
// and standard output.
#include <filesystem>
#include <string>
#include <string_view>

#include "AimwiseCore/classifier/classifier_state.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/error.h"

namespace aimwise::FMJudgeClient {

inline constexpr const char* binEnvVar = "AIMCAP_FM_JUDGE_BIN";
inline constexpr const char* helperName = "aimwise-fm-judge";
// Above the helper's own model timeout, so that its answer about a slow model arrives first.
inline constexpr double defaultTimeoutSec = 150.0;

// `kind` is "no_binary", "encode", "spawn", "timeout", "crashed", "unparseable", or the kind the
// helper itself reported.
class Failure : public Error {
public:
    Failure(std::string kind, std::string description) : Error(std::move(description)), kind_(std::move(kind)) {}
    const std::string& kind() const { return kind_; }

private:
    std::string kind_;
};

// AIMCAP_FM_JUDGE_BIN when set and not empty, otherwise the helper beside the running program.
std::filesystem::path helperPath(const Environment& environment);

// The helper's output read as a verdict. Throws Failure.
ClassifierJudgment parseResponse(std::string_view output);

// Throws Failure.
ClassifierJudgment judge(const std::string& system, const std::string& user, const Environment& environment,
                         double timeoutSec = defaultTimeoutSec);

}  // namespace aimwise::FMJudgeClient
