#pragma once
// One line of checker-log.jsonl: a judged verdict.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace aimwise {

struct ClassifierFrameInstant {
    enum class Source { screenshot, loggedAtFallback };
    int64_t ms = 0;
    Source source = Source::screenshot;

    static std::string rawValue(Source source);
    // A sentence for a reviewer on how far the frame can be trusted to show what was judged.
    std::string disclosure(std::optional<int64_t> loggedAtMs) const;
    bool operator==(const ClassifierFrameInstant&) const = default;
};

struct ClassifierTick {
    std::string at;  // local wall-clock time, as ProjectionDateParsing::parseLocal reads it
    std::optional<std::string> state;
    std::optional<std::string> frontmostApp;
    std::optional<std::string> frontmostWindowTitle;
    std::optional<std::string> browserTitle;
    std::optional<std::string> reason;
    std::optional<double> confidence;
    std::optional<std::string> declaredTask;
    std::optional<std::string> model;
    std::optional<int64_t> screenshotAtMs;
    std::optional<std::string> reasonCheck;
    std::optional<std::string> contentWithheldForDenylist;

    std::optional<int64_t> atMs() const;
    std::optional<ClassifierFrameInstant> frameInstant() const;

    // `at` is required; an optional of the wrong type fails the line; null counts as absent.
    static std::optional<ClassifierTick> decode(std::string_view line);
    // Compact JSON without a newline; absent optionals are omitted. Throws JSONValueError for a
    // non-finite confidence or text that is not UTF-8.
    std::string encoded() const;

    bool operator==(const ClassifierTick&) const = default;
};

}  // namespace aimwise
