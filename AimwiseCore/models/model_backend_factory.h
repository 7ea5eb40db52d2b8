#pragma once
// Which model each role gets, and what happens when it fails. The factory reads the environment and
// assembles the decorators around the transports; a caller holds one ModelBackend and never knows
// how deep the stack is.
//
// Roles: the coach (fromEnvironment; the coach gate calls through the same stack), the nightly
// consolidation (forConsolidation), onboarding (forOnboarding) and the small local model of the
// privacy checks (localCheckBackend).
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/license_credential_source.h"
#include "AimwiseCore/models/local_model_backend.h"
#include "AimwiseCore/models/model_backend.h"
#include "AimwiseCore/models/sticky_provider_selector.h"
#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

// The configuration names a stack that must not run: the coach refuses to start rather than
// silently answering through something the person did not choose.
class ModelBackendConfigurationError : public Error {
public:
    using Error::Error;
};

class OnboardingBackendError : public Error {
public:
    enum class Kind { noAPIKey };
    explicit OnboardingBackendError(Kind kind);
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

namespace ModelBackendFactory {

using Log = std::function<void(const std::string& line)>;
using DumpDirectory = std::optional<std::filesystem::path>;

inline constexpr const char* defaultRemoteModel = "deepseek/deepseek-v4-flash-0731";
inline constexpr const char* defaultReasoningEffort = "low";
inline constexpr const char* defaultLocalModel = "gemma4:12b-it-qat";
inline constexpr const char* defaultPromptSetID = "ps-245eee581618c795";
// The online service's own address; AIMCAP_MODEL_ENDPOINT may replace it (see EndpointOverridePolicy).
inline constexpr const char* openRouterEndpoint = "https://openrouter.ai/api/v1/chat/completions";
inline constexpr double reachabilityCooldownSec = 60;
inline constexpr double remoteTimeoutSec = 300;
inline constexpr double localCoachTimeoutSec = 300;
inline constexpr double localConsolidationTimeoutSec = 1024;
inline constexpr double localCheckTimeoutSec = 120;
inline constexpr int consolidationRetryAttempts = 3;
inline const std::vector<double> consolidationBackoffSeconds{20, 90};

// What a stack is built from besides the environment. Processes take `process()`; tests hand in a
// fake clock, their own session, selector and credential file.
struct Services {
    const Clock* clock = &Clock::system();
    std::shared_ptr<HTTPSession> session;
    std::shared_ptr<StickyProviderSelector> providerSelector;
    std::shared_ptr<LicenseCredentialSource> credentials;

    static Services process();
};

// "ollama" when AIMCAP_MODEL_BACKEND is absent, empty or "local"; otherwise its value.
std::string backendName(const Environment& environment);
// False only when AIMCAP_MODEL_FALLBACK is "0", "false" or "off".
bool fallbackEnabled(const Environment& environment);
bool coachPrimaryIsLocal(const Environment& environment);
// The coach's primary is the online route with a DeepSeek model.
bool selectsDeepSeek(const Environment& environment);
// Whether a reply that names `servedBy` (absent: the primary) ran on this machine.
bool isLocallyServed(const std::optional<std::string>& servedBy, const Environment& environment);
bool proxyWithoutFallback(const Environment& environment);
// The settings the coach driver cannot start without, for the chosen backend.
std::vector<std::string> coachDriverRequiredConfigKeys(const Environment& environment,
                                                       const std::optional<std::string>& productionBaseURL);

LocalModelConfig primaryLocalConfig(const Environment& environment, const Log& log = {});
LocalModelConfig fallbackLocalConfig(const Environment& environment);
LocalModelConfig localCheckLocalConfig(const Environment& environment);
// The coach never waits for a local thinking trace.
std::shared_ptr<ModelBackend> coachLocalBackend(const LocalModelConfig& config, const DumpDirectory& dumpDirectory,
                                                const Log& log, const Services& services);

// The coach's stack. Throws ModelBackendConfigurationError for a configuration that must not run.
// `usageLogURL` is where turn usage is recorded (the source of future provider measurements);
// `providerSlugs`, when given, is the pool that routing may choose from.
std::shared_ptr<ModelBackend> fromEnvironment(const Environment& environment, const Log& log,
                                              const DumpDirectory& dumpDirectory,
                                              const std::optional<std::filesystem::path>& usageLogURL = std::nullopt,
                                              const std::optional<std::vector<std::string>>& providerSlugs = std::nullopt,
                                              const Services& services = Services::process());

// The nightly pass: the local model leads, retried, and the remote route rescues.
std::shared_ptr<ModelBackend> forConsolidation(const Environment& environment,
                                               std::function<bool()> shouldKeepWaiting, const Log& log,
                                               const DumpDirectory& dumpDirectory,
                                               const Services& services = Services::process());

// Throws OnboardingBackendError(noAPIKey) unless forced local or a key is set.
std::shared_ptr<ModelBackend> forOnboarding(bool forceLocalOnly, const Environment& environment, const Log& log,
                                            const DumpDirectory& dumpDirectory,
                                            const Services& services = Services::process());

// The small local model of the privacy checks (AIMCAP_LOCAL_CHECK_MODEL).
std::shared_ptr<LocalModelBackend> localCheckBackend(const Environment& environment,
                                                     const DumpDirectory& dumpDirectory,
                                                     const Services& services = Services::process());

// One line that says what fromEnvironment would build, and why. Refusals that fromEnvironment would
// log go to `log` as well.
std::string describeSelection(const Environment& environment,
                              const std::optional<std::filesystem::path>& usageLogURL, const Log& log);

}  // namespace ModelBackendFactory
}  // namespace aimwise
