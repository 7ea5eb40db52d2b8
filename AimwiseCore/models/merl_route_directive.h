#pragma once
// The hosted route asking that a call run on this machine instead ("X-Merl-Route: local"), for
// example to pace a licence's online share. It travels as an error so that the fallback answers.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "CaptureShared/common/error.h"

namespace aimwise {

class MerlRouteDirective : public Error {
public:
    static constexpr const char* header = "X-Merl-Route";
    static constexpr const char* localRoute = "local";

    MerlRouteDirective(std::string reason, std::optional<double> onlineShare,
                       std::optional<int64_t> retryOnlineAfterSeconds);

    const std::string& reason() const { return reason_; }
    std::optional<double> onlineShare() const { return onlineShare_; }
    std::optional<int64_t> retryOnlineAfterSeconds() const { return retryOnlineAfterSeconds_; }

    // A directive when the header says "local"; nothing for an absent header or any other value. The
    // body's "merl" object may name the reason (default "paced"), the online share and when to try
    // online again; a body that does not decode leaves the defaults.
    static std::optional<MerlRouteDirective> decode(const std::optional<std::string>& headerValue,
                                                    std::string_view body);

    bool operator==(const MerlRouteDirective& other) const {
        return reason_ == other.reason_ && onlineShare_ == other.onlineShare_ &&
               retryOnlineAfterSeconds_ == other.retryOnlineAfterSeconds_;
    }

private:
    std::string reason_;
    std::optional<double> onlineShare_;
    std::optional<int64_t> retryOnlineAfterSeconds_;
};

}  // namespace aimwise
