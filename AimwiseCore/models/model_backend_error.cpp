#include "AimwiseCore/models/model_backend_error.h"

#include "CaptureShared/common/utf8.h"

namespace aimwise {

namespace {

std::string describe(const ModelBackendError::Case& value) {
    if (auto* invalid = std::get_if<ModelBackendError::InvalidResponse>(&value)) return invalid->reason;
    if (auto* http = std::get_if<ModelBackendError::HTTPError>(&value)) {
        std::string text = "HTTP " + std::to_string(http->status);
        if (!http->body.empty()) text += ": " + http->body;
        return text;
    }
    return std::get<ModelBackendError::TransportError>(value).reason;
}

}  // namespace

ModelBackendError::ModelBackendError(Case value) : Error(describe(value)), value_(std::move(value)) {}

ModelBackendError ModelBackendError::invalidResponse(std::string reason) {
    return ModelBackendError(InvalidResponse{std::move(reason)});
}

ModelBackendError ModelBackendError::httpError(int status, std::string body) {
    return ModelBackendError(HTTPError{status, std::move(body)});
}

ModelBackendError ModelBackendError::transportError(std::string reason, bool timedOut) {
    return ModelBackendError(TransportError{std::move(reason), timedOut});
}

bool ModelBackendError::isReachabilityFailure() const {
    if (asTransportError()) return true;
    const HTTPError* http = asHTTPError();
    if (!http) return false;
    switch (http->status) {
        case 401: case 403: case 408: case 429: return true;
        case 400: case 404: case 422: return false;
        default: return http->status >= 500 && http->status <= 599;
    }
}

std::string utf8OrEmpty(std::string_view bytes) {
    return utf8::isValid(bytes) ? std::string(bytes) : std::string();
}

}  // namespace aimwise
