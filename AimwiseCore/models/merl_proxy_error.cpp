#include "AimwiseCore/models/merl_proxy_error.h"

#include <array>
#include <cmath>
#include <utility>

#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/privacy/secret_redaction.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise {

namespace {

using Reason = MerlProxyError::Reason;

constexpr std::array<std::pair<Reason, std::string_view>, 17> rawValues{{
    {Reason::serviceMisconfigured, "service_misconfigured"},
    {Reason::promptUnrecognized, "prompt_unrecognized"},
    {Reason::maxTokensOverCap, "max_tokens_over_cap"},
    {Reason::fieldNotAllowed, "field_not_allowed"},
    {Reason::modelNotAllowed, "model_not_allowed"},
    {Reason::upstreamUnavailable, "upstream_unavailable"},
    {Reason::promptSetUnknown, "prompt_set_unknown"},
    {Reason::clientTooOld, "client_too_old"},
    {Reason::overCap, "over_cap"},
    {Reason::rateLimited, "rate_limited"},
    {Reason::bodyTooLarge, "body_too_large"},
    {Reason::malformedRequest, "malformed_request"},
    {Reason::licenseLapsed, "license_lapsed"},
    {Reason::licenseMissing, "license_missing"},
    {Reason::termsUpdateRequired, "terms_update_required"},
    {Reason::proxyNotConfigured, "proxy_not_configured"},
    {Reason::unsupportedRequest, "unsupported_request"},
}};

const std::string unavailableMessage = "Veska's coach service is temporarily unavailable. It will try again shortly.";
const std::string rejectedMessage = "Veska's coach service rejected a request. This is a bug in Veska, not something you did.";

std::string describe(const MerlProxyError::Fields& fields) {
    std::string text = fields.userMessage + " [" + (fields.rawReason.empty() ? "no reason given" : fields.rawReason);
    if (fields.status != 0) text += ", HTTP " + std::to_string(fields.status);
    text += "]";
    if (!fields.detail.empty()) text += ": " + fields.detail;
    if (fields.fixHint) text += " (" + *fields.fixHint + ")";
    return text;
}

std::optional<std::string> stringMember(const ChatJSON& object, const char* key) {
    const ChatJSON* value = ChatWire::member(object, key);
    if (!value || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

// Whole numbers only, within what the field can hold; a service that sends 1e300 gets nothing.
std::optional<int64_t> integerMember(const ChatJSON& object, const char* key) {
    const ChatJSON* value = ChatWire::member(object, key);
    if (!value) return std::nullopt;
    if (value->is_number_integer()) {
        if (value->is_number_unsigned() && value->get<uint64_t>() > uint64_t(INT64_MAX)) return std::nullopt;
        return value->get<int64_t>();
    }
    if (value->is_number_float()) {
        const double number = value->get<double>();
        if (std::isfinite(number) && number == std::trunc(number) && std::fabs(number) < 9.0e15)
            return static_cast<int64_t>(number);
    }
    return std::nullopt;
}

}  // namespace

MerlProxyError::MerlProxyError(Fields fields) : Error(describe(fields)), fields_(std::move(fields)) {}

bool MerlProxyError::isLicenseLapsed() const {
    return fields_.reason == Reason::licenseLapsed || fields_.reason == Reason::licenseMissing;
}

std::string_view MerlProxyError::rawValue(Reason reason) {
    for (const auto& [known, raw] : rawValues)
        if (known == reason) return raw;
    return "";
}

MerlProxyError::Reason MerlProxyError::reasonFromRaw(std::string_view raw) {
    for (const auto& [known, text] : rawValues)
        if (text == raw) return known;
    return Reason::unknown;
}

std::string MerlProxyError::defaultUserMessage(Reason reason) {
    switch (reason) {
        case Reason::rateLimited: return "The coach is being asked too often right now. It will try again shortly.";
        case Reason::overCap: return "You've reached this period's coaching limit. The coach resumes when it resets.";
        case Reason::clientTooOld:
            return "This version of Veska is too old to reach the coach. Update Veska to keep coaching.";
        case Reason::promptUnrecognized:
        case Reason::maxTokensOverCap:
        case Reason::fieldNotAllowed:
        case Reason::modelNotAllowed:
        case Reason::promptSetUnknown:
        case Reason::bodyTooLarge:
        case Reason::malformedRequest:
        case Reason::unsupportedRequest: return rejectedMessage;
        case Reason::licenseLapsed:
        case Reason::licenseMissing:
            return "Your Veska license isn't active, so the coach answers on this computer for now.";
        case Reason::termsUpdateRequired:
            return "Veska's terms of service were updated. Accept them to resume online coaching; the coach answers "
                   "on this computer meanwhile.";
        case Reason::proxyNotConfigured: return "This build of Veska has no coach service address configured.";
        case Reason::serviceMisconfigured:
        case Reason::upstreamUnavailable:
        case Reason::unknown: return unavailableMessage;
    }
    return unavailableMessage;
}

bool MerlProxyError::defaultRetryable(Reason reason, int status) {
    switch (reason) {
        case Reason::serviceMisconfigured:
        case Reason::upstreamUnavailable:
        case Reason::clientTooOld:
        case Reason::overCap:
        case Reason::rateLimited:
        case Reason::licenseLapsed:
        case Reason::licenseMissing:
        case Reason::termsUpdateRequired:
        case Reason::proxyNotConfigured: return true;
        case Reason::unknown:
            return status == 401 || status == 403 || status == 408 || status == 429 || (status >= 500 && status <= 599);
        default: return false;
    }
}

MerlProxyError MerlProxyError::decode(int status, const std::optional<std::string>& markerReason,
                                      std::string_view body) {
    Fields fields;
    fields.status = status;
    fields.rawReason = markerReason ? trimWhitespaceAndNewlines(utf8::isValid(*markerReason) ? *markerReason : "")
                                    : std::string();
    fields.reason = reasonFromRaw(fields.rawReason);
    fields.userMessage = defaultUserMessage(fields.reason);
    fields.retryable = defaultRetryable(fields.reason, status);

    const ChatJSON root = utf8::isValid(body) ? ChatWire::parseBounded(body) : ChatJSON();
    if (root.is_object()) {
        if (const ChatJSON* error = ChatWire::member(root, "error"); error && error->is_object())
            if (auto message = stringMember(*error, "message")) fields.detail = SecretRedaction::redact(*message);
        if (const ChatJSON* merl = ChatWire::member(root, "merl"); merl && merl->is_object()) {
            if (auto message = stringMember(*merl, "user_message"); message && !trimWhitespaceAndNewlines(*message).empty())
                fields.userMessage = *message;
            if (const ChatJSON* retryable = ChatWire::member(*merl, "retryable"); retryable && retryable->is_boolean())
                fields.retryable = retryable->get<bool>();
            if (auto after = integerMember(*merl, "retry_after_seconds"); after && *after >= 0) fields.retryAfterSec = after;
            fields.termsVersion = integerMember(*merl, "terms_version");
            fields.termsURL = stringMember(*merl, "terms_url");
            fields.termsSummary = stringMember(*merl, "terms_summary");
        }
    }
    return MerlProxyError(std::move(fields));
}

// A failure this side of the route finds for itself: its raw name and the words the person sees.
MerlProxyError::Fields MerlProxyError::ownFields(Reason reason) {
    Fields fields;
    fields.reason = reason;
    fields.rawReason = std::string(rawValue(reason));
    fields.userMessage = defaultUserMessage(reason);
    return fields;
}

MerlProxyError MerlProxyError::proxyNotConfigured() {
    Fields fields = ownFields(Reason::proxyNotConfigured);
    fields.retryable = true;
    fields.fixHint = "set AIMCAP_PROXY_URL";
    return MerlProxyError(std::move(fields));
}

MerlProxyError MerlProxyError::unsupportedRequest(std::string detail) {
    Fields fields = ownFields(Reason::unsupportedRequest);
    fields.detail = std::move(detail);
    return MerlProxyError(std::move(fields));
}

MerlProxyError MerlProxyError::licenseMissing(std::string detail) {
    Fields fields = ownFields(Reason::licenseMissing);
    fields.detail = std::move(detail);
    fields.retryable = true;
    return MerlProxyError(std::move(fields));
}

}  // namespace aimwise
