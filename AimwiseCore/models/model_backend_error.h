#pragma once
// The one error of a model call. Retry and fallback decide from isReachabilityFailure alone.
#include <string>
#include <variant>

#include "CaptureShared/common/error.h"

namespace aimwise {

class ModelBackendError : public Error {
public:
    struct InvalidResponse {
        std::string reason;
        bool operator==(const InvalidResponse&) const = default;
    };
    struct HTTPError {
        int status = 0;
        // The body as UTF-8; empty when it was not valid UTF-8.
        std::string body;
        bool operator==(const HTTPError&) const = default;
    };
    struct TransportError {
        std::string reason;
        // The transport gave up waiting (connect or whole-exchange timeout), as opposed to a refusal or a cut.
        bool timedOut = false;
        bool operator==(const TransportError&) const = default;
    };
    using Case = std::variant<InvalidResponse, HTTPError, TransportError>;

    explicit ModelBackendError(Case value);
    static ModelBackendError invalidResponse(std::string reason);
    static ModelBackendError httpError(int status, std::string body);
    static ModelBackendError transportError(std::string reason, bool timedOut = false);

    const Case& value() const { return value_; }
    const InvalidResponse* asInvalidResponse() const { return std::get_if<InvalidResponse>(&value_); }
    const HTTPError* asHTTPError() const { return std::get_if<HTTPError>(&value_); }
    const TransportError* asTransportError() const { return std::get_if<TransportError>(&value_); }

    // No usable answer came back from the server at all (no connection, a timeout, a 5xx, a
    // rate limit): the cases where trying elsewhere can help.
    bool isReachabilityFailure() const;

    bool operator==(const ModelBackendError& other) const { return value_ == other.value_; }

private:
    Case value_;
};

// A body as UTF-8 text, or empty when it is not valid UTF-8.
std::string utf8OrEmpty(std::string_view bytes);

}  // namespace aimwise
