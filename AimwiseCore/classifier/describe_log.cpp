#include "AimwiseCore/classifier/describe_log.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/json_value.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/saturating.h"

namespace aimwise::ClassifierDescribeLog {

namespace {

std::optional<int64_t> integer(const JSONValue& object, const char* key) {
    const JSONValue* value = object.member(key);
    const double* number = value ? value->numberIfAny() : nullptr;
    if (!number || !std::isfinite(*number) || std::abs(*number) > 9.0e15) return std::nullopt;
    return static_cast<int64_t>(*number);
}

std::optional<Row> decode(std::string_view line) {
    const auto parsed = JSONValue::tryParse(line);
    if (!parsed || !parsed->isObject()) return std::nullopt;
    const auto atMs = integer(*parsed, "atMs");
    const JSONValue* describe = parsed->member("describe");
    if (!atMs || !describe || !describe->stringIfAny()) return std::nullopt;
    Row row;
    row.v = static_cast<int>(integer(*parsed, "v").value_or(1));
    row.atMs = *atMs;
    row.describe = *describe->stringIfAny();
    row.ocrChars = integer(*parsed, "ocrChars").value_or(0);
    if (const JSONValue* model = parsed->member("model"); model && model->stringIfAny()) row.model = *model->stringIfAny();
    row.screenshotAtMs = integer(*parsed, "screenshotAtMs");
    if (const JSONValue* source = parsed->member("textSource"); source && source->stringIfAny())
        row.textSource = *source->stringIfAny();
    return row;
}

}  // namespace

std::vector<Row> read(const std::filesystem::path& path) {
    std::vector<Row> rows;
    std::string data;
    try {
        data = readFileTail(path, ReadLimit::log);
    } catch (const std::exception&) {
        return rows;
    }
    forEachLine(data, [&](std::string_view line) {
        if (auto row = decode(line)) rows.push_back(std::move(*row));
    });
    std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.atMs < b.atMs; });
    return rows;
}

std::optional<Row> nearest(const std::vector<Row>& sortedRows, int64_t atMs, int64_t toleranceMs) {
    const auto after = std::lower_bound(sortedRows.begin(), sortedRows.end(), atMs,
                                        [](const Row& row, int64_t ms) { return row.atMs < ms; });
    const Row* best = nullptr;
    if (after != sortedRows.begin()) best = &*std::prev(after);
    using Saturating::subtract;
    if (after != sortedRows.end() && (!best || subtract(after->atMs, atMs) < subtract(atMs, best->atMs))) best = &*after;
    if (!best || std::max(subtract(best->atMs, atMs), subtract(atMs, best->atMs)) > toleranceMs) return std::nullopt;
    return *best;
}

std::optional<Row> nearest(int64_t atMs, const std::filesystem::path& path, int64_t toleranceMs) {
    return nearest(read(path), atMs, toleranceMs);
}

}  // namespace aimwise::ClassifierDescribeLog
