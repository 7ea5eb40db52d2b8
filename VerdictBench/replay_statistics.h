#pragma once
// The statistics replay reports: an interval for every accuracy, an exact paired test, and recall
// per class so that a skewed label mix cannot pass for a good classifier.
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace aimwise::ReplayStatistics {

// Counts keyed "ground truth->prediction".
using Confusion = std::map<std::string, int>;

struct Interval {
    double lower = 0;
    double upper = 0;
};

// The Wilson score interval at 95%; nothing for a total of 0 or less.
std::optional<Interval> wilson95(int successes, int total);
// "[12.3%, 45.6%]", or "n/a".
std::string formatCI(const std::optional<Interval>& interval);
// Exact two-sided binomial test at one half, as McNemar's test on the discordant pairs.
double twoSidedSignTestP(int successes, int trials);

struct ClassRecall {
    std::string label;
    int correct = 0;
    int total = 0;
    bool operator==(const ClassRecall&) const = default;
};
struct Recall {
    std::vector<ClassRecall> recalls;  // ascending label order
    std::optional<double> balanced;    // mean recall over classes that have points
};
Recall perClassRecall(const Confusion& confusion);
// Nothing when no class has points.
std::string renderPerClassRecall(const Confusion& confusion, const std::string& arm);
// "  key: count" per key, ascending.
std::string renderConfusion(const Confusion& confusion);

}  // namespace aimwise::ReplayStatistics
