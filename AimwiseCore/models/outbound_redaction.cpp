#include "AimwiseCore/models/outbound_redaction.h"

#include <cmath>
#include <cstdio>

#include "AimwiseCore/privacy/outbound_title_privacy.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"

namespace aimwise::OutboundRedaction {

namespace {

using Scope = SensitiveIdentifierRedaction::Scope;

std::optional<std::string> redactedNumber(double number, RedactionReport& report) {
    if (!std::isfinite(number) || std::fabs(number) < 100000.0) return std::nullopt;
    char text[400];
    std::snprintf(text, sizeof text, "%.0f", number);
    RedactionResult result = SensitiveIdentifierRedaction::redact(text, Scope::outbound);
    if (result.report.empty()) return std::nullopt;
    report.merge(result.report);
    return std::move(result.text);
}

}  // namespace

JSONValue scrub(const JSONValue& value, RedactionReport& report) {
    if (const std::string* text = value.stringIfAny()) {
        RedactionResult result = SensitiveIdentifierRedaction::redact(*text, Scope::outbound);
        report.merge(result.report);
        return std::move(result.text);
    }
    if (const double* number = value.numberIfAny()) {
        if (auto redacted = redactedNumber(*number, report)) return std::move(*redacted);
        return value;
    }
    if (const JSONValue::Object* members = value.objectIfAny()) {
        JSONValue::Object out;
        for (const auto& [key, member] : *members) out.emplace(key, scrub(member, report));
        return out;
    }
    if (const auto* items = std::get_if<JSONValue::Array>(&value.value)) {
        JSONValue::Array out;
        out.reserve(items->size());
        for (const JSONValue& item : *items) out.push_back(scrub(item, report));
        return out;
    }
    return value;
}

Result redactOutbound(const std::vector<ChatMessage>& messages) {
    Result result{messages, {}};
    for (ChatMessage& message : result.messages) {
        RedactionResult content = SensitiveIdentifierRedaction::redact(message.content, Scope::outbound);
        message.content = std::move(content.text);
        result.report.merge(content.report);
        if (message.role == ChatRole::assistant)
            message.thinking = SensitiveIdentifierRedaction::redact(message.thinking, Scope::outbound, result.report);
        if (message.toolCalls)
            for (ToolCall& call : *message.toolCalls) call.arguments = scrub(call.arguments, result.report);
    }
    return result;
}

std::optional<std::string> logLine(const Result& result, std::string_view modelName) {
    if (result.report.empty()) return std::nullopt;
    const std::string model = modelName.empty() ? std::string("remote") : std::string(modelName);
    std::string line = "outbound redaction before sending to " + model + ": " + result.report.summary();
    std::map<OutboundTitlePrivacy::Outcome, int64_t> titles;
    for (const ChatMessage& message : result.messages)
        for (const auto& [outcome, count] : OutboundTitlePrivacy::placeholderCounts(message.content))
            titles[outcome] += count;
    if (!titles.empty()) line += "; outbound titles to " + model + ": " + OutboundTitlePrivacy::summary(titles);
    return line;
}

}  // namespace aimwise::OutboundRedaction
