// `shadow-compare [tolerance-minutes]`: the shadow verdicts lined up against the classifier log, so
// that two classifier implementations can be compared on live data.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>

#include <fmt/format.h>

#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/json_value.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "VerdictBench/cli.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

namespace {

constexpr double defaultToleranceMs = 600'000;

// One object per line that decodes; everything else is passed over.
std::vector<JSONValue> readJSONLRecords(const std::filesystem::path& path) {
    std::vector<JSONValue> records;
    std::string data;
    try {
        data = readFileTail(path, ReadLimit::log);
    } catch (const std::exception&) {
        return records;
    }
    forEachLine(data, [&](std::string_view line) {
        if (auto value = JSONValue::tryParse(line); value && value->isObject()) records.push_back(std::move(*value));
    });
    return records;
}

double toleranceMs(const std::optional<std::string>& argument) {
    if (!argument) return defaultToleranceMs;
    double minutes = 0;
    const char* end = argument->data() + argument->size();
    const auto [stop, error] = std::from_chars(argument->data(), end, minutes);
    if (error != std::errc() || stop != end || !std::isfinite(minutes) || minutes < 0) return defaultToleranceMs;
    return minutes * 60000.0;
}

std::string text(const JSONValue& record, const char* key) {
    const JSONValue* value = record.member(key);
    return value && value->stringIfAny() ? *value->stringIfAny() : std::string();
}

struct CheckerRecord {
    int64_t atMs = 0;
    std::string state;
};

}  // namespace

int runShadowCompare(const cli::Invocation& invocation) {
    const double tolerance =
        toleranceMs(invocation.positional.empty() ? std::nullopt : std::optional(invocation.positional.front()));
    const auto root = DataPaths::dataRoot();
    const auto shadow = readJSONLRecords(root / "classifier-shadow.jsonl");
    std::vector<CheckerRecord> checker;
    for (const JSONValue& record : readJSONLRecords(root / "checker-log.jsonl"))
        if (auto atMs = ProjectionDateParsing::parseLocal(text(record, "at"))) checker.push_back({*atMs, text(record, "state")});

    if (shadow.empty()) throw cli::Failure("nothing to compare — run `bench run VerdictBench shadow` a few times first");
    if (checker.empty()) throw cli::Failure("checker-log.jsonl has no parseable records — nothing to compare against");
    std::stable_sort(checker.begin(), checker.end(), [](const auto& a, const auto& b) { return a.atMs < b.atMs; });

    int matched = 0, agreed = 0;
    std::map<std::string, int> confusion;
    for (const JSONValue& record : shadow) {
        const JSONValue* ts = record.member("tsMs");
        const JSONValue* state = record.member("state");
        if (!ts || !ts->numberIfAny() || !state || !state->stringIfAny()) continue;
        const double tsMs = *ts->numberIfAny();
        // The nearest checker record; of two at the same distance, the earlier.
        const auto after = std::lower_bound(checker.begin(), checker.end(), tsMs,
                                            [](const CheckerRecord& c, double ms) { return c.atMs < ms; });
        const CheckerRecord* best = after == checker.begin() ? nullptr : &*std::prev(after);
        if (after != checker.end() && (!best || after->atMs - tsMs < tsMs - best->atMs)) best = &*after;
        if (!best || std::abs(best->atMs - tsMs) > tolerance) continue;
        ++matched;
        if (best->state == *state->stringIfAny()) ++agreed;
        ++confusion[best->state + "->" + *state->stringIfAny()];
    }

    std::string out = fmt::format("shadow records:  {}\nchecker records: {}\nmatched (within {} min): {}\n",
                                  shadow.size(), checker.size(), static_cast<int64_t>(tolerance / 60000.0), matched);
    const std::string share = matched > 0 ? fmt::format("{:.1f}%", 100.0 * agreed / matched) : "n/a";
    out += fmt::format("agreed:                     {} / {}  ({})\n", agreed, matched, share);
    out += "confusion (legacy->bench):\n";
    for (const auto& [pair, count] : confusion) out += fmt::format("  {}: {}\n", pair, count);
    std::fputs(out.c_str(), stdout);
    return 0;
}

}  // namespace aimwise::verbs
