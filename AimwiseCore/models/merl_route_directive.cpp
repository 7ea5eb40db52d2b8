#include "AimwiseCore/models/merl_route_directive.h"

#include <cmath>

#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/chat_wire.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise {

namespace {

std::string describe(const std::string& reason) {
    return "the coach service asked for this call to run on this computer (" + reason + ")";
}

}  // namespace

MerlRouteDirective::MerlRouteDirective(std::string reason, std::optional<double> onlineShare,
                                       std::optional<int64_t> retryOnlineAfterSeconds)
    : Error(describe(reason)),
      reason_(std::move(reason)),
      onlineShare_(onlineShare),
      retryOnlineAfterSeconds_(retryOnlineAfterSeconds) {}

std::optional<MerlRouteDirective> MerlRouteDirective::decode(const std::optional<std::string>& headerValue,
                                                             std::string_view body) {
    if (!headerValue || trimWhitespaceAndNewlines(*headerValue) != localRoute) return std::nullopt;
    std::string reason = "paced";
    std::optional<double> share;
    std::optional<int64_t> retryAfter;
    const ChatJSON root = utf8::isValid(body) ? ChatWire::parseBounded(body) : ChatJSON();
    if (const ChatJSON* merl = ChatWire::member(root, "merl"); merl && merl->is_object()) {
        if (auto named = ChatWire::trimmedNonEmptyString(ChatWire::member(*merl, "reason"))) reason = *named;
        if (const ChatJSON* value = ChatWire::member(*merl, "online_share"); value && value->is_number()) {
            const double number = value->get<double>();
            if (std::isfinite(number)) share = number;
        }
        if (const ChatJSON* value = ChatWire::member(*merl, "retry_online_after_seconds")) {
            if (value->is_number_integer() && !(value->is_number_unsigned() && value->get<uint64_t>() > INT64_MAX))
                retryAfter = value->get<int64_t>();
        }
    }
    return MerlRouteDirective(std::move(reason), share, retryAfter);
}

}  // namespace aimwise
