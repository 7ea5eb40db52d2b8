#include "AimwiseCore/models/outbound_redaction.h"

#include <cmath>
#include <cstdio>
#include <mutex>
#include <unordered_map>

#include "AimwiseCore/privacy/outbound_title_privacy.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"

namespace aimwise::OutboundRedaction {

namespace {

using Scope = SensitiveIdentifierRedaction::Scope;

// Texts and their redactions, up to a few megabytes; when full it starts afresh, which costs one
// turn a full scan.
class Memo {
public:
    static constexpr size_t capacityBytes = 8u << 20;
    static constexpr size_t largestText = 1u << 20;

    std::optional<RedactionResult> find(const std::string& text) {
        std::lock_guard lock(mutex_);
        auto found = entries_.find(text);
        if (found == entries_.end()) return std::nullopt;
        return found->second;
    }
    void remember(const std::string& text, const RedactionResult& result) {
        if (text.size() > largestText) return;
        std::lock_guard lock(mutex_);
        const size_t cost = text.size() + result.text.size() + 64;
        if (bytes_ + cost > capacityBytes) clearLocked();
        if (entries_.emplace(text, result).second) bytes_ += cost;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        clearLocked();
    }

private:
    void clearLocked() {
        entries_.clear();
        bytes_ = 0;
    }
    std::mutex mutex_;
    std::unordered_map<std::string, RedactionResult> entries_;
    size_t bytes_ = 0;
};

Memo& memo() {
    static Memo* const shared = new Memo();
    return *shared;
}

std::optional<std::string> redactedNumber(double number, RedactionReport& report) {
    if (!std::isfinite(number) || std::fabs(number) < 100000.0) return std::nullopt;
    char text[400];
    std::snprintf(text, sizeof text, "%.0f", number);
    RedactionResult result = redactText(text);
    if (result.report.empty()) return std::nullopt;
    report.merge(result.report);
    return std::move(result.text);
}

}  // namespace

RedactionResult redactText(const std::string& text) {
    if (auto known = memo().find(text)) return std::move(*known);
    RedactionResult result = SensitiveIdentifierRedaction::redact(text, Scope::outbound);
    memo().remember(text, result);
    return result;
}

void clearMemo() { memo().clear(); }

JSONValue scrub(const JSONValue& value, RedactionReport& report) {
    if (const std::string* text = value.stringIfAny()) {
        RedactionResult result = redactText(*text);
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
        RedactionResult content = redactText(message.content);
        message.content = std::move(content.text);
        result.report.merge(content.report);
        if (message.role == ChatRole::assistant && message.thinking) {
            RedactionResult thinking = redactText(*message.thinking);
            message.thinking = std::move(thinking.text);
            result.report.merge(thinking.report);
        }
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
