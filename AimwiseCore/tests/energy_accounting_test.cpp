// What each kind of work writes about its cost, how the battery's counters become energy, and how
// the rows are read back: every row a meter or a tick writes, and the lines a report must survive.
#include <gtest/gtest.h>

#include <stdexcept>

#include "AimwiseCore/classifier/tick_energy_log.h"
#include "AimwiseCore/energy/battery_energy.h"
#include "AimwiseCore/energy/energy_meter.h"
#include "AimwiseCore/energy/energy_rows_reader.h"
#include "tests/support/fake_clock.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using PowerSource::BatteryReading;
using Unmeasured = BatteryEnergy::Unmeasured;

BatteryReading battery(std::optional<std::string> status, std::optional<int64_t> energyMwh,
                       std::optional<int64_t> fullMwh = 60'000) {
    BatteryReading reading;
    reading.status = std::move(status);
    reading.energyMwh = energyMwh;
    reading.energyFullMwh = fullMwh;
    return reading;
}

// The machine as a meter sees it: battery readings and AC states in the order they are asked for,
// and a CPU clock that the test moves.
struct Machine {
    std::vector<std::optional<BatteryReading>> batteries;
    std::vector<std::optional<bool>> ac;
    ProcessCPU cpu{100, 20};
    size_t batteryReads = 0, acReads = 0;

    EnergyProbe probe(bool withAC = true) {
        EnergyProbe probe{[this] { return batteries.at(batteryReads++); }, nullptr, [this] { return cpu; }};
        if (withAC) probe.onAC = [this] { return ac.at(acReads++); };
        return probe;
    }
};

TEST(EnergyMeter, EachKindWritesOneRowToItsFileWithOnlyTheReadingsItTook) {
    struct Case {
        EnergyKind kind;
        std::vector<std::optional<BatteryReading>> batteries;
        std::vector<std::optional<bool>> ac;
        bool withAC;
        EnergyMeter::Facts facts;
        const char* file;
        std::string line;
    };
    ChatUsage usage;
    usage.promptTokens = 1'200;
    usage.completionTokens = 80;
    const std::vector<Case> cases{
        {EnergyKind::turn,
         {battery("Discharging", 40'000), battery("Discharging", 39'990)},
         {false, false},
         true,
         {"coach-model", usage},
         "coach-turn-energy.jsonl",
         R"({"after":{"energy_full_mwh":60000,"energy_mwh":39990,"status":"Discharging"},"atMs":1700000002500,)"
         R"("before":{"energy_full_mwh":60000,"energy_mwh":40000,"status":"Discharging"},"childCpuMs":1000,)"
         R"("completionTokens":80,"cpuMs":240,"endMs":1700000002500,"kind":"turn","model":"coach-model",)"
         R"("onAC":false,"promptTokens":1200,"startMs":1700000000000,"v":1,"wallMs":2500})"},
        // No battery, no supply known: nothing is written for them, not zeros.
        {EnergyKind::pass,
         {std::nullopt, std::nullopt},
         {std::nullopt, std::nullopt},
         true,
         {},
         "dream-energy.jsonl",
         R"({"atMs":1700000002500,"childCpuMs":1000,"cpuMs":240,"endMs":1700000002500,"kind":"pass",)"
         R"("startMs":1700000000000,"v":1,"wallMs":2500})"},
        // Plugged in during the call: neither on battery nor on AC.
        {EnergyKind::gate,
         {battery("Discharging", 500), battery("Charging", 501)},
         {false, true},
         true,
         {},
         "coach-turn-energy.jsonl",
         R"({"after":{"energy_full_mwh":60000,"energy_mwh":501,"status":"Charging"},"atMs":1700000002500,)"
         R"("before":{"energy_full_mwh":60000,"energy_mwh":500,"status":"Discharging"},"childCpuMs":1000,)"
         R"("cpuMs":240,"endMs":1700000002500,"kind":"gate","startMs":1700000000000,"v":1,"wallMs":2500})"},
        // Without a supply reading the battery's status says it.
        {EnergyKind::pass,
         {battery("Full", 600), battery("Full", 600)},
         {},
         false,
         {},
         "dream-energy.jsonl",
         R"({"after":{"energy_full_mwh":60000,"energy_mwh":600,"status":"Full"},"atMs":1700000002500,)"
         R"("before":{"energy_full_mwh":60000,"energy_mwh":600,"status":"Full"},"childCpuMs":1000,"cpuMs":240,)"
         R"("endMs":1700000002500,"kind":"pass","onAC":true,"startMs":1700000000000,"v":1,"wallMs":2500})"},
    };
    for (const Case& c : cases) {
        testing::TempDir dir;
        testing::FakeClock clock(1'700'000'000'000, 5'000);
        Machine machine{c.batteries, c.ac};
        const EnergyMeter meter = EnergyMeter::start(c.kind, dir.path(), machine.probe(c.withAC), clock);
        clock.advance(2'500);
        machine.cpu = {340, 1'020};
        meter.finish(c.facts);
        EXPECT_EQ(testing::readFile(dir / c.file), c.line + "\n") << c.line;
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
    }
}

TEST(TickEnergyRun, AJudgedTickAddsItsTimesToItsOwnReadingsAndASkipIsCountedInItsOwnFile) {
    testing::TempDir dir;
    testing::FakeClock clock(1'700'000'000'003, 5'000);
    Machine machine;
    {
        ClassifierTickEnergyLog::Run run(dir.path(), machine.probe(false), clock);
        clock.advance(4'000);
        machine.cpu = {150, 420};
        run.judged({1'700'000'004'000, 1'700'000'001'000, 1'700'000'003'900, "judge-model",
                    battery("Discharging", 40'000), battery("Discharging", 39'988)});
    }
    EXPECT_EQ(
        testing::readFile(dir / "classifier-tick-energy.jsonl"),
        R"({"after":{"energy_full_mwh":60000,"energy_mwh":39988,"status":"Discharging"},"atMs":1700000004000,)"
        R"("before":{"energy_full_mwh":60000,"energy_mwh":40000,"status":"Discharging"},"childCpuMs":400,)"
        R"("cpuMs":50,"endMs":1700000003900,"kind":"judged","model":"judge-model","onAC":false,)"
        R"("startMs":1700000001000,"v":1,"wallMs":4000})"
        "\n");
    EXPECT_FALSE(fs::exists(dir / "classifier-skip-energy.jsonl")) << "a judged run is no skip";
    EXPECT_EQ(machine.batteryReads, 0u) << "the tick reads the battery around the judgment itself";

    // One skip in ten, by the start's millisecond, also reads the battery.
    for (const int64_t startMs : {1'700'000'010'001, 1'700'000'020'000}) {
        clock.setWall(startMs);
        machine.batteries = {battery("Discharging", 39'980), battery("Discharging", 39'980)};
        machine.batteryReads = 0;
        ClassifierTickEnergyLog::Run run(dir.path(), machine.probe(false), clock);
        clock.advance(12);
    }
    EXPECT_EQ(
        testing::readFile(dir / "classifier-skip-energy.jsonl"),
        R"({"atMs":1700000010013,"childCpuMs":0,"cpuMs":0,"kind":"skipped","v":1,"wallMs":12})"
        "\n"
        R"({"after":{"energy_full_mwh":60000,"energy_mwh":39980,"status":"Discharging"},"atMs":1700000020012,)"
        R"("before":{"energy_full_mwh":60000,"energy_mwh":39980,"status":"Discharging"},"childCpuMs":0,)"
        R"("cpuMs":0,"endMs":1700000020012,"kind":"skipped","onAC":false,"startMs":1700000020000,"v":1,)"
        R"("wallMs":12})"
        "\n");

    // A run that ends in an exception was neither.
    EXPECT_THROW(
        {
            ClassifierTickEnergyLog::Run run(dir.path() / "other", machine.probe(false), clock);
            throw std::runtime_error("boom");
        },
        std::runtime_error);
    EXPECT_FALSE(fs::exists(dir / "other"));
}

TEST(BatteryEnergy, CountersBecomeEnergyOnlyOnBatteryAndOnlyBetweenReadingsOfOneBattery) {
    BatteryReading charged;
    charged.status = "Discharging";
    charged.chargeMah = 4'000;
    charged.voltageMv = 12'000;
    BatteryReading sagged = charged;
    sagged.chargeMah = 3'990;
    sagged.voltageMv = 11'000;
    BatteryReading noStatus = battery(std::nullopt, 100);
    BatteryReading noStatusLater = battery(std::nullopt, 90);
    BatteryReading percentOnly;
    percentOnly.capacityPercent = 80;
    struct Case {
        const char* what;
        std::optional<BatteryReading> before, after;
        std::optional<bool> onAC;
        BatteryEnergy::Drawn drawn;
    };
    const std::vector<Case> cases{
        {"energy counter", battery("Discharging", 40'000), battery("Discharging", 39'990), std::nullopt,
         10.0},
        {"charge at the mean voltage", charged, sagged, std::nullopt, 115.0},
        {"status unknown, run on battery", noStatus, noStatusLater, false, 10.0},
        {"status unknown, run on AC", noStatus, noStatusLater, true, Unmeasured::onAC},
        {"charging", battery("Charging", 100), battery("Charging", 90), std::nullopt, Unmeasured::onAC},
        {"another battery", battery("Discharging", 40'000), battery("Discharging", 30'000, 45'000),
         std::nullopt, Unmeasured::differentBattery},
        {"counter rose", battery("Discharging", 100), battery("Discharging", 110), std::nullopt,
         Unmeasured::rose},
        {"percent only", percentOnly, percentOnly, false, Unmeasured::noCounters},
        {"one side missing", battery("Discharging", 100), std::nullopt, false, Unmeasured::noCounters},
    };
    for (const Case& c : cases)
        EXPECT_EQ(BatteryEnergy::drawnDuringRun(c.before, c.after, c.onAC), c.drawn) << c.what;
}

TEST(EnergyRowDecoding, ReadsEveryKeyItKnowsAndNothingThatIsNotARow) {
    EnergyRow full{EnergyKind::turn,
                   5,
                   1,
                   4,
                   3,
                   2,
                   1,
                   false,
                   battery("Discharging", 9),
                   battery("Discharging", 8),
                   "m\u00e9\U0001F600\n\"x\"",
                   1'200,
                   80};
    full.before->voltageMv = 11'000;
    const std::string line = JSONValue(EnergyLog::encode(full)).serialized();
    EXPECT_EQ(EnergyLog::decode(line), full);
    for (size_t cut = 0; cut < line.size(); ++cut)
        EXPECT_FALSE(EnergyLog::decode(line.substr(0, cut))) << cut;

    EnergyRow future{EnergyKind::pass, 5};
    future.cpuMs = 7;
    EXPECT_EQ(EnergyLog::decode(
                  R"({"v":2,"kind":"pass","atMs":5,"new":{"deep":[1,{"x":null}],"s":"\u00e9"},"cpuMs":7})"),
              future);
    const EnergyRow bare{EnergyKind::pass, 5};
    EXPECT_EQ(EnergyLog::decode(R"({"v":1,"atMs":5,"cpuMs":"7","onAC":1})", EnergyKind::pass), bare)
        << "a known key of another type is absent";
    EXPECT_EQ(EnergyLog::decode(R"( {"v":1,"atMs":5.9} )", EnergyKind::pass), bare);

    const std::string deep = R"({"v":1,"kind":"pass","atMs":5,"x":)" + std::string(100'000, '[') + "]}";
    for (const std::string& bad :
         {std::string(R"({"v":1,"atMs":5})"), std::string(R"({"v":1,"kind":"nap","atMs":5})"),
          std::string(R"({"kind":"pass","atMs":5})"), std::string(R"({"v":1,"kind":"pass"})"),
          std::string(R"({"v":1,"kind":"pass","atMs":5}{"v":1)"),
          std::string(R"({"v":1,"kind":"pass","atMs":05})"),
          std::string(R"({"v":1,"kind":"pass","atMs":5,"model":"\ud800"})"),
          std::string("{\"v\":1,\"kind\":\"pass\",\"atMs\":5,\"model\":\"\xff\"}"),
          std::string("{\"v\":1,\"kind\":\"pass\",\"atMs\":5,\"model\":\"a\tb\"}"), deep})
        EXPECT_FALSE(EnergyLog::decode(bad)) << bad.substr(0, 80);
}

TEST(EnergyRowsReader, ReadsFromTheEndAcrossChunksAndStopsWellBeforeThePeriod) {
    testing::TempDir dir;
    const int64_t since = 1'700'000'000'000;
    std::string skips = "not a row: the reading stopped before it\n";
    for (int i = 0; i < 300; ++i)
        skips += R"({"v":1,"atMs":)" + std::to_string(since - 3 * 86'400'000 + i) + "}\n";
    for (int i = 0; i < 30'000; ++i) {
        // Out of order, and a torn line and one far too long in the middle.
        skips +=
            R"({"v":1,"atMs":)" + std::to_string(since + (i * 7'919) % 30'000) + R"(,"wallMs":8})" + "\n";
        if (i == 15'000)
            skips += R"({"v":1,"atMs":17)"
                     "\n" +
                     std::string(2'500'000, 'x') + "\n";
    }
    testing::writeFile(dir / "classifier-skip-energy.jsonl", skips + R"({"v":1,"atMs":)");
    testing::writeFile(dir / "coach-turn-energy.jsonl", R"({"v":1,"atMs":1700000000001})"
                                                        "\n");
    fs::create_directories(dir / "dream-energy.jsonl");

    int64_t rows = 0, sum = 0;
    const auto result = EnergyRowsReader::read(dir.path(), since, since + 29'998, [&](const EnergyRow& row) {
        ++rows;
        sum += row.atMs - since;
    });
    EXPECT_EQ(rows, 29'999);
    EXPECT_EQ(result.unreadableLines, 4) << "the torn ones, the long one and the coach row without a kind";
    EXPECT_EQ(result.unreadableFiles, std::vector<std::string>{"dream-energy.jsonl: not a regular file"});
    EXPECT_EQ(sum, 29'998LL * 29'999 / 2);
}

}  // namespace
}  // namespace aimwise
