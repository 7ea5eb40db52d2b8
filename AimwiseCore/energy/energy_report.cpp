#include "AimwiseCore/energy/energy_report.h"

#include <algorithm>
#include <ctime>

#include "AimwiseCore/energy/battery_energy.h"

namespace aimwise::ClassifierEnergyReport {

namespace {

using BatteryEnergy::Unmeasured;

struct Point {
    int64_t atMs;
    const PowerSource::BatteryReading* reading;
    bool onBattery;
};

struct Span {
    int64_t startMs, endMs;
};

bool hasCounters(const PowerSource::BatteryReading& reading) {
    return reading.energyMwh || (reading.chargeMah && reading.voltageMv);
}

// The wall clock went back, or forward by more than the run lasted: its span cannot be placed.
inline constexpr int64_t clockSlackMs = 60'000;

bool clockJumped(const EnergyRow& row) {
    if (!row.startMs || !row.endMs) return false;
    if (*row.endMs < *row.startMs) return true;
    return row.wallMs && *row.endMs - *row.startMs > *row.wallMs + clockSlackMs;
}

std::optional<Span> readingSpan(const EnergyRow& row) {
    if (!row.startMs || !row.endMs || clockJumped(row)) return std::nullopt;
    return Span{*row.startMs, *row.endMs};
}

// The monotonic duration when the row has one; a wall-clock one only when it runs forwards.
std::optional<int64_t> runTime(const EnergyRow& row) {
    if (row.wallMs && *row.wallMs >= 0) return row.wallMs;
    if (const auto span = readingSpan(row)) return span->endMs - span->startMs;
    return std::nullopt;
}

std::optional<int64_t> runCPU(const EnergyRow& row) {
    if (!row.cpuMs && !row.childCpuMs) return std::nullopt;
    return std::max<int64_t>(0, row.cpuMs.value_or(0)) + std::max<int64_t>(0, row.childCpuMs.value_or(0));
}

// Spans in which some work other than a skip ran, merged and sorted.
std::vector<Span> workSpans(const std::vector<const EnergyRow*>& rows) {
    std::vector<Span> spans;
    for (const EnergyRow* row : rows)
        if (row->kind != EnergyKind::skipped)
            if (const auto span = readingSpan(*row)) spans.push_back(*span);
    std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) { return a.startMs < b.startMs; });
    std::vector<Span> merged;
    for (const Span& span : spans) {
        if (!merged.empty() && span.startMs <= merged.back().endMs) merged.back().endMs = std::max(merged.back().endMs, span.endMs);
        else merged.push_back(span);
    }
    return merged;
}

bool covered(const std::vector<Span>& spans, int64_t fromMs, int64_t toMs) {
    auto it = std::upper_bound(spans.begin(), spans.end(), fromMs,
                               [](int64_t at, const Span& span) { return at < span.startMs; });
    if (it == spans.begin()) return false;
    --it;
    return it->startMs <= fromMs && toMs <= it->endMs;
}

class Builder {
public:
    Builder(Report& report) : report_(report) {}

    size_t dayOf(int64_t atMs) const {
        const auto& days = report_.days;
        const auto it = std::upper_bound(days.begin(), days.end(), atMs,
                                         [](int64_t at, const Day& day) { return at < day.startMs; });
        return it == days.begin() ? 0 : static_cast<size_t>(it - days.begin() - 1);
    }

    void count(const EnergyRow& row) {
        Figures& day = report_.perDay[dayOf(row.atMs)];
        for (Figures* figures : {&day, &report_.total}) {
            switch (row.kind) {
                case EnergyKind::judged: ++figures->judged; break;
                case EnergyKind::skipped: ++figures->skipped; break;
                case EnergyKind::gate: ++figures->gates; break;
                case EnergyKind::turn: ++figures->turns; break;
                case EnergyKind::pass: ++figures->passes; break;
            }
            if (const auto cpu = runCPU(row)) {
                figures->cpuMs += *cpu;
                figures->cpuMeasured = true;
            }
        }
        if (clockJumped(row)) ++report_.runsWithClockJump;
        if (row.kind == EnergyKind::skipped) return;

        const BatteryEnergy::Drawn drawn = BatteryEnergy::drawnDuringRun(row.before, row.after, row.onAC);
        std::optional<double> energy;
        if (const double* mwh = std::get_if<double>(&drawn)) energy = *mwh;
        const auto unmeasured = std::get_if<Unmeasured>(&drawn);
        if (unmeasured && (*unmeasured == Unmeasured::differentBattery || *unmeasured == Unmeasured::rose))
            ++report_.runsWithMismatchedReadings;
        if (row.kind == EnergyKind::judged) {
            for (Figures* figures : {&day, &report_.total}) {
                if (energy) figures->checkEnergyMwh.push_back(*energy);
                if (unmeasured && *unmeasured == Unmeasured::onAC) ++figures->checksOnAC;
                if (const auto time = runTime(row)) figures->checkTimeMs.push_back(static_cast<double>(*time));
                if (const auto cpu = runCPU(row)) figures->checkCpuMs.push_back(static_cast<double>(*cpu));
            }
        }
        candidates_.push_back({&row, energy, runTime(row), runCPU(row)});
    }

    // Consecutive readings on battery, in time order, tell what the battery gave; those inside a
    // span of work tell what it gave while the work ran.
    void followBattery(const std::vector<const EnergyRow*>& rows) {
        std::vector<Point> points;
        std::vector<double> capacities;
        for (const EnergyRow* row : rows) {
            if (clockJumped(*row)) continue;
            const auto add = [&](const std::optional<PowerSource::BatteryReading>& reading, std::optional<int64_t> at) {
                if (!reading) return;
                if (hasCounters(*reading)) sawCounters_ = true;
                if (const auto full = BatteryEnergy::fullMwh(*reading)) capacities.push_back(*full);
                points.push_back({at.value_or(row->atMs), &*reading, BatteryEnergy::onBattery(*reading, row->onAC)});
            };
            add(row->before, row->startMs);
            add(row->after, row->endMs);
        }
        std::stable_sort(points.begin(), points.end(), [](const Point& a, const Point& b) { return a.atMs < b.atMs; });
        report_.fullBatteryMwh = median(capacities);

        const std::vector<Span> spans = workSpans(rows);
        for (size_t i = 0; i + 1 < points.size(); ++i) {
            const Point& from = points[i];
            const Point& to = points[i + 1];
            const int64_t gapMs = to.atMs - from.atMs;
            if (!from.onBattery || !to.onBattery || gapMs <= 0) continue;
            const bool duringWork = covered(spans, from.atMs, to.atMs);
            if (!duringWork && gapMs > maxReadingGapMs) continue;
            const BatteryEnergy::Drawn drawn = BatteryEnergy::drawn(*from.reading, *to.reading);
            if (const auto unmeasured = std::get_if<Unmeasured>(&drawn)) {
                if (*unmeasured == Unmeasured::differentBattery) ++report_.batteryChanges;
                continue;
            }
            const double mwh = std::get<double>(drawn);
            report_.batteryGaveMwh += mwh;
            report_.onBatteryMs += gapMs;
            if (!duringWork) continue;
            for (Figures* figures : {&report_.perDay[dayOf(from.atMs)], &report_.total}) {
                figures->workMwh += mwh;
                figures->workMeasured = true;
            }
        }
    }

    bool sawCounters() const { return sawCounters_; }

    // The costliest by energy when anything was measured, else by CPU time; ties go to the earlier.
    void pickCostliest() {
        const bool byEnergy = std::any_of(candidates_.begin(), candidates_.end(),
                                          [](const Candidate& run) { return run.energyMwh.has_value(); });
        const auto cost = [byEnergy](const Candidate& run) -> std::optional<double> {
            if (byEnergy) return run.energyMwh;
            if (run.cpuMs && *run.cpuMs > 0) return static_cast<double>(*run.cpuMs);
            return std::nullopt;
        };
        std::erase_if(candidates_, [&](const Candidate& run) { return !cost(run); });
        const size_t shown = std::min(expensiveRunsShown, candidates_.size());
        std::partial_sort(candidates_.begin(), candidates_.begin() + static_cast<std::ptrdiff_t>(shown),
                          candidates_.end(), [&](const Candidate& a, const Candidate& b) {
                              if (*cost(a) != *cost(b)) return *cost(a) > *cost(b);
                              return a.row->atMs < b.row->atMs;
                          });
        report_.costliestByEnergy = byEnergy;
        for (size_t i = 0; i < shown; ++i) {
            const Candidate& run = candidates_[i];
            report_.costliest.push_back({*run.row, run.energyMwh, run.timeMs, run.cpuMs});
        }
    }

private:
    struct Candidate {
        const EnergyRow* row;
        std::optional<double> energyMwh;
        std::optional<int64_t> timeMs;
        std::optional<int64_t> cpuMs;
    };

    Report& report_;
    std::vector<Candidate> candidates_;
    bool sawCounters_ = false;
};

}  // namespace

std::optional<double> median(std::vector<double> values) {
    if (values.empty()) return std::nullopt;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2 == 1) return *middle;
    return (*std::max_element(values.begin(), middle) + *middle) / 2.0;
}

std::vector<Day> localDays(int64_t nowMs, int count) {
    std::vector<Day> days;
    const time_t now = static_cast<time_t>(nowMs >= 0 ? nowMs / 1000 : (nowMs - 999) / 1000);
    std::tm today{};
    localtime_r(&now, &today);
    for (int back = count - 1; back >= 0; --back) {
        std::tm day = today;
        day.tm_mday -= back;
        day.tm_hour = day.tm_min = day.tm_sec = 0;
        day.tm_isdst = -1;
        const time_t start = std::mktime(&day);
        char label[32];
        std::strftime(label, sizeof label, "%a %d %b", &day);
        days.push_back({static_cast<int64_t>(start) * 1000, 0, label});
    }
    for (size_t i = 0; i + 1 < days.size(); ++i) days[i].endMs = days[i + 1].startMs;
    if (!days.empty()) days.back().endMs = nowMs + 1;
    return days;
}

Report build(const EnergyRowsReader::Result& input, std::vector<Day> days, int64_t nowMs) {
    Report report;
    report.days = std::move(days);
    report.nowMs = nowMs;
    report.perDay.resize(report.days.size());
    report.unreadableLines = input.unreadableLines;
    report.unreadableFiles = input.unreadableFiles;
    if (report.days.empty()) return report;

    std::vector<const EnergyRow*> inPeriod;
    for (const EnergyRow& row : input.rows)
        if (row.atMs >= report.days.front().startMs && row.atMs < report.days.back().endMs) inPeriod.push_back(&row);
    // Files interleave and clocks go back: the report's own order is by time, then by file order.
    std::stable_sort(inPeriod.begin(), inPeriod.end(),
                     [](const EnergyRow* a, const EnergyRow* b) { return a->atMs < b->atMs; });

    Builder builder(report);
    std::vector<int64_t> useSpans;
    for (const EnergyRow* row : inPeriod) {
        builder.count(*row);
        useSpans.push_back(row->atMs / useSpanMs);
    }
    useSpans.erase(std::unique(useSpans.begin(), useSpans.end()), useSpans.end());
    report.useMs = static_cast<int64_t>(useSpans.size()) * useSpanMs;
    builder.followBattery(inPeriod);

    builder.pickCostliest();
    if (!builder.sawCounters()) report.counters = Counters::none;
    else if (report.onBatteryMs == 0 && !report.costliestByEnergy) report.counters = Counters::onACOnly;
    else report.counters = Counters::present;
    return report;
}

std::string live(const std::filesystem::path& dataRoot, int64_t nowMs, int days) {
    std::vector<Day> calendar = localDays(nowMs, days);
    const int64_t sinceMs = calendar.empty() ? nowMs : calendar.front().startMs;
    std::error_code error;
    const bool exists = std::filesystem::is_directory(dataRoot, error);
    const EnergyRowsReader::Result rows =
        exists ? EnergyRowsReader::read(dataRoot, sinceMs, nowMs) : EnergyRowsReader::Result{};
    return render(build(rows, std::move(calendar), nowMs), dataRoot, exists);
}

}  // namespace aimwise::ClassifierEnergyReport
