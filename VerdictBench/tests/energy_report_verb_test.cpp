// `energy-report` over a fixture fortnight, as a person reads it: days on battery with energy or
// charge counters, on AC, without a battery, a gap day, a battery swapped mid-day, and the lines a
// report has to survive (a torn one, one from a later version, rows out of order, a clock that jumped).
#include <gtest/gtest.h>

#include <ctime>
#include <map>

#include "AimwiseCore/energy/energy_row.h"
#include "tests/support/run_process.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using PowerSource::BatteryReading;

constexpr int64_t day = 86'400'000, hour = 3'600'000, minute = 60'000;
constexpr int64_t may1 = 1'714'521'600'000;           // Wed 01 May 2024 00:00 UTC
constexpr int64_t now = may1 + 13 * day + 15 * hour;  // Tue 14 May 15:00

BatteryReading energyReading(const char* status, int64_t mwh, int64_t fullMwh = 60'000) {
    BatteryReading reading;
    reading.status = status;
    reading.energyMwh = mwh;
    reading.energyFullMwh = fullMwh;
    return reading;
}

BatteryReading chargeReading(int64_t mah, int64_t mv) {
    BatteryReading reading;
    reading.status = "Discharging";
    reading.chargeMah = mah;
    reading.voltageMv = mv;
    return reading;
}

class EnergyReport : public ::testing::Test {
  protected:
    // A run of `kind` from `startMs`, `wallMs` long, with the battery readings around it.
    void run(EnergyKind kind, int64_t startMs, int64_t wallMs, std::optional<BatteryReading> before = {},
             std::optional<BatteryReading> after = {}, int64_t cpuMs = 40, int64_t childCpuMs = 300) {
        EnergyRow row{kind, startMs + wallMs, startMs, startMs + wallMs, wallMs, cpuMs, childCpuMs};
        row.before = std::move(before);
        row.after = std::move(after);
        if (kind == EnergyKind::turn)
            row.model = "coach-model", row.promptTokens = 1'500, row.completionTokens = 200;
        add(row);
    }
    void add(const EnergyRow& row) {
        raw(EnergyKinds::fileName(row.kind), JSONValue(EnergyLog::encode(row)).serialized());
    }
    void raw(const std::string& file, const std::string& line) { files[file] += line + "\n"; }
    // Checks on battery every five minutes from `fromMs`, each drawing `costs[i]` from `level`, with a
    // sampled skip reading between them that shows the machine's own draw.
    int64_t checksOnBattery(int64_t fromMs, int64_t level, const std::vector<int64_t>& costs,
                            int64_t fullMwh = 60'000) {
        for (size_t i = 0; i < costs.size(); ++i) {
            const int64_t at = fromMs + static_cast<int64_t>(i) * 5 * minute;
            run(EnergyKind::judged, at, 4'000, energyReading("Discharging", level, fullMwh),
                energyReading("Discharging", level - costs[i], fullMwh));
            level -= costs[i] + 6;
            run(EnergyKind::skipped, at + 150'000, 10, energyReading("Discharging", level, fullMwh),
                energyReading("Discharging", level, fullMwh), 6, 0);
        }
        return level;
    }

    testing::ProcessResult report(const std::vector<std::string>& arguments) {
        for (const auto& [name, text] : files) testing::writeFile(root() / name, text);
        testing::ProcessOptions options;
        options.environment = {{"AIMCAP_DATA_ROOT", root().string()},
                               {"TZ", "UTC"},
                               {"XDG_DATA_HOME", (dir / "xdg").string()},
                               {"HOME", (dir / "home").string()}};
        return testing::runProcess(testing::verdictBenchPath(), arguments, options);
    }

    fs::path root() const { return dir / "root"; }

    testing::TempDir dir;
    std::map<std::string, std::string> files;
};

TEST_F(EnergyReport, AFortnightWithAndWithoutCountersOnBatteryAndOnACIsReportedWholeAndWritesNothing) {
    // Wed: on battery, with a coach turn, a gate call and a nightly pass on AC.
    int64_t level = checksOnBattery(may1 + 10 * hour, 40'000, {12, 10, 14});
    run(EnergyKind::gate, may1 + 10 * hour + 19 * minute, 5'000, energyReading("Discharging", level),
        energyReading("Discharging", level - 5));
    run(EnergyKind::turn, may1 + 10 * hour + 20 * minute, 30'000, energyReading("Discharging", level - 5),
        energyReading("Discharging", level - 45), 900, 0);
    run(EnergyKind::pass, may1 + 2 * hour, 10 * minute, energyReading("Charging", 30'000),
        energyReading("Charging", 31'000), 120'000, 0);
    // Thu: on AC. Fri: a battery that counts charge. Sat: nothing. Sun: a desktop.
    run(EnergyKind::judged, may1 + day + 9 * hour, 3'000, energyReading("Charging", 50'000),
        energyReading("Charging", 50'010));
    run(EnergyKind::skipped, may1 + day + 9 * hour + minute, 9, std::nullopt, std::nullopt, 5, 0);
    run(EnergyKind::judged, may1 + 2 * day + 9 * hour, 5'000, chargeReading(4'000, 11'800),
        chargeReading(3'998, 11'600));
    run(EnergyKind::judged, may1 + 2 * day + 11 * hour, 4'000, energyReading("Discharging", 40'000),
        energyReading("Discharging", 0));  // a misread counter
    run(EnergyKind::judged, may1 + 4 * day + 9 * hour, 6'000);
    run(EnergyKind::turn, may1 + 4 * day + 9 * hour + minute, 20'000, std::nullopt, std::nullopt, 2'500, 0);
    // Mon: the battery is swapped between two checks, and during a third.
    level = checksOnBattery(may1 + 5 * day + 9 * hour, 30'000, {10});
    run(EnergyKind::judged, may1 + 5 * day + 9 * hour + 6 * minute, 4'000,
        energyReading("Discharging", level), energyReading("Discharging", 44'000, 45'000));
    checksOnBattery(may1 + 5 * day + 9 * hour + 8 * minute, 43'990, {8}, 45'000);
    // Tue: rows out of order, one from a later version, a clock that jumped back, a torn last line.
    raw("classifier-tick-energy.jsonl", R"({"v":2,"kind":"judged","atMs":)" +
                                            std::to_string(may1 + 6 * day + 10 * hour) +
                                            R"(,"wallMs":2000,"cpuMs":30,"gpu":{"joules":[1,2]}})");
    EnergyRow jumped{EnergyKind::judged,
                     may1 + 6 * day + 9 * hour,
                     may1 + 6 * day + 9 * hour + hour,
                     may1 + 6 * day + 9 * hour,
                     3'000,
                     35,
                     0};
    jumped.before = energyReading("Discharging", 20'000);
    jumped.after = energyReading("Discharging", 19'990);
    add(jumped);
    raw("classifier-tick-energy.jsonl", R"({"v":1,"kind":"judged","atMs":17)");
    // Today, on battery; and rows outside the fortnight, before it and after now.
    checksOnBattery(may1 + 13 * day + 14 * hour, 20'000, {20, 16});
    run(EnergyKind::judged, may1 - hour, 4'000);
    run(EnergyKind::judged, now + minute, 4'000);
    raw("dream-energy.jsonl",
        R"({"v":1,"atMs":)" + std::to_string(may1 + 8 * day) + R"(,"cpuMs":60000,"wallMs":300000})");

    const auto result = report({"energy-report", "--now-ms", std::to_string(now)});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardError, "");
    EXPECT_EQ(
        result.standardOutput, R"(Energy report: Wed 01 May 2024 to Tue 14 May 2024, up to 15:00 local time
Data root: )" + root().string() + R"(

Day         Judged  Skipped  Energy/check  Time/check  Turns  Gate calls  Passes  Battery      CPU
Wed 01 May       3        3        12 mWh       4.0 s      1           1       1   81 mWh  2.0 min
Thu 02 May       1        1         on AC       3.0 s      0           0       0    on AC    0.3 s
Fri 03 May       2        0        23 mWh       4.5 s      0           0       0   23 mWh    0.7 s
Sat 04 May  nothing recorded
Sun 05 May       1        0             —       6.0 s      1           0       0        —    2.8 s
Mon 06 May       3        2       9.0 mWh       4.0 s      0           0       0   18 mWh    1.0 s
Tue 07 May       2        0        10 mWh       2.5 s      0           0       0        —    0.1 s
Wed 08 May  nothing recorded
Thu 09 May       0        0             —           —      0           0       1        —  1.0 min
Fri 10 May  nothing recorded
Sat 11 May  nothing recorded
Sun 12 May  nothing recorded
Mon 13 May  nothing recorded
Tue 14 May       2        2        18 mWh       4.0 s      0           0       0   36 mWh    0.7 s
Total           14        8        12 mWh       4.0 s      2           1       2  158 mWh  3.1 min

Energy/check and Time/check are medians over judged checks. Energy is read from the battery,
so only on battery: "on AC" marks checks on mains power, where the battery does not see
what work costs, and — no reading. Battery is what the battery gave while Aimwise worked.
CPU is the time of Aimwise's own processes and the helpers they started, skipped checks
included; the model server's work is not in it.

Over the 14 days
  In use: 1.5 h (five-minute spans in which any of Aimwise's work ran).
  CPU: 3.1 min in all, 2.1 min per hour of use.
  On battery: 38.5 min with readings, in which the battery gave 210 mWh.
  While Aimwise's work ran it gave 158 mWh, so Aimwise used at most 75% of the battery's energy.
  Per hour on battery that is 247 mWh, 0.41% of a full battery (60.0 Wh).

Most expensive single runs, by battery energy:
  Wed 01 May 10:20  coach turn    40 mWh over 30.0 s, CPU 0.9 s, coach-model, 1,500 + 200 tokens
  Fri 03 May 09:00  judged check  23 mWh over 5.0 s, CPU 0.3 s
  Tue 14 May 14:00  judged check  20 mWh over 4.0 s, CPU 0.3 s
  Tue 14 May 14:05  judged check  16 mWh over 4.0 s, CPU 0.3 s
  Wed 01 May 10:10  judged check  14 mWh over 4.0 s, CPU 0.3 s

Notes:
  1. 1 line could not be read (torn, malformed, or from a kind of work this version does not
     know) and was left out.
  2. 2 runs are counted without energy: the battery readings around them do not belong together
     (another battery, a recalibration, or a counter that rose or fell faster than any laptop
     draws).
  3. The battery's capacity changed once between readings (another battery, or a recalibration):
     energy was not compared across a change.
  4. The battery's counter once fell faster than any laptop draws (a misreading): that span is
     left out of the period's totals.
  5. 1 run saw the clock jump while it ran: its battery readings are left out of the period's
     totals, and its time counts only where the monotonic clock measured it.
)");
    std::vector<std::string> listed;
    for (const auto& entry : fs::recursive_directory_iterator(dir.path()))
        listed.push_back(entry.path().filename());
    EXPECT_EQ(listed.size(), 5u) << "the root and its four files, and nothing else";
}

TEST_F(EnergyReport, WithoutBatteryCountersItSaysSoAndStandsOnCPUTime) {
    run(EnergyKind::judged, now - 2 * hour, 6'000, std::nullopt, std::nullopt, 120, 880);
    run(EnergyKind::judged, now - hour, 2'000);
    run(EnergyKind::skipped, now - hour + minute, 12, std::nullopt, std::nullopt, 7, 0);
    run(EnergyKind::pass, now - 12 * hour, 5 * minute, std::nullopt, std::nullopt, 90'000, 0);
    const auto result = report({"energy-report", "--now-ms", std::to_string(now)});
    const std::string days =
        "Wed 01 May\nThu 02 May\nFri 03 May\nSat 04 May\nSun 05 May\nMon 06 May\nTue 07 May\n"
        "Wed 08 May\nThu 09 May\nFri 10 May\nSat 11 May\nSun 12 May\nMon 13 May\n";
    std::string nothing;
    for (size_t at = 0; at < days.size(); at += 11) nothing += days.substr(at, 10) + "  nothing recorded\n";
    EXPECT_EQ(
        result.standardOutput, R"(Energy report: Wed 01 May 2024 to Tue 14 May 2024, up to 15:00 local time
Data root: )" + root().string() + R"(

The battery counters gave nothing in this period (no battery, or one that reports no energy),
so costs are shown as CPU time; no energy is estimated.

Day         Judged  Skipped  CPU/check  Time/check  Turns  Gate calls  Passes      CPU
)" + nothing + R"(Tue 14 May       2        1      0.7 s       4.0 s      0           0       1  1.5 min
Total            2        1      0.7 s       4.0 s      0           0       1  1.5 min

CPU/check and Time/check are medians over judged checks.
CPU is the time of Aimwise's own processes and the helpers they started, skipped checks
included; the model server's work is not in it.

Over the 14 days
  In use: 15.0 min (five-minute spans in which any of Aimwise's work ran).
  CPU: 1.5 min in all, 6.1 min per hour of use.

Most expensive single runs, by CPU time:
  Tue 14 May 03:05  nightly pass  CPU 1.5 min over 5.0 min
  Tue 14 May 13:00  judged check  CPU 1.0 s over 6.0 s
  Tue 14 May 14:00  judged check  CPU 0.3 s over 2.0 s
)");

    // Only the first flag counts, and a value that is not a number leaves the real now.
    const std::time_t today = std::time(nullptr);
    char header[64];
    std::strftime(header, sizeof header, "to %a %d %b %Y, up to ", std::gmtime(&today));
    const auto realNow = report({"energy-report", "--now-ms", "abc", "--now-ms", "5"});
    EXPECT_EQ(realNow.exitStatus, 0);
    EXPECT_NE(realNow.standardOutput.substr(0, 80).find(header), std::string::npos) << realNow.standardOutput;
}

}  // namespace
}  // namespace aimwise
