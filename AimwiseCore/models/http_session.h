#pragma once
// A small blocking HTTP/1.1 client for the model servers. TCP endpoints and unix-socket endpoints
// ("http+unix://<encoded socket path>/...") go through the same calls. libcurl stays inside the .cpp.
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "AimwiseCore/models/endpoint_url.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

using HTTPHeaders = std::vector<std::pair<std::string, std::string>>;

struct HTTPRequest {
    std::string method = "GET";
    EndpointURL url;
    HTTPHeaders headers;
    std::string body;
    // The whole exchange, connection included, must end within this many seconds.
    double timeoutSec = 60.0;
};

struct HTTPResponse {
    int status = 0;
    HTTPHeaders headers;
    std::string body;

    // The first header of that name, compared without regard to case.
    const std::string* header(std::string_view name) const;
};

// No HTTP reply came back: refused connection, a timeout, a connection cut mid-body.
class HTTPTransportFailure : public Error {
public:
    enum class Cause { other, timedOut };
    explicit HTTPTransportFailure(std::string description, Cause cause = Cause::other)
        : Error(std::move(description)), cause_(cause) {}
    bool timedOut() const { return cause_ == Cause::timedOut; }

private:
    Cause cause_;
};

class HTTPSession {
public:
    struct StreamHandler {
        // Once, before the first body bytes (or at the end for an empty body).
        std::function<void(const HTTPResponse& head)> onHead;
        // Body bytes in arrival order; throwing ends the transfer and the exception reaches the caller.
        std::function<void(std::string_view bytes)> onBytes;
    };

    HTTPSession();
    ~HTTPSession();
    HTTPSession(const HTTPSession&) = delete;
    HTTPSession& operator=(const HTTPSession&) = delete;

    // Throws HTTPTransportFailure, or CancellationError when the thread's token is cancelled.
    HTTPResponse send(const HTTPRequest& request);
    // Same failures; the body is handed over as it arrives instead of being collected.
    void stream(const HTTPRequest& request, const StreamHandler& handler);

    // A body larger than this is a transport failure rather than memory exhaustion.
    static constexpr size_t maxCollectedBodyBytes = 64u << 20;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace aimwise
