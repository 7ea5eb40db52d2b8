#include "AimwiseCore/classifier/reason_label_writer.h"

#include <array>

#include "AimwiseCore/events/jsonl_append.h"

namespace aimwise::ReasonLabelWriter {

namespace {

constexpr std::array<std::pair<Rule, std::string_view>, 3> ruleNames = {{
    {Rule::citedAbsentEvidence, "cited_absent_evidence"},
    {Rule::topicNotMoment, "topic_not_moment"},
    {Rule::inaccurate, "inaccurate"},
}};

}  // namespace

std::string_view rawValue(Rule rule) {
    for (const auto& [candidate, name] : ruleNames)
        if (candidate == rule) return name;
    return {};
}

std::optional<Rule> ruleFromRawValue(std::string_view text) {
    for (const auto& [rule, name] : ruleNames)
        if (name == text) return rule;
    return std::nullopt;
}

void append(const Entry& entry, const std::filesystem::path& to) {
    JSONValue::Object row{{"v", 1},
                          {"moment_ms", entry.momentMs},
                          {"state", entry.state},
                          {"reason", entry.reason},
                          {"created_at", entry.createdAt},
                          {"source", entry.source}};
    if (const auto* wrong = std::get_if<ReasonWasWrong>(&entry.judgement)) {
        row["judgement"] = "reason_was_wrong";
        row["rule"] = std::string(rawValue(wrong->rule));
    } else {
        row["judgement"] = "reason_was_right";
    }
    JSONLAppend::append(row, to);
}

}  // namespace aimwise::ReasonLabelWriter
