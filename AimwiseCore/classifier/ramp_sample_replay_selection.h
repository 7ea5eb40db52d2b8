#pragma once
// Which hand label of a moment is scored. A person who revised an answer after seeing the verdict
// was anchored on it, so by default the answer given blind counts, and the revision is only counted.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace aimwise {

namespace RampLabelSubmission {
// Stored in `notes` of a revision made after the verdict was shown.
inline constexpr const char* revisedAfterRevealNote = "revised AFTER reveal — anchored on the classifier's verdict";
inline constexpr const char* source = "in_app_ramp";
}  // namespace RampLabelSubmission

namespace RampSampleReplaySelection {

struct Row {
    int64_t id = 0;
    int64_t t0Ms = 0;  // the raw t0_ms, never a corrected one
    std::optional<std::string> source{};
    std::optional<std::string> notes{};
    std::optional<bool> answeredBlind{};
    std::string createdAt;
    bool operator==(const Row&) const = default;
};

// Rows from before the flag count as blind unless their note says they were revised after reveal.
bool isBlind(const Row& row);
// One row per moment (t0 and source): the newest blind answer, or with `preferBlind` false, the
// newest answer. A moment with no blind answer still scores with its newest. Order unspecified.
std::vector<Row> selectForScoring(const std::vector<Row>& rows, bool preferBlind);
// Moments with a blind answer whose newest answer is a revision that blind scoring leaves out.
int groupsWithExcludedRevision(const std::vector<Row>& rows);

}  // namespace RampSampleReplaySelection
}  // namespace aimwise
