#pragma once
// Where the hosted coach route is, and how it is asked. Its address is compiled in (the CMake cache
// value AIMWISE_PROXY_ORIGIN, empty unless a build sets it); AIMCAP_PROXY_URL may replace it, in a
// release build only with that same origin.
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/models/endpoint_url.h"
#include "CaptureShared/common/environment.h"

namespace aimwise {

struct ProxyConfig {
    static constexpr const char* envVar = "AIMCAP_PROXY_URL";
#ifdef NDEBUG
    static constexpr bool isReleaseBuild = true;
#else
    static constexpr bool isReleaseBuild = false;
#endif

    EndpointURL baseURL;
    std::string model;
    std::optional<std::string> reasoningEffort;
    double timeoutSec = 300;
    std::vector<std::string> providerOrder;
    std::optional<std::vector<std::string>> acceptableProviders;
    std::string appVersion;
    std::optional<std::string> buildVersion;
    std::string promptSetID;

    // The origin this build was made for; empty when none was configured.
    static std::string compiledInOrigin();

    // The override when it may be used, else the compiled-in origin; nothing when neither exists.
    static std::optional<EndpointURL> resolveBaseURL(const Environment& environment, bool isRelease = isReleaseBuild);
    // Why AIMCAP_PROXY_URL is not used, when it is set and refused.
    static std::optional<std::string> overrideRefusal(const Environment& environment, bool isRelease = isReleaseBuild);
};

}  // namespace aimwise
