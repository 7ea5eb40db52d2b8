#pragma once
// Just enough of a URL for the model endpoints: parsing with the parts kept apart, and appending a
// path. A unix-socket endpoint is spelled "http+unix://<percent-encoded socket path>/...".
#include <optional>
#include <string>
#include <string_view>

namespace aimwise {

struct EndpointURL {
    std::string scheme;
    std::optional<std::string> user;
    std::optional<std::string> password;
    // Percent-decoded; IPv6 literals without their brackets.
    std::optional<std::string> host;
    std::optional<long> port;
    std::string path;  // percent-encoded, as written
    std::optional<std::string> query;
    std::optional<std::string> fragment;

    // Absent when the text is not a URL at all (characters a URL may not hold, a bad port, ...).
    static std::optional<EndpointURL> parse(std::string_view text);
    // A unix-socket URL for `socketPath` with the path "/".
    static EndpointURL unixSocket(const std::string& socketPath);

    std::string string() const;
    // Appends "a/b" to the path with exactly one "/" between.
    EndpointURL appendingPath(std::string_view component) const;
    bool isUnixSocket() const;

    bool operator==(const EndpointURL&) const = default;
};

std::string percentDecode(std::string_view text);

}  // namespace aimwise
