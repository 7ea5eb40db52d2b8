#pragma once
// Reading classifier-describe.jsonl, the model's sentence about each window a judgment saw. The tick
// appends its rows; reviews look up the one nearest a moment.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace aimwise::ClassifierDescribeLog {

inline constexpr const char* fileName = "classifier-describe.jsonl";

struct Row {
    int v = 1;
    int64_t atMs = 0;
    std::string describe;
    int64_t ocrChars = 0;
    std::string model;
    std::optional<int64_t> screenshotAtMs{};
    // Where the window's text came from: "accessibility", "ocr" or "none"; empty in older rows.
    std::string textSource{};
    bool operator==(const Row&) const = default;
};

// Every row that decodes, sorted by atMs; a missing or unreadable file gives none.
std::vector<Row> read(const std::filesystem::path& path);
// The row whose atMs is nearest, within the tolerance; the earlier on a tie.
std::optional<Row> nearest(const std::vector<Row>& sortedRows, int64_t atMs, int64_t toleranceMs);
std::optional<Row> nearest(int64_t atMs, const std::filesystem::path& path, int64_t toleranceMs);

}  // namespace aimwise::ClassifierDescribeLog
