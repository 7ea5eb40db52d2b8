#include "AimwiseCore/classifier/tick_energy_log.h"

#include "AimwiseCore/energy/battery_energy.h"
#include "AimwiseCore/events/jsonl_append.h"

namespace aimwise::ClassifierTickEnergyLog {

namespace {

EnergyMeter::Readings sampling(const Clock& clock) {
    return clock.wallMs() % skipSampleEvery == 0 ? EnergyMeter::Readings::battery
                                                 : EnergyMeter::Readings::timesOnly;
}

std::optional<bool> onACFrom(const Row& row) {
    if (!row.before || !row.after) return std::nullopt;
    const auto before = BatteryEnergy::onACFromStatus(row.before->status);
    const auto after = BatteryEnergy::onACFromStatus(row.after->status);
    return before == after ? before : std::nullopt;
}

}  // namespace

EnergyRow energyRow(const Row& row) {
    EnergyRow energy;
    energy.kind = EnergyKind::judged;
    energy.atMs = row.atMs;
    energy.startMs = row.startMs;
    energy.endMs = row.endMs;
    energy.model = row.model;
    energy.before = row.before;
    energy.after = row.after;
    energy.onAC = onACFrom(row);
    return energy;
}

JSONValue::Object encode(const Row& row) {
    return EnergyLog::encode(energyRow(row));
}

void append(const Row& row, const std::filesystem::path& to) {
    JSONLAppend::append(encode(row), to);
}

Run::Run(const std::filesystem::path& dataRoot, EnergyProbe probe, const Clock& clock)
    : dataRoot_(dataRoot),
      meter_(EnergyMeter::start(EnergyKind::skipped, dataRoot, std::move(probe), clock, sampling(clock))) {}

Run::~Run() {
    if (written_ || std::uncaught_exceptions() > uncaughtAtStart_) return;
    try {
        EnergyLog::append(meter_.measure(), dataRoot_);
    } catch (...) {
        // A skip's tally is not worth a word on the tick's output.
    }
}

EnergyRow Run::judged(const Row& row) {
    written_ = true;
    const EnergyRow times = meter_.measureTimes();
    EnergyRow energy = energyRow(row);
    energy.wallMs = times.wallMs;
    energy.cpuMs = times.cpuMs;
    energy.childCpuMs = times.childCpuMs;
    EnergyLog::append(energy, dataRoot_);
    return energy;
}

}  // namespace aimwise::ClassifierTickEnergyLog
