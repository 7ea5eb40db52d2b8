#pragma once
// Where the local model server is. Anything that would let private text off this machine, or hand
// it to another local account, is refused.
#include <exception>
#include <filesystem>
#include <string>

#include "AimwiseCore/models/endpoint_url.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

namespace LocalInferenceEndpoint {

inline constexpr const char* envVar = "AIMCAP_LOCAL_INFERENCE_ENDPOINT";
inline constexpr const char* tcpBaseURLString = "http://127.0.0.1:11477";
inline constexpr const char* legacyOllamaBaseURLString = "http://127.0.0.1:11434";

class ResolutionError : public Error {
public:
    enum class Kind { malformed, notLoopback, notIPv4Loopback, unsupportedScheme, hasPath };
    ResolutionError(Kind kind, std::string value);
    Kind kind() const { return kind_; }
    // The trimmed value that was refused.
    const std::string& value() const { return value_; }

private:
    Kind kind_;
    std::string value_;
};

// <support dir>/llama and the server's socket inside it.
std::filesystem::path socketDirectory();
std::filesystem::path socketPath();
EndpointURL defaultBaseURL();
std::string defaultBaseURLString();
EndpointURL legacyOllamaBaseURL();

// Throws ResolutionError.
EndpointURL resolveOrThrow(const Environment& environment);
// For paths where the environment was validated at start-up: a bad value aborts the process.
EndpointURL resolve(const Environment& environment);
bool isUnixSocket(const EndpointURL& url);

}  // namespace LocalInferenceEndpoint
}  // namespace aimwise
