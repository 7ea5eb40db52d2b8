#pragma once
// An exact copy of a request, written as an HTTP request would be, for debugging. Secrets are
// removed first; a failure to write is only a warning and never fails the request.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/models/http_session.h"
#include "CaptureShared/common/environment.h"

namespace aimwise {

namespace RequestDump {

inline constexpr const char* environmentKey = "AIMCAP_DUMP_REQUESTS";

// <data root>/model-request-dumps when the key is set, otherwise nothing.
std::optional<std::filesystem::path> directory(const Environment& environment, const std::filesystem::path& dataRoot);

// "yyyy-MM-dd'T'HH-mm-ss-SSS'Z'" in UTC.
std::string stamp(int64_t atMs);

// The file's contents: request line, headers, blank line, body.
std::string render(std::string_view method, const std::string& url, const HTTPHeaders& headers, std::string_view body);

// Writes <directory>/<backend>-<stamp>.http and returns its path, or nothing after a warning
// beginning "request dump: " on standard error.
std::optional<std::filesystem::path> write(std::string_view backend, std::string_view method, const std::string& url,
                                           const HTTPHeaders& headers, std::string_view body,
                                           const std::filesystem::path& directory, int64_t atMs);

}  // namespace RequestDump
}  // namespace aimwise
