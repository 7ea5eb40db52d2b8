#include "AimwiseCore/models/local_inference_endpoint.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise::LocalInferenceEndpoint {

namespace {

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string continuation(ResolutionError::Kind kind) {
    using Kind = ResolutionError::Kind;
    switch (kind) {
        case Kind::malformed:
            return " is not a valid base URL (unparseable, carries a user/password, or has an out-of-range port)";
        case Kind::notLoopback:
            return " is not 127.0.0.1 — local-only inference calls (classifier, window description, estimate "
                   "extraction, the pattern-break check, embeddings) must stay on this machine";
        case Kind::notIPv4Loopback:
            return " must spell the host as 127.0.0.1 — `localhost` resolves to IPv6 ::1 first, where another local "
                   "account can listen in place of the IPv4-only model server (#986)";
        case Kind::unsupportedScheme: return " must be an http:// URL";
        case Kind::hasPath:
            return " must be a base URL (scheme, host, port) with no path — callers append their own path "
                   "(v1/chat/completions, for example)";
    }
    return {};
}

}  // namespace

ResolutionError::ResolutionError(Kind kind, std::string value)
    : Error(std::string(envVar) + "=\"" + value + "\"" + continuation(kind)), kind_(kind), value_(std::move(value)) {}

std::filesystem::path socketDirectory() { return DataPaths::supportDir() / "llama"; }

std::filesystem::path socketPath() { return socketDirectory() / "llama.sock"; }

EndpointURL defaultBaseURL() { return EndpointURL::unixSocket(socketPath().string()); }

std::string defaultBaseURLString() { return defaultBaseURL().string(); }

EndpointURL legacyOllamaBaseURL() { return *EndpointURL::parse(legacyOllamaBaseURLString); }

EndpointURL resolveOrThrow(const Environment& environment) {
    using Kind = ResolutionError::Kind;
    std::optional<std::string> raw = lookup(environment, envVar);
    std::string value = raw ? trimWhitespaceAndNewlines(*raw) : std::string();
    if (value.empty()) return defaultBaseURL();

    std::optional<EndpointURL> url = EndpointURL::parse(value);
    if (!url) throw ResolutionError(Kind::malformed, value);
    if (!url->host || url->host->empty()) throw ResolutionError(Kind::malformed, value);
    std::string host = lowercased(*url->host);
    if (host == "localhost" || host == "::1") throw ResolutionError(Kind::notIPv4Loopback, value);
    if (host != "127.0.0.1") throw ResolutionError(Kind::notLoopback, value);
    if (url->scheme.empty() || lowercased(url->scheme) != "http") throw ResolutionError(Kind::unsupportedScheme, value);
    if ((!url->path.empty() && url->path != "/") || url->query || url->fragment)
        throw ResolutionError(Kind::hasPath, value);
    if (url->user || url->password) throw ResolutionError(Kind::malformed, value);
    if (url->port && (*url->port < 1 || *url->port > 65535)) throw ResolutionError(Kind::malformed, value);
    return *url;
}

EndpointURL resolve(const Environment& environment) {
    try {
        return resolveOrThrow(environment);
    } catch (const ResolutionError& error) {
        std::fprintf(stderr, "Fatal error: %s\n", error.description().c_str());
        std::abort();
    }
}

bool isUnixSocket(const EndpointURL& url) { return url.isUnixSocket(); }

}  // namespace aimwise::LocalInferenceEndpoint
