#pragma once
// Reading labels.sqlite for scoring: every row with its effective span (corrected timestamps from
// labels_remapped overlaid, the raw table never changed), and the points that replay scores.
// Files from older versions lack columns and tables; the statements adapt to what is there.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/classifier/ramp_sample_replay_selection.h"
#include "CaptureShared/common/error.h"

namespace aimwise::LabeledPoints {

class ReadError : public Error {
public:
    enum class Kind { openFailed, prepareFailed };
    ReadError(Kind kind, std::string detail) : Error(std::move(detail)), kind_(kind) {}
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

struct LabeledPoint {
    int64_t id = 0;
    int64_t t0Ms = 0;  // effective
    int64_t t1Ms = 0;  // effective
    std::optional<std::string> declaredTask{};
    std::string label;
    bool remapped = false;
    bool operator==(const LabeledPoint&) const = default;
};

// One row of the query, in its column order.
struct FetchedRow {
    int64_t id = 0;
    int64_t rawT0 = 0;
    int64_t effT0 = 0;
    int64_t effT1 = 0;
    std::optional<std::string> declaredTask{};
    std::string label;  // NULL reads as ""
    bool remapped = false;
    std::optional<std::string> source{};
    std::optional<std::string> notes{};
    std::optional<bool> answeredBlind{};
    std::string createdAt;  // NULL reads as ""

    RampSampleReplaySelection::Row selectionRow() const;
    LabeledPoint point() const;
};

struct Result {
    std::vector<LabeledPoint> points;
    int remappedCount = 0;
    int excludedRevisionCount = 0;
};

// The classifier state a label word is scored as; nothing for "ambiguous" and unknown words.
// "on_task_overtime" deliberately scores as NOT_ALIGNED: the person ran past their own estimate.
std::optional<std::string> groundTruth(std::string_view label);

// The text of the query, for the file's columns and tables.
std::string query(bool overlay, bool hasSource, bool hasAnsweredBlind, bool preferBlind);

// Every row in effective start order, read through a read-only open. With `preferBlind` false and
// a source column, only the newest row of each moment. Throws ReadError.
std::vector<FetchedRow> fetchRows(const std::filesystem::path& path, bool preferBlind);

// The rows chosen for scoring, then `offset` of them skipped and at most `limit` kept. Throws ReadError.
Result readLabeledPoints(const std::filesystem::path& path, int64_t limit, int64_t offset, bool preferBlind);

}  // namespace aimwise::LabeledPoints
