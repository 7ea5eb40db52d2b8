#include "VerdictBench/replay_statistics.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

namespace aimwise::ReplayStatistics {

namespace {
constexpr double zSquared = 3.8416;
constexpr double ln2 = 0.6931471805599453;
}  // namespace

std::optional<Interval> wilson95(int successes, int total) {
    if (total <= 0) return std::nullopt;
    const double n = total;
    const double p = successes / n;
    const double denominator = 1 + zSquared / n;
    const double centre = p + zSquared / (2 * n);
    const double margin = 1.96 * std::sqrt(zSquared / (4 * n * n) + p * (1 - p) / n);
    Interval interval{std::max(0.0, (centre - margin) / denominator), std::min(1.0, (centre + margin) / denominator)};
    // At no and at all successes the bound is exactly 0 or 1; rounding leaves it a hair inside.
    if (successes <= 0) interval.lower = 0;
    if (successes >= total) interval.upper = 1;
    return interval;
}

std::string formatCI(const std::optional<Interval>& interval) {
    if (!interval) return "n/a";
    return fmt::format("[{:.1f}%, {:.1f}%]", interval->lower * 100, interval->upper * 100);
}

double twoSidedSignTestP(int successes, int trials) {
    if (trials < 1) return 1.0;
    const int k = std::min(successes, trials - successes);
    // ln m! as a plain running sum, for m up to n.
    std::vector<double> logFactorial(static_cast<size_t>(trials) + 1, 0.0);
    for (int m = 2; m <= trials; ++m) logFactorial[m] = logFactorial[m - 1] + std::log(static_cast<double>(m));
    double sum = 0;
    for (int i = 0; i <= k; ++i)
        sum += std::exp(logFactorial[trials] - logFactorial[i] - logFactorial[trials - i] - trials * ln2);
    return std::min(2 * sum, 1.0);
}

Recall perClassRecall(const Confusion& confusion) {
    std::map<std::string, ClassRecall> classes;
    for (const auto& [key, count] : confusion) {
        const size_t arrow = key.find("->");
        if (arrow == std::string::npos || key.find("->", arrow + 2) != std::string::npos) continue;
        const std::string truth = key.substr(0, arrow);
        ClassRecall& entry = classes[truth];
        entry.label = truth;
        entry.total += count;
        if (key.substr(arrow + 2) == truth) entry.correct += count;
    }
    Recall recall;
    double sum = 0;
    int counted = 0;
    for (auto& [label, entry] : classes) {
        if (entry.total > 0) {
            sum += static_cast<double>(entry.correct) / entry.total;
            ++counted;
        }
        recall.recalls.push_back(entry);
    }
    if (counted > 0) recall.balanced = sum / counted;
    return recall;
}

std::string renderPerClassRecall(const Confusion& confusion, const std::string& arm) {
    const Recall recall = perClassRecall(confusion);
    if (!recall.balanced) return {};
    std::string out = "per-class recall (" + arm + "):\n";
    for (const ClassRecall& entry : recall.recalls) {
        const std::string percent =
            entry.total < 1 ? "n/a" : fmt::format("{:.1f}", 100.0 * entry.correct / entry.total);
        out += fmt::format("  {}: {}/{}  ({}%)\n", entry.label, entry.correct, entry.total, percent);
    }
    out += fmt::format("  balanced accuracy (mean per-class recall): {:.1f}%  <- compare this across arms, NOT raw "
                       "accuracy\n",
                       *recall.balanced * 100);
    return out;
}

std::string renderConfusion(const Confusion& confusion) {
    std::string out;
    for (const auto& [key, count] : confusion) out += fmt::format("  {}: {}\n", key, count);
    return out;
}

}  // namespace aimwise::ReplayStatistics
