// The energy report as a person reads it: a table of days, the period in a few sentences, the
// costliest runs and numbered notes on whatever could not be used.
#include <algorithm>
#include <ctime>

#include <fmt/format.h>

#include "AimwiseCore/energy/energy_report.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise::ClassifierEnergyReport {

namespace {

const std::string none = "\u2014";

std::string count(int64_t value) {
    std::string digits = std::to_string(value < 0 ? -value : value);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
        digits.insert(static_cast<size_t>(at), ",");
    return value < 0 ? "-" + digits : digits;
}

std::string energy(double mwh) {
    if (mwh < 9.95) return fmt::format("{:.1f} mWh", mwh);
    if (mwh < 999.5) return fmt::format("{:.0f} mWh", mwh);
    if (mwh < 9995.0) return fmt::format("{:.2f} Wh", mwh / 1000.0);
    return fmt::format("{:.1f} Wh", mwh / 1000.0);
}

std::string duration(double ms) {
    const double seconds = ms / 1000.0;
    if (seconds < 59.95) return fmt::format("{:.1f} s", seconds);
    if (seconds < 3597.0) return fmt::format("{:.1f} min", seconds / 60.0);
    return fmt::format("{:.1f} h", seconds / 3600.0);
}

std::string percent(double fraction) {
    const double value = fraction * 100.0;
    if (value >= 9.95) return fmt::format("{:.0f}%", value);
    if (value >= 0.995) return fmt::format("{:.1f}%", value);
    return fmt::format("{:.2f}%", value);
}

std::string plural(int64_t n, const char* one, const char* many) {
    return count(n) + " " + (n == 1 ? one : many);
}

std::string localTime(int64_t ms, const char* format) {
    const time_t seconds = static_cast<time_t>(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    std::strftime(text, sizeof text, format, &local);
    return text;
}

const char* kindLabel(EnergyKind kind) {
    switch (kind) {
        case EnergyKind::judged:
            return "judged check";
        case EnergyKind::skipped:
            return "skipped check";
        case EnergyKind::gate:
            return "gate call";
        case EnergyKind::turn:
            return "coach turn";
        case EnergyKind::pass:
            return "nightly pass";
    }
    return "run";
}

size_t width(const std::string& text) {
    return utf8::scalarCount(text);
}

std::string pad(const std::string& text, size_t to, bool left) {
    const std::string fill(to > width(text) ? to - width(text) : 0, ' ');
    return left ? text + fill : fill + text;
}

// Columns as wide as their widest cell: the first is left-aligned, the rest right-aligned. A row
// with `spans` set writes its second cell across all the others.
struct TableRow {
    std::vector<std::string> cells;
    bool spans = false;
};

std::string table(const std::vector<TableRow>& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows)
        for (size_t i = 0; i < (row.spans ? 1 : row.cells.size()); ++i) {
            if (widths.size() <= i) widths.push_back(0);
            widths[i] = std::max(widths[i], width(row.cells[i]));
        }
    std::string out;
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.cells.size(); ++i) {
            if (i > 0) line += "  ";
            line += row.spans && i > 0 ? row.cells[i] : pad(row.cells[i], widths[i], i == 0);
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out += line + "\n";
    }
    return out;
}

std::string medianOr(const std::vector<double>& values, std::string (*format)(double),
                     const std::string& otherwise) {
    const auto middle = median(values);
    return middle ? format(*middle) : otherwise;
}

std::vector<std::string> dayRow(const std::string& label, const Figures& figures, bool withEnergy) {
    const std::string onAC = figures.checksOnAC > 0 ? "on AC" : none;
    std::vector<std::string> row{label, count(figures.judged), count(figures.skipped)};
    if (withEnergy)
        row.push_back(medianOr(figures.checkEnergyMwh, energy, onAC));
    else
        row.push_back(medianOr(figures.checkCpuMs, duration, none));
    row.push_back(medianOr(figures.checkTimeMs, duration, none));
    row.push_back(count(figures.turns));
    row.push_back(count(figures.gates));
    row.push_back(count(figures.passes));
    if (withEnergy) row.push_back(figures.workMeasured ? energy(figures.workMwh) : onAC);
    row.push_back(figures.cpuMeasured ? duration(static_cast<double>(figures.cpuMs)) : none);
    return row;
}

std::string days(const Report& report, bool withEnergy) {
    std::vector<TableRow> rows;
    std::vector<std::string> header{
        "Day",        "Judged", "Skipped",    withEnergy ? "Energy/check" : "CPU/check",
        "Time/check", "Turns",  "Gate calls", "Passes"};
    if (withEnergy) header.push_back("Battery");
    header.push_back("CPU");
    rows.push_back({header});
    for (size_t i = 0; i < report.days.size(); ++i) {
        if (report.perDay[i].empty())
            rows.push_back({{report.days[i].label, "nothing recorded"}, true});
        else
            rows.push_back({dayRow(report.days[i].label, report.perDay[i], withEnergy)});
    }
    rows.push_back({dayRow("Total", report.total, withEnergy)});
    std::string out = table(rows) + "\n";
    if (withEnergy)
        out +=
            "Energy/check and Time/check are medians over judged checks. Energy is read from the battery,\n"
            "so only on battery: \"on AC\" marks checks on mains power, where the battery does not see\n"
            "what work costs, and \u2014 no reading. Battery is what the battery gave while Aimwise "
            "worked.\n";
    else
        out += "CPU/check and Time/check are medians over judged checks.\n";
    out +=
        "CPU is the time of Aimwise's own processes and the helpers they started, skipped checks\n"
        "included; the model server's work is not in it.\n";
    return out;
}

std::string period(const Report& report) {
    std::string out = fmt::format("Over the {} days\n", report.days.size());
    if (report.useMs == 0) return out + "  Nothing was recorded.\n";
    const double hoursOfUse = static_cast<double>(report.useMs) / 3'600'000.0;
    out += "  In use: " + duration(static_cast<double>(report.useMs)) +
           " (five-minute spans in which any of Aimwise's work ran).\n";
    if (report.total.cpuMeasured)
        out += "  CPU: " + duration(static_cast<double>(report.total.cpuMs)) + " in all, " +
               duration(static_cast<double>(report.total.cpuMs) / hoursOfUse) + " per hour of use.\n";
    if (report.counters != Counters::present) return out;
    if (report.onBatteryMs == 0) return out + "  On battery: no span with readings on both sides.\n";
    const double hoursOnBattery = static_cast<double>(report.onBatteryMs) / 3'600'000.0;
    out += "  On battery: " + duration(static_cast<double>(report.onBatteryMs)) +
           " with readings, in which the battery gave " + energy(report.batteryGaveMwh) + ".\n";
    if (report.batteryGaveMwh <= 0)
        return out + "  Its counters did not move: too little was drawn to tell a share.\n";
    const double work = report.total.workMwh;
    const double perHour = work / hoursOnBattery;
    out += "  While Aimwise's work ran it gave " + energy(work) + ", so Aimwise used at most " +
           percent(work / report.batteryGaveMwh) +
           " of the battery's energy.\n  Per hour on battery that is " + energy(perHour);
    if (report.fullBatteryMwh && *report.fullBatteryMwh > 0)
        out += ", " + percent(perHour / *report.fullBatteryMwh) + " of a full battery (" +
               energy(*report.fullBatteryMwh) + ")";
    return out + ".\n";
}

std::string costliest(const Report& report) {
    if (report.costliest.empty()) return "Most expensive single runs: none measured.\n";
    std::string out = std::string("Most expensive single runs, by ") +
                      (report.costliestByEnergy ? "battery energy" : "CPU time") + ":\n";
    std::vector<std::vector<std::string>> rows;
    for (const CostlyRun& run : report.costliest) {
        std::string cost;
        if (report.costliestByEnergy) {
            cost = energy(*run.energyMwh);
            if (run.timeMs) cost += " over " + duration(static_cast<double>(*run.timeMs));
            if (run.cpuMs) cost += ", CPU " + duration(static_cast<double>(*run.cpuMs));
        } else {
            cost = "CPU " + duration(static_cast<double>(*run.cpuMs));
            if (run.timeMs) cost += " over " + duration(static_cast<double>(*run.timeMs));
        }
        if (run.row.model) cost += ", " + *run.row.model;
        if (run.row.promptTokens && run.row.completionTokens)
            cost +=
                ", " + count(*run.row.promptTokens) + " + " + count(*run.row.completionTokens) + " tokens";
        rows.push_back({"  " + localTime(run.row.atMs, "%a %d %b %H:%M"), kindLabel(run.row.kind), cost});
    }
    // Left-aligned throughout: these are sentences more than numbers.
    std::vector<size_t> widths(2, 0);
    for (const auto& row : rows)
        for (size_t i = 0; i < 2; ++i) widths[i] = std::max(widths[i], width(row[i]));
    for (const auto& row : rows)
        out += pad(row[0], widths[0], true) + "  " + pad(row[1], widths[1], true) + "  " + row[2] + "\n";
    return out;
}

// Words to lines of at most `noteWidth` characters, each after the first indented under the first.
constexpr size_t noteWidth = 96;

std::string wrapped(const std::string& lead, const std::string& text) {
    std::string out, line = lead;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(' ', start);
        if (end == std::string::npos) end = text.size();
        const std::string word = text.substr(start, end - start);
        if (width(line) > lead.size() && width(line) + 1 + width(word) > noteWidth) {
            out += line + "\n";
            line = std::string(lead.size(), ' ');
        }
        if (width(line) > lead.size()) line += " ";
        line += word;
        start = end + 1;
    }
    return out + line + "\n";
}

std::string notes(const Report& report) {
    std::vector<std::string> lines;
    if (report.unreadableLines > 0)
        lines.push_back(
            plural(report.unreadableLines, "line", "lines") +
            " could not be read (torn, malformed, or from a kind of work this version does not know) "
            "and " +
            (report.unreadableLines == 1 ? "was" : "were") + " left out.");
    for (const std::string& file : report.unreadableFiles)
        lines.push_back("Could not read " + file + "; its rows are missing from this report.");
    if (report.runsWithMismatchedReadings > 0)
        lines.push_back(plural(report.runsWithMismatchedReadings, "run is", "runs are") +
                        " counted without energy: the battery readings around " +
                        (report.runsWithMismatchedReadings == 1 ? "it" : "them") +
                        " do not belong together (another battery, a recalibration, or a counter that rose "
                        "or fell faster than "
                        "any laptop draws).");
    if (report.batteryChanges > 0)
        lines.push_back(
            "The battery's capacity changed " +
            (report.batteryChanges == 1 ? std::string("once")
                                        : plural(report.batteryChanges, "time", "times")) +
            " between readings (another battery, or a recalibration): energy was not compared across "
            "a change.");
    if (const int64_t n = report.counterJumps; n > 0)
        lines.push_back(
            n == 1 ? std::string("The battery's counter once fell faster than any laptop draws (a "
                                 "misreading): that span is left out of the period's totals.")
                   : "The battery's counter fell faster than any laptop draws " + plural(n, "time", "times") +
                         " (misreadings): those spans are left out of the period's totals.");
    if (const int64_t n = report.runsWithClockJump; n > 0)
        lines.push_back(plural(n, "run", "runs") + " saw the clock jump while " + (n == 1 ? "it" : "they") +
                        " ran: " + (n == 1 ? "its" : "their") +
                        " battery readings are left out of the period's totals, and " +
                        (n == 1 ? "its" : "their") +
                        " time counts only where the monotonic clock measured it.");
    if (lines.empty()) return "";
    std::string out = "\nNotes:\n";
    for (size_t i = 0; i < lines.size(); ++i) out += wrapped(fmt::format("  {}. ", i + 1), lines[i]);
    return out;
}

}  // namespace

std::string render(const Report& report, const std::filesystem::path& dataRoot, bool dataRootExists) {
    std::string out;
    if (!report.days.empty())
        out += "Energy report: " + localTime(report.days.front().startMs, "%a %d %b %Y") + " to " +
               localTime(report.nowMs, "%a %d %b %Y") + ", up to " + localTime(report.nowMs, "%H:%M") +
               " local time\n";
    out +=
        "Data root: " + dataRoot.string() + (dataRootExists ? "" : " (not found: nothing to read)") + "\n\n";
    const bool withEnergy = report.counters == Counters::present;
    if (report.total.empty()) {
        // Nothing to say about counters that were never read.
    } else if (report.counters == Counters::none)
        out +=
            "The battery counters gave nothing in this period (no battery, or one that reports no energy),\n"
            "so costs are shown as CPU time; no energy is estimated.\n\n";
    else if (report.counters == Counters::onACOnly)
        out +=
            "The battery was read only on mains power, where it does not see what work costs,\n"
            "so costs are shown as CPU time; no energy is estimated.\n\n";
    out += days(report, withEnergy) + "\n" + period(report) + "\n" + costliest(report) + notes(report);
    return out;
}

}  // namespace aimwise::ClassifierEnergyReport
