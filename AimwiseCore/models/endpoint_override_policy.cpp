#include "AimwiseCore/models/endpoint_override_policy.h"

#include <algorithm>
#include <cctype>

#include "CaptureShared/common/text.h"

namespace aimwise::EndpointOverridePolicy {

namespace {

std::string lowercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

bool isIPv4Loopback(std::string_view host) {
    int parts = 0;
    size_t start = 0;
    while (start <= host.size()) {
        size_t end = host.find('.', start);
        if (end == std::string_view::npos) end = host.size();
        std::string_view part = host.substr(start, end - start);
        if (part.empty() || part.size() > 3 || !std::all_of(part.begin(), part.end(), ::isdigit)) return false;
        if (std::stoi(std::string(part)) > 255) return false;
        if (parts == 0 && part != "127") return false;
        ++parts;
        start = end + 1;
        if (end == host.size()) break;
    }
    return parts == 4;
}

}  // namespace

bool isLoopbackHost(std::string_view host) {
    const std::string lower = lowercased(host);
    return lower == "localhost" || lower == "::1" || isIPv4Loopback(lower);
}

Decision validatedOverride(std::string_view variable, std::string_view value) {
    const std::string trimmed = trimWhitespaceAndNewlines(value);
    const std::string prefix = std::string(variable) + "=" + trimmed + " ignored: ";
    const std::optional<EndpointURL> url = EndpointURL::parse(trimmed);
    if (!url || !url->host || url->host->empty()) return Refused{prefix + "it is not a URL with a host"};
    if (url->user || url->password) return Refused{prefix + "it must not carry a user or a password"};
    const std::string scheme = lowercased(url->scheme);
    if (scheme == "https" || (scheme == "http" && isLoopbackHost(*url->host))) return *url;
    return Refused{prefix + "it must be https, or plain http only to a loopback host (#993)"};
}

EndpointURL chatCompletionsURL(const EndpointURL& url) {
    if (url.path.empty() || url.path == "/") return url.appendingPath("v1/chat/completions");
    return url;
}

}  // namespace aimwise::EndpointOverridePolicy
