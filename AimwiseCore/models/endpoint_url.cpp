#include "AimwiseCore/models/endpoint_url.h"

#include <algorithm>
#include <cctype>

namespace aimwise {

namespace {

bool isUnreserved(unsigned char c) { return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~'; }

bool isAllowedURLCharacter(unsigned char c) {
    if (isUnreserved(c)) return true;
    static constexpr std::string_view other = ":/?#[]@!$&'()*+,;=%";
    return other.find(static_cast<char>(c)) != std::string_view::npos;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool hasValidEscapes(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] == '%' && (i + 2 >= text.size() || hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0))
            return false;
    return true;
}

std::string lowercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

std::string percentEncodeHost(std::string_view text) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (isUnreserved(c)) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += digits[c >> 4];
            out += digits[c & 15];
        }
    }
    return out;
}

}  // namespace

std::string percentDecode(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() + 0 && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::optional<EndpointURL> EndpointURL::parse(std::string_view text) {
    if (text.empty() || !hasValidEscapes(text)) return std::nullopt;
    for (unsigned char c : text)
        if (!isAllowedURLCharacter(c)) return std::nullopt;

    EndpointURL url;
    std::string_view rest = text;
    if (size_t hash = rest.find('#'); hash != std::string_view::npos) {
        url.fragment = std::string(rest.substr(hash + 1));
        rest = rest.substr(0, hash);
    }
    if (size_t question = rest.find('?'); question != std::string_view::npos) {
        url.query = std::string(rest.substr(question + 1));
        rest = rest.substr(0, question);
    }
    // A scheme starts with a letter and runs up to the first ":" before any "/".
    size_t colon = rest.find(':');
    if (colon != std::string_view::npos && colon > 0 && std::isalpha(static_cast<unsigned char>(rest[0])) &&
        std::all_of(rest.begin(), rest.begin() + colon, [](unsigned char c) {
            return std::isalnum(c) || c == '+' || c == '-' || c == '.';
        })) {
        url.scheme = std::string(rest.substr(0, colon));
        rest = rest.substr(colon + 1);
    }
    if (!rest.starts_with("//")) {
        url.path = std::string(rest);
        return url;
    }
    rest = rest.substr(2);
    size_t slash = rest.find('/');
    std::string_view authority = rest.substr(0, slash);
    url.path = slash == std::string_view::npos ? "" : std::string(rest.substr(slash));

    if (size_t at = authority.rfind('@'); at != std::string_view::npos) {
        std::string_view userInfo = authority.substr(0, at);
        authority = authority.substr(at + 1);
        size_t separator = userInfo.find(':');
        url.user = percentDecode(userInfo.substr(0, separator));
        if (separator != std::string_view::npos) url.password = percentDecode(userInfo.substr(separator + 1));
    }
    std::string_view hostPart = authority;
    std::optional<std::string_view> portPart;
    if (authority.starts_with("[")) {
        size_t close = authority.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        hostPart = authority.substr(1, close - 1);
        std::string_view after = authority.substr(close + 1);
        if (!after.empty()) {
            if (after[0] != ':') return std::nullopt;
            portPart = after.substr(1);
        }
    } else if (size_t portColon = authority.rfind(':'); portColon != std::string_view::npos) {
        hostPart = authority.substr(0, portColon);
        portPart = authority.substr(portColon + 1);
    }
    if (hostPart.find_first_of("[]") != std::string_view::npos) return std::nullopt;
    url.host = percentDecode(hostPart);
    if (portPart && !portPart->empty()) {
        if (portPart->size() > 9 || !std::all_of(portPart->begin(), portPart->end(), ::isdigit)) return std::nullopt;
        url.port = std::stol(std::string(*portPart));
    }
    return url;
}

EndpointURL EndpointURL::unixSocket(const std::string& socketPath) {
    EndpointURL url;
    url.scheme = "http+unix";
    url.host = socketPath;
    url.path = "/";
    return url;
}

std::string EndpointURL::string() const {
    std::string out;
    if (!scheme.empty()) out += scheme + ":";
    if (host) {
        out += "//";
        if (user) {
            out += *user;
            if (password) out += ":" + *password;
            out += "@";
        }
        if (host->find(':') != std::string::npos && !isUnixSocket())
            out += "[" + *host + "]";
        else
            out += percentEncodeHost(*host);
        if (port) out += ":" + std::to_string(*port);
    }
    out += path;
    if (query) out += "?" + *query;
    if (fragment) out += "#" + *fragment;
    return out;
}

EndpointURL EndpointURL::appendingPath(std::string_view component) const {
    EndpointURL out = *this;
    while (component.starts_with("/")) component.remove_prefix(1);
    if (out.path.empty() || out.path.back() != '/') out.path += '/';
    out.path += component;
    return out;
}

bool EndpointURL::isUnixSocket() const {
    return lowercased(scheme) == "http+unix" && host && host->starts_with("/");
}

}  // namespace aimwise
