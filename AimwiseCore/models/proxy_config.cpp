#include "AimwiseCore/models/proxy_config.h"

#include "AimwiseCore/models/endpoint_override_policy.h"
#include "CaptureShared/common/text.h"

#ifndef AIMWISE_PROXY_ORIGIN
#define AIMWISE_PROXY_ORIGIN ""
#endif

namespace aimwise {

namespace {

std::string overrideValue(const Environment& environment) {
    return trimWhitespaceAndNewlines(lookup(environment, ProxyConfig::envVar).value_or(""));
}

std::optional<EndpointURL> compiledInURL() {
    const std::string origin = ProxyConfig::compiledInOrigin();
    if (origin.empty()) return std::nullopt;
    return EndpointURL::parse(origin);
}

}  // namespace

std::string ProxyConfig::compiledInOrigin() { return trimWhitespaceAndNewlines(AIMWISE_PROXY_ORIGIN); }

std::optional<std::string> ProxyConfig::overrideRefusal(const Environment& environment, bool isRelease) {
    const std::string value = overrideValue(environment);
    if (value.empty()) return std::nullopt;
    const std::string origin = compiledInOrigin();
    if (isRelease && value != origin)
        return std::string(envVar) + "=" + value + " ignored: a Release build honors it only on " +
               "the compiled-in proxy origin (" + origin + "); build with `app/make-app.sh --debug` to point " +
               "at another proxy (#993)";
    const auto decision = EndpointOverridePolicy::validatedOverride(envVar, value);
    if (auto* refused = std::get_if<EndpointOverridePolicy::Refused>(&decision)) return refused->description;
    return std::nullopt;
}

std::optional<EndpointURL> ProxyConfig::resolveBaseURL(const Environment& environment, bool isRelease) {
    const std::string value = overrideValue(environment);
    if (value.empty() || overrideRefusal(environment, isRelease)) return compiledInURL();
    return std::get<EndpointURL>(EndpointOverridePolicy::validatedOverride(envVar, value));
}

}  // namespace aimwise
