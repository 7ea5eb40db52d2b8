#include "AimwiseCore/classifier/ramp_sample_replay_selection.h"

#include <map>
#include <string_view>

namespace aimwise::RampSampleReplaySelection {

namespace {

// A NUL first, so that no real source can spell it.
constexpr std::string_view absentSourceSentinel{"\0NULL", 5};

std::map<std::string, std::vector<const Row*>> groups(const std::vector<Row>& rows) {
    std::map<std::string, std::vector<const Row*>> grouped;
    for (const Row& row : rows) {
        std::string key = std::to_string(row.t0Ms);
        key += '|';
        key += row.source ? std::string_view(*row.source) : absentSourceSentinel;
        grouped[key].push_back(&row);
    }
    return grouped;
}

// createdAt compares as text; the greater id breaks a tie.
bool newer(const Row& a, const Row& b) {
    if (a.createdAt != b.createdAt) return a.createdAt > b.createdAt;
    return a.id > b.id;
}

const Row* newest(const std::vector<const Row*>& rows) {
    const Row* best = nullptr;
    for (const Row* row : rows)
        if (!best || newer(*row, *best)) best = row;
    return best;
}

}  // namespace

bool isBlind(const Row& row) {
    if (row.answeredBlind) return *row.answeredBlind;
    if (row.source == RampLabelSubmission::source && row.notes)
        return row.notes->find(RampLabelSubmission::revisedAfterRevealNote) == std::string::npos;
    return true;
}

std::vector<Row> selectForScoring(const std::vector<Row>& rows, bool preferBlind) {
    std::vector<Row> chosen;
    for (const auto& [key, group] : groups(rows)) {
        std::vector<const Row*> candidates;
        if (preferBlind) {
            for (const Row* row : group)
                if (isBlind(*row)) candidates.push_back(row);
        }
        if (candidates.empty()) candidates = group;
        chosen.push_back(*newest(candidates));
    }
    return chosen;
}

int groupsWithExcludedRevision(const std::vector<Row>& rows) {
    int count = 0;
    for (const auto& [key, group] : groups(rows)) {
        bool anyBlind = false;
        for (const Row* row : group) anyBlind = anyBlind || isBlind(*row);
        if (anyBlind && !isBlind(*newest(group))) ++count;
    }
    return count;
}

}  // namespace aimwise::RampSampleReplaySelection
