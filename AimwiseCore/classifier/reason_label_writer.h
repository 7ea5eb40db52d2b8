#pragma once
// Judgments on whether a classifier's reason was sound, kept apart from the labels of what the
// person was doing: a right verdict can rest on a wrong reason. One JSON line each in
// reason-human-labels.jsonl.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace aimwise::ReasonLabelWriter {

inline constexpr const char* fileName = "reason-human-labels.jsonl";

// How a reason went wrong.
enum class Rule {
    citedAbsentEvidence,  // it named something that was not on the screen
    topicNotMoment,       // it judged the topic, not what this moment was
    inaccurate,
};
std::string_view rawValue(Rule rule);
std::optional<Rule> ruleFromRawValue(std::string_view text);

struct ReasonWasWrong {
    Rule rule;
    bool operator==(const ReasonWasWrong&) const = default;
};
struct ReasonWasRight {
    bool operator==(const ReasonWasRight&) const = default;
};
using Judgement = std::variant<ReasonWasWrong, ReasonWasRight>;

struct Entry {
    int64_t momentMs = 0;  // the instant the reason was given for
    std::string state;     // the verdict the reason explained
    std::string reason;
    Judgement judgement;
    std::string createdAt;
    std::string source = "in_app_ramp";
};

// Throws what JSONLAppend::append throws.
void append(const Entry& entry, const std::filesystem::path& to);

}  // namespace aimwise::ReasonLabelWriter
