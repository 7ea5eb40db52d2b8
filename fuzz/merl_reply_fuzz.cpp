// Arbitrary bytes as the hosted route's error reply: the first line is the X-Merl-Error or
// X-Merl-Route header value, the rest the body. Decoding always yields an error, never a crash.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "AimwiseCore/models/merl_proxy_error.h"
#include "AimwiseCore/models/merl_route_directive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const int status = 400 + data[0] % 200;
    const std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const size_t newline = rest.find('\n');
    const std::string header(rest.substr(0, newline));
    const std::string_view body = newline == std::string_view::npos ? std::string_view() : rest.substr(newline + 1);
    const aimwise::MerlProxyError error = aimwise::MerlProxyError::decode(status, header, body);
    (void)error.description();
    (void)aimwise::MerlRouteDirective::decode(header, body);
    (void)aimwise::MerlRouteDirective::decode(std::string("local"), body);
    return 0;
}
