#include "AimwiseCore/energy/energy_meter.h"

#include <sys/resource.h>

#include "AimwiseCore/energy/battery_energy.h"
#include "AimwiseCore/energy/battery_telemetry.h"

namespace aimwise {

namespace {

int64_t milliseconds(const timeval& user, const timeval& system) {
    return (static_cast<int64_t>(user.tv_sec) + system.tv_sec) * 1000 +
           (user.tv_usec + system.tv_usec) / 1000;
}

}  // namespace

ProcessCPU ProcessCPU::read() {
    rusage self{}, children{};
    ::getrusage(RUSAGE_SELF, &self);
    ::getrusage(RUSAGE_CHILDREN, &children);
    return {milliseconds(self.ru_utime, self.ru_stime), milliseconds(children.ru_utime, children.ru_stime)};
}

EnergyProbe EnergyProbe::live() {
    return {[] { return BatteryTelemetry::read(); }, [] { return PowerSource::read().isPluggedIn; },
            [] { return ProcessCPU::read(); }};
}

EnergyMeter::EnergyMeter(EnergyKind kind, std::filesystem::path dataRoot, EnergyProbe probe,
                         const Clock& clock, Readings readings)
    : kind_(kind),
      dataRoot_(std::move(dataRoot)),
      probe_(std::move(probe)),
      clock_(clock),
      readings_(readings) {
    if (!probe_.cpu) probe_.cpu = ProcessCPU::read;
}

EnergyMeter EnergyMeter::start(EnergyKind kind, std::filesystem::path dataRoot, EnergyProbe probe,
                               const Clock& clock, Readings readings) {
    EnergyMeter meter(kind, std::move(dataRoot), std::move(probe), clock, readings);
    meter.startWallMs_ = clock.wallMs();
    meter.startMonotonicMs_ = clock.monotonicMs();
    meter.startCPU_ = meter.probe_.cpu();
    if (readings == Readings::battery) {
        if (meter.probe_.battery) meter.before_ = meter.probe_.battery();
        meter.onACBefore_ = meter.readOnAC(meter.before_);
    }
    return meter;
}

std::optional<bool> EnergyMeter::readOnAC(const std::optional<PowerSource::BatteryReading>& battery) const {
    if (probe_.onAC)
        if (const auto connected = probe_.onAC()) return connected;
    return battery ? BatteryEnergy::onACFromStatus(battery->status) : std::nullopt;
}

EnergyRow EnergyMeter::measureTimes() const {
    EnergyRow row;
    row.kind = kind_;
    const ProcessCPU cpu = probe_.cpu();
    row.wallMs = std::max<int64_t>(0, clock_.monotonicMs() - startMonotonicMs_);
    row.cpuMs = std::max<int64_t>(0, cpu.selfMs - startCPU_.selfMs);
    row.childCpuMs = std::max<int64_t>(0, cpu.childrenMs - startCPU_.childrenMs);
    row.atMs = clock_.wallMs();
    return row;
}

EnergyRow EnergyMeter::measure(const Facts& facts) const {
    EnergyRow row = measureTimes();
    if (readings_ == Readings::battery) {
        if (probe_.battery) row.after = probe_.battery();
        row.before = before_;
        const std::optional<bool> onACAfter = readOnAC(row.after);
        // A plug pulled or pushed during the run leaves it neither on battery nor on mains.
        if (onACBefore_ && onACAfter && *onACBefore_ == *onACAfter) row.onAC = onACBefore_;
        row.startMs = startWallMs_;
        row.endMs = row.atMs;
    }
    row.model = facts.model;
    if (facts.usage) {
        row.promptTokens = facts.usage->promptTokens;
        row.completionTokens = facts.usage->completionTokens;
    }
    return row;
}

EnergyRow EnergyMeter::finish(const Facts& facts) const {
    EnergyRow row = measure(facts);
    EnergyLog::append(row, dataRoot_);
    return row;
}

}  // namespace aimwise
