#include "AimwiseCore/models/turn_usage_record.h"

#include <cmath>
#include <cstdio>

#include "AimwiseCore/events/jsonl_append.h"

namespace aimwise {

std::optional<TurnUsageRecord> TurnUsageRecord::from(const ChatResponse& response, std::string layer, int64_t atMs,
                                                     std::optional<std::string> buildVersion) {
    if (!response.usage) return std::nullopt;
    const ChatUsage& usage = *response.usage;
    TurnUsageRecord record;
    record.atMs = atMs;
    record.layer = std::move(layer);
    if (response.provenance) {
        record.provider = response.provenance->provider;
        record.servedModel = response.provenance->servedModel;
        record.generationID = response.provenance->generationID;
    }
    record.promptTokens = usage.promptTokens;
    record.completionTokens = usage.completionTokens;
    record.cachedPromptTokens = usage.cachedPromptTokens;
    record.reasoningTokens = usage.reasoningTokens;
    record.costUSD = usage.costUSD;
    record.callCount = usage.callCount;
    record.servedByFallback = response.servedByFallback;
    record.buildVersion = std::move(buildVersion);
    return record;
}

JSONValue::Object TurnUsageRecord::encoded() const {
    JSONValue::Object row{{"v", v},
                          {"at_ms", atMs},
                          {"layer", layer},
                          {"prompt_tokens", promptTokens},
                          {"completion_tokens", completionTokens},
                          {"call_count", callCount},
                          {"served_by_fallback", servedByFallback}};
    if (provider) row["provider"] = *provider;
    if (servedModel) row["served_model"] = *servedModel;
    if (generationID) row["generation_id"] = *generationID;
    if (cachedPromptTokens) row["cached_prompt_tokens"] = *cachedPromptTokens;
    if (reasoningTokens) row["reasoning_tokens"] = *reasoningTokens;
    if (costUSD) row["cost_usd"] = *costUSD;
    if (buildVersion) row["build_version"] = *buildVersion;
    return row;
}

namespace {

std::optional<int64_t> integer(const JSONValue& object, const char* key) {
    const JSONValue* value = object.member(key);
    const double* number = value ? value->numberIfAny() : nullptr;
    if (!number || *number != std::trunc(*number)) return std::nullopt;
    return static_cast<int64_t>(*number);
}

std::optional<std::string> text(const JSONValue& object, const char* key) {
    const JSONValue* value = object.member(key);
    return value && value->stringIfAny() ? std::optional(*value->stringIfAny()) : std::nullopt;
}

}  // namespace

std::optional<TurnUsageRecord> TurnUsageRecord::decode(const JSONValue& value) {
    if (!value.isObject()) return std::nullopt;
    TurnUsageRecord record;
    auto v = integer(value, "v"), atMs = integer(value, "at_ms"), prompt = integer(value, "prompt_tokens"),
         completion = integer(value, "completion_tokens"), calls = integer(value, "call_count");
    auto layer = text(value, "layer");
    const JSONValue* fallback = value.member("served_by_fallback");
    const bool* fallbackFlag = fallback ? std::get_if<bool>(&fallback->value) : nullptr;
    if (!v || !atMs || !prompt || !completion || !calls || !layer || !fallbackFlag) return std::nullopt;
    record.v = *v;
    record.atMs = *atMs;
    record.layer = *layer;
    record.promptTokens = *prompt;
    record.completionTokens = *completion;
    record.callCount = *calls;
    record.servedByFallback = *fallbackFlag;
    record.provider = text(value, "provider");
    record.servedModel = text(value, "served_model");
    record.generationID = text(value, "generation_id");
    record.cachedPromptTokens = integer(value, "cached_prompt_tokens");
    record.reasoningTokens = integer(value, "reasoning_tokens");
    if (const JSONValue* cost = value.member("cost_usd"); cost && cost->numberIfAny()) record.costUSD = *cost->numberIfAny();
    record.buildVersion = text(value, "build_version");
    return record;
}

void TurnUsageRecord::append(const std::filesystem::path& dataRoot) const {
    JSONLAppend::append(encoded(), dataRoot / fileName);
}

namespace TurnUsageLog {

std::string line(const std::optional<ChatUsage>& usage) {
    if (!usage)
        return "usage: none reported (expected on the local model; on openrouter it means the response carried no "
               "usage block)";
    std::string out = "usage: prompt=" + std::to_string(usage->promptTokens);
    if (usage->cachedPromptTokens) {
        char rate[32];
        std::snprintf(rate, sizeof rate, "%.0f%%", usage->cacheHitRate() * 100.0);
        out += " (cached " + std::to_string(*usage->cachedPromptTokens) + ", " + rate + ")";
    }
    out += " completion=" + std::to_string(usage->completionTokens);
    if (usage->reasoningTokens) out += " (reasoning " + std::to_string(*usage->reasoningTokens) + ")";
    out += " calls=" + std::to_string(usage->callCount);
    if (usage->costUSD) {
        char cost[32];
        std::snprintf(cost, sizeof cost, "%.6f", *usage->costUSD);
        out += " cost=$" + std::string(cost);
    }
    return out;
}

}  // namespace TurnUsageLog
}  // namespace aimwise
