#include "AimwiseCore/energy/energy_report.h"

#include <algorithm>
#include <ctime>

#include "AimwiseCore/energy/battery_energy.h"

namespace aimwise::ClassifierEnergyReport {

namespace {

using BatteryEnergy::Unmeasured;

// The wall clock went back, or forward by more than the run lasted: its span cannot be placed.
constexpr int64_t clockSlackMs = 60'000;

struct Point {
    int64_t atMs;
    BatteryEnergy::Counters counters;
    bool onBattery;
};

struct Span {
    int64_t startMs, endMs;
};

bool clockJumped(const EnergyRow& row) {
    if (!row.startMs || !row.endMs) return false;
    if (*row.endMs < *row.startMs) return true;
    return row.wallMs && *row.endMs - *row.startMs > *row.wallMs + clockSlackMs;
}

std::optional<Span> readingSpan(const EnergyRow& row) {
    if (!row.startMs || !row.endMs || clockJumped(row)) return std::nullopt;
    return Span{*row.startMs, *row.endMs};
}

// The monotonic duration when the row has one; a wall-clock one only when it can be trusted.
std::optional<int64_t> runTime(const EnergyRow& row) {
    if (row.wallMs && *row.wallMs >= 0) return row.wallMs;
    if (const auto span = readingSpan(row)) return span->endMs - span->startMs;
    return std::nullopt;
}

std::optional<int64_t> runCPU(const EnergyRow& row) {
    if (!row.cpuMs && !row.childCpuMs) return std::nullopt;
    return std::max<int64_t>(0, row.cpuMs.value_or(0)) + std::max<int64_t>(0, row.childCpuMs.value_or(0));
}

std::vector<Span> merged(std::vector<Span> spans) {
    std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) { return a.startMs < b.startMs; });
    std::vector<Span> out;
    for (const Span& span : spans) {
        if (!out.empty() && span.startMs <= out.back().endMs)
            out.back().endMs = std::max(out.back().endMs, span.endMs);
        else
            out.push_back(span);
    }
    return out;
}

bool covered(const std::vector<Span>& spans, int64_t fromMs, int64_t toMs) {
    auto it = std::upper_bound(spans.begin(), spans.end(), fromMs,
                               [](int64_t at, const Span& span) { return at < span.startMs; });
    if (it == spans.begin()) return false;
    --it;
    return toMs <= it->endMs;
}

// The few costliest runs seen so far, costliest first. Of equal costs the later run goes first: rows
// come newest first, so most of the many equal readings then cost no copy.
class Costliest {
  public:
    void offer(double cost, const EnergyRow& row, const std::optional<double>& energyMwh) {
        const auto before = [&](const Entry& entry) {
            return cost > entry.cost || (cost == entry.cost && row.atMs > entry.run.row.atMs);
        };
        if (entries_.size() == expensiveRunsShown && !before(entries_.back())) return;
        const auto at = std::find_if(entries_.begin(), entries_.end(), before);
        entries_.insert(at, {cost, {row, energyMwh, runTime(row), runCPU(row)}});
        if (entries_.size() > expensiveRunsShown) entries_.pop_back();
    }
    bool empty() const { return entries_.empty(); }
    std::vector<CostlyRun> runs() const {
        std::vector<CostlyRun> out;
        for (const Entry& entry : entries_) out.push_back(entry.run);
        return out;
    }

  private:
    struct Entry {
        double cost;
        CostlyRun run;
    };
    std::vector<Entry> entries_;
};

}  // namespace

struct ReportBuilder::State {
    Report report;
    std::vector<Point> points;
    std::vector<Span> workSpans;
    std::vector<double> capacities;
    std::vector<int64_t> useSpans;
    Costliest byEnergy, byCPU;
    bool sawCounters = false;

    size_t dayOf(int64_t atMs) const {
        const auto& days = report.days;
        const auto it = std::upper_bound(days.begin(), days.end(), atMs,
                                         [](int64_t at, const Day& day) { return at < day.startMs; });
        return it == days.begin() ? 0 : static_cast<size_t>(it - days.begin() - 1);
    }

    void count(const EnergyRow& row) {
        Figures& day = report.perDay[dayOf(row.atMs)];
        const std::optional<int64_t> cpu = runCPU(row);
        for (Figures* figures : {&day, &report.total}) {
            switch (row.kind) {
                case EnergyKind::judged:
                    ++figures->judged;
                    break;
                case EnergyKind::skipped:
                    ++figures->skipped;
                    break;
                case EnergyKind::gate:
                    ++figures->gates;
                    break;
                case EnergyKind::turn:
                    ++figures->turns;
                    break;
                case EnergyKind::pass:
                    ++figures->passes;
                    break;
            }
            if (cpu) {
                figures->cpuMs += *cpu;
                figures->cpuMeasured = true;
            }
        }
        if (row.kind == EnergyKind::skipped) return;

        const BatteryEnergy::Drawn drawn = BatteryEnergy::drawnDuringRun(row.before, row.after, row.onAC);
        const double* energy = std::get_if<double>(&drawn);
        const auto* unmeasured = std::get_if<Unmeasured>(&drawn);
        const std::optional<int64_t> time = runTime(row);
        if (energy && !BatteryEnergy::plausible(*energy, time.value_or(0))) energy = nullptr;
        if ((unmeasured &&
             (*unmeasured == Unmeasured::differentBattery || *unmeasured == Unmeasured::rose)) ||
            (!energy && !unmeasured))
            ++report.runsWithMismatchedReadings;
        if (row.kind == EnergyKind::judged) {
            for (Figures* figures : {&day, &report.total}) {
                if (energy) figures->checkEnergyMwh.push_back(*energy);
                if (unmeasured && *unmeasured == Unmeasured::onAC) ++figures->checksOnAC;
                if (time) figures->checkTimeMs.push_back(static_cast<double>(*time));
                if (cpu) figures->checkCpuMs.push_back(static_cast<double>(*cpu));
            }
        }
        if (energy) byEnergy.offer(*energy, row, *energy);
        if (cpu && *cpu > 0)
            byCPU.offer(static_cast<double>(*cpu), row, energy ? std::optional(*energy) : std::nullopt);
    }

    void remember(const EnergyRow& row) {
        if (clockJumped(row)) {
            ++report.runsWithClockJump;
            return;
        }
        if (row.kind != EnergyKind::skipped)
            if (const auto span = readingSpan(row)) workSpans.push_back(*span);
        const auto add = [&](const std::optional<PowerSource::BatteryReading>& reading,
                             std::optional<int64_t> at) {
            if (!reading) return;
            const BatteryEnergy::Counters counters = BatteryEnergy::Counters::of(*reading);
            sawCounters = sawCounters || counters.any();
            if (const auto full = BatteryEnergy::fullMwh(counters)) capacities.push_back(*full);
            points.push_back({at.value_or(row.atMs), counters, BatteryEnergy::onBattery(*reading, row.onAC)});
        };
        add(row.before, row.startMs);
        add(row.after, row.endMs);
    }

    // Consecutive readings on battery, in time order, tell what the battery gave; those inside a
    // span of work tell what it gave while the work ran.
    void followBattery() {
        // By time, and in the order they came for equal times; sorting keys is cheaper than points.
        std::vector<std::pair<int64_t, uint32_t>> order;
        order.reserve(points.size());
        for (size_t i = 0; i < points.size(); ++i)
            order.emplace_back(points[i].atMs, static_cast<uint32_t>(i));
        std::sort(order.begin(), order.end());
        const std::vector<Span> spans = merged(std::move(workSpans));
        for (size_t i = 0; i + 1 < order.size(); ++i) {
            const Point& from = points[order[i].second];
            const Point& to = points[order[i + 1].second];
            const int64_t gapMs = to.atMs - from.atMs;
            if (!from.onBattery || !to.onBattery || gapMs <= 0) continue;
            const bool duringWork = covered(spans, from.atMs, to.atMs);
            if (!duringWork && gapMs > maxReadingGapMs) continue;
            const BatteryEnergy::Drawn drawn = BatteryEnergy::drawn(from.counters, to.counters);
            if (const auto* unmeasured = std::get_if<Unmeasured>(&drawn)) {
                if (*unmeasured == Unmeasured::differentBattery) ++report.batteryChanges;
                continue;
            }
            const double mwh = std::get<double>(drawn);
            if (!BatteryEnergy::plausible(mwh, gapMs)) {
                ++report.counterJumps;
                continue;
            }
            report.batteryGaveMwh += mwh;
            report.onBatteryMs += gapMs;
            if (!duringWork) continue;
            for (Figures* figures : {&report.perDay[dayOf(from.atMs)], &report.total}) {
                figures->workMwh += mwh;
                figures->workMeasured = true;
            }
        }
    }
};

ReportBuilder::ReportBuilder(std::vector<Day> days, int64_t nowMs) : state_(std::make_unique<State>()) {
    state_->report.days = std::move(days);
    state_->report.nowMs = nowMs;
    state_->report.perDay.resize(state_->report.days.size());
}

ReportBuilder::~ReportBuilder() = default;

void ReportBuilder::add(const EnergyRow& row) {
    const auto& days = state_->report.days;
    if (days.empty() || row.atMs < days.front().startMs || row.atMs >= days.back().endMs) return;
    state_->count(row);
    state_->remember(row);
    state_->useSpans.push_back(row.atMs / useSpanMs);
}

Report ReportBuilder::finish(const EnergyRowsReader::Result& reading) {
    State& state = *state_;
    Report& report = state.report;
    report.unreadableLines = reading.unreadableLines;
    report.unreadableFiles = reading.unreadableFiles;
    std::sort(state.useSpans.begin(), state.useSpans.end());
    report.useMs = static_cast<int64_t>(std::unique(state.useSpans.begin(), state.useSpans.end()) -
                                        state.useSpans.begin()) *
                   useSpanMs;
    state.followBattery();
    report.fullBatteryMwh = median(std::move(state.capacities));

    report.costliestByEnergy = !state.byEnergy.empty();
    report.costliest = report.costliestByEnergy ? state.byEnergy.runs() : state.byCPU.runs();
    if (!state.sawCounters)
        report.counters = Counters::none;
    else if (report.onBatteryMs == 0 && !report.costliestByEnergy)
        report.counters = Counters::onACOnly;
    else
        report.counters = Counters::present;
    return std::move(report);
}

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

std::string live(const std::filesystem::path& dataRoot, int64_t nowMs, int days) {
    // Calendars end somewhere: years 0 to 9999 keep every date and sum within range.
    nowMs = std::clamp<int64_t>(nowMs, -62'167'219'200'000, 253'402'300'799'999);
    std::vector<Day> calendar = localDays(nowMs, days);
    const int64_t sinceMs = calendar.empty() ? nowMs : calendar.front().startMs;
    std::error_code error;
    const bool exists = std::filesystem::is_directory(dataRoot, error);
    ReportBuilder builder(std::move(calendar), nowMs);
    EnergyRowsReader::Result reading;
    if (exists)
        reading =
            EnergyRowsReader::read(dataRoot, sinceMs, nowMs, [&](const EnergyRow& row) { builder.add(row); });
    return render(builder.finish(reading), dataRoot, exists);
}

}  // namespace aimwise::ClassifierEnergyReport
