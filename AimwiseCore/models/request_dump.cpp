#include "AimwiseCore/models/request_dump.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "AimwiseCore/privacy/secret_redaction.h"

namespace aimwise::RequestDump {

namespace {

bool isAuthorization(std::string_view name) {
    static constexpr std::string_view target = "authorization";
    if (name.size() != target.size()) return false;
    for (size_t i = 0; i < name.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(name[i])) != target[i]) return false;
    return true;
}

void warn(const std::string& text) { std::fprintf(stderr, "request dump: %s\n", text.c_str()); }

}  // namespace

std::optional<std::filesystem::path> directory(const Environment& environment, const std::filesystem::path& dataRoot) {
    if (!lookup(environment, environmentKey)) return std::nullopt;
    return dataRoot / "model-request-dumps";
}

std::string stamp(int64_t atMs) {
    int64_t seconds = atMs >= 0 ? atMs / 1000 : (atMs - 999) / 1000;
    int millis = static_cast<int>(atMs - seconds * 1000);
    time_t time = static_cast<time_t>(seconds);
    tm parts{};
    gmtime_r(&time, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d-%02d-%02d-%03dZ", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, millis);
    return text;
}

std::string render(std::string_view method, const std::string& url, const HTTPHeaders& headers, std::string_view body) {
    std::string out;
    out.append(method).append(" ").append(url).append(" HTTP/1.1\r\n");
    for (const auto& [name, value] : headers)
        out.append(name).append(": ").append(isAuthorization(name) ? SecretRedaction::replacement
                                                                     : SecretRedaction::redact(value))
            .append("\r\n");
    out.append("\r\n");
    out.append(SecretRedaction::redact(std::string(body)));
    return out;
}

std::optional<std::filesystem::path> write(std::string_view backend, std::string_view method, const std::string& url,
                                           const HTTPHeaders& headers, std::string_view body,
                                           const std::filesystem::path& directory, int64_t atMs) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        warn("could not create " + directory.string() + ": " + error.message());
        return std::nullopt;
    }
    std::filesystem::path path = directory / (std::string(backend) + "-" + stamp(atMs) + ".http");
    std::string contents = render(method, url, headers, body);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        warn("could not create " + path.string() + ": " + std::strerror(errno));
        return std::nullopt;
    }
    size_t written = 0;
    while (written < contents.size()) {
        ssize_t count = ::write(fd, contents.data() + written, contents.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            warn("failed to write " + path.string() + ": " + std::strerror(errno));
            ::close(fd);
            return std::nullopt;
        }
        written += static_cast<size_t>(count);
    }
    ::close(fd);
    return path;
}

}  // namespace aimwise::RequestDump
