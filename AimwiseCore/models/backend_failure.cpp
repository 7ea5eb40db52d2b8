#include "AimwiseCore/models/backend_failure.h"

#include "AimwiseCore/models/merl_proxy_error.h"
#include "AimwiseCore/models/model_backend_error.h"

namespace aimwise {

bool isReachabilityFailure(const std::exception& error) {
    if (const auto* model = dynamic_cast<const ModelBackendError*>(&error)) return model->isReachabilityFailure();
    if (const auto* proxy = dynamic_cast<const MerlProxyError*>(&error)) return proxy->retryable();
    return false;
}

bool isTimedOutTransport(const std::exception& error) {
    const auto* model = dynamic_cast<const ModelBackendError*>(&error);
    const auto* transport = model ? model->asTransportError() : nullptr;
    return transport && transport->timedOut;
}

std::string describeModelFailure(const std::exception& error) {
    if (const auto* model = dynamic_cast<const ModelBackendError*>(&error)) {
        if (const auto* invalid = model->asInvalidResponse()) return "invalid response: " + invalid->reason;
        if (const auto* http = model->asHTTPError())
            return "HTTP " + std::to_string(http->status) + (http->body.empty() ? "" : ": " + http->body);
        return model->asTransportError()->reason;
    }
    if (const auto* described = dynamic_cast<const Error*>(&error)) return described->description();
    return error.what();
}

}  // namespace aimwise
