#pragma once
// The hosted coach route's own refusals. The service names its reason in the X-Merl-Error header and
// explains itself in the body's "merl" object; a few reasons are raised on this machine before any
// byte is sent.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "CaptureShared/common/error.h"

namespace aimwise {

class MerlProxyError : public Error {
public:
    enum class Reason {
        // As they stand on the wire.
        serviceMisconfigured,
        promptUnrecognized,
        maxTokensOverCap,
        fieldNotAllowed,
        modelNotAllowed,
        upstreamUnavailable,
        promptSetUnknown,
        clientTooOld,
        overCap,
        rateLimited,
        bodyTooLarge,
        malformedRequest,
        // Admission: the closed service said no. Each only closes the online route for now.
        licenseLapsed,
        licenseMissing,
        termsUpdateRequired,
        // Raised here, never by the service.
        proxyNotConfigured,
        unsupportedRequest,
        unknown,
    };

    struct Fields {
        Reason reason = Reason::unknown;
        // The reason as the service wrote it; kept for reasons this build does not know.
        std::string rawReason;
        int status = 0;
        std::string userMessage;
        std::string detail;
        bool retryable = false;
        std::optional<int64_t> retryAfterSec;
        std::optional<int64_t> termsVersion;
        std::optional<std::string> termsURL;
        std::optional<std::string> termsSummary;
        // What a person can do about it, when something can be done.
        std::optional<std::string> fixHint;
        bool operator==(const Fields&) const = default;
    };

    explicit MerlProxyError(Fields fields);
    const Fields& fields() const { return fields_; }
    Reason reason() const { return fields_.reason; }
    bool retryable() const { return fields_.retryable; }
    const std::string& userMessage() const { return fields_.userMessage; }

    bool isRateLimited() const { return fields_.reason == Reason::rateLimited; }
    // The licence is not active: lapsed, or this machine holds none.
    bool isLicenseLapsed() const;
    bool isTermsUpdate() const { return fields_.reason == Reason::termsUpdateRequired; }

    // Reads an error reply: `markerReason` is the X-Merl-Error header. A body that cannot be decoded
    // leaves an error made from the status and the header alone. Secrets in the detail are redacted.
    static MerlProxyError decode(int status, const std::optional<std::string>& markerReason, std::string_view body);

    static MerlProxyError proxyNotConfigured();
    static MerlProxyError unsupportedRequest(std::string detail);
    static MerlProxyError licenseMissing(std::string detail);

    static std::string_view rawValue(Reason reason);
    static Reason reasonFromRaw(std::string_view raw);
    static std::string defaultUserMessage(Reason reason);
    // Whether another model could answer instead: true where the online route is closed for now,
    // false where the request itself is at fault. An unknown reason is judged by its status.
    static bool defaultRetryable(Reason reason, int status);

    bool operator==(const MerlProxyError& other) const { return fields_ == other.fields_; }

private:
    static Fields ownFields(Reason reason);
    Fields fields_;
};

}  // namespace aimwise
